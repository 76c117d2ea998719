// Partition creation against an in-memory drive: free-space search,
// alignment, sizing, the new entry's bytes and slot, and the refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "base/le.h"
#include "app/command_table.h"
#include "edit/partition_create.h"
#include "fake_machine.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::FakeDrive;
using Bytes = std::vector<uint8_t>;

struct E {
  uint8_t type;
  uint32_t start;
  uint32_t count;
};
using Table = std::vector<E>;

const Table kOne = {{0x07, 63, 1985}};                       // free from 2049 to the end
const Table kTwo = {{0x07, 63, 1000}, {0x0C, 5000, 1000}};   // free 1064..4999 and 6000..
const Table kTight = {{0x07, 63, 1000}, {0x07, 2000, 5500}};  // free 1064..1999 only

class PartitionCreateTest : public ::testing::Test {
 protected:
  PartitionCreateTest() : host_(&machine_) {}

  // Drive 0 with the entries in slots 0.., loaded.
  FakeDrive& MakeDisk(const Table& slots) {
    ResetRun();
    FakeDrive& d = machine_.AddDrive(0, 8192);
    for (int i = 0; i < 446; ++i) d.Sector(0)[i] = static_cast<uint8_t>(i + 0x33);
    for (size_t i = 0; i < slots.size(); ++i) {
      uint8_t* e = d.Sector(0) + 446 + 16 * i;
      e[4] = slots[i].type;
      StoreLe32(e + 8, slots[i].start);
      StoreLe32(e + 12, slots[i].count);
    }
    d.SetBootSignature();
    Load();
    return d;
  }

  void Load() {
    before_ = drive().bytes;
    disks_ = std::make_unique<DiskSet>(test::TestDrivers(), Options().ignoreErrors);
  }

  // Runs create= with the given arguments; returns the run's result.
  ResultCode Create(const std::vector<std::string>& args = {}) {
    Arguments().Clear();
    Arguments().Add("/create=1");
    for (const std::string& a : args) Arguments().Add(a);
    Options().command = kCmdCreate;
    Options().diskNumber = 0;
    Options().partNumber = 1;
    test::RunHandler(*disks_);
    return State().resultCode;
  }

  FakeDrive& drive() { return machine_.devices[test::DrivePath(0)]; }
  const uint8_t* Slot(int slot) { return drive().Sector(0) + 446 + 16 * slot; }
  void ExpectOnlyTableChanged() {
    EXPECT_EQ(0, std::memcmp(drive().bytes.data(), before_.data(), 446));
    EXPECT_EQ(0, std::memcmp(drive().bytes.data() + 510, before_.data() + 510, before_.size() - 510));
  }
  void ExpectUntouched() {
    EXPECT_EQ(before_, drive().bytes);
    EXPECT_EQ(0, drive().writeCalls);
    EXPECT_EQ(0, drive().updatePropertiesCalls);
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
  Bytes before_;
};

TEST_F(PartitionCreateTest, PlacesAndSizesTheNewEntry) {
  struct Case {
    Table table;
    std::vector<std::string> args;
    int slot;
    uint32_t start, count;
  };
  const Case cases[] = {
      {kOne, {}, 1, 2049, 6143},
      {kOne, {"/align=1"}, 1, 2050, 6142},  // 2 sectors
      {kOne, {"/start=2049", "/size=max"}, 1, 2049, 6143},
      {kTwo, {"/start=2000"}, 2, 2000, 2999},  // up to 4998: one sector short of 5000
      {kTwo, {"/start=2000", "/size=1499"}, 2, 2000, 2998},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    MakeDisk(c.table);
    EXPECT_EQ(kSuccess, Create(c.args));
    EXPECT_EQ(kCmdCreate, State().completedStep);
    EXPECT_EQ(c.start, LoadLe32(Slot(c.slot) + 8));
    EXPECT_EQ(c.count, LoadLe32(Slot(c.slot) + 12));
    EXPECT_EQ(0x07, Slot(c.slot)[4]);
    EXPECT_EQ(0x00, Slot(c.slot)[0]);
    EXPECT_EQ(1, drive().updatePropertiesCalls);
    ExpectOnlyTableChanged();
  }
}

TEST_F(PartitionCreateTest, RefusalsWriteNothing) {
  struct Case {
    const Table& table;
    std::vector<std::string> args;
    ResultCode code;
  };
  const Case cases[] = {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    MakeDisk(c.table);
    EXPECT_EQ(c.code, Create(c.args));
    if (c.code == kInvalidParameter) {
      EXPECT_EQ(c.args[0], State().badArgument);
    }
    ExpectUntouched();
  }
  // Without the boot signature: 518, unless forced; then the entry is
  // written and the rest of sector 0 stays as it was.
  MakeDisk({}).Sector(0)[510] = 0;
  Load();
  EXPECT_EQ(kCreateNoMbr, Create());
  ExpectUntouched();
  ResetRun();
  Options().ignoreErrors = true;
  Load();
  EXPECT_EQ(kSuccess, Create());
  EXPECT_EQ(64u, LoadLe32(Slot(0) + 8));
  ExpectOnlyTableChanged();
  Options().ignoreErrors = false;

  // A failed write sends no update.
  MakeDisk(kOne);
  drive().writeProtected = true;
  EXPECT_EQ(kWriteFailed, Create());
  EXPECT_EQ(0, drive().updatePropertiesCalls);
  EXPECT_EQ(before_, drive().bytes);
}

TEST_F(PartitionCreateTest, FreeSpaceSearch) {
  struct Case {
    Table table;
    uint64_t start, size;
  };
  const Case cases[] = {
      {{{0x07, 2048, 1000}}, 64, 2048 - 65},
      // 63+1000 ends at 1063; a 2-sector gap to 1065 is passed over.
      {{{0x07, 63, 1000}, {0x07, 1065, 935}, {0x07, 3000, 5000}}, 2001, 998},
      // A nested partition does not hide the outer one's sectors.
      {{{0x07, 63, 7000}, {0x07, 100, 100}}, 7064, 8192 - 7064},
  };
  for (const Case& c : cases) {
    MakeDisk(c.table);
    const FreeArea area = FindFreeSpace(*disks_);
    EXPECT_EQ(c.start, area.start);
    EXPECT_EQ(c.size, area.size);
  }
  MakeDisk(cases[0].table);
  EXPECT_TRUE(IsSectorAssigned(*disks_, 2048));
  EXPECT_TRUE(IsSectorAssigned(*disks_, 3048));
  EXPECT_FALSE(IsSectorAssigned(*disks_, 3049));
  EXPECT_FALSE(IsSectorAssigned(*disks_, 2047));
  EXPECT_EQ(2048u - 1 - 100, MaxSizeFrom(*disks_, 100));
  EXPECT_EQ(8192u - 4000, MaxSizeFrom(*disks_, 4000));
  EXPECT_EQ(0u, MaxSizeFrom(*disks_, 9000));
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
