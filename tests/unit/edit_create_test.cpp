// Partition creation against an in-memory drive: free-space search,
// alignment, sizing, the new entry's bytes, and the refusals, which neither
// write nor tell the system of a new layout.  Where the entry lands on
// simple tables, and the messages, are checked end to end (e2e/edit_test).
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/run_state.h"
#include "base/le.h"
#include "edit/partition_create.h"
#include "fake_machine.h"

namespace dh {
namespace {

using test::MbrEntry;
using Bytes = std::vector<uint8_t>;
using Table = std::vector<MbrEntry>;

const Table kOne = {{0, 0x07, 63, 1985}};                      // free from 2049 to the end
const Table kTwo = {{0, 0x07, 63, 1000}, {0, 0x0C, 5000, 1000}};   // free 1064..4999 and 6000..
const Table kTight = {{0, 0x07, 63, 1000}, {0, 0x07, 2000, 5500}};  // free 1064..1999 only

class PartitionCreateTest : public test::FakeDiskTest {
 protected:
  // Runs create= with the given arguments on a fresh run; returns its result.
  ResultCode Create(const std::vector<std::string>& args = {}) {
    ResetRun();
    Arguments().Add("/create=1");
    for (const std::string& a : args) Arguments().Add(a);
    Options().command = kCmdCreate;
    Options().partNumber = 1;
    test::RunHandler(*disks);
    return State().resultCode;
  }
  void ExpectUntouched() {
    EXPECT_EQ(before, drive->bytes);
    EXPECT_EQ(0, drive->writeCalls);
    EXPECT_EQ(0, drive->updatePropertiesCalls);
  }
};

// Without a size, the partition fills the free run up to the next one.
TEST_F(PartitionCreateTest, SizesEndAtTheNextPartition) {
  for (auto [args, start, count] : {std::tuple{std::vector<std::string>{"/start=2000"}, 2000u, 3000u},  // up to 4999
                                    {{"/start=2000", "/size=1499"}, 2000u, 2998u}}) {
    MakeMbrDisk(kTwo);
    Load();
    EXPECT_EQ(kSuccess, Create(args));
    EXPECT_EQ(kCmdCreate, State().completedStep);
    EXPECT_EQ(start, LoadLe32(Slot(2).data() + 8));
    EXPECT_EQ(count, LoadLe32(Slot(2).data() + 12));
    EXPECT_EQ(1, drive->updatePropertiesCalls);
    ExpectOnlyTableChanged();
  }
}

TEST_F(PartitionCreateTest, RefusalsWriteNothing) {
  const std::tuple<const Table&, std::vector<std::string>, ResultCode> cases[] = {
      // Alignments must be powers of two in range.
      {kOne, {"/align=3"}, kInvalidAlign},
      {kOne, {"/align=0"}, kInvalidAlign},
      {kOne, {"/align=k"}, kInvalidAlign},
      {kOne, {"/align=1048576"}, kInvalidAlign},
      {kOne, {"/align=-2"}, kInvalidAlign},
      // Starts inside a partition, right after its last sector, on the
      // table's own sector, or not a number.
      {kOne, {"/start=63"}, kStartAssigned},
      {kOne, {"/start=2048"}, kStartAssigned},
      {kOne, {"/start=0"}, kStartAssigned},
      {kOne, {"/start=somewhere"}, kStartAssigned},
      {kOne, {"/type=0"}, kInvalidParameter},
      {kOne, {"/type=256"}, kInvalidParameter},
      // Sizes ending on the next partition, jumping over it (only its end
      // lies in free space), or running past the disk.
      {kTwo, {"/start=2000", "/size=1500"}, kSizeUnavailable},
      {kTwo, {"/start=2000", "/size=2500"}, kSizeUnavailable},
      {kTwo, {"/start=6002", "/size=2000"}, kSizeUnavailable},
      {kTwo, {"/start=2000", "/size=0"}, kInvalidSize},
      {kTwo, {"/start=2000", "/size=big"}, kInvalidSize},
      {kTwo, {"/start=9000"}, kInvalidSize},  // beyond the disk: no room
      // 1 MiB alignment would start at 2048, past the only gap.
      {kTight, {"/align=1024"}, kNoFreeSpace},
      {kTight, {"/start=1100", "/align=1024"}, kStartAssigned},
  };
  for (const auto& [table, args, code] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    MakeMbrDisk(table);
    Load();
    EXPECT_EQ(code, Create(args));
    if (code == kInvalidParameter) {
      EXPECT_EQ(args[0], State().badArgument);
    }
    ExpectUntouched();
  }
  // Without the boot signature: 518, unless forced; then the entry is
  // written and the rest of sector 0 stays as it was.
  MakeMbrDisk({}).Sector(0)[510] = 0;
  Load();
  EXPECT_EQ(kCreateNoMbr, Create());
  ExpectUntouched();
  Load(true);
  EXPECT_EQ(kSuccess, Create());
  EXPECT_EQ(64u, LoadLe32(Slot(0).data() + 8));
  ExpectOnlyTableChanged();

  // A failed write sends no update.
  MakeMbrDisk(kOne).writeProtected = true;
  Load();
  EXPECT_EQ(kWriteFailed, Create());
  EXPECT_EQ(0, drive->updatePropertiesCalls);
  EXPECT_EQ(before, drive->bytes);
}

TEST_F(PartitionCreateTest, FreeSpaceSearch) {
  const std::tuple<Table, uint64_t, uint64_t> cases[] = {
      {{{0, 0x07, 2048, 1000}}, 64, 2048 - 65},
      // 63+1000 ends at 1063; a 2-sector gap to 1065 is passed over.
      {{{0, 0x07, 63, 1000}, {0, 0x07, 1065, 935}, {0, 0x07, 3000, 5000}}, 2001, 998},
      // A nested partition does not hide the outer one's sectors.
      {{{0, 0x07, 63, 7000}, {0, 0x07, 100, 100}}, 7064, 8192 - 7064},
  };
  for (const auto& [table, start, size] : cases) {
    MakeMbrDisk(table);
    Load();
    const FreeArea area = FindFreeSpace(*disks);
    EXPECT_EQ(start, area.start);
    EXPECT_EQ(size, area.size);
  }
  MakeMbrDisk(std::get<0>(cases[0]));
  Load();
  for (auto [lba, assigned] : {std::pair{2048u, true}, {3048u, true}, {3049u, false}, {2047u, false}}) {
    EXPECT_EQ(assigned, IsSectorAssigned(*disks, lba)) << lba;
  }
  EXPECT_EQ(2048u - 100, MaxSizeFrom(*disks, 100));
  EXPECT_EQ(8192u - 4000, MaxSizeFrom(*disks, 4000));
  EXPECT_EQ(0u, MaxSizeFrom(*disks, 9000));
}

TEST(PartitionCreate, ChsBytesAndAlignment) {
  uint8_t entry[16];
  // 255 heads, 63 sectors: cylinder = 16065 sectors; 2049 is head 32,
  // sector 34; 8192 is head 130, sector 3.
  BuildNewEntry(entry, 2049, 6143, 0x07, 255, 63);
  EXPECT_EQ(Bytes({0x00, 32, 34, 0, 0x07, 130, 3, 0, 0x01, 0x08, 0, 0, 0xFF, 0x17, 0, 0}), Bytes(entry, entry + 16));
  // A cylinder above 255 keeps its low 8 bits only.
  BuildNewEntry(entry, 16065u * 300, 1, 0x07, 255, 63);
  EXPECT_EQ(300 & 0xFF, entry[3]);
  EXPECT_EQ(1, entry[2]);
  // No geometry: the usual marker.
  BuildNewEntry(entry, 64, 100, 0x07, 0, 0);
  EXPECT_EQ(Bytes({0xFE, 0xFF, 0xFF, 0x07, 0xFE, 0xFF, 0xFF}), Bytes(entry + 1, entry + 8));

  for (auto [from, align, expected] : {std::tuple{uint64_t{2049}, 1024u, uint64_t{2050}},
                                       {uint64_t{4096}, 1u << 20, uint64_t{4096}}, {uint64_t{1}, 1u << 20, uint64_t{2048}}}) {
    uint64_t start = 0;
    EXPECT_TRUE(AlignStart(from, align, &start));
    EXPECT_EQ(expected, start);
  }
  uint64_t start = 0;
  EXPECT_FALSE(AlignStart(UINT64_MAX - 1, 1 << 20, &start));
}

}  // namespace
}  // namespace dh
