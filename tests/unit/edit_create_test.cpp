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
#include "disk/le.h"
#include "edit/edit_commands.h"
#include "edit/partition_create.h"
#include "fake_machine.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::FakeDrive;

struct E {
  uint8_t type;
  uint32_t start;
  uint32_t count;
};

class PartitionCreateTest : public ::testing::Test {
 protected:
  PartitionCreateTest() : host_(&machine_) {
    ResetRun();
    Arguments().Clear();
  }

  // Drive 0 with the entries in slots 0.. (type 0: slot left empty).
  FakeDrive& MakeDisk(const std::vector<E>& slots, uint64_t sectors = 8192) {
    FakeDrive& d = machine_.AddDrive(0, sectors);
    uint8_t* s = d.Sector(0);
    s[0] = 0x33;
    s[1] = 0xC0;
    for (int i = 2; i < 446; ++i) s[i] = static_cast<uint8_t>(i);
    for (size_t i = 0; i < slots.size(); ++i) {
      if (slots[i].type == 0) continue;
      uint8_t* e = s + 446 + 16 * i;
      e[4] = slots[i].type;
      StoreLe32(e + 8, slots[i].start);
      StoreLe32(e + 12, slots[i].count);
    }
    d.SetBootSignature();
    return d;
  }

  void Load() {
    before_ = drive().bytes;
    disks_ = std::make_unique<DiskSet>(Options().ignoreErrors);
  }

  // Runs create= with the given arguments; returns the run's result.
  ResultCode Create(const std::vector<std::string>& args = {}) {
    Arguments().Clear();
    Arguments().Add("/create=1");
    for (const std::string& a : args) Arguments().Add(a);
    Options().command = kCmdCreate;
    Options().diskNumber = 0;
    Options().partNumber = 1;
    RunEditCommand(*disks_);
    return State().resultCode;
  }

  FakeDrive& drive() { return machine_.devices[test::DrivePath(0)]; }
  const uint8_t* Slot(int slot) { return drive().Sector(0) + 446 + 16 * slot; }
  uint32_t StartAt(int slot) { return LoadLe32(Slot(slot) + 8); }
  uint32_t CountAt(int slot) { return LoadLe32(Slot(slot) + 12); }
  void ExpectOnlyTableChanged() {
    EXPECT_EQ(0, std::memcmp(drive().bytes.data(), before_.data(), 446));
    EXPECT_EQ(0, std::memcmp(drive().bytes.data() + 510, before_.data() + 510, before_.size() - 510));
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
  std::vector<uint8_t> before_;
};

TEST_F(PartitionCreateTest, FillsTheRoomBehindTheFirstPartitionWithType07) {
  MakeDisk({{0x07, 63, 1985}});
  Load();
  EXPECT_EQ(kSuccess, Create());
  EXPECT_EQ(kCmdCreate, State().completedStep);
  EXPECT_EQ(2049u, StartAt(1));
  EXPECT_EQ(6143u, CountAt(1));
  EXPECT_EQ(0x07, Slot(1)[4]);
  EXPECT_EQ(0x00, Slot(1)[0]);
  EXPECT_EQ(1, drive().updatePropertiesCalls);
  ExpectOnlyTableChanged();
}

TEST_F(PartitionCreateTest, AlignValuesMustBePowersOfTwoInRange) {
  MakeDisk({{0x07, 63, 1985}});
  Load();
  for (const char* bad : {"/align=3", "/align=0", "/align=k", "/align=1048576", "/align=-2"}) {
    ResetRun();
    EXPECT_EQ(kInvalidAlign, Create({bad})) << bad;
  }
  EXPECT_EQ(before_, drive().bytes);
  ResetRun();
  EXPECT_EQ(kSuccess, Create({"/align=1"}));  // 2 sectors
  EXPECT_EQ(2050u, StartAt(1));
}

TEST_F(PartitionCreateTest, AnAssignedStartIs137) {
  MakeDisk({{0x07, 63, 1985}});
  Load();
  EXPECT_EQ(kStartAssigned, Create({"/start=63"}));
  ResetRun();
  EXPECT_EQ(kStartAssigned, Create({"/start=2048"}));  // right after the last sector
  ResetRun();
  EXPECT_EQ(kStartAssigned, Create({"/start=0"}));  // the table's own sector
  ResetRun();
  EXPECT_EQ(kStartAssigned, Create({"/start=somewhere"}));
  EXPECT_EQ(before_, drive().bytes);
  ResetRun();
  EXPECT_EQ(kSuccess, Create({"/start=2049", "/size=max"}));
  EXPECT_EQ(6143u, CountAt(1));
}

TEST_F(PartitionCreateTest, AnExplicitStartTakesTheRoomUpToTheNextPartition) {
  MakeDisk({{0x07, 63, 1000}, {0x0C, 5000, 1000}});
  Load();
  EXPECT_EQ(kSuccess, Create({"/start=2000"}));
  EXPECT_EQ(2000u, StartAt(2));
  EXPECT_EQ(2999u, CountAt(2));  // up to 4998: one sector short of 5000
  ExpectOnlyTableChanged();
}

TEST_F(PartitionCreateTest, SizesThatReachAPartitionOrTheEndAreRefused) {
  MakeDisk({{0x07, 63, 1000}, {0x0C, 5000, 1000}});
  Load();
  EXPECT_EQ(kSizeUnavailable, Create({"/start=2000", "/size=1500"}));  // ends at 5000
  ResetRun();
  // Jumps over the whole partition at 5000: only its end lies in free space.
  EXPECT_EQ(kSizeUnavailable, Create({"/start=2000", "/size=2500"}));
  ResetRun();
  EXPECT_EQ(kSizeUnavailable, Create({"/start=6002", "/size=2000"}));  // beyond 8192
  ResetRun();
  EXPECT_EQ(kInvalidSize, Create({"/start=2000", "/size=0"}));
  ResetRun();
  EXPECT_EQ(kInvalidSize, Create({"/start=2000", "/size=big"}));
  ResetRun();
  EXPECT_EQ(kInvalidSize, Create({"/start=9000"}));  // beyond the disk: no room
  EXPECT_EQ(before_, drive().bytes);
  ResetRun();
  EXPECT_EQ(kSuccess, Create({"/start=2000", "/size=1499"}));
  EXPECT_EQ(2998u, CountAt(2));
}

TEST_F(PartitionCreateTest, GapsOfOneOrTwoSectorsArePassedOver) {
  // 63+1000 ends at 1063; a 2-sector gap to 1065; the next gap is real.
  MakeDisk({{0x07, 63, 1000}, {0x07, 1065, 935}, {0x07, 3000, 5000}});
  Load();
  FreeArea area = FindFreeSpace(*disks_);
  EXPECT_EQ(2001u, area.start);
  EXPECT_EQ(998u, area.size);
}

TEST_F(PartitionCreateTest, FreeSpaceSearchCases) {
  MakeDisk({{0x07, 2048, 1000}});
  Load();
  FreeArea before = FindFreeSpace(*disks_);
  EXPECT_EQ(64u, before.start);
  EXPECT_EQ(2048u - 65, before.size);
  EXPECT_TRUE(IsSectorAssigned(*disks_, 2048));
  EXPECT_TRUE(IsSectorAssigned(*disks_, 3048));
  EXPECT_FALSE(IsSectorAssigned(*disks_, 3049));
  EXPECT_FALSE(IsSectorAssigned(*disks_, 2047));
  EXPECT_EQ(2048u - 1 - 100, MaxSizeFrom(*disks_, 100));
  EXPECT_EQ(8192u - 4000, MaxSizeFrom(*disks_, 4000));
  EXPECT_EQ(0u, MaxSizeFrom(*disks_, 9000));
}

TEST_F(PartitionCreateTest, ANestedPartitionDoesNotHideTheOuterOnesSectors) {
  MakeDisk({{0x07, 63, 7000}, {0x07, 100, 100}});
  Load();
  // The room starts behind the outer partition, not behind the inner one.
  FreeArea area = FindFreeSpace(*disks_);
  EXPECT_EQ(7064u, area.start);
  EXPECT_EQ(8192u - 7064, area.size);
}

TEST_F(PartitionCreateTest, AlignmentPastTheFreeAreaIsNoFreeSpace) {
  // The only gap is 1064..1998; 1 MiB alignment would start at 2048.
  MakeDisk({{0x07, 63, 1000}, {0x07, 2000, 5500}});
  Load();
  EXPECT_EQ(kNoFreeSpace, Create({"/align=1024"}));
  ResetRun();
  EXPECT_EQ(kStartAssigned, Create({"/start=1100", "/align=1024"}));
  EXPECT_EQ(before_, drive().bytes);
}

TEST_F(PartitionCreateTest, TypesOutsideOneByteAreRefused) {
  MakeDisk({});
  Load();
  EXPECT_EQ(kInvalidParameter, Create({"/type=0"}));
  EXPECT_EQ("/type=0", State().badArgument);
  ResetRun();
  EXPECT_EQ(kInvalidParameter, Create({"/type=256"}));
  EXPECT_EQ(before_, drive().bytes);
}

TEST_F(PartitionCreateTest, WithoutTheBootSignatureCreateIs518UnlessIgnored) {
  MakeDisk({});
  drive().Sector(0)[510] = 0;
  Load();
  EXPECT_EQ(kCreateNoMbr, Create());
  EXPECT_EQ(0, drive().writeCalls);
  EXPECT_EQ(0, drive().updatePropertiesCalls);

  // Forced: the entry is written and the rest of sector 0 stays as it was.
  ResetRun();
  Options().ignoreErrors = true;
  Load();
  EXPECT_EQ(kSuccess, Create());
  EXPECT_EQ(64u, StartAt(0));
  ExpectOnlyTableChanged();
}

TEST_F(PartitionCreateTest, ChsBytesFollowTheGeometry) {
  uint8_t entry[16];
  // 255 heads, 63 sectors: cylinder = 16065 sectors.
  BuildNewEntry(entry, 2049, 6143, 0x07, 255, 63);
  EXPECT_EQ(0x00, entry[0]);
  EXPECT_EQ(32, entry[1]);  // 2049 / 63
  EXPECT_EQ(2049 % 63 + 1, entry[2]);
  EXPECT_EQ(0, entry[3]);
  EXPECT_EQ(0x07, entry[4]);
  EXPECT_EQ(130, entry[5]);  // 8192 / 63
  EXPECT_EQ(8192 % 63 + 1, entry[6]);
  EXPECT_EQ(0, entry[7]);
  EXPECT_EQ(2049u, LoadLe32(entry + 8));
  EXPECT_EQ(6143u, LoadLe32(entry + 12));
  // A cylinder above 255 keeps its low 8 bits only.
  BuildNewEntry(entry, 16065u * 300, 1, 0x07, 255, 63);
  EXPECT_EQ(300 & 0xFF, entry[3]);
  EXPECT_EQ(1, entry[2]);
  // No geometry: the usual marker.
  BuildNewEntry(entry, 64, 100, 0x07, 0, 0);
  EXPECT_EQ((std::vector<uint8_t>{0xFE, 0xFF, 0xFF}), std::vector<uint8_t>(entry + 1, entry + 4));
  EXPECT_EQ((std::vector<uint8_t>{0xFE, 0xFF, 0xFF}), std::vector<uint8_t>(entry + 5, entry + 8));
}

TEST_F(PartitionCreateTest, AlignStartRoundsUpToTheBoundary) {
  uint64_t s = 0;
  EXPECT_TRUE(AlignStart(2049, 1024, &s));
  EXPECT_EQ(2050u, s);
  EXPECT_TRUE(AlignStart(4096, 1 << 20, &s));
  EXPECT_EQ(4096u, s);
  EXPECT_TRUE(AlignStart(1, 1 << 20, &s));
  EXPECT_EQ(2048u, s);
  EXPECT_FALSE(AlignStart(UINT64_MAX - 1, 1 << 20, &s));
}

TEST_F(PartitionCreateTest, AFailedWriteIs505AndSendsNoUpdate) {
  MakeDisk({{0x07, 63, 1985}});
  drive().writeProtected = true;
  Load();
  EXPECT_EQ(kWriteFailed, Create());
  EXPECT_EQ(0, drive().updatePropertiesCalls);
  EXPECT_EQ(before_, drive().bytes);
}

}  // namespace
}  // namespace dh
