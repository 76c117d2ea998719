// The two boot program images (their fixed shape, and that the committed
// bytes are what their sources assemble to) and the boot code repair on an
// in-memory drive.  Whether the programs actually boot is e2e/boot_qemu_test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "app/run_state.h"
#include "disk/disk_set.h"
#include "fake_machine.h"
#include "mbr/boot_images.h"
#include "mbr/boot_repair.h"

namespace dh {
namespace {

using Bytes = std::vector<uint8_t>;

struct ImageCase {
  const char* name;
  const uint8_t* image;
  const char* source;  // relative to the repository
};

const ImageCase kImages[] = {
    {"XP", kXpBootImage, "src/mbr/boot/xp_mbr.asm"},
    {"Win7", kWin7BootImage, "src/mbr/boot/win7_mbr.asm"},
};

bool Contains(const uint8_t* bytes, size_t size, const std::string& text) {
  return std::search(bytes, bytes + size, text.begin(), text.end()) != bytes + size;
}

TEST(BootImagesTest, EachImageHasTheShapeOfAStandardBootProgram) {
  for (const ImageCase& c : kImages) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(0x33, c.image[0]);
    EXPECT_EQ(0xC0, c.image[1]);
    // The messages lie within the code area, each ended for the printer.
    for (const char* message : {"Invalid partition table", "Error loading operating system",
                                "Missing operating system"}) {
      EXPECT_TRUE(Contains(c.image, kBootCodeSize, std::string(message) + '\0')) << message;
    }
    EXPECT_EQ(Bytes(kBootImageSize - kBootCodeSize, 0), Bytes(c.image + kBootCodeSize, c.image + kBootImageSize));
  }
  EXPECT_NE(0, std::memcmp(kXpBootImage, kWin7BootImage, kBootImageSize));
}

#ifndef _WIN32
// The bytes cannot drift from their sources: with nasm at hand, each source
// assembles to exactly the committed image.
TEST(BootImagesTest, CommittedBytesAreWhatTheSourcesAssembleTo) {
  if (std::system("nasm -v >/dev/null 2>&1") != 0) GTEST_SKIP() << "nasm is not installed";
  const std::filesystem::path root = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
  const std::filesystem::path out = std::filesystem::temp_directory_path() / "diskhold_boot_image.bin";
  for (const ImageCase& c : kImages) {
    SCOPED_TRACE(c.name);
    const std::filesystem::path source = root / c.source;
    ASSERT_TRUE(std::filesystem::exists(source)) << source;
    std::filesystem::remove(out);
    const std::string command = "nasm -f bin -o '" + out.string() + "' '" + source.string() + "'";
    ASSERT_EQ(0, std::system(command.c_str()));
    std::ifstream in(out, std::ios::binary);
    const Bytes assembled((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(Bytes(c.image, c.image + kBootImageSize), assembled)
        << "run tools/gen_boot_images.sh and commit src/mbr/boot_images.cpp";
  }
  std::filesystem::remove(out);
}
#endif

// The boot code repair on drive 0, whose sector 0 holds patterned (damaged)
// code, the signature DE AD BE EF, four patterned entries and 55 AA: only
// bytes 0..439 change, and a sector 0 that cannot be read whole is never
// written.
TEST(BootRepair, ReplacesOnlyTheCode) {
  enum Damage { kNone, kNoMarker, kUnreadable, kShortRead, kWriteProtected };
  const struct {
    Damage damage;
    bool ignore;
    ResultCode code;
  } cases[] = {{kNone, false, kSuccess},         {kNoMarker, false, kSuccess},     {kUnreadable, false, kReadFailed},
               {kUnreadable, true, kSuccess},    {kShortRead, false, kReadFailed}, {kWriteProtected, false, kWriteFailed}};
  for (const auto& c : cases) {
    for (const ImageCase& image : kImages) {
      SCOPED_TRACE(std::string(image.name) + " damage " + std::to_string(c.damage));
      ResetRun();
      test::FakeMachine machine;
      test::ScopedHost host(&machine);
      test::FakeDrive& d = machine.AddDrive(0, 4096);
      for (int i = 0; i < 510; ++i) d.Sector(0)[i] = static_cast<uint8_t>(i * 13 + 5);
      const uint8_t signature[] = {0xDE, 0xAD, 0xBE, 0xEF};
      std::memcpy(d.Sector(0) + 440, signature, 4);
      for (int slot = 0; slot < 4; ++slot) {
        test::PutMbrEntry(d.Sector(0), 446 + 16 * slot, {uint8_t(slot % 2 ? 0 : 0x80), uint8_t(7 + slot), 64u + slot, 16});
      }
      if (c.damage != kNoMarker) d.SetBootSignature();
      d.writeProtected = c.damage == kWriteProtected;
      DiskSet disks(test::TestDrivers(), c.ignore);
      // Changed after the load: sector 0 is read afresh, not trusted from memory.
      if (c.damage == kNone) d.Sector(0)[441] = d.Sector(0)[450] = 0x0C;
      const Bytes before = d.bytes;
      // The disk loaded fine, then went bad.
      if (c.damage == kUnreadable) d.badSectors.insert(0);
      if (c.damage == kShortRead) d.bytes.resize(300);
      EXPECT_EQ(c.code, RepairBootCode(disks, image.image));
      EXPECT_EQ(c.code, disks.firstError);
      if (c.code != kSuccess || c.damage == kUnreadable) {
        if (c.damage != kShortRead) {
          EXPECT_EQ(before, d.bytes);
        }
        EXPECT_EQ(c.damage == kWriteProtected, d.writeCalls > 0);
        continue;
      }
      EXPECT_EQ(1, d.writeCalls);
      EXPECT_EQ(1, d.flushCalls);
      EXPECT_EQ(Bytes(image.image, image.image + 440), Bytes(d.Sector(0), d.Sector(0) + 440));
      // Without 55 AA the signature becomes zero and the marker is added.
      Bytes kept(before.begin() + 440, before.begin() + 444);
      if (c.damage == kNoMarker) kept = Bytes(4, 0);
      EXPECT_EQ(kept, Bytes(d.Sector(0) + 440, d.Sector(0) + 444));
      EXPECT_EQ(Bytes(2, 0), Bytes(d.Sector(0) + 444, d.Sector(0) + 446));
      EXPECT_EQ(Bytes(before.begin() + 446, before.begin() + 510), Bytes(d.Sector(0) + 446, d.Sector(0) + 510));
      EXPECT_EQ(Bytes({0x55, 0xAA}), Bytes(d.Sector(0) + 510, d.Sector(0) + 512));
      EXPECT_TRUE(std::equal(before.begin() + 512, before.end(), d.bytes.begin() + 512));
      DiskSet again(test::TestDrivers(), false);
      EXPECT_EQ(4, PartitionCount(again, kKindPrimary));
    }
  }
}

}  // namespace
}  // namespace dh
