// Flag, type, delete and sort edits of the primary MBR entries, against an
// in-memory drive: the writes and flushes each edit makes, what must never
// change, and the codes each edit leaves behind.  The entries' bytes after
// each command are compared end to end (e2e/edit_test).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "app/command_table.h"
#include "edit/partition_edit.h"
#include "edit/partition_sort.h"
#include "fake_machine.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::FakeDrive;
using Bytes = std::vector<uint8_t>;

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
  }

  // Drive 0 with a sector 0 whose boot code is a pattern, the given entries
  // in slots 0.. (a type of 0 leaves the slot empty) and 55 AA.
  FakeDrive& MakeDisk(const std::vector<E>& slots) {
    FakeDrive& d = machine_.AddDrive(0, 8192);
    for (int i = 0; i < 446; ++i) d.Sector(0)[i] = static_cast<uint8_t>(i * 7 + 3);
    for (size_t i = 0; i < slots.size(); ++i) PutEntry(d.Sector(0) + 446 + 16 * i, slots[i]);
    d.SetBootSignature();
    return d;
  }

  // Entry bytes other than the boot flag, type and LBAs are a pattern.
  static void PutEntry(uint8_t* p, const E& e) {
    if (e.type == 0 && e.start == 0) return;
    for (uint8_t i = 0; i < 8; ++i) p[i] = i;
    p[0] = e.boot;
    p[4] = e.type;
    for (int i = 0; i < 4; ++i) {
      p[8 + i] = static_cast<uint8_t>(e.start >> (8 * i));
      p[12 + i] = static_cast<uint8_t>(e.count >> (8 * i));
    }
  }

  // A logical partition in the extended one at `ebr`.
  void AddLogical(uint32_t ebr) {
    PutEntry(drive().Sector(ebr) + 446, {0, 0x07, 63, 500});
    drive().SetBootSignature(ebr);
  }

  void Load(bool ignore = false) {
    before_ = drive().bytes;
    disks_ = std::make_unique<DiskSet>(test::TestDrivers(), ignore);
    Options().ignoreErrors = ignore;
  }

  FakeDrive& drive() { return machine_.devices[test::DrivePath(0)]; }
  Bytes Slot(int slot) { return Bytes(drive().Sector(0) + 446 + 16 * slot, drive().Sector(0) + 462 + 16 * slot); }
  uint8_t TypeAt(int slot) { return Slot(slot)[4]; }
  uint8_t BootAt(int slot) { return Slot(slot)[0]; }

  // Everything but the four entries of sector 0 is as it was.
  void ExpectOnlyTableChanged() {
    const Bytes& now = drive().bytes;
    ASSERT_EQ(now.size(), before_.size());
    EXPECT_EQ(0, std::memcmp(now.data(), before_.data(), 446));
    EXPECT_EQ(0, std::memcmp(now.data() + 510, before_.data() + 510, now.size() - 510));
  }
  bool Unchanged() { return drive().bytes == before_; }

  void Run(int32_t command, int32_t part, int32_t disk = 0) {
    ResetRun();
    Options().command = command;
    Options().partNumber = part;
    Options().diskNumber = disk;
    test::RunHandler(*disks_);
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
  Bytes before_;
};

TEST_F(PartitionEditTest, HideUnhideAndActivateWriteAndFlushOnlyWhatTheyMust) {
  MakeDisk({{0x81, 0x07, 63, 1000}, {0x80, 0x1F, 2048, 100}, {0, 0x17, 4096, 100}, {0, 0x05, 5000, 100}});
  Load();
  // Unhiding a visible partition still writes sector 0, unchanged.
  EXPECT_EQ(kSuccess, SetPartitionHidden(*disks_, 1, false));
  EXPECT_EQ(1, drive().writeCalls);
  EXPECT_TRUE(Unchanged());
  // Active unhides and clears every other boot indicator: two writes.
  EXPECT_EQ(kSuccess, SetPartitionActive(*disks_, 3, true));
  EXPECT_EQ(3, drive().writeCalls);
  EXPECT_EQ(drive().writeCalls, drive().flushCalls);
  EXPECT_EQ(Bytes({0x00, 0x00, 0x80, 0x00}), Bytes({BootAt(0), BootAt(1), BootAt(2), BootAt(3)}));
  EXPECT_EQ(Bytes({0x07, 0x1F, 0x07, 0x05}), Bytes({TypeAt(0), TypeAt(1), TypeAt(2), TypeAt(3)}));
  EXPECT_EQ(Bytes({0x00, 0x01, 0x02, 0x03, 0x07, 0x05, 0x06, 0x07, 63, 0, 0, 0, 0xE8, 0x03, 0, 0}), Slot(0));
  ExpectOnlyTableChanged();

  // Already hidden and extended types are refused without a write.
  EXPECT_EQ(kCannotHide, SetPartitionHidden(*disks_, 2, true));
  EXPECT_EQ(kCannotHide, SetPartitionHidden(*disks_, 4, true));
  EXPECT_EQ(3, drive().writeCalls);
}

TEST_F(PartitionEditTest, AllPartitionLoopsReachEveryPartitionOfAnUnsortedTable) {
  // Each write sorts the records; the loops must still visit each once.
  MakeDisk({{0x80, 0x07, 4096, 100}, {0x80, 0x07, 63, 100}, {0x80, 0x0C, 2048, 100}});
  Load();
  EXPECT_EQ(kSuccess, SetAllPartitionsHidden(*disks_, true));
  EXPECT_EQ(Bytes({0x17, 0x17, 0x1C}), Bytes({TypeAt(0), TypeAt(1), TypeAt(2)}));
  EXPECT_EQ(kSuccess, DeactivateAllPartitions(*disks_));
  EXPECT_EQ(Bytes({0, 0, 0}), Bytes({BootAt(0), BootAt(1), BootAt(2)}));
  // In-place layout: every entry stayed in its slot.
  EXPECT_EQ(4096, Slot(0)[8] | Slot(0)[9] << 8);
  ExpectOnlyTableChanged();
}

TEST_F(PartitionEditTest, NumbersBeyondThePrimariesGive512AndWriteNothing) {
  MakeDisk({{0, 0x07, 63, 1000}, {0, 0x05, 2048, 4000}});
  AddLogical(2048);  // so that number 3 exists
  Load();
  ASSERT_EQ(3, PartitionCount(*disks_, kKindAll));
  EXPECT_EQ(kInvalidPartitionSelected, SetPartitionHidden(*disks_, 3, true));
  EXPECT_EQ(kInvalidPartitionSelected, SetPartitionActive(*disks_, 3, true));
  EXPECT_EQ(kInvalidPartitionSelected, ChangePartitionType(*disks_, 0, 0x0C));
  EXPECT_EQ(0, drive().writeCalls);
}

TEST_F(PartitionEditTest, DeleteAllOnEveryDiskSkipsDisksWithoutATable) {
  MakeDisk({{0x80, 0x07, 63, 1000}, {0, 0x0C, 2048, 1000}});
  FakeDrive& blank = machine_.AddDrive(1, 4096);
  blank.Sector(0)[446] = 0x5A;  // not an MBR (no 55 AA): someone's data
  const Bytes blankBefore = blank.bytes;
  Load();
  Run(kCmdDelete, kAllPartitions, kAllDisks);
  EXPECT_EQ(kSuccess, State().resultCode);
  EXPECT_EQ(kStepDeleteAll, State().completedStep);
  for (int slot = 0; slot < 4; ++slot) EXPECT_EQ(Bytes(16, 0), Slot(slot));
  ExpectOnlyTableChanged();
  EXPECT_EQ(blankBefore, blank.bytes);
  EXPECT_EQ(0, blank.writeCalls);
}

TEST_F(PartitionEditTest, AFailedWriteIs505UnlessIgnored) {
  MakeDisk({{0, 0x07, 63, 1000}});
  drive().writeProtected = true;
  Load();
  Run(kCmdHide, 1);
  EXPECT_EQ(kWriteFailed, State().resultCode);
  EXPECT_TRUE(Unchanged());

  Load(true);
  Run(kCmdHide, 1);
  EXPECT_EQ(kSuccess, State().resultCode);
  EXPECT_EQ(kCmdHide, State().completedStep);
  EXPECT_TRUE(Unchanged());
}

TEST_F(PartitionEditTest, GptDisksAndSuperfloppiesAreNeverWrittenAsATable) {
  MakeDisk({{0, 0xEE, 1, 8191}});
  Load();
  ASSERT_TRUE(disks_->isGpt);
  for (int32_t command : {kCmdHide, kCmdUnhide, kCmdActive, kCmdInactive, kCmdType, kCmdSort, kCmdIsSorted, kCmdCreate}) {
    Options().typeValue = 7;
    Run(command, 1);
    EXPECT_EQ(kNotGptDisk, State().resultCode) << command;
  }
  EXPECT_TRUE(Unchanged());

  FakeDrive& d = machine_.AddDrive(0, 8192, platform::kMediaRemovable);
  for (int i = 0; i < 510; ++i) d.Sector(0)[i] = static_cast<uint8_t>(i);
  std::memcpy(d.Sector(0), "\xEB\x58\x90MSDOS5.0", 11);
  d.SetBootSignature();
  d.layoutExOk = true;
  d.layoutEx.present = true;
  d.layoutEx.partitionType = 0x0C;
  d.layoutEx.partitionLength = 8192 * 512;
  Load();
  ASSERT_EQ(1, PartitionCount(*disks_, kKindPrimary));
  for (int32_t part : {1, kAllPartitions}) {
    for (int32_t command : {kCmdHide, kCmdActive, kCmdInactive, kCmdDelete, kCmdCreate}) {
      if (part == kAllPartitions && command != kCmdDelete) continue;
      Run(command, part);
      EXPECT_EQ(kRemovableNoMbr, State().resultCode) << command << " " << part;
    }
  }
  EXPECT_EQ(kRemovableNoMbr, WritePartitionTable(*disks_, false));
  EXPECT_EQ(0, drive().writeCalls);
}

TEST_F(PartitionEditTest, IsSortedComparesEveryRecordWithEveryLaterOne) {
  MakeDisk({{0, 0x07, 2048, 100}, {0, 0x07, 63, 100}, {0, 0x07, 4096, 100}});
  Load();
  EXPECT_FALSE(IsSorted(*MbrTable(*disks_)));
  Run(kCmdIsSorted, 1);
  EXPECT_EQ(0, State().sortedFlag);
  // Equal starts and empty tables count as sorted.
  MakeDisk({{0, 0x07, 63, 100}, {0, 0x0C, 63, 100}});
  Load();
  EXPECT_TRUE(IsSorted(*MbrTable(*disks_)));
  PartitionTable empty(disks_.get());
  EXPECT_TRUE(IsSorted(empty));
}

TEST_F(PartitionEditTest, SortMovesAnExtendedEntryBehindAnEarlierPrimaryWithItsChain) {
  MakeDisk({{0, 0x0F, 4096, 4000}, {0, 0x07, 63, 1000}});
  AddLogical(4096);
  Load();
  const Bytes extended = Slot(0), primary = Slot(1);
  EXPECT_EQ(kSuccess, SortPartitionEntries(*disks_));
  EXPECT_EQ(primary, Slot(0));
  EXPECT_EQ(extended, Slot(1));
  ExpectOnlyTableChanged();  // the EBR at 4096 is among the bytes compared
}

}  // namespace
}  // namespace dh
