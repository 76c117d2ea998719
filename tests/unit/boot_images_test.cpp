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

// Sector 0 is read afresh for the repair: a change made after the load
// stays, and a sector that can no longer be read whole is never written.
// The rest of the repair is run end to end (e2e/repair_test, the fault
// matrix).
TEST(BootRepair, ReadsSectorZeroAfresh) {
  ResetRun();
  test::FakeMachine machine;
  test::FakeDrive& d = machine.AddDrive(0, 4096);
  test::PutMbrEntry(d.Sector(0), 446, {0x80, 0x07, 64, 16});
  d.SetBootSignature();
  DiskSet disks(machine, test::TestDrivers(), false);
  d.Sector(0)[441] = d.Sector(0)[446 + 16 + 4] = 0x0C;
  EXPECT_EQ(kSuccess, RepairBootCode(disks, kWin7BootImage));
  EXPECT_EQ(Bytes(kWin7BootImage, kWin7BootImage + 440), Bytes(d.Sector(0), d.Sector(0) + 440));
  EXPECT_EQ(0x0C, d.Sector(0)[441]);
  EXPECT_EQ(0x0C, d.Sector(0)[466]);
  EXPECT_EQ(2, PartitionCount(disks, kKindPrimary));  // the model follows the disk
  d.bytes.resize(300);  // the medium now ends inside sector 0
  const int writes = d.writeCalls;
  EXPECT_EQ(kReadFailed, RepairBootCode(disks, kXpBootImage));
  EXPECT_EQ(writes, d.writeCalls);
}

}  // namespace
}  // namespace dh
