// Flag and sort edits of the primary MBR entries against an in-memory
// drive: the writes and flushes each edit makes and the codes a failed
// write leaves.  The entries' bytes after each command, the refusals and
// the superfloppy and GPT rules are checked end to end (e2e/edit_test).
#include <gtest/gtest.h>

#include <vector>

#include "app/command_table.h"
#include "app/run_state.h"
#include "edit/partition_edit.h"
#include "edit/partition_sort.h"
#include "fake_machine.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::MbrEntry;

class PartitionEditTest : public test::FakeDiskTest {
 protected:
  void Run(int32_t command, int32_t part) {
    ResetRun();
    Options().command = command;
    Options().partNumber = part;
    test::RunHandler(*disks);
  }
};

TEST_F(PartitionEditTest, EditsWriteAndFlushOnlyWhatTheyMust) {
  MakeMbrDisk({{0x81, 0x07, 63, 1000}, {0x80, 0x1F, 2048, 100}, {0, 0x17, 4096, 100}, {0, 0x05, 5000, 100}});
  Load();
  // Unhiding a visible partition still writes sector 0, unchanged.
  EXPECT_EQ(kSuccess, SetPartitionHidden(*disks, 1, false));
  EXPECT_EQ(1, drive->writeCalls);
  EXPECT_EQ(before, drive->bytes);
  // Active unhides and clears every other boot indicator: two writes, each
  // flushed, of the entries alone.
  EXPECT_EQ(kSuccess, SetPartitionActive(*disks, 3, true));
  EXPECT_EQ(3, drive->writeCalls);
  EXPECT_EQ(drive->writeCalls, drive->flushCalls);
  EXPECT_EQ(std::vector<uint8_t>({0x00, 1, 2, 3, 0x07, 5, 6, 7, 63, 0, 0, 0, 0xE8, 0x03, 0, 0}), Slot(0));
  EXPECT_EQ(0x07, Slot(2)[4]);  // made visible as it was activated
  ExpectOnlyTableChanged();
  // Refusals write nothing at all.
  EXPECT_EQ(kCannotHide, SetPartitionHidden(*disks, 2, true));
  EXPECT_EQ(kCannotHide, SetPartitionHidden(*disks, 4, true));
  EXPECT_EQ(3, drive->writeCalls);
}

// The simulated machine cannot refuse a write it lets a drive open for.
TEST_F(PartitionEditTest, AFailedWriteIs505UnlessIgnored) {
  MakeMbrDisk({{0, 0x07, 63, 1000}}).writeProtected = true;
  for (bool ignore : {false, true}) {
    Load(ignore);
    Run(kCmdHide, 1);
    EXPECT_EQ(ignore ? kSuccess : kWriteFailed, State().resultCode);
    EXPECT_EQ(before, drive->bytes);
    EXPECT_EQ(0, drive->updatePropertiesCalls);
  }
}

TEST_F(PartitionEditTest, IsSortedComparesEveryRecordWithEveryLaterOne) {
  const std::pair<std::vector<MbrEntry>, bool> cases[] = {
      {{{0, 0x07, 2048, 100}, {0, 0x07, 63, 100}, {0, 0x07, 4096, 100}}, false},
      {{{0, 0x07, 63, 100}, {0, 0x07, 4096, 100}, {0, 0x07, 2048, 100}}, false},
      {{{0, 0x07, 63, 100}, {0, 0x0C, 63, 100}}, true},  // equal starts
      {{}, true},
  };
  for (const auto& [slots, sorted] : cases) {
    MakeMbrDisk(slots);
    Load();
    EXPECT_EQ(sorted, IsSorted(*MbrTable(*disks))) << slots.size();
  }
}

}  // namespace
}  // namespace dh
