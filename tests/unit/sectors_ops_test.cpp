// Save, restore and wipe against an in-memory machine, where the number of
// transfers and flushes can be seen: chunked writes that keep the outcome of
// one write per sector, short reads, and backups whose headers claim more or
// less than they hold.  Compare and the failures of backup files are run end
// to end (e2e/sectors_test).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "base/le.h"
#include "base/sink.h"
#include "disk/write_plan.h"
#include "fake_machine.h"
#include "disk/backup_file.h"
#include "sectors/save_restore.h"
#include "app/command_table.h"
#include "sectors/sector_ops.h"

namespace dh {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Sectors(uint64_t first, uint64_t count, uint8_t salt) {
  Bytes all(count * 512);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>((first * 512 + i) * 31 + salt + i / 512);
  return all;
}

class SectorOpsTest : public test::FakeDiskTest {
 protected:
  // Drive 0 full of a pattern, with one primary partition so that it loads
  // as an MBR disk.
  test::FakeDrive& MakeDisk(uint64_t sectors) {
    MakeMbrDisk({{0, 0x07, 64, 100}}, sectors);
    const Bytes pattern = Sectors(0, sectors, 1);
    std::copy(pattern.begin() + 512, pattern.end(), drive->bytes.begin() + 512);
    return *drive;
  }

  // A new run on disks loaded afresh.
  std::unique_ptr<DiskSet> Fresh() {
    ResetRun();
    return std::make_unique<DiskSet>(test::TestDrivers(), false);
  }
};

// The plan of a command that may write anywhere on the disk.
WritePlan AnySector() {
  WritePlan plan;
  plan.Allow(0, UINT64_MAX);
  return plan;
}

TEST_F(SectorOpsTest, WipeWritesChunksRetriesAFailedOneSectorBySectorAndStopsAtTheEnd) {
  test::FakeDrive& d = MakeDisk(6000);
  d.badSectors = {2500, 2501};
  Bytes expected = d.bytes;
  std::fill(expected.begin() + 10 * 512, expected.begin() + 2500 * 512, 0);
  std::fill(expected.begin() + 2502 * 512, expected.end(), 0);
  DiskSet disks(test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  d.writeCalls = 0;
  // Far beyond the end: no write is tried there, so nothing loops.
  EXPECT_EQ(kWriteFailed, WipeArea(disks, 10, UINT64_MAX));
  EXPECT_EQ(expected, d.bytes);
  // Three chunks, one of them again as 2048 single sectors.
  EXPECT_EQ(3 + 2048, d.writeCalls);
  EXPECT_EQ(1, d.flushCalls);

  auto empty = Fresh();
  empty->totalSectors = 0;
  EXPECT_EQ(kWipeFailed, WipeArea(*empty, 0, 0));
}

TEST_F(SectorOpsTest, RestoreWritesMiBChunksAndFlushesOnce) {
  test::FakeDrive& d = MakeDisk(10000);
  const Bytes data = Sectors(0, 6144, 9);
  machine.AddFile("three.bin", data);
  DiskSet disks(test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  d.writeCalls = 0;
  d.flushCalls = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(kSuccess, RestoreFromFile(disks, "three.bin", 0, -1, false, StdOut()));
  EXPECT_EQ("\n Sector Count: 6144 \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(data, Bytes(d.bytes.begin(), d.bytes.begin() + 6144 * 512));
  EXPECT_EQ(3, d.writeCalls);
  EXPECT_EQ(1, d.flushCalls);
}

TEST_F(SectorOpsTest, RestoreAndCopyNeverReachPastTheEndOfTheDisk) {
  test::FakeDrive& d = MakeDisk(5000);
  const Bytes data = Sectors(0, 3000, 4);
  machine.AddFile("big.bin", data);
  DiskSet disks(test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  // A file that holds more than fits from the target on is refused before
  // anything is written.
  const Bytes before = d.bytes;
  EXPECT_EQ(kFileSizeMismatch, RestoreFromFile(disks, "big.bin", 4000, -1, false, StdOut()));
  EXPECT_EQ(before, d.bytes);

  d.writeCalls = 0;
  EXPECT_EQ(kWriteFailed, CopySector(*Fresh(), 1, 5000));
  EXPECT_EQ(0, d.writeCalls);
}

TEST_F(SectorOpsTest, RestoreTakesNoMoreThanTheHeaderDeclares) {
  test::FakeDrive& d = MakeDisk(100);
  Bytes file(512, 0);
  file[0] = file[1] = 'D';
  file[10] = kBackupMbr;
  StoreLe64(file.data() + backup::kSectorCountOffset, 1);
  Bytes three = Sectors(0, 3, 5);
  three[510] = 0x55;
  three[511] = 0xAA;
  file.insert(file.end(), three.begin(), three.end());
  machine.AddFile("mbr.bin", file);
  const Bytes before = d.bytes;
  DiskSet disks(test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  EXPECT_EQ(kSuccess, RestoreFromFile(disks, "mbr.bin", 0, 1, true, StdOut()));
  EXPECT_EQ(Bytes(three.begin(), three.begin() + 512), Bytes(d.Sector(0), d.Sector(1)));
  EXPECT_EQ(Bytes(before.begin() + 512, before.end()), Bytes(d.Sector(1), d.Sector(100)));

  // A count that no byte size can hold is more than any command asks for.
  StoreLe64(file.data() + backup::kSectorCountOffset, UINT64_MAX / 256);
  machine.AddFile("huge.bin", file);
  EXPECT_EQ(kFileSizeMismatch, RestoreFromFile(*Fresh(), "huge.bin", 0, 63, false, StdOut()));
}

TEST_F(SectorOpsTest, SaveRangeCopesWithShortReads) {
  test::FakeDrive& d = MakeDisk(14000);
  d.readLimit = 1000;  // not even whole sectors per read
  DiskSet disks(test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  EXPECT_EQ(kSuccess, SaveRangeToFile(disks, "quiet.bin", 100, 13000, kBackupRaw, StdOut()));
  EXPECT_EQ(Bytes(d.Sector(100), d.Sector(13100)), machine.Find("quiet.bin")->bytes);

  testing::internal::CaptureStdout();
  EXPECT_EQ(kSuccess, SaveRangeToFile(disks, "long.bin", 0, 13001, kBackupDisk, StdOut()));
  testing::internal::GetCapturedStdout();
  const Bytes& file = machine.Find("long.bin")->bytes;
  ASSERT_EQ((1 + 13001u) * 512, file.size());
  EXPECT_EQ(Bytes(d.Sector(0), d.Sector(13001)), Bytes(file.begin() + 512, file.end()));
}

}  // namespace
}  // namespace dh
