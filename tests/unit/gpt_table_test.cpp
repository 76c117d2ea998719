// The GPT table: reading headers, backups and entries (known, unknown,
// hostile), deleting with the array closed up and the CRCs and backup kept
// consistent, restoring a saved GPT area, and the sizes of the GPT area.
#include "gpt/gpt_table.h"

#include <gtest/gtest.h>

#include <cstring>

#include "disk/disk_set.h"
#include "disk/le.h"
#include "fake_machine.h"
#include "gpt_test_image.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::FakeDrive;
using test::FakeMachine;
using test::GptLayout;
using test::GptProblems;
using test::GptTestEntry;
using test::GuidBytes;
using test::ScopedHost;
using test::SlotType;

constexpr uint64_t kSectors = 16384;  // 8 MiB

class GptTableTest : public ::testing::Test {
 protected:
  void SetUp() override { drive = &machine.AddDrive(0, kSectors); }

  // A DiskSet made now loads disk 0, and with it the GPT.
  GptTable& Load() {
    disks = std::make_unique<DiskSet>(false);
    EXPECT_TRUE(disks->isGpt);
    EXPECT_NE(disks->gpt, nullptr);
    return *disks->gpt;
  }

  // Rewrites a field of the primary header with a fresh CRC, as a tool that
  // wrote a strange header would.
  void PokeHeader32(size_t offset, uint32_t value) {
    StoreLe32(drive->Sector(1) + offset, value);
    test::SealHeader(drive->Sector(1));
  }
  void PokeHeader64(size_t offset, uint64_t value) {
    StoreLe64(drive->Sector(1) + offset, value);
    test::SealHeader(drive->Sector(1));
  }

  FakeMachine machine;
  ScopedHost host{&machine};
  FakeDrive* drive = nullptr;
  std::unique_ptr<DiskSet> disks;
};

const std::vector<GptTestEntry> kFourEntries = {
    {test::kEfiType, 2048, 4095, 0},
    {test::kLinuxFsType, 4096, 6143, 0},
    {test::kBasicDataType, 6144, 8191, 0},
    {test::kLinuxSwapType, 8192, 10239, 0},
};

TEST_F(GptTableTest, ListsKnownEntriesInArrayOrder) {
  test::WriteGptDisk(*drive, {{test::kEfiType, 2048, 4095, gpt::kAttrRequired},
                              {test::kLinuxFsType, 4096, 6143, 0},
                              {"", 0, 0, 0},
                              {test::kBasicDataType, 6144, 8191, gpt::kAttrReadOnly | gpt::kAttrHidden}});
  std::memcpy(drive->Sector(6144) + 3, "NTFS", 4);
  std::memcpy(drive->Sector(2048) + 1032, "HFSJ", 4);
  GptTable& table = Load();

  EXPECT_EQ(table.firstError, kSuccess);
  EXPECT_TRUE(table.headerValid);
  EXPECT_TRUE(table.backupValid);
  ASSERT_EQ(table.EntryCount(), 2);
  EXPECT_EQ(PartitionCount(*disks, kKindAll), 2);
  EXPECT_EQ(GetPartition(*disks, 2, kKindPrimary), table.Entry(2));

  const PartitionRecord& efi = *table.Entry(1);
  EXPECT_EQ(efi.startLba, 2048u);
  EXPECT_EQ(efi.sectorCount, 2048u);
  EXPECT_EQ(efi.sizeBytes, 1048576u);
  EXPECT_EQ(efi.gptEntryIndex, 0);
  EXPECT_EQ(efi.primaryNumber, 1);
  EXPECT_EQ(efi.typeName, "EFI");
  EXPECT_EQ(efi.gptTypeName, "EFI System Partition");
  EXPECT_EQ(efi.type, 4);  // HFS-J, as the file-system kind
  const GptEntryDetails& efiDetails = *table.Details(1);
  EXPECT_EQ(efiDetails.typeNumber, 2);
  EXPECT_EQ(efiDetails.typeGuidText, test::kEfiType);
  EXPECT_EQ(efiDetails.fileSystemName, "HFS-J");
  EXPECT_TRUE(efiDetails.required);
  EXPECT_FALSE(efiDetails.readOnly);
  EXPECT_FALSE(efiDetails.attributeHidden);

  const PartitionRecord& data = *table.Entry(2);
  EXPECT_EQ(data.gptEntryIndex, 3);  // the unknown and the unused slot are skipped
  EXPECT_EQ(data.type, 3);
  EXPECT_EQ(table.Details(2)->fileSystemName, "NTFS");
  EXPECT_EQ(table.Details(2)->longTypeName, "Basic Data Partition");
  EXPECT_FALSE(table.Details(2)->required);
  EXPECT_TRUE(table.Details(2)->readOnly);
  EXPECT_TRUE(table.Details(2)->attributeHidden);
  EXPECT_EQ(table.Entry(3), nullptr);
  EXPECT_EQ(table.Details(0), nullptr);
}

TEST_F(GptTableTest, MissingBackupIsReportedButEntriesStay) {
  test::WriteGptDisk(*drive, kFourEntries, GptLayout{128, 2, false});
  GptTable& table = Load();
  EXPECT_EQ(table.firstError, kGptBackupInvalid);
  EXPECT_FALSE(table.backupValid);
  EXPECT_EQ(table.EntryCount(), 3);
}

TEST_F(GptTableTest, ShortReadsAreCompleted) {
  test::WriteGptDisk(*drive, kFourEntries);
  Load();
  drive->readLimit = 100;  // the device hands out at most 100 bytes a call
  disks->gpt = LoadGpt(*disks);
  EXPECT_EQ(disks->gpt->firstError, kSuccess);
  EXPECT_EQ(disks->gpt->EntryCount(), 3);
}

TEST_F(GptTableTest, HostileHeadersAreInvalidAndAllocateNothing) {
  struct Case {
    const char* what;
    size_t offset;
    uint64_t value;
    bool wide;
  };
  const Case cases[] = {
      {"count -1", gpt::kEntryCount, 0xFFFFFFFF, false},
      {"count 2^31-1", gpt::kEntryCount, 0x7FFFFFFF, false},
      {"count 16385", gpt::kEntryCount, 16385, false},
      {"array beyond the disk", gpt::kEntryArrayLba, kSectors - 10, true},
      {"array far beyond", gpt::kEntryArrayLba, UINT64_MAX - 3, true},
      {"array over the header", gpt::kEntryArrayLba, 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::WriteGptDisk(*drive, kFourEntries);
    c.wide ? PokeHeader64(c.offset, c.value) : PokeHeader32(c.offset, static_cast<uint32_t>(c.value));
    GptTable& table = Load();
    EXPECT_EQ(table.firstError, kGptInvalid);
    EXPECT_FALSE(table.headerValid);
    EXPECT_EQ(table.EntryCount(), 0);
    EXPECT_TRUE(table.entryArray.empty());
    EXPECT_FALSE(GptHeaderValid(*disks));
    EXPECT_EQ(GptSaveSectorCount(*disks), 0u);
    const int writes = drive->writeCalls;
    EXPECT_EQ(ClearGptEntries(*disks), kGptInvalid);
    EXPECT_EQ(drive->writeCalls, writes);
  }
}

TEST_F(GptTableTest, HostileEntriesGiveBoundedNumbers) {
  test::WriteGptDisk(*drive, {{test::kBasicDataType, 9000, 100, 0},
                              {test::kBasicDataType, 0, UINT64_MAX, 0},
                              {test::kBasicDataType, UINT64_MAX, UINT64_MAX, 0}});
  GptTable& table = Load();
  ASSERT_EQ(table.EntryCount(), 3);
  EXPECT_EQ(table.Entry(1)->sectorCount, 0u);  // ends before it starts
  EXPECT_EQ(table.Entry(2)->sectorCount, UINT64_MAX);
  EXPECT_EQ(table.Entry(2)->sizeBytes, UINT64_MAX);
  EXPECT_EQ(table.Entry(3)->sectorCount, 1u);
  EXPECT_EQ(table.Entry(3)->sizeBytes, 512u);
}

TEST_F(GptTableTest, UnreadableHeaderOrArray) {
  test::WriteGptDisk(*drive, kFourEntries);
  drive->badSectors = {1};
  EXPECT_EQ(Load().firstError, kGptInvalid);

  drive->badSectors = {3};  // inside the primary array
  GptTable& table = Load();
  EXPECT_EQ(table.firstError, kGptFileRead);
  EXPECT_TRUE(table.headerValid);
  EXPECT_EQ(table.EntryCount(), 0);
  // An array that was not read is never written back.
  drive->badSectors.clear();
  const int writes = drive->writeCalls;
  EXPECT_EQ(ClearGptEntries(*disks), kGptFileRead);
  EXPECT_EQ(RemoveGptEntry(*disks, 1), kInvalidPartition);
  EXPECT_EQ(drive->writeCalls, writes);
}

TEST_F(GptTableTest, RemovingClosesUpAndKeepsUnknownEntries) {
  test::WriteGptDisk(*drive, kFourEntries);
  GptTable& table = Load();
  ASSERT_EQ(table.EntryCount(), 3);
  const int flushes = drive->flushCalls;

  EXPECT_EQ(RemoveGptEntry(*disks, 2), kSuccess);  // the Basic Data entry in slot 2
  EXPECT_EQ(table.firstError, kSuccess);
  EXPECT_GT(drive->flushCalls, flushes);
  EXPECT_EQ(SlotType(*drive, 0), GuidBytes(test::kEfiType));
  EXPECT_EQ(SlotType(*drive, 1), GuidBytes(test::kLinuxFsType));
  EXPECT_EQ(SlotType(*drive, 2), GuidBytes(test::kLinuxSwapType));
  EXPECT_EQ(SlotType(*drive, 3), std::vector<uint8_t>(16, 0));
  // The moved entry is the whole entry: its own start came along.
  EXPECT_EQ(LoadLe64(drive->Sector(2) + 2 * 128 + 32), 8192u);
  EXPECT_EQ(GptProblems(*drive), "");

  // Memory follows the disk.
  ASSERT_EQ(table.EntryCount(), 2);
  EXPECT_EQ(table.Entry(2)->startLba, 8192u);
  EXPECT_EQ(table.Entry(2)->gptEntryIndex, 2);
  EXPECT_EQ(table.Entry(2)->primaryNumber, 2);
  EXPECT_EQ(table.Details(2)->shortTypeName, "LX-SWAP");

  // And a fresh read agrees.
  GptTable& again = Load();
  EXPECT_EQ(again.firstError, kSuccess);
  ASSERT_EQ(again.EntryCount(), 2);
  EXPECT_EQ(again.Entry(2)->gptEntryIndex, 2);
}

TEST_F(GptTableTest, ClearingLeavesOnlyUnknownEntries) {
  test::WriteGptDisk(*drive, kFourEntries);
  const std::vector<uint8_t> sector0(drive->Sector(0), drive->Sector(0) + 512);
  Load();
  EXPECT_EQ(ClearGptEntries(*disks), kSuccess);
  EXPECT_EQ(SlotType(*drive, 0), GuidBytes(test::kLinuxFsType));
  for (uint32_t slot = 1; slot < 128; ++slot) EXPECT_EQ(SlotType(*drive, slot), std::vector<uint8_t>(16, 0));
  EXPECT_EQ(GptProblems(*drive), "");
  EXPECT_EQ(std::vector<uint8_t>(drive->Sector(0), drive->Sector(0) + 512), sector0);
  EXPECT_EQ(disks->gpt->EntryCount(), 0);

  // Nothing left to delete: nothing is written.
  const int writes = drive->writeCalls;
  EXPECT_EQ(ClearGptEntries(*disks), kSuccess);
  EXPECT_EQ(drive->writeCalls, writes);
}

TEST_F(GptTableTest, DeleteRebuildsAMissingBackup) {
  test::WriteGptDisk(*drive, kFourEntries, GptLayout{128, 2, false});
  GptTable& table = Load();
  ASSERT_EQ(table.firstError, kGptBackupInvalid);
  // The load-time 201 is not this write's result.
  EXPECT_EQ(RemoveGptEntry(*disks, 1), kSuccess);
  EXPECT_EQ(table.firstError, kGptBackupInvalid);
  EXPECT_EQ(GptProblems(*drive), "");
  EXPECT_EQ(LoadLe64(drive->Sector(kSectors - 1) + gpt::kEntryArrayLba), kSectors - 33);
}

TEST_F(GptTableTest, BackupNotWrittenWhereItWouldOverlapTheUsableArea) {
  test::WriteGptDisk(*drive, kFourEntries, GptLayout{128, 2, false});
  PokeHeader64(gpt::kLastUsableLba, kSectors - 2);  // no room left before the alternate header
  Load();
  const std::vector<uint8_t> tail(drive->Sector(kSectors - 40), drive->Sector(kSectors - 40) + 40 * 512);
  EXPECT_EQ(RemoveGptEntry(*disks, 1), kSuccess);
  EXPECT_EQ(std::vector<uint8_t>(drive->Sector(kSectors - 40), drive->Sector(kSectors - 40) + 40 * 512), tail);
  EXPECT_EQ(SlotType(*drive, 0), GuidBytes(test::kLinuxFsType));
}

TEST_F(GptTableTest, FailedWriteReturns202) {
  test::WriteGptDisk(*drive, kFourEntries);
  GptTable& table = Load();
  const std::vector<uint8_t> before = drive->bytes;
  drive->writeProtected = true;
  EXPECT_EQ(RemoveGptEntry(*disks, 1), kGptSaveFailed);
  EXPECT_EQ(table.firstError, kGptSaveFailed);
  EXPECT_EQ(drive->bytes, before);
  // The first error stays; the second failure is still returned.
  EXPECT_EQ(ClearGptEntries(*disks), kGptSaveFailed);
}

TEST_F(GptTableTest, EntryCountNotAMultipleOfFour) {
  std::vector<GptTestEntry> entries = {{test::kEfiType, 2048, 4095, 0}, {}, {}, {},
                                       {test::kBasicDataType, 4096, 8191, 0}};
  test::WriteGptDisk(*drive, entries, GptLayout{5, 2, true});
  // Bytes behind the fifth entry in the array's last sector are not entries.
  std::memset(drive->Sector(3) + 128, 0x5A, 384);
  GptTable& table = Load();
  ASSERT_EQ(table.EntryCount(), 2);
  EXPECT_EQ(table.Entry(2)->gptEntryIndex, 4);
  EXPECT_EQ(GptSaveSectorCount(*disks), 4u);

  EXPECT_EQ(RemoveGptEntry(*disks, 1), kSuccess);
  EXPECT_EQ(SlotType(*drive, 3), GuidBytes(test::kBasicDataType));
  EXPECT_EQ(SlotType(*drive, 4), std::vector<uint8_t>(16, 0));
  EXPECT_EQ(drive->Sector(3)[128], 0x5A);
  EXPECT_EQ(drive->Sector(3)[511], 0x5A);
  EXPECT_EQ(GptProblems(*drive), "");
}

TEST_F(GptTableTest, StrangeEntrySizeIsNotRewritten) {
  test::WriteGptDisk(*drive, kFourEntries);
  PokeHeader32(gpt::kEntrySizeField, 256);
  GptTable& table = Load();
  EXPECT_EQ(table.EntryCount(), 3);
  const int writes = drive->writeCalls;
  EXPECT_EQ(RemoveGptEntry(*disks, 1), kGptSaveFailed);
  EXPECT_EQ(drive->writeCalls, writes);
}

TEST_F(GptTableTest, SaveAndWipeSizes) {
  test::WriteGptDisk(*drive, kFourEntries);
  Load();
  EXPECT_TRUE(GptHeaderValid(*disks));
  EXPECT_EQ(GptSaveSectorCount(*disks), 34u);
  EXPECT_EQ(GptWipeLastSector(*disks), 33u);

  PokeHeader64(gpt::kFirstUsableLba, 2048);  // as sfdisk writes it
  Load();
  EXPECT_EQ(GptWipeLastSector(*disks), 2047u);

  // A first usable LBA past the first partition stops before the partition,
  // one past the disk stops at its end.
  PokeHeader64(gpt::kFirstUsableLba, 100000);
  Load();
  EXPECT_EQ(GptWipeLastSector(*disks), 2047u);
  test::WriteGptDisk(*drive, {});
  PokeHeader64(gpt::kFirstUsableLba, UINT64_MAX);
  Load();
  EXPECT_EQ(GptWipeLastSector(*disks), kSectors - 1);
  PokeHeader64(gpt::kFirstUsableLba, 0);
  Load();
  EXPECT_EQ(GptWipeLastSector(*disks), 1u);
}

// The GPT of a disk whose sector 0 lies inside its device, as a virtual
// disk's does: every read and write is shifted.
TEST_F(GptTableTest, AddressesRelativeToTheDisksBase) {
  constexpr uint64_t kBase = 100;
  constexpr uint64_t kInner = 8192;
  FakeDrive inner;
  inner.bytes.assign(kInner * 512, 0);
  test::WriteGptDisk(inner, kFourEntries);
  std::memcpy(inner.Sector(6144) + 82, "FAT32", 5);
  std::memcpy(drive->Sector(kBase), inner.bytes.data(), inner.bytes.size());

  disks = std::make_unique<DiskSet>(false);  // its own sector 0 is empty
  disks->bootSectorLba = kBase;
  disks->totalSectors = kInner;
  disks->isGpt = true;
  disks->gpt = LoadGpt(*disks);
  GptTable& table = *disks->gpt;
  EXPECT_EQ(table.firstError, kSuccess);
  ASSERT_EQ(table.EntryCount(), 3);
  EXPECT_EQ(table.Details(2)->fileSystemName, "FAT32");

  EXPECT_EQ(RemoveGptEntry(*disks, 1), kSuccess);
  std::memcpy(inner.bytes.data(), drive->Sector(kBase), inner.bytes.size());
  EXPECT_EQ(GptProblems(inner), "");
  EXPECT_EQ(SlotType(inner, 0), GuidBytes(test::kLinuxFsType));
  EXPECT_EQ(GptWipeLastSector(*disks), 2 + 32 - 1u);
}

class GptRestoreTest : public GptTableTest {
 protected:
  // A backup file of `kind` holding the first `count` sectors of the disk.
  std::vector<uint8_t> BackupFile(uint8_t kind, uint32_t count, uint32_t declared) {
    std::vector<uint8_t> file(512, 0);
    file[0] = file[1] = 'D';
    std::memcpy(file.data() + 2, "dhk", 3);
    file[5] = 3;
    file[10] = kind;
    StoreLe64(file.data() + 130, declared);
    file[510] = file[511] = 'D';
    file.insert(file.end(), drive->bytes.begin(), drive->bytes.begin() + count * 512);
    return file;
  }

  ResultCode Restore(std::vector<uint8_t> contents) {
    machine.AddFile("gpt.dhk", std::move(contents));
    return RestoreGptImage(*disks, "gpt.dhk");
  }
};

TEST_F(GptRestoreTest, WritesTheSavedAreaBack) {
  test::WriteGptDisk(*drive, kFourEntries);
  const std::vector<uint8_t> saved = BackupFile(3, 34, 34);
  const std::vector<uint8_t> area(drive->bytes.begin(), drive->bytes.begin() + 34 * 512);
  Load();
  std::memset(drive->bytes.data(), 0, 34 * 512);
  EXPECT_EQ(Restore(saved), kSuccess);
  EXPECT_EQ(std::vector<uint8_t>(drive->bytes.begin(), drive->bytes.begin() + 34 * 512), area);
  EXPECT_EQ(disks->gpt->firstError, kSuccess);
}

TEST_F(GptRestoreTest, RefusesWrongFilesAndWritesNothing) {
  test::WriteGptDisk(*drive, kFourEntries);
  Load();
  struct Case {
    const char* what;
    std::vector<uint8_t> file;
    ResultCode expected;
  };
  std::vector<uint8_t> noEfi = BackupFile(3, 34, 34);
  noEfi[1024] = 'X';
  std::vector<uint8_t> badArray = BackupFile(3, 34, 34);
  StoreLe64(badArray.data() + 1024 + gpt::kEntryArrayLba, kSectors);
  std::vector<uint8_t> headerOnly = BackupFile(3, 0, 34);
  headerOnly.resize(300);
  const std::vector<Case> cases = {
      {"kind 1 (MBR)", BackupFile(1, 1, 1), kGptBadBackupFile},
      {"raw file", std::vector<uint8_t>(drive->bytes.begin(), drive->bytes.begin() + 34 * 512), kGptBadBackupFile},
      {"huge count", BackupFile(3, 34, 0xFFFFFFFF), kGptBadBackupFile},
      {"short data", BackupFile(3, 10, 34), kGptFileRead},
      {"short header", headerOnly, kGptFileRead},
      {"no EFI PART", noEfi, kGptInvalid},
      {"one sector", BackupFile(3, 1, 1), kGptInvalid},
      {"array off the disk", badArray, kGptInvalid},
  };
  const std::vector<uint8_t> before = drive->bytes;
  for (const Case& c : cases) {
    EXPECT_EQ(Restore(c.file), c.expected) << c.what;
  }
  EXPECT_EQ(RestoreGptImage(*disks, "missing.dhk"), kGptFileOpen);
  EXPECT_EQ(drive->bytes, before);
  EXPECT_EQ(disks->gpt->firstError, kGptBadBackupFile);
}

TEST_F(GptRestoreTest, NeedsAGptDisk) {
  disks = std::make_unique<DiskSet>(false);  // sector 0 is empty: not a GPT disk
  EXPECT_FALSE(disks->isGpt);
  EXPECT_EQ(RestoreGptImage(*disks, "gpt.dhk"), kNotGptDisk);
  EXPECT_EQ(ClearGptEntries(*disks), kNotGptDisk);
  EXPECT_FALSE(GptHeaderValid(*disks));
  EXPECT_EQ(GptWipeLastSector(*disks), 0u);
}

}  // namespace
}  // namespace dh
