// Backup files and sector transfers: the backup header's byte layout, what
// it takes from a disk and how readers tell header files; save, restore and
// wipe where the number of transfers and flushes can be seen (chunked writes
// that keep the outcome of one write per sector, headers that claim more or
// less than the file holds).  Compare and failing backup files
// are run end to end (e2e/sectors_test).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/run_state.h"
#include "base/le.h"
#include "base/sink.h"
#include "disk/backup_file.h"
#include "disk/disk_set.h"
#include "disk/sector_device.h"
#include "disk/write_plan.h"
#include "fake_machine.h"
#include "mbr/partition.h"
#include "sectors/save_restore.h"
#include "sectors/sector_ops.h"

namespace dh {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(BackupHeaderLayout, FieldsLandAtTheirOffsetsAndReadBack) {
  BackupHeader h;
  h.kind = kBackupRange;
  h.mbrDisk = true;
  h.removable = true;
  h.diskSectors = 0x0102030405060708ull;
  h.partitionCount = 0x1234;
  h.diskModel = "A model name of more than thirty characters";
  h.diskCount = 7;
  h.computerName = "ACOMPUTERNAMEOF20CHR";
  h.firstSector = 0x1122334455667788ull;
  h.sectorCount = 4096;
  h.sourceDisk = 3;
  h.labels = {"DATA1", "C", "", "BOOTX"};
  h.sourcePartition = 2;
  h.sourceSlot = 1;
  h.sourceType = 0x0C;
  uint8_t out[512];
  std::memset(out, 0xEE, sizeof out);
  EncodeBackupHeader(h, out);

  // Every byte no field names is zero.
  Bytes expected(512, 0);
  auto put = [&](size_t at, const std::string& text) { std::copy(text.begin(), text.end(), expected.begin() + at); };
  put(0, std::string("DDdhk\x03\x00\x02\x00\x00\x04", 11));
  expected[43] = expected[44] = 1;
  StoreLe64(expected.data() + 45, h.diskSectors);
  StoreLe16(expected.data() + 53, 0x1234);
  put(57, "A model name of more than thir");  // 30 bytes, no terminator
  StoreLe16(expected.data() + 104, 7);
  put(106, "ACOMPUTERNAMEO");  // 14 bytes and a terminator
  StoreLe64(expected.data() + 122, h.firstSector);
  StoreLe64(expected.data() + 130, 4096);
  StoreLe16(expected.data() + 138, 3);
  // Four characters per 11-byte label slot.
  put(170, "DATA");
  put(181, "C");
  put(203, "BOOT");
  put(214, "\x02\x01\x0C");
  put(510, "DD");
  EXPECT_EQ(expected, Bytes(out, out + 512));

  const BackupHeader back = DecodeBackupHeader(out);
  EXPECT_EQ(std::make_tuple(int{back.version}, int{back.sectorSize}, int{back.kind}, back.diskSectors, back.firstSector,
                            int{back.sourcePartition}),
            std::make_tuple(3, 512, int{kBackupRange}, h.diskSectors, h.firstSector, 2));
  EXPECT_EQ(back.diskModel + "|" + back.computerName, "A model name of more than thir|ACOMPUTERNAMEO");
  EXPECT_EQ((std::array<std::string, 4>{"DATA", "C", "", "BOOT"}), back.labels);
}

TEST(BackupHeaderLayout, UnterminatedTextsOfAForeignHeaderStayInTheirFields) {
  uint8_t in[512];
  std::memset(in, 'x', sizeof in);
  const BackupHeader h = DecodeBackupHeader(in);
  EXPECT_EQ(30u, h.diskModel.size());
  EXPECT_EQ(15u, h.computerName.size());
  EXPECT_EQ(4u, h.labels[2].size());
}

using BackupHeaderDiskTest = test::FakeDiskTest;

TEST_F(BackupHeaderDiskTest, GptEntriesBeyondTheFourthHaveNoSlotButMayBeTheSource) {
  std::vector<test::GptTestEntry> entries;
  for (uint64_t i = 0; i < 6; ++i) entries.push_back({test::kBasicDataType, 2048 + i * 1000, 2047 + (i + 1) * 1000});
  test::WriteGptDisk(machine.AddDrive(0, 20000), entries);
  Load();
  ASSERT_TRUE(disks->disk().isGpt());
  ASSERT_EQ(6, PartitionCount(*disks, kKindPrimary));
  const char* labels[] = {"ONE", "TWO", "THREE", "FOUR", "FIVE", "SIXTH"};
  for (int32_t n = 1; n <= 6; ++n) GetPartition(*disks, n, kKindPrimary)->volumeLabel = labels[n - 1];

  uint8_t out[512];
  FillBackupHeader(*disks, out, kBackupVbr, 2048 + 5 * 1000, 7);
  const BackupHeader h = DecodeBackupHeader(out);
  EXPECT_FALSE(h.mbrDisk);
  EXPECT_EQ(6, h.partitionCount);
  EXPECT_EQ((std::array<std::string, 4>{"ONE", "TWO", "THRE", "FOUR"}), h.labels);
  EXPECT_EQ(6, h.sourcePartition);
  EXPECT_EQ(0, h.sourceSlot);
  // Nothing of the later entries lands anywhere else in the header.
  EXPECT_EQ(Bytes(510 - 217, 0), Bytes(out + 217, out + 510));
  EXPECT_EQ(0, std::memcmp(out + 510, "DD", 2));
}

// The source is the first partition that starts at the saved sector, with
// its own slot: here partition 2 (slot 1) beside a nested 3, and 4 (slot 3).
TEST_F(BackupHeaderDiskTest, TheSourceIsTheFirstPartitionAtTheSavedSector) {
  MakeMbrDisk({{0, 0x07, 100, 50}, {0, 0x0C, 200, 50}, {0, 0x83, 200, 10}, {0, 0x0B, 300, 50}});
  Load();
  uint8_t out[512];
  for (auto [sector, partition, slotAndType] : {std::tuple{200u, 2, "\x01\x0C"}, {300u, 4, "\x03\x0B"}}) {
    FillBackupHeader(*disks, out, kBackupVbr, sector, 1);
    EXPECT_EQ(partition, DecodeBackupHeader(out).sourcePartition);
    EXPECT_EQ(0, std::memcmp(out + 215, slotAndType, 2)) << sector;
  }
}

TEST_F(BackupHeaderDiskTest, ReadersTakeOnlyAWholeSectorBeginningWithDD) {
  Bytes header(512, 0);
  header[0] = header[1] = 'D';
  header[10] = 6;
  machine.AddFile("full.bin", header);
  machine.AddFile("short.bin", Bytes(header.begin(), header.end() - 1));
  Bytes other = header;
  other[1] = 'X';
  machine.AddFile("other.bin", other);
  uint8_t buffer[512];
  EXPECT_EQ(6, ReadBackupKind(machine, "full.bin", buffer));
  for (const char* name : {"short.bin", "other.bin", "missing.bin"}) {
    EXPECT_EQ(0, ReadBackupKind(machine, name, buffer)) << name;
  }
  EXPECT_EQ(512u, GetFileSizeByName(machine, "full.bin"));
  EXPECT_EQ(0u, GetFileSizeByName(machine, "missing.bin"));

  // A device that hands over a few bytes per read still gives the header.
  machine.Find("full.bin")->readLimit = 100;
  EXPECT_EQ(6, ReadBackupKind(machine, "full.bin", buffer));
}



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
    return std::make_unique<DiskSet>(machine, test::TestDrivers(), false);
  }
};

// The plan of a command that may write anywhere on the disk.
WritePlan AnySector() {
  WritePlan plan;
  plan.Allow(0, UINT64_MAX);
  return plan;
}

TEST_F(SectorOpsTest, EveryWriteIsHeldToThePlanInForce) {
  test::FakeDrive& d = MakeDisk(256);
  const Bytes expected = d.bytes;
  const Bytes data(2 * 512, 0xAB);
  DiskSet disks(machine, test::TestDrivers(), false);
  EXPECT_EQ(kWriteFailed, WriteSectors(disks, 5, data.data(), 1));  // no plan in force
  WritePlan plan;
  plan.Allow(5, 2);
  WriteScope scope(disks, plan);
  EXPECT_EQ(kWriteFailed, WriteSectors(disks, 6, data.data(), 2));  // sector 7 is not in the plan
  d.zeroes = true;
  EXPECT_FALSE(disks.Device().ZeroRange(7 * 512, 512));  // nor is a range the device would zero itself
  d.reportedBytes = 6 * 512;  // the disk as loaded ends before the drive does
  disks.LoadDisk(true);
  EXPECT_EQ(kWriteFailed, WriteSectors(disks, 5, data.data(), 2));
  EXPECT_EQ(expected, d.bytes);
}

// A device that says it moved `claim` bytes, whatever it was asked.
struct ClaimingDevice : SectorDevice {
  uint32_t claim = 0;
  bool ReadSome(uint64_t, void*, uint32_t, uint32_t* done) override { return *done = claim, true; }
  bool WriteSome(uint64_t, const void*, uint32_t, uint32_t* done) override { return *done = claim, true; }
  bool Flush() override { return true; }
  bool SizeBytes(uint64_t* bytes) override { return *bytes = 1 << 20, true; }
};

TEST(SectorDevice, ATransferOfMoreThanAskedOrOfNothingFails) {
  ClaimingDevice device;
  uint8_t buffer[512] = {};
  bool failed = false;
  device.claim = 300;  // the second transfer claims more than the 212 bytes left
  ReadFull(device, 0, buffer, 512, &failed);
  EXPECT_TRUE(failed);
  EXPECT_FALSE(WriteFull(device, 0, buffer, 512));
  device.claim = 0;  // a write that never moves a byte ends instead of looping
  EXPECT_FALSE(WriteFull(device, 0, buffer, 512));
}

TEST_F(SectorOpsTest, WipeWritesChunksRetriesAFailedOneSectorBySectorAndStopsAtTheEnd) {
  test::FakeDrive& d = MakeDisk(6000);
  d.badSectors = {2500, 2501};
  Bytes expected = d.bytes;
  std::fill(expected.begin() + 10 * 512, expected.begin() + 2500 * 512, 0);
  std::fill(expected.begin() + 2502 * 512, expected.end(), 0);
  DiskSet disks(machine, test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  d.writeCalls = 0;
  // Far beyond the end: no write is tried there, so nothing loops.
  EXPECT_EQ(kWriteFailed, WipeArea(disks, 10, UINT64_MAX));
  EXPECT_EQ(expected, d.bytes);
  // Three chunks, one of them again as 2048 single sectors.
  EXPECT_EQ(3 + 2048, d.writeCalls);
  EXPECT_EQ(1, d.flushCalls);

  d.isDevice = false;  // no size known
  auto empty = Fresh();
  EXPECT_EQ(kWipeFailed, WipeArea(*empty, 0, 0));
}

TEST_F(SectorOpsTest, RestoreWritesMiBChunksFlushesOnceAndNeverPastTheEnd) {
  test::FakeDrive& d = MakeDisk(10000);
  const Bytes data = Sectors(0, 6144, 9);
  machine.AddFile("three.bin", data);
  DiskSet disks(machine, test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  d.writeCalls = 0;
  d.flushCalls = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(kSuccess, RestoreFromFile(disks, "three.bin", 0, -1, false, StdOut()));
  EXPECT_EQ("\n Sector Count: 6144 \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(data, Bytes(d.bytes.begin(), d.bytes.begin() + 6144 * 512));
  EXPECT_EQ(3, d.writeCalls);
  EXPECT_EQ(1, d.flushCalls);

  // A file that holds more than fits from the target on is refused before
  // anything is written.
  d.writeCalls = 0;
  EXPECT_EQ(kFileSizeMismatch, RestoreFromFile(disks, "three.bin", 4000, -1, false, StdOut()));
  EXPECT_EQ(kWriteFailed, CopySector(*Fresh(), 1, 10000));
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
  DiskSet disks(machine, test::TestDrivers(), false);
  WriteScope scope(disks, AnySector());
  EXPECT_EQ(kSuccess, RestoreFromFile(disks, "mbr.bin", 0, 1, true, StdOut()));
  EXPECT_EQ(Bytes(three.begin(), three.begin() + 512), Bytes(d.Sector(0), d.Sector(1)));
  EXPECT_EQ(Bytes(before.begin() + 512, before.end()), Bytes(d.Sector(1), d.Sector(100)));

  // A count that no byte size can hold is more than any command asks for.
  StoreLe64(file.data() + backup::kSectorCountOffset, UINT64_MAX / 256);
  machine.AddFile("huge.bin", file);
  EXPECT_EQ(kFileSizeMismatch, RestoreFromFile(*Fresh(), "huge.bin", 0, 63, false, StdOut()));
}

}  // namespace
}  // namespace dh
