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
#include <memory>
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

class BootRepairTest : public ::testing::Test {
 protected:
  BootRepairTest() : host_(&machine_) { ResetRun(); }

  // Drive 0: boot code that is a pattern (damaged code), signature
  // DE AD BE EF, four entries of patterned bytes (two active) and 55 AA.
  test::FakeDrive& MakeDisk(bool bootSignature = true) {
    test::FakeDrive& d = machine_.AddDrive(0, 4096);
    for (int i = 0; i < 510; ++i) d.Sector(0)[i] = static_cast<uint8_t>(i * 13 + 5);
    const uint8_t signature[] = {0xDE, 0xAD, 0xBE, 0xEF};
    std::memcpy(d.Sector(0) + 440, signature, 4);
    for (int slot = 0; slot < 4; ++slot) {
      uint8_t* e = d.Sector(0) + 446 + 16 * slot;
      e[0] = slot % 2 == 0 ? 0x80 : 0x00;
      e[4] = static_cast<uint8_t>(0x07 + slot);
      e[8] = static_cast<uint8_t>(0x40 + slot);  // start LBA 64.., inside the disk
      e[12] = 0x10;
      e[13] = e[14] = e[15] = e[9] = e[10] = e[11] = 0;
    }
    d.Sector(0)[510] = bootSignature ? 0x55 : 0x12;
    d.Sector(0)[511] = bootSignature ? 0xAA : 0x34;
    return d;
  }

  void Load(bool ignore = false) {
    disks_ = std::make_unique<DiskSet>(test::TestDrivers(), ignore);
    before_ = drive().bytes;
  }

  test::FakeDrive& drive() { return machine_.devices[test::DrivePath(0)]; }
  Bytes Range(size_t from, size_t to) { return Bytes(drive().Sector(0) + from, drive().Sector(0) + to); }
  Bytes BeforeRange(size_t from, size_t to) { return Bytes(before_.begin() + from, before_.begin() + to); }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
  Bytes before_;
};

TEST_F(BootRepairTest, ReplacesOnlyTheCodeAndKeepsTableAndSignature) {
  for (const ImageCase& c : kImages) {
    SCOPED_TRACE(c.name);
    disks_.reset();
    machine_.devices.clear();
    MakeDisk();
    Load();
    const int writes = drive().writeCalls;
    EXPECT_EQ(kSuccess, RepairBootCode(*disks_, c.image));
    EXPECT_EQ(writes + 1, drive().writeCalls);
    EXPECT_EQ(drive().writeCalls, drive().flushCalls);
    EXPECT_EQ(Bytes(c.image, c.image + 440), Range(0, 440));
    EXPECT_EQ(Bytes({0xDE, 0xAD, 0xBE, 0xEF, 0, 0}), Range(440, 446));
    EXPECT_EQ(BeforeRange(446, 512), Range(446, 512));  // entries, active flags, 55 AA
    // Only sector 0 was touched.
    EXPECT_TRUE(std::equal(before_.begin() + 512, before_.end(), drive().bytes.begin() + 512));
    EXPECT_EQ(0, std::memcmp(disks_->sector0, drive().Sector(0), 512));

    // A new load sees a standard MBR with the same partitions.
    DiskSet again(test::TestDrivers(), false);
    EXPECT_EQ("MBR", again.diskKindText);
    EXPECT_EQ(4, PartitionCount(again, kKindPrimary));
  }
}

TEST_F(BootRepairTest, ReadsSectorZeroAfreshRatherThanTrustingTheLoadedCopy) {
  MakeDisk();
  Load();
  // Someone else changed the table after the disk was loaded.
  drive().Sector(0)[446 + 4] = 0x0C;
  drive().Sector(0)[441] = 0x77;
  EXPECT_EQ(kSuccess, RepairBootCode(*disks_, kWin7BootImage));
  EXPECT_EQ(0x0C, drive().Sector(0)[446 + 4]);
  EXPECT_EQ(0x77, drive().Sector(0)[441]);
  EXPECT_EQ(0x77, disks_->savedSignature[1]);
  EXPECT_EQ(0x0C, GetPartition(*disks_, 1, kKindPrimary)->type);
}

TEST_F(BootRepairTest, ASectorWithout55AAGetsAZeroSignatureAnd55AA) {
  MakeDisk(false);
  Load();
  ASSERT_EQ("None", disks_->diskKindText);
  EXPECT_EQ(kSuccess, RepairBootCode(*disks_, kXpBootImage));
  EXPECT_EQ(Bytes(6, 0), Range(440, 446));
  EXPECT_EQ(Bytes({0x55, 0xAA}), Range(510, 512));
  EXPECT_EQ(BeforeRange(446, 510), Range(446, 510));
  EXPECT_EQ(Bytes(4, 0), Bytes(disks_->savedSignature, disks_->savedSignature + 4));

  DiskSet again(test::TestDrivers(), false);
  EXPECT_EQ("MBR", again.diskKindText);
  EXPECT_EQ(4, PartitionCount(again, kKindPrimary));
}

TEST_F(BootRepairTest, SectorZeroThatCannotBeReadWholeIsNeverWritten) {
  struct Case {
    const char* name;
    bool ignore;
    bool shortRead;
    ResultCode expected;
  };
  for (const Case& c : {Case{"unreadable", false, false, kReadFailed}, Case{"unreadable, ignore", true, false, kSuccess},
                        Case{"short read", false, true, kReadFailed}}) {
    SCOPED_TRACE(c.name);
    disks_.reset();
    machine_.devices.clear();
    MakeDisk();
    Load(c.ignore);
    // The disk loaded fine, then went bad.
    // A short read: the medium now ends inside sector 0.
    if (c.shortRead) {
      drive().bytes.resize(300);
    } else {
      drive().badSectors.insert(0);
    }
    EXPECT_EQ(c.expected, RepairBootCode(*disks_, kXpBootImage));
    EXPECT_EQ(c.expected, disks_->firstError);
    EXPECT_EQ(0, drive().writeCalls);
    if (!c.shortRead) {
      EXPECT_EQ(before_, drive().bytes);
    }
  }
}

TEST_F(BootRepairTest, AFailedWriteIs505AndChangesNothing) {
  MakeDisk();
  drive().writeProtected = true;
  Load();
  EXPECT_EQ(kWriteFailed, RepairBootCode(*disks_, kWin7BootImage));
  EXPECT_EQ(kWriteFailed, disks_->firstError);
  EXPECT_EQ(before_, drive().bytes);
}

}  // namespace
}  // namespace dh
