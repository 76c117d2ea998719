// The MBR partition model: entry decoding, the primary slots, the extended
// chain walk and its guards against odd and hostile chains, counting and
// lookup by kind, and the sort by start sector.
#include "mbr/partition.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <set>
#include <tuple>
#include <vector>

#include "disk/disk_set.h"
#include "base/le.h"
#include "fake_machine.h"
#include "mbr/type_table.h"

namespace dh {
namespace {

using test::MbrEntry;

constexpr uint8_t kNtfs = 0x07;
constexpr uint8_t kExtended = 0x0F;

class PartitionTableTest : public test::FakeDiskTest {
 protected:
  // The set loads nothing; each test loads the table itself from drive 0.
  void SetUp() override {
    OpenUnloaded(8192);
    drive->SetBootSignature();
  }

  void PutSlot(size_t slot, uint8_t type, uint32_t first, uint32_t count, uint8_t boot = 0) {
    test::PutMbrEntry(drive->Sector(0), mbr::kEntryOffset + mbr::kEntrySize * slot, {boot, type, first, count});
  }

  // An EBR at `lba`: its logical partition `relStart` sectors after the EBR,
  // and a link `nextRel` sectors after the extended start (no link when 0).
  void PutEbr(uint64_t lba, uint8_t type, uint32_t relStart, uint32_t count, uint32_t nextRel) {
    uint8_t* ebr = drive->Sector(lba);
    test::PutMbrEntry(ebr, mbr::kEntryOffset, {0, type, relStart, count});
    if (nextRel != 0) {
      test::PutMbrEntry(ebr, mbr::kEbrLinkOffset, {0, 0x05, nextRel, 64});
    } else {
      std::memset(ebr + mbr::kEbrLinkOffset, 0, mbr::kEntrySize);
    }
  }

  PartitionTable& LoadTable() {
    disks->LoadDisk(true);
    return *MbrTable(*disks);
  }
};

TEST(DecodeEntry, DecodesEveryField) {
  PartitionRecord r;
  const uint8_t raw[16] = {0x80, 0xFE, 0xFF, 0x12, 0x07, 0x21, 0xC3, 0x34,
                           0x00, 0x08, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
  std::memcpy(r.rawEntry, raw, 16);
  DecodeEntry(r, 0x07, true);
  EXPECT_EQ(std::make_tuple(r.active, r.type, r.typeName, r.hidden), std::make_tuple(1, 0x07u, std::string("NTFS"), 0));
  EXPECT_EQ(std::make_tuple(r.startHead, r.startSector, r.startCylinder, r.endHead, r.endSector, r.endCylinder),
            std::make_tuple(0xFEu, 0x3Fu, 0x312u, 0x21u, 0x03u, 0x334u));
  EXPECT_EQ(std::make_tuple(r.startLba, r.sectorCount, r.sizeBytes),
            std::make_tuple(uint64_t{2048}, uint64_t{0xFFFFFFFF}, uint64_t{0xFFFFFFFF} * 512));
}

TEST(DecodeEntry, HiddenRuleTypeChangesAndEmptyEntries) {
  PartitionRecord r;
  r.typeName = "before";
  DecodeEntry(r, 0x07, true);  // an empty entry is left alone
  EXPECT_EQ(std::make_tuple(r.type, r.active, r.typeName), std::make_tuple(0u, 0, std::string("before")));
  r.rawEntry[mbr::kEntryType] = 0x07;
  // The type table's hidden column (0x3D is hidden there) plays no part.
  for (uint32_t t = 1; t < 256; ++t) {
    const bool hidden = t == 0x11 || t == 0x14 || t == 0x16 || t == 0x17 || (t >= 0x1B && t <= 0x1F);
    DecodeEntry(r, t, false);
    EXPECT_EQ(r.hidden, hidden ? 1 : 0) << t;
    EXPECT_EQ(r.rawEntry[mbr::kEntryType], t);
    EXPECT_EQ(IsExtendedType(t), t == 0x05 || t == 0x0F || t == 0x15 || t == 0x1F) << t;
  }
  DecodeEntry(r, 0x0D, false);
  EXPECT_EQ(r.typeName, "UNKNWN");
}

TEST_F(PartitionTableTest, PrimariesAreNumberedAcrossEmptySlots) {
  PutSlot(0, kNtfs, 63, 100, 0x81);
  PutSlot(2, 0x1D, 200, 50, 0x80);
  PartitionTable& t = LoadTable();
  EXPECT_TRUE(disks->disk().tableLoaded());
  ASSERT_EQ(t.Count(kKindAll), 2);
  PartitionRecord* first = t.Get(1, kKindPrimary);
  PartitionRecord* second = t.Get(2, kKindPrimary);
  // 0x81 is not active.
  EXPECT_EQ(std::make_tuple(first->slot, first->primaryNumber, first->active, first->isPrimary),
            std::make_tuple(0, 1, 0, 1));
  EXPECT_EQ(std::make_tuple(second->slot, second->primaryNumber, second->active, second->hidden, second->startLba),
            std::make_tuple(2, 2, 1, 1, uint64_t{200}));
  EXPECT_EQ(second->typeName, "UNKNWN");
  EXPECT_EQ(std::memcmp(second->rawEntry, drive->Sector(0) + 478, 16), 0);
}

TEST_F(PartitionTableTest, TablesWithoutPartitions) {
  EXPECT_EQ(LoadTable().Count(kKindAll), 0);  // 55 AA with four empty entries
  PutSlot(0, kNtfs, 63, 100);
  drive->Sector(0)[511] = 0;
  EXPECT_EQ(LoadTable().Count(kKindAll), 0);  // no boot signature
  drive->SetBootSignature();
  // With the chain walk disabled (a saved image read through the disk)
  // only the primaries count.
  PutSlot(1, kExtended, 1000, 3000);
  PutEbr(1000, kNtfs, 63, 100, 0);
  disks->KeepToImage();
  PartitionTable& t = LoadTable();
  EXPECT_EQ(t.Count(kKindAll), 2);
  // Numbers out of range, and kinds that do not exist.
  EXPECT_EQ(t.Get(0, kKindPrimary), nullptr);
  EXPECT_EQ(t.Get(3, kKindPrimary), nullptr);
  EXPECT_EQ(t.Get(-1, kKindAll), nullptr);
  EXPECT_EQ(t.Count(4), 0);
}

TEST_F(PartitionTableTest, LogicalsFollowTheirExtendedPrimary) {
  PutSlot(0, kNtfs, 63, 937);
  PutSlot(1, kExtended, 1000, 3000);
  PutSlot(2, 0x0B, 5000, 100);
  PutEbr(1000, kNtfs, 63, 100, 200);
  PutEbr(1200, 0x83, 63, 100, 400);
  PutEbr(1400, 0x82, 2, 50, 0);
  PartitionTable& t = LoadTable();

  ASSERT_EQ(t.records.size(), 6u);
  EXPECT_EQ(std::make_tuple(t.Count(kKindPrimary), t.Count(kKindLogical), t.Count(kKindExtended), t.Count(kKindAll)),
            std::make_tuple(3, 3, 1, 6));
  const int expectedSlots[] = {0, 1, -1, -1, -1, 2};  // -1: a logical
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(t.records[i]->isPrimary ? t.records[i]->slot : -1, expectedSlots[i]) << i;
  PartitionRecord* l2 = t.Get(2, kKindLogical);
  ASSERT_NE(l2, nullptr);
  EXPECT_EQ(std::make_tuple(l2->logicalNumber, l2->primaryNumber, l2->isPrimary), std::make_tuple(2, 0, 0));
  EXPECT_EQ(l2->startLba, 1263u);  // relative to its own EBR
  EXPECT_EQ(l2->ebrLba, 1200u);    // link relative to the extended start
  EXPECT_EQ(std::memcmp(l2->ebrImage, drive->Sector(1200), 512), 0);
  EXPECT_EQ(t.Get(3, kKindLogical)->startLba, 1402u);
  EXPECT_EQ(t.Get(1, kKindExtended)->slot, 1);
  EXPECT_EQ(t.Get(3, kKindPrimary)->primaryNumber, 3);
  EXPECT_EQ(t.Get(6, kKindAll)->slot, 2);
}

// Chains of EBRs that are odd or hostile: each row gives the extended
// primaries (at 1000 and 3000), the EBRs, sectors that cannot be read, and
// the EBR of each logical found, in number order.  Every partition starts
// 63 sectors after its EBR; links count from the extended partition's start.
TEST_F(PartitionTableTest, ChainsEndWhereTheyLoopOrCannotBeRead) {
  struct Ebr {
    uint64_t lba;
    uint8_t type;         // 0: no partition in this EBR
    int64_t link = -1;    // -1: no link
    uint8_t linkType = 0x05;
  };
  struct Case {
    const char* what;
    std::vector<uint8_t> extended;  // the types of slots 0, 1, 2 (0: empty)
    std::vector<Ebr> ebrs;
    std::set<uint64_t> bad;
    std::vector<uint64_t> found;  // the EBR of each logical, in number order
    uint32_t readLimit = 0;
  };
  const Case cases[] = {
      {"an EBR without a partition, and a link whose type byte alone is zero, lead on", {0x05},
       {{1000, kNtfs, 200}, {1200, 0, 400}, {1400, 0x83, 600, 0}, {1600, 0x82}}, {}, {1000, 1400, 1600}},
      {"a link of 0 points at the chain's start", {kExtended}, {{1000, kNtfs, 0}}, {}, {1000}},
      {"the third EBR links back to the second", {kExtended},
       {{1000, kNtfs, 200}, {1200, kNtfs, 400}, {1400, kNtfs, 200}}, {}, {1000, 1200, 1400}},
      {"an unreadable EBR", {kExtended}, {{1000, kNtfs, 200}, {1200, kNtfs, 400}, {1400, kNtfs}}, {1200}, {1000}},
      {"a link beyond the disk", {kExtended}, {{1000, kNtfs, 200}, {1200, kNtfs, 0xFFFFFFFFu}}, {}, {1000, 1200}},
      {"a device that hands a sector over in pieces", {kExtended}, {{1000, kNtfs, 200}, {1200, kNtfs}}, {},
       {1000, 1200}, 200},
      // Two extended primaries, one of them twice: one sequence of numbers.
      {"two extended primaries", {kExtended, 0x05, 0x05}, {{1000, kNtfs, 200}, {1200, kNtfs}, {3000, 0x83}}, {},
       {1000, 1200, 3000}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::fill(drive->bytes.begin() + 512, drive->bytes.end(), 0);
    std::memset(drive->Sector(0) + mbr::kEntryOffset, 0, 64);
    for (size_t slot = 0; slot < c.extended.size(); ++slot) {
      PutSlot(slot, c.extended[slot], slot == 0 ? 1000 : 3000, 1000);
    }
    for (const Ebr& e : c.ebrs) {
      test::PutMbrEntry(drive->Sector(e.lba), mbr::kEntryOffset, {0, e.type, e.type ? 63u : 0u, e.type ? 100u : 0u});
      if (e.link >= 0) {
        test::PutMbrEntry(drive->Sector(e.lba), mbr::kEbrLinkOffset,
                          {0, e.linkType, static_cast<uint32_t>(e.link), 64});
      }
    }
    drive->badSectors = c.bad;
    drive->readLimit = c.readLimit;
    PartitionTable& t = LoadTable();
    ASSERT_EQ(t.Count(kKindLogical), static_cast<int32_t>(c.found.size()));
    EXPECT_EQ(t.Count(kKindAll), static_cast<int32_t>(t.records.size()));
    for (size_t i = 0; i < c.found.size(); ++i) {
      const PartitionRecord* r = t.Get(static_cast<int32_t>(i + 1), kKindLogical);
      EXPECT_EQ(r->ebrLba, c.found[i]) << i;
      EXPECT_EQ(r->startLba, c.found[i] + 63) << i;
      EXPECT_EQ(r->logicalNumber, static_cast<int32_t>(i + 1));
    }
  }
}

// A chain one link longer than the number of logicals read: the rest is
// not read, and what is read keeps its numbers.
TEST_F(PartitionTableTest, ChainsLongerThanTheLimitStopAtIt) {
  constexpr uint32_t kLogicals = kMaxLogicalPartitions + 1;
  constexpr uint32_t kStart = 2048;
  drive->bytes.resize((kStart + 2 * kLogicals + 16) * 512);
  PutSlot(0, kExtended, kStart, 2 * kLogicals);
  for (uint32_t i = 0; i < kLogicals; ++i) {
    PutEbr(kStart + 2 * i, kNtfs, 1, 1, i + 1 < kLogicals ? 2 * (i + 1) : 0);
  }
  PartitionTable& t = LoadTable();
  ASSERT_EQ(t.Count(kKindLogical), kMaxLogicalPartitions);
  EXPECT_EQ(t.Get(kMaxLogicalPartitions, kKindLogical)->startLba, kStart + 2 * (kLogicals - 2) + 1u);
}

TEST_F(PartitionTableTest, SortByStartIsAPlainSelectionSort) {
  // Starts 5, 5, 3 (A, B, C) end as C, B, A: equal starts never exchange,
  // and the sort is not stable.
  PutSlot(0, kNtfs, 5, 1);
  PutSlot(1, 0x83, 5, 1);
  PutSlot(2, 0x0B, 3, 1);
  PartitionTable& t = LoadTable();
  t.SortByStart();
  EXPECT_EQ(std::make_tuple(t.sorted, t.records[0]->slot, t.records[1]->slot, t.records[2]->slot),
            std::make_tuple(0, 2, 1, 0));
  EXPECT_EQ(t.records[0]->primaryNumber, 3);  // numbers travel with records
  t.SortByStart();
  EXPECT_EQ(t.sorted, 1);
}

TEST_F(PartitionTableTest, SortMovesLogicalsAheadOfALaterPrimary) {
  PutSlot(0, kNtfs, 5000, 100);
  PutSlot(1, kExtended, 1000, 3000);
  PutEbr(1000, kNtfs, 63, 100, 200);
  PutEbr(1200, kNtfs, 63, 100, 0);
  PartitionTable& t = LoadTable();
  t.SortByStart();
  EXPECT_EQ(t.sorted, 0);
  const uint64_t expected[] = {1000, 1063, 1263, 5000};
  ASSERT_EQ(t.records.size(), 4u);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(t.records[i]->startLba, expected[i]) << i;
}

}  // namespace
}  // namespace dh
