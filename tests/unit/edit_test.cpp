// MBR edits against an in-memory drive: partition creation (free-space
// search, alignment, sizing, the new entry's bytes, refusals that neither
// write nor tell the system of a new layout), flag and sort edits, and the
// disk signature and status byte (which bytes each write may change, and
// that a sector 0 that cannot be read is never written back).  Where
// entries land on simple tables, and the messages, are checked end to end
// (e2e/edit_test, e2e/signature_test).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/run_state.h"
#include "base/le.h"
#include "disk/disk_set.h"
#include "mbr/partition_create.h"
#include "mbr/partition_edit.h"
#include "mbr/partition_sort.h"
#include "edit/signature.h"
#include "fake_machine.h"
#include "mbr/partition.h"
#include "platform/platform.h"

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
      {kOne, {"/align=3"}, kInvalidAlign}, {kOne, {"/align=1048576"}, kInvalidAlign},
      // Starts inside a partition, right after its last sector, on the
      // table's own sector, or not a number; types that are no type byte.
      {kOne, {"/start=63"}, kStartAssigned}, {kOne, {"/start=2048"}, kStartAssigned},
      {kOne, {"/start=0"}, kStartAssigned}, {kOne, {"/start=somewhere"}, kStartAssigned},
      {kOne, {"/type=0"}, kInvalidParameter}, {kOne, {"/type=256"}, kInvalidParameter},
      // Sizes ending on the next partition, jumping over it (only its end
      // lies in free space), or running past the disk.
      {kTwo, {"/start=2000", "/size=1500"}, kSizeUnavailable}, {kTwo, {"/start=2000", "/size=2500"}, kSizeUnavailable},
      {kTwo, {"/start=6002", "/size=2000"}, kSizeUnavailable}, {kTwo, {"/start=2000", "/size=0"}, kInvalidSize},
      {kTwo, {"/start=9000"}, kInvalidSize},  // beyond the disk: no room
      // 1 MiB alignment would start at 2048, past the only gap.
      {kTight, {"/align=1024"}, kNoFreeSpace}, {kTight, {"/start=1100", "/align=1024"}, kStartAssigned},
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

// The last check holds even where the steps before it were misled.
TEST_F(PartitionCreateTest, AreasOverAPartitionOrPastTheEndNeverFit) {
  MakeMbrDisk(kOne);
  Load();
  for (auto [start, size, fits] : {std::tuple{2048u, 6144u, true}, {2047u, 10u, false}, {2048u, 6145u, false}}) {
    EXPECT_EQ(fits, AreaFits(*disks, start, size)) << start << "+" << size;
  }
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
                                       {uint64_t{4096}, 1u << 20, uint64_t{4096}},
                                       {uint64_t{1}, 1u << 20, uint64_t{2048}}}) {
    uint64_t start = 0;
    EXPECT_TRUE(AlignStart(from, align, &start));
    EXPECT_EQ(expected, start);
  }
  uint64_t start = 0;
  EXPECT_FALSE(AlignStart(UINT64_MAX - 1, 1 << 20, &start));
}

using PartitionEditTest = test::FakeDiskTest;

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
    ResetRun();
    Load(ignore);
    Options().command = kCmdHide;
    Options().partNumber = 1;
    test::RunHandler(*disks);
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

using test::FakeDrive;
using Sig = SignatureBytes;

TEST(SignatureText, PairsGoMostSignificantFirst) {
  const struct {
    const char* text;
    Sig bytes;
  } cases[] = {
      // A pair is read up to its first non-hexadecimal character; pairs
      // beyond the text are 00; characters beyond eight are not read.
      {"12345678", {0x78, 0x56, 0x34, 0x12}}, {"abcdef01", {0x01, 0xEF, 0xCD, 0xAB}},
      {"1G2H3I4J", {0x04, 0x03, 0x02, 0x01}}, {"G1xx00FF", {0xFF, 0x00, 0x00, 0x00}},
      {"+1-1 1 1", {0x00, 0x00, 0x00, 0x00}}, {"AB", {0x00, 0x00, 0x00, 0xAB}},
      {"1122334455", {0x44, 0x33, 0x22, 0x11}},
  };
  for (const auto& c : cases) EXPECT_EQ(SignatureFromText(c.text), c.bytes) << c.text;
}

class SignatureTest : public test::FakeDiskTest {
 protected:
  // A drive whose bytes are a pattern, with a signature, an empty entry
  // table and, optionally, 55 AA.  Drive 0 becomes `drive`.
  FakeDrive& MakeDrive(int number, Sig signature, bool marker = true) {
    FakeDrive& d = machine.AddDrive(number, 256);
    for (size_t i = 0; i < d.bytes.size(); ++i) d.bytes[i] = static_cast<uint8_t>(i * 13 + 5);
    std::memcpy(d.Sector(0) + 440, signature.data(), 4);
    std::memset(d.Sector(0) + 446, 0, 64);
    d.Sector(0)[510] = marker ? 0x55 : 0;
    d.Sector(0)[511] = marker ? 0xAA : 0;
    if (number == 0) drive = &d;
    return d;
  }
  // Every byte of drive 0 outside [first, first + count) is as it was.
  void ExpectOnlyChanged(size_t first, size_t count) {
    Bytes now = drive->bytes;
    std::copy(before.begin() + first, before.begin() + first + count, now.begin() + first);
    EXPECT_EQ(now, before);
  }
};

TEST_F(SignatureTest, EachModeWritesOnlyTheFourSignatureBytesAndFlushes) {
  const struct {
    SignatureMode mode;
    const char* text;
    Sig expected;
  } cases[] = {
      {SignatureMode::Zero, "", {0, 0, 0, 0}},
      {SignatureMode::Write, "AC67AC67", {0x67, 0xAC, 0x67, 0xAC}},
      {SignatureMode::Generate, "", {0x10, 0x20, 0x30, 0x40}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.mode));
    MakeDrive(0, {1, 2, 3, 4});
    Load();
    machine.randomBytes = {0x10, 0x20, 0x30, 0x40};
    EXPECT_EQ(kSuccess, SetDiskSignature(*disks, c.mode, c.text));
    EXPECT_EQ(0, std::memcmp(drive->Sector(0) + 440, c.expected.data(), 4));
    EXPECT_EQ(1, drive->writeCalls);
    EXPECT_EQ(1, drive->flushCalls);
    ExpectOnlyChanged(440, 4);
    EXPECT_EQ(0, std::memcmp(disks->disk().savedSignature(), c.expected.data(), 4));
  }
}

TEST_F(SignatureTest, UnderIgnoreAnUnreadableSectorIsStillNeverWritten) {
  // The image would be zeros: writing it would wipe the partition table.
  MakeDrive(0, {1, 2, 3, 4});
  Load(true);
  drive->badSectors.insert(0);
  EXPECT_EQ(kSuccess, SetDiskSignature(*disks, SignatureMode::Write, "AC67AC67"));
  EXPECT_EQ(kSuccess, WriteStatusByte(*disks, 9));
  EXPECT_EQ(0, drive->writeCalls);
}

TEST_F(SignatureTest, StatusByteIsWrittenAloneAlsoWithoutMarker) {
  for (bool marker : {true, false}) {
    SCOPED_TRACE(marker);
    ResetRun();
    MakeDrive(0, {1, 2, 3, 4}, marker);
    Load();
    EXPECT_EQ(marker ? kSuccess : kNoMbrHere, WriteStatusByte(*disks, 254));
    EXPECT_EQ(254, drive->Sector(0)[434]);
    EXPECT_EQ(1, drive->flushCalls);
    ExpectOnlyChanged(434, 1);
  }
  ResetRun();
  Load();
  drive->badSectors.insert(0);
  const int writes = drive->writeCalls;
  EXPECT_EQ(kReadFailed, WriteStatusByte(*disks, 3));
  EXPECT_EQ(writes, drive->writeCalls);
}

}  // namespace
}  // namespace dh
