// The GPT: CRC32, GUID text and the checks a header must pass before its
// numbers are used; reading headers, backups and entries (known, unknown,
// hostile); deleting with the array closed up and the CRCs and backup kept
// consistent; restoring a saved GPT area; and the sizes of the GPT area.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "base/le.h"
#include "disk/disk_set.h"
#include "fake_machine.h"
#include "gpt/gpt_format.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"

namespace dh {
namespace {

TEST(GptFormat, Crc32GuidTextAndArraySectors) {
  const auto* check = reinterpret_cast<const uint8_t*>("123456789");
  EXPECT_EQ(Crc32(check, 9), 0xCBF43926u);
  EXPECT_EQ(Crc32(check, 0), 0u);
  EXPECT_EQ(Crc32(check + 4, 5, Crc32(check, 4)), 0xCBF43926u);  // chained
  std::vector<uint8_t> big(16384 * 128);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
  EXPECT_EQ(Crc32(big.data(), big.size()), test::ReferenceCrc32(big.data(), big.size()));

  // Mixed-endian fields, upper case.
  const uint8_t efi[16] = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                           0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};
  EXPECT_EQ(FormatGuidText(efi), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");

  for (auto [count, sectors] : {std::pair{0, 0u}, {1, 1u}, {4, 1u}, {5, 2u}, {16384, 4096u}, {-1, 0u}}) {
    EXPECT_EQ(EntryArraySectors(count), sectors) << count;
  }
}

class GptHeaderCheck : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memcpy(header, "EFI PART", 8);
    StoreLe32(header + gpt::kHeaderSize, 92);
    StoreLe64(header + gpt::kAlternateLba, 9999);
    StoreLe64(header + gpt::kFirstUsableLba, 34);
    StoreLe64(header + gpt::kLastUsableLba, 9966);
    StoreLe64(header + gpt::kEntryArrayLba, 2);
    StoreLe32(header + gpt::kEntryCount, 128);
    StoreLe32(header + gpt::kEntrySizeField, 128);
  }
  ResultCode Check(uint64_t diskSectors = 10000) { return ValidateGptHeader(header, diskSectors, &facts); }

  uint8_t header[512] = {};
  GptHeaderFacts facts;
};

TEST_F(GptHeaderCheck, AcceptsStandardHeadersAndRefusesHostileNumbers) {
  ASSERT_EQ(Check(), kSuccess);
  EXPECT_EQ(facts.entryCount, 128);
  EXPECT_EQ(facts.entryArrayLba, 2u);
  EXPECT_EQ(facts.arraySectors, 32u);
  EXPECT_EQ(facts.alternateLba, 9999u);
  EXPECT_EQ(facts.firstUsableLba, 34u);
  EXPECT_EQ(facts.lastUsableLba, 9966u);

  header[0] = 'e';
  EXPECT_EQ(Check(), kGptInvalid);
  header[0] = 'E';
  // An empty table and the largest one are headers; nothing beyond that is.
  for (auto [count, result] :
       {std::pair{0u, kSuccess}, {16384u, kSuccess}, {16385u, kGptInvalid}, {0x80000000u, kGptInvalid}}) {
    StoreLe32(header + gpt::kEntryCount, count);
    EXPECT_EQ(Check(), result) << count;
  }
  StoreLe32(header + gpt::kEntryCount, 128);

  // Arrays over sector 0 or the header, past the disk's end, or at an LBA
  // whose byte offset does not fit 64 bits; the last 32 sectors still fit.
  for (auto [lba, result] : {std::pair{uint64_t{1}, kGptInvalid}, {uint64_t{9969}, kGptInvalid},
                             {UINT64_MAX / 512, kGptInvalid}, {uint64_t{9968}, kSuccess}}) {
    StoreLe64(header + gpt::kEntryArrayLba, lba);
    EXPECT_EQ(Check(), result) << lba;
  }
  // With the disk size unknown only the LBA range holds the array.
  StoreLe64(header + gpt::kEntryArrayLba, 1u << 30);
  EXPECT_EQ(Check(0), kSuccess);
  EXPECT_EQ(Check(), kGptInvalid);
}

TEST_F(GptHeaderCheck, WritableLayoutAndHeaderCrc) {
  EXPECT_TRUE(HeaderLayoutWritable(header));
  StoreLe32(header + gpt::kEntrySizeField, 256);
  EXPECT_FALSE(HeaderLayoutWritable(header));
  StoreLe32(header + gpt::kEntrySizeField, 128);
  for (uint32_t size : {0u, 91u, 513u, 0xFFFFFFFFu}) {
    StoreLe32(header + gpt::kHeaderSize, size);
    EXPECT_FALSE(HeaderLayoutWritable(header)) << size;
    // Nothing is computed over a size that would leave the sector.
    StoreLe32(header + gpt::kHeaderCrc, 0x11111111);
    UpdateHeaderCrc(header);
    EXPECT_EQ(LoadLe32(header + gpt::kHeaderCrc), 0x11111111u);
  }
  StoreLe32(header + gpt::kHeaderSize, 92);
  UpdateHeaderCrc(header);
  const uint32_t crc = LoadLe32(header + gpt::kHeaderCrc);
  test::SealHeader(header);  // the reference CRC, over the field zeroed
  EXPECT_EQ(LoadLe32(header + gpt::kHeaderCrc), crc);
}


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
    EXPECT_TRUE(disks->disk().isGpt());
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

TEST_F(GptTableTest, HostileHeadersAreInvalidAndAllocateNothing) {
  const std::tuple<const char*, size_t, uint64_t, bool> cases[] = {
      {"count -1", gpt::kEntryCount, 0xFFFFFFFF, false},
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
  // A header that names another sector as its own is damaged all the same.
  test::WriteGptDisk(*drive, kFourEntries);
  Poke(gpt::kMyLba, 2);
  EXPECT_EQ(LoadGpt().primaryFault, GptFault::kBadLba);
  ExpectNoWrite(kGptInvalid, [&] { return ClearGptEntries(*disks); });
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
  EXPECT_EQ(std::make_tuple(table.firstError, table.headerValid, table.primaryFault),
            std::make_tuple(kGptFileRead, true, GptFault::kArrayUnreadable));
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
  Poke(gpt::kLastUsableLba, kSectors - 33);  // the backup array's first sector is still usable
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
  // A partition only the MBR of a hybrid table lists stops the wipe too.
  Poke(gpt::kFirstUsableLba, 2048);
  test::PutMbrEntry(drive->Sector(0), 446 + 16, {0, 0x07, 40, 100});
  LoadGpt();
  EXPECT_EQ(GptWipeLastSector(*disks), 39u);
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

TEST_F(GptTableTest, RestoreRefusesWrongFilesAndWritesNothing) {
  test::WriteGptDisk(*drive, kFourEntries);
  LoadGpt();
  Bytes noEfi = BackupFile(3, 34, 34);
  noEfi[1024] = 'X';
  Bytes badArray = BackupFile(3, 34, 34);
  StoreLe64(badArray.data() + 1024 + gpt::kEntryArrayLba, kSectors);
  Bytes overBackup = BackupFile(3, 34, 34);  // a usable area over where the backup array goes
  StoreLe64(overBackup.data() + 1024 + gpt::kLastUsableLba, kSectors - 33);
  test::SealHeader(overBackup.data() + 1024);
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
      {"usable area over the backup", overBackup, kGptInvalid},
  };
  const Bytes before = drive->bytes;
  for (const auto& [what, file, expected] : cases) {
    machine.AddFile("gpt.dhk", file);
    EXPECT_EQ(RestoreGptImage(*disks, "gpt.dhk"), expected) << what;
  }
  EXPECT_EQ(RestoreGptImage(*disks, "missing.dhk"), kGptFileOpen);
  EXPECT_EQ(drive->bytes, before);
  EXPECT_EQ(GptOf(*disks)->firstError, kGptBadBackupFile);
}

// A partition only the backup array still lists (here one that runs to the
// disk's end) is kept out of every rewrite and restore.
TEST_F(GptTableTest, APartitionOnlyTheBackupListsIsNeverWrittenOver) {
  std::vector<GptTestEntry> longer = kFourEntries;
  longer.push_back({test::kBasicDataType, 10240, kSectors - 1, 0});
  test::WriteGptDisk(*drive, longer);
  const Bytes backup = Area(*drive, kSectors - 33, 33);
  test::WriteGptDisk(*drive, kFourEntries);
  machine.AddFile("gpt.dhk", BackupFile(3, 34, 34));
  std::copy(backup.begin(), backup.end(), drive->Sector(kSectors - 33));
  ASSERT_EQ(LoadGpt().EntryCount(), 3);
  ExpectNoWrite(kGptSaveFailed, [&] { return RemoveGptEntry(*disks, 1); });
  ExpectNoWrite(kGptSaveFailed, [&] { return RestoreGptImage(*disks, "gpt.dhk"); });
}

}  // namespace
}  // namespace dh
