// repair= through the program: our boot programs go into bytes 0..439, the
// signature, table and 55 AA stay, and the refusals write nothing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"
#include "mbr/boot_images.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Repair, WritesOurBootProgramsAndKeepsTheTable) {
  e2e::Machine machine;
  e2e::Image& disk = machine.AddDrive(0, 8192);
  Bytes sector0 = e2e::Mbr({e2e::Entry(0x80, 0x07, 2048, 4096), e2e::Entry(0, 0x0C, 6144, 2048)}, 0xAC67AC67);
  for (size_t i = 0; i < 440; ++i) sector0[i] = 0xEE;  // damaged boot code
  sector0[444] = 0x12;
  disk.Write(0, sector0);
  disk.Write(1, Bytes(512, 0x5A));

  const struct {
    const char* kind;
    const uint8_t* image;
  } programs[] = {{"/repair=XP", dh::kXpBootImage}, {"/repair=Win7", dh::kWin7BootImage}};
  for (const auto& p : programs) {
    e2e::Result r = machine.Run({p.kind, "/confirm", "/result"});
    EXPECT_EQ(0, e2e::ResultOf(r)) << r.out;
    EXPECT_TRUE(e2e::Has(r, " MBR successfully repaired \n")) << r.out;
    const Bytes after = disk.Read(0);
    EXPECT_EQ(Bytes(p.image, p.image + 440), Bytes(after.begin(), after.begin() + 440)) << p.kind;
    EXPECT_EQ(Bytes(sector0.begin() + 440, sector0.begin() + 444), Bytes(after.begin() + 440, after.begin() + 444));
    EXPECT_EQ(0, after[444]);
    EXPECT_EQ(0, after[445]);
    EXPECT_EQ(Bytes(sector0.begin() + 446, sector0.end()), Bytes(after.begin() + 446, after.end()));
    EXPECT_EQ(Bytes(512, 0x5A), disk.Read(1));
    EXPECT_TRUE(e2e::Has(machine.Run({"/list", "/text"}), "MBR/GPT:         MBR "));
  }

  // The question names the kind and the disk; "pt" asks nothing and
  // writes nothing; other kinds are refused with nothing written.
  e2e::Result asked = machine.Run({"/repair=Win7"}, "n");
  EXPECT_TRUE(e2e::Has(asked, "Preparing to create a Windows Win7 MBR on disk 0, are you sure? (Y/N): n")) << asked.out;
  const std::string before = disk.Hash();
  e2e::Result pt = machine.Run({"/repair=pt", "/result"});
  EXPECT_EQ(0, e2e::ResultOf(pt));
  EXPECT_TRUE(e2e::Has(pt, " MBR successfully repaired \n"));
  e2e::Result foo = machine.Run({"/repair=foo", "/confirm", "/result"});
  EXPECT_EQ(117, e2e::ResultOf(foo));
  EXPECT_TRUE(e2e::Has(foo, " Error 117: Invalid Parameter: foo\n")) << foo.out;
  EXPECT_EQ(before, disk.Hash());
}

TEST(Repair, AnUnreadableSectorZeroIsNeverRewritten) {
  e2e::Machine machine;
  e2e::Image& disk = machine.AddDrive(0, 4096, {{"badsectors", "0"}});
  const std::string before = disk.Hash();
  e2e::Result r = machine.Run({"/repair=XP", "/confirm", "/result"});
  EXPECT_EQ(506, e2e::ResultOf(r)) << r.out;
  EXPECT_EQ(before, disk.Hash());
}

TEST(Repair, ADiskWithout55AAGetsAZeroSignature) {
  e2e::Machine machine;
  e2e::Image& disk = machine.AddDrive(0, 4096);
  Bytes sector0(512, 0);
  sector0[440] = 0x11;  // no 55 AA: not a signature
  disk.Write(0, sector0);
  EXPECT_EQ(0, e2e::ResultOf(machine.Run({"/repair=XP", "/confirm", "/result"})));
  const Bytes after = disk.Read(0);
  EXPECT_EQ(Bytes(4, 0), Bytes(after.begin() + 440, after.begin() + 444));
  EXPECT_EQ(0x55, after[510]);
  EXPECT_EQ(0xAA, after[511]);
}

}  // namespace
