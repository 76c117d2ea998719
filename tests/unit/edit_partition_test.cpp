// Flag, type, delete and sort edits of the primary MBR entries, against an
// in-memory drive: what lands in sector 0, what must never change, and the
// codes each edit leaves behind.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "edit/edit_commands.h"
#include "edit/partition_edit.h"
#include "edit/partition_sort.h"
#include "fake_machine.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::FakeDrive;

struct E {
  uint8_t boot;
  uint8_t type;
  uint32_t start;
  uint32_t count;
};

class PartitionEditTest : public ::testing::Test {
 protected:
  PartitionEditTest() : host_(&machine_) {
    ResetRun();
    Arguments().Clear();
  }

  // Drive 0 with a sector 0 whose boot code and signature are a pattern, the
  // given entries in slots 0.. (a type of 0 leaves the slot empty) and 55 AA.
  FakeDrive& MakeDisk(const std::vector<E>& slots, uint64_t sectors = 8192) {
    FakeDrive& d = machine_.AddDrive(0, sectors);
    uint8_t* s = d.Sector(0);
    for (int i = 0; i < 446; ++i) s[i] = static_cast<uint8_t>(i * 7 + 3);
    for (size_t i = 0; i < slots.size(); ++i) PutEntry(s + 446 + 16 * i, slots[i]);
    d.SetBootSignature();
    return d;
  }

  static void PutEntry(uint8_t* p, const E& e) {
    if (e.type == 0 && e.start == 0) return;
    p[0] = e.boot;
    p[1] = 0x01;
    p[2] = 0x02;
    p[3] = 0x03;
    p[4] = e.type;
    p[5] = 0x05;
    p[6] = 0x06;
    p[7] = 0x07;
    for (int i = 0; i < 4; ++i) {
      p[8 + i] = static_cast<uint8_t>(e.start >> (8 * i));
      p[12 + i] = static_cast<uint8_t>(e.count >> (8 * i));
    }
  }

  void Load(bool ignore = false) {
    before_ = machine_.devices[test::DrivePath(0)].bytes;
    disks_ = std::make_unique<DiskSet>(ignore);
    Options().ignoreErrors = ignore;
  }

  FakeDrive& drive() { return machine_.devices[test::DrivePath(0)]; }
  const uint8_t* Slot(int slot) { return drive().Sector(0) + 446 + 16 * slot; }
  uint8_t TypeAt(int slot) { return Slot(slot)[4]; }
  uint8_t BootAt(int slot) { return Slot(slot)[0]; }

  // Everything but the four entries of sector 0 is as it was.
  void ExpectOnlyTableChanged() {
    const std::vector<uint8_t>& now = drive().bytes;
    ASSERT_EQ(now.size(), before_.size());
    EXPECT_EQ(0, std::memcmp(now.data(), before_.data(), 446));
    EXPECT_EQ(0, std::memcmp(now.data() + 510, before_.data() + 510, now.size() - 510));
  }
  bool Unchanged() { return drive().bytes == before_; }

  void Run(int32_t command, int32_t part, int32_t disk = 0) {
    Options().command = command;
    Options().partNumber = part;
    Options().diskNumber = disk;
    RunEditCommand(*disks_);
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
  std::vector<uint8_t> before_;
};

TEST_F(PartitionEditTest, HideTurnsVisibleTypesIntoHiddenOnesAndRefusesTheRest) {
  MakeDisk({{0, 0x07, 63, 1000}, {0, 0x0F, 2048, 1000}, {0, 0x17, 4096, 100}, {0, 0x05, 5000, 100}});
  Load();
  EXPECT_EQ(kSuccess, SetPartitionHidden(*disks_, 1, true));
  EXPECT_EQ(0x17, TypeAt(0));
  EXPECT_EQ(kSuccess, SetPartitionHidden(*disks_, 2, true));
  EXPECT_EQ(0x1F, TypeAt(1));
  int writes = drive().writeCalls;
  EXPECT_EQ(kCannotHide, SetPartitionHidden(*disks_, 3, true));  // already hidden
  EXPECT_EQ(writes, drive().writeCalls);
  EXPECT_EQ(0x17, TypeAt(2));
  EXPECT_EQ(0x05, TypeAt(3));
  ExpectOnlyTableChanged();
  // The entry's other bytes go back untouched.
  EXPECT_EQ(0x01, Slot(0)[1]);
  EXPECT_EQ(0x07, Slot(0)[7]);
}

TEST_F(PartitionEditTest, AllPartitionLoopsReachEveryPartitionOfAnUnsortedTable) {
  // Each write sorts the records; the loops must still visit each once.
  MakeDisk({{0x80, 0x07, 4096, 100}, {0x80, 0x07, 63, 100}, {0x80, 0x0C, 2048, 100}});
  Load();
  EXPECT_EQ(kSuccess, SetAllPartitionsHidden(*disks_, true));
  EXPECT_EQ(0x17, TypeAt(0));
  EXPECT_EQ(0x17, TypeAt(1));
  EXPECT_EQ(0x1C, TypeAt(2));
  EXPECT_EQ(kSuccess, DeactivateAllPartitions(*disks_));
  EXPECT_EQ(0, BootAt(0));
  EXPECT_EQ(0, BootAt(1));
  EXPECT_EQ(0, BootAt(2));
  // In-place layout: every entry stayed in its slot.
  EXPECT_EQ(4096, Slot(0)[8] | Slot(0)[9] << 8);
  ExpectOnlyTableChanged();
}

TEST_F(PartitionEditTest, UnhideOfAVisiblePartitionWritesSectorZeroUnchanged) {
  MakeDisk({{0, 0x07, 63, 1000}, {0, 0x1F, 2048, 100}});
  Load();
  EXPECT_EQ(kSuccess, SetPartitionHidden(*disks_, 1, false));
  EXPECT_EQ(1, drive().writeCalls);
  EXPECT_TRUE(Unchanged());
  EXPECT_EQ(kSuccess, SetPartitionHidden(*disks_, 2, false));
  EXPECT_EQ(0x0F, TypeAt(1));
}

TEST_F(PartitionEditTest, ActivateUnhidesAndClearsEveryOtherBootIndicator) {
  MakeDisk({{0x81, 0x07, 63, 1000}, {0x00, 0x17, 2048, 1000}, {0x80, 0x0C, 4096, 100}});
  Load();
  EXPECT_EQ(kSuccess, SetPartitionActive(*disks_, 2, true));
  EXPECT_EQ(2, drive().writeCalls);
  EXPECT_EQ(0x00, BootAt(0));
  EXPECT_EQ(0x80, BootAt(1));
  EXPECT_EQ(0x07, TypeAt(1));
  EXPECT_EQ(0x00, BootAt(2));
  ExpectOnlyTableChanged();

  EXPECT_EQ(kSuccess, SetPartitionActive(*disks_, 2, false));
  EXPECT_EQ(0x00, BootAt(1));
}

TEST_F(PartitionEditTest, NumbersBeyondThePrimariesGive512AndWriteNothing) {
  MakeDisk({{0, 0x07, 63, 1000}, {0, 0x05, 2048, 4000}});
  // One logical partition in the extended one, so that number 3 exists.
  FakeDrive& d = drive();
  PutEntry(d.Sector(2048) + 446, {0, 0x07, 63, 500});
  d.SetBootSignature(2048);
  Load();
  ASSERT_EQ(3, PartitionCount(*disks_, kKindAll));
  EXPECT_EQ(kInvalidPartitionSelected, SetPartitionHidden(*disks_, 3, true));
  EXPECT_EQ(kInvalidPartitionSelected, SetPartitionActive(*disks_, 3, true));
  EXPECT_EQ(kInvalidPartitionSelected, ChangePartitionType(*disks_, 0, 0x0C));
  EXPECT_EQ(0, drive().writeCalls);
}

TEST_F(PartitionEditTest, DeleteClearsOnlyItsSlotAndRenumbers) {
  MakeDisk({{0, 0x07, 63, 1000}, {0, 0, 0, 0}, {0, 0x0C, 4096, 100}});
  Load();
  std::vector<uint8_t> slot2(Slot(2), Slot(2) + 16);
  Run(kCmdDelete, 1);
  EXPECT_EQ(kSuccess, State().resultCode);
  EXPECT_EQ(kCmdDelete, State().completedStep);
  EXPECT_EQ(std::vector<uint8_t>(16, 0), std::vector<uint8_t>(Slot(0), Slot(0) + 16));
  EXPECT_EQ(slot2, std::vector<uint8_t>(Slot(2), Slot(2) + 16));
  ExpectOnlyTableChanged();
  ASSERT_EQ(1, PartitionCount(*disks_, kKindPrimary));
  EXPECT_EQ(4096u, GetPartition(*disks_, 1, kKindPrimary)->startLba);
}

TEST_F(PartitionEditTest, DeletingTheExtendedEntryDropsItsLogicalsButNotTheirEbrs) {
  MakeDisk({{0, 0x07, 63, 1000}, {0, 0x0F, 2048, 4000}});
  FakeDrive& d = drive();
  PutEntry(d.Sector(2048) + 446, {0, 0x07, 63, 500});
  d.SetBootSignature(2048);
  Load();
  ASSERT_EQ(3, PartitionCount(*disks_, kKindAll));
  EXPECT_EQ(kSuccess, DeletePartition(*disks_, 2));
  EXPECT_EQ(1, PartitionCount(*disks_, kKindAll));
  ExpectOnlyTableChanged();  // the EBR at 2048 is among the bytes compared
}

TEST_F(PartitionEditTest, DeleteAllOnEveryDiskSkipsDisksWithoutATable) {
  MakeDisk({{0x80, 0x07, 63, 1000}, {0, 0x0C, 2048, 1000}});
  FakeDrive& blank = machine_.AddDrive(1, 4096);
  blank.Sector(0)[446] = 0x5A;  // not an MBR (no 55 AA): someone's data
  Load();
  std::vector<uint8_t> blankBefore = blank.bytes;
  Run(kCmdDelete, kAllPartitions, kAllDisks);
  EXPECT_EQ(kSuccess, State().resultCode);
  EXPECT_EQ(kStepDeleteAll, State().completedStep);
  EXPECT_EQ(std::vector<uint8_t>(64, 0), std::vector<uint8_t>(Slot(0), Slot(0) + 64));
  ExpectOnlyTableChanged();
  EXPECT_EQ(blankBefore, machine_.devices[test::DrivePath(1)].bytes);
  EXPECT_EQ(0, machine_.devices[test::DrivePath(1)].writeCalls);
}

TEST_F(PartitionEditTest, AFailedWriteIs505UnlessIgnored) {
  MakeDisk({{0, 0x07, 63, 1000}});
  drive().writeProtected = true;
  Load();
  Run(kCmdHide, 1);
  EXPECT_EQ(kWriteFailed, State().resultCode);
  EXPECT_TRUE(Unchanged());

  ResetRun();
  Load(true);
  Run(kCmdHide, 1);
  EXPECT_EQ(kSuccess, State().resultCode);
  EXPECT_EQ(kCmdHide, State().completedStep);
  EXPECT_TRUE(Unchanged());
}

TEST_F(PartitionEditTest, EveryWriteIsFlushed) {
  MakeDisk({{0, 0x07, 63, 1000}});
  Load();
  EXPECT_EQ(kSuccess, SetPartitionActive(*disks_, 1, true));
  EXPECT_EQ(drive().writeCalls, drive().flushCalls);
}

TEST_F(PartitionEditTest, GptDisksAreRefusedByTheMbrCommands) {
  MakeDisk({{0, 0xEE, 1, 8191}});
  Load();
  ASSERT_TRUE(disks_->isGpt);
  for (int32_t command : {kCmdHide, kCmdUnhide, kCmdActive, kCmdInactive, kCmdType, kCmdSort, kCmdIsSorted, kCmdCreate}) {
    ResetRun();
    Options().typeValue = 7;
    Run(command, 1);
    EXPECT_EQ(kNotGptDisk, State().resultCode) << command;
  }
  EXPECT_TRUE(Unchanged());
}

TEST_F(PartitionEditTest, ASuperfloppyBootRecordIsNeverWrittenAsATable) {
  FakeDrive& d = machine_.AddDrive(0, 8192, platform::kMediaRemovable);
  d.Sector(0)[0] = 0xEB;
  d.Sector(0)[1] = 0x58;
  std::memcpy(d.Sector(0) + 3, "MSDOS5.0", 8);
  for (int i = 90; i < 510; ++i) d.Sector(0)[i] = static_cast<uint8_t>(i);
  d.SetBootSignature();
  d.layoutExOk = true;
  d.layoutEx.present = true;
  d.layoutEx.partitionType = 0x0C;
  d.layoutEx.partitionLength = 8192 * 512;
  Load();
  ASSERT_EQ(1, PartitionCount(*disks_, kKindPrimary));
  for (int32_t command : {kCmdHide, kCmdActive, kCmdInactive, kCmdDelete, kCmdCreate}) {
    ResetRun();
    Run(command, 1);
    EXPECT_EQ(kRemovableNoMbr, State().resultCode) << command;
  }
  ResetRun();
  Run(kCmdDelete, kAllPartitions);
  EXPECT_EQ(kRemovableNoMbr, State().resultCode);
  EXPECT_EQ(kRemovableNoMbr, WritePartitionTable(*disks_, false));
  EXPECT_EQ(0, drive().writeCalls);
}

// Sorting.

TEST_F(PartitionEditTest, IsSortedComparesEveryRecordWithEveryLaterOne) {
  MakeDisk({{0, 0x07, 2048, 100}, {0, 0x07, 63, 100}, {0, 0x07, 4096, 100}});
  Load();
  EXPECT_FALSE(IsSorted(*disks_->partitions));
  EXPECT_EQ(0, disks_->partitions->sorted);
  Run(kCmdIsSorted, 1);
  EXPECT_EQ(0, State().sortedFlag);
  EXPECT_EQ(kCmdIsSorted, State().completedStep);
}

TEST_F(PartitionEditTest, EqualStartsAndEmptyTablesCountAsSorted) {
  MakeDisk({{0, 0x07, 63, 100}, {0, 0x0C, 63, 100}});
  Load();
  EXPECT_TRUE(IsSorted(*disks_->partitions));
  PartitionTable empty(disks_.get());
  EXPECT_TRUE(IsSorted(empty));
}

TEST_F(PartitionEditTest, SortMovesAnExtendedEntryBehindAnEarlierPrimaryWithItsChain) {
  MakeDisk({{0, 0x0F, 4096, 4000}, {0, 0x07, 63, 1000}});
  FakeDrive& d = drive();
  PutEntry(d.Sector(4096) + 446, {0, 0x07, 63, 500});
  d.SetBootSignature(4096);
  Load();
  std::vector<uint8_t> extended(Slot(0), Slot(0) + 16), primary(Slot(1), Slot(1) + 16);
  EXPECT_EQ(kSuccess, SortPartitionEntries(*disks_));
  EXPECT_EQ(primary, std::vector<uint8_t>(Slot(0), Slot(0) + 16));
  EXPECT_EQ(extended, std::vector<uint8_t>(Slot(1), Slot(1) + 16));
  ExpectOnlyTableChanged();
}

}  // namespace
}  // namespace dh
