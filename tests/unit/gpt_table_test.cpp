// The GPT table: reading headers, backups and entries (known, unknown,
// hostile), deleting with the array closed up and the CRCs and backup kept
// consistent, restoring a saved GPT area, and the sizes of the GPT area.
#include "gpt/gpt_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "disk/disk_set.h"
#include "base/le.h"
#include "fake_machine.h"
#include "mbr/partition.h"

namespace dh {
namespace {

using test::FakeDrive;
using test::GptLayout;
using test::GptProblems;
using test::GptTestEntry;
using test::GuidBytes;
using test::SlotType;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kSectors = 16384;  // 8 MiB
const Bytes kUnused(16, 0);

Bytes Area(FakeDrive& d, uint64_t first, uint64_t count) { return Bytes(d.Sector(first), d.Sector(first + count)); }

class GptTableTest : public test::FakeDiskTest {
 protected:
  void SetUp() override { drive = &machine.AddDrive(0, kSectors); }

  // A DiskSet made now loads disk 0, and with it the GPT.
  GptTable& LoadGpt() {
    Load();
    EXPECT_TRUE(disks->isGpt);
    EXPECT_NE(GptOf(*disks), nullptr);
    return *GptOf(*disks);
  }

  // Rewrites a field of the primary header with a fresh CRC, as a tool that
  // wrote a strange header would.
  void Poke(size_t offset, uint64_t value, bool wide = true) {
    wide ? StoreLe64(drive->Sector(1) + offset, value)
         : StoreLe32(drive->Sector(1) + offset, static_cast<uint32_t>(value));
    test::SealHeader(drive->Sector(1));
  }

  // Runs `edit` and expects it to return `code` without writing anything.
  template <typename Edit>
  void ExpectNoWrite(ResultCode code, Edit edit) {
    const int writes = drive->writeCalls;
    EXPECT_EQ(edit(), code);
    EXPECT_EQ(drive->writeCalls, writes);
  }
};

const std::vector<GptTestEntry> kFourEntries = {
    {test::kEfiType, 2048, 4095, 0},
    {test::kUnknownType, 4096, 6143, 0},
    {test::kBasicDataType, 6144, 8191, 0},
    {test::kLinuxSwapType, 8192, 10239, 0},
};
const GptLayout kNoBackup{128, 2, false};

TEST_F(GptTableTest, ListsKnownEntriesInArrayOrder) {
  test::WriteGptDisk(*drive, {{test::kEfiType, 2048, 4095, gpt::kAttrRequired},
                              {test::kUnknownType, 4096, 6143, 0},
                              {"", 0, 0, 0},
                              {test::kBasicDataType, 6144, 8191, gpt::kAttrReadOnly | gpt::kAttrHidden}});
  std::memcpy(drive->Sector(6144) + 3, "NTFS", 4);
  std::memcpy(drive->Sector(2048) + 1032, "HFSJ", 4);
  GptTable& table = LoadGpt();

  EXPECT_EQ(std::make_tuple(table.firstError, table.headerValid, table.backupValid), std::make_tuple(kSuccess, true, true));
  ASSERT_EQ(table.EntryCount(), 2);
  EXPECT_EQ(PartitionCount(*disks, kKindAll), 2);
  EXPECT_EQ(table.Entry(3), nullptr);

  const PartitionRecord& efi = *table.Entry(1);
  EXPECT_EQ(std::make_tuple(efi.startLba, efi.sectorCount, efi.sizeBytes, efi.gptEntryIndex, efi.primaryNumber),
            std::make_tuple(uint64_t{2048}, uint64_t{2048}, uint64_t{1048576}, 0, 1));
  EXPECT_EQ(efi.gptTypeName, "EFI System Partition");
  EXPECT_EQ(efi.type, 4);  // HFS-J, as the file-system kind
  EXPECT_EQ(table.Details(1)->typeNumber, 2);
  EXPECT_EQ(table.Entry(2)->gptEntryIndex, 3);  // the unknown and the unused slot are skipped
  EXPECT_EQ(table.Entry(2)->type, 3);
  // File system and attributes of each entry.
  for (auto [n, fs, required, readOnly, hidden] :
       {std::tuple{1, "HFS-J", true, false, false}, std::tuple{2, "NTFS", false, true, true}}) {
    const GptEntryDetails& d = *table.Details(n);
    EXPECT_EQ(d.fileSystemName, fs);
    EXPECT_EQ(std::make_tuple(d.required, d.readOnly, d.attributeHidden), std::make_tuple(required, readOnly, hidden));
  }
}

TEST_F(GptTableTest, HostileHeadersAreInvalidAndAllocateNothing) {
  const std::tuple<const char*, size_t, uint64_t, bool> cases[] = {
      {"count -1", gpt::kEntryCount, 0xFFFFFFFF, false},
      {"count 2^31-1", gpt::kEntryCount, 0x7FFFFFFF, false},
      {"count 16385", gpt::kEntryCount, 16385, false},
      {"array beyond the disk", gpt::kEntryArrayLba, kSectors - 10, true},
      {"array far beyond", gpt::kEntryArrayLba, UINT64_MAX - 3, true},
      {"array over the header", gpt::kEntryArrayLba, 1, true},
  };
  for (const auto& [what, offset, value, wide] : cases) {
    SCOPED_TRACE(what);
    test::WriteGptDisk(*drive, kFourEntries);
    Poke(offset, value, wide);
    GptTable& table = LoadGpt();
    EXPECT_EQ(table.firstError, kGptInvalid);
    EXPECT_FALSE(table.headerValid);
    EXPECT_TRUE(table.entryArray.empty());
    // The intact backup is listed instead, and still nothing is written.
    EXPECT_TRUE(table.fromBackup);
    EXPECT_EQ(table.EntryCount(), 3);
    EXPECT_FALSE(GptHeaderValid(*disks));
    EXPECT_EQ(GptSaveSectorCount(*disks), 0u);
    ExpectNoWrite(kGptInvalid, [&] { return ClearGptEntries(*disks); });
  }
}

TEST_F(GptTableTest, HostileEntriesGiveBoundedNumbers) {
  test::WriteGptDisk(*drive, {{test::kBasicDataType, 9000, 100, 0},
                              {test::kBasicDataType, 0, UINT64_MAX, 0},
                              {test::kBasicDataType, UINT64_MAX, UINT64_MAX, 0}});
  GptTable& table = LoadGpt();
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
  EXPECT_EQ(LoadGpt().firstError, kGptInvalid);

  drive->badSectors = {3};  // inside the primary array
  GptTable& table = LoadGpt();
  EXPECT_EQ(table.firstError, kGptFileRead);
  EXPECT_TRUE(table.headerValid);
  EXPECT_EQ(table.primaryFault, GptFault::kArrayUnreadable);
  EXPECT_EQ(table.EntryCount(), 3);  // from the backup
  // An array that was not read is never written back.
  drive->badSectors.clear();
  ExpectNoWrite(kGptFileRead, [&] { return ClearGptEntries(*disks); });
  ExpectNoWrite(kGptFileRead, [&] { return RemoveGptEntry(*disks, 1); });
}

TEST_F(GptTableTest, RemovingClosesUpAndKeepsUnknownEntries) {
  test::WriteGptDisk(*drive, kFourEntries);
  GptTable& table = LoadGpt();
  ASSERT_EQ(table.EntryCount(), 3);
  const int flushes = drive->flushCalls;

  EXPECT_EQ(RemoveGptEntry(*disks, 2), kSuccess);  // the Basic Data entry in slot 2
  EXPECT_EQ(table.firstError, kSuccess);
  EXPECT_GT(drive->flushCalls, flushes);
  EXPECT_EQ(SlotType(*drive, 1), GuidBytes(test::kUnknownType));
  EXPECT_EQ(SlotType(*drive, 2), GuidBytes(test::kLinuxSwapType));
  EXPECT_EQ(SlotType(*drive, 3), kUnused);
  // The moved entry is the whole entry: its own start came along.
  EXPECT_EQ(LoadLe64(drive->Sector(2) + 2 * 128 + 32), 8192u);
  EXPECT_EQ(GptProblems(*drive), "");

  // Memory follows the disk, and a fresh read agrees.
  auto expectMoved = [](GptTable& t) {
    ASSERT_EQ(t.EntryCount(), 2);
    EXPECT_EQ(t.Entry(2)->startLba, 8192u);
    EXPECT_EQ(t.Entry(2)->gptEntryIndex, 2);
    EXPECT_EQ(t.Entry(2)->primaryNumber, 2);
    EXPECT_EQ(t.Details(2)->shortTypeName, "LX-SWAP");
  };
  expectMoved(table);
  expectMoved(LoadGpt());
}

TEST_F(GptTableTest, FailedWritesReturn202) {
  test::WriteGptDisk(*drive, kFourEntries);
  GptTable& table = LoadGpt();
  const Bytes before = drive->bytes;
  drive->writeProtected = true;
  EXPECT_EQ(RemoveGptEntry(*disks, 1), kGptSaveFailed);
  EXPECT_EQ(table.firstError, kGptSaveFailed);
  EXPECT_EQ(drive->bytes, before);
  EXPECT_EQ(ClearGptEntries(*disks), kGptSaveFailed);  // the first error stays, the second is returned

  // An entry size this program does not write is not rewritten; nor is a
  // table whose backup would overlap the usable area.
  drive->writeProtected = false;
  Poke(gpt::kEntrySizeField, 256, false);
  EXPECT_EQ(LoadGpt().EntryCount(), 3);
  ExpectNoWrite(kGptSaveFailed, [&] { return RemoveGptEntry(*disks, 1); });
  test::WriteGptDisk(*drive, kFourEntries, kNoBackup);
  Poke(gpt::kLastUsableLba, kSectors - 2);  // no room left before the disk's last sector
  LoadGpt();
  ExpectNoWrite(kGptSaveFailed, [&] { return RemoveGptEntry(*disks, 1); });
  EXPECT_EQ(GptOf(*disks)->EntryCount(), 3);
}

TEST_F(GptTableTest, EntryCountNotAMultipleOfFour) {
  test::WriteGptDisk(*drive, {{test::kEfiType, 2048, 4095, 0}, {}, {}, {}, {test::kBasicDataType, 4096, 8191, 0}},
                     GptLayout{5, 2, true});
  // Bytes behind the fifth entry in the array's last sector are not entries.
  std::memset(drive->Sector(3) + 128, 0x5A, 384);
  GptTable& table = LoadGpt();
  ASSERT_EQ(table.EntryCount(), 2);
  EXPECT_EQ(table.Entry(2)->gptEntryIndex, 4);
  EXPECT_EQ(GptSaveSectorCount(*disks), 4u);

  EXPECT_EQ(RemoveGptEntry(*disks, 1), kSuccess);
  EXPECT_EQ(SlotType(*drive, 3), GuidBytes(test::kBasicDataType));
  EXPECT_EQ(SlotType(*drive, 4), kUnused);
  EXPECT_EQ(drive->Sector(3)[128], 0x5A);
  EXPECT_EQ(drive->Sector(3)[511], 0x5A);
  EXPECT_EQ(GptProblems(*drive), "");
}

TEST_F(GptTableTest, SaveAndWipeSizes) {
  test::WriteGptDisk(*drive, kFourEntries);
  LoadGpt();
  EXPECT_TRUE(GptHeaderValid(*disks));
  EXPECT_EQ(GptSaveSectorCount(*disks), 34u);
  EXPECT_EQ(GptWipeLastSector(*disks), 33u);
  // 2048 as sfdisk writes it; a first usable LBA past the first partition
  // stops before the partition, one past the disk at its end.
  for (auto [empty, firstUsable, lastWiped] : {std::tuple{false, uint64_t{2048}, uint64_t{2047}},
                                                {false, uint64_t{100000}, uint64_t{2047}},
                                                {true, UINT64_MAX, kSectors - 1}, {true, uint64_t{0}, uint64_t{1}}}) {
    test::WriteGptDisk(*drive, empty ? std::vector<GptTestEntry>{} : kFourEntries);
    Poke(gpt::kFirstUsableLba, firstUsable);
    LoadGpt();
    EXPECT_EQ(GptWipeLastSector(*disks), lastWiped) << firstUsable;
  }
}

class GptRestoreTest : public GptTableTest {
 protected:
  // A backup file of `kind` declaring `declared` sectors and holding the
  // first `count` sectors of the disk.
  Bytes BackupFile(uint8_t kind, uint32_t count, uint32_t declared) {
    Bytes file(512, 0);
    std::memcpy(file.data(), "DDdhk\x03", 6);
    file[10] = kind;
    StoreLe64(file.data() + 130, declared);
    file[510] = file[511] = 'D';
    const Bytes data = Area(*drive, 0, count);
    file.insert(file.end(), data.begin(), data.end());
    return file;
  }

  ResultCode Restore(Bytes contents) {
    machine.AddFile("gpt.dhk", std::move(contents));
    return RestoreGptImage(*disks, "gpt.dhk");
  }
};

TEST_F(GptRestoreTest, RefusesWrongFilesAndWritesNothing) {
  test::WriteGptDisk(*drive, kFourEntries);
  LoadGpt();
  Bytes noEfi = BackupFile(3, 34, 34);
  noEfi[1024] = 'X';
  Bytes badArray = BackupFile(3, 34, 34);
  StoreLe64(badArray.data() + 1024 + gpt::kEntryArrayLba, kSectors);
  Bytes headerOnly = BackupFile(3, 0, 34);
  headerOnly.resize(300);
  const std::vector<std::tuple<const char*, Bytes, ResultCode>> cases = {
      {"kind 1 (MBR)", BackupFile(1, 1, 1), kGptBadBackupFile},
      {"raw file", Area(*drive, 0, 34), kGptBadBackupFile},
      {"huge count", BackupFile(3, 34, 0xFFFFFFFF), kFileSizeMismatch},
      {"short data", BackupFile(3, 10, 34), kGptFileRead},
      {"short header", headerOnly, kGptFileRead},
      {"no EFI PART", noEfi, kGptInvalid},
      {"one sector", BackupFile(3, 1, 1), kGptInvalid},
      {"array off the disk", badArray, kGptInvalid},
  };
  const Bytes before = drive->bytes;
  for (const auto& [what, file, expected] : cases) EXPECT_EQ(Restore(file), expected) << what;
  EXPECT_EQ(RestoreGptImage(*disks, "missing.dhk"), kGptFileOpen);
  EXPECT_EQ(drive->bytes, before);
  EXPECT_EQ(GptOf(*disks)->firstError, kGptBadBackupFile);
}

}  // namespace
}  // namespace dh
