// The GPT of the current disk: reading the primary header, the backup check
// and the entry array; removing entries and writing the array back; the
// restore of a saved GPT area; the GPT area's size for save and wipe.
//
// The array is kept as read, entries of every type included, so that a
// rewrite takes out only what was deleted: entries of types the program does
// not know (Linux filesystem data, for one) are never lost.  Every rewrite
// also brings the CRCs and the backup GPT up to date, because firmware and
// other tools reject, or "repair" from the stale copy, a GPT whose checksums
// or backup disagree with the primary.
#include "gpt/gpt_table.h"

#include <algorithm>
#include <cstring>

#include "base/le.h"
#include "disk/backup_file.h"
#include "disk/disk_set.h"
#include "disk/volume.h"
#include "gpt/gpt_types.h"

namespace dh {

namespace {

constexpr uint32_t kBootSectorBytes = 3 * kSectorSize;  // what file-system detection looks at

// Reads all `bytes` bytes at `lba`: a short read leaves nothing half-known.
bool ReadWhole(SectorDevice& device, uint64_t lba, uint8_t* buffer, uint32_t bytes) {
  if (lba > UINT64_MAX / kSectorSize) return false;
  bool failed = false;
  return ReadFull(device, lba * kSectorSize, buffer, bytes, &failed) == bytes && !failed;
}

bool WriteWhole(SectorDevice& device, uint64_t lba, const uint8_t* buffer, uint32_t bytes) {
  return lba <= UINT64_MAX / kSectorSize && WriteFull(device, lba * kSectorSize, buffer, bytes);
}

// The name field: UTF-16LE up to its first NUL, as 8-bit text ('?' for
// what 8 bits cannot hold).
std::string EntryName(const uint8_t* entry) {
  std::string name;
  for (size_t i = 0; i + 1 < gpt::kEntryNameSize; i += 2) {
    const uint16_t unit = LoadLe16(entry + gpt::kEntryName + i);
    if (unit == 0) break;
    name += unit < 0x100 ? static_cast<char>(unit) : '?';
  }
  return name;
}

bool IsUnusedEntry(const uint8_t* entry) {
  static const uint8_t kZero[gpt::kGuidSize] = {};
  return std::memcmp(entry + gpt::kEntryTypeGuid, kZero, gpt::kGuidSize) == 0;
}

// Reads the backup header at the alternate LBA.  One that cannot be read,
// or lies at sector 0 or 1 where it would be the protective MBR or the
// primary header itself, does not count.
void CheckBackup(DiskSet& disks, GptTable& table) {
  const uint64_t alternate = table.header.alternateLba;
  table.backupValid = alternate > 1 && ReadWhole(disks.Device(), alternate, table.backupHeader, kSectorSize) &&
                      std::memcmp(table.backupHeader + gpt::kSignature, "EFI PART", gpt::kSignatureSize) == 0;
  if (!table.backupValid) table.RecordError(kGptBackupInvalid);
}

void BuildRecord(DiskSet& disks, GptTable& table, uint32_t slot, const std::string& guidText) {
  const uint8_t* raw = table.entryArray.data() + static_cast<size_t>(slot) * gpt::kEntrySize;
  auto record = std::make_unique<PartitionRecord>();
  GptEntryDetails details;
  details.typeGuidText = guidText;
  details.typeNumber = LookupGptType(guidText, &details.shortTypeName, &details.longTypeName);

  const uint64_t first = LoadLe64(raw + gpt::kEntryFirstLba);
  const uint64_t last = LoadLe64(raw + gpt::kEntryLastLba);
  record->startLba = first;
  // An entry that ends before it starts has no sectors; the counts saturate
  // rather than wrap for entries that claim the whole 64-bit range.
  if (last >= first) record->sectorCount = last - first == UINT64_MAX ? UINT64_MAX : last - first + 1;
  record->sizeBytes =
      record->sectorCount > UINT64_MAX / kSectorSize ? UINT64_MAX : record->sectorCount * kSectorSize;
  record->isPrimary = 1;
  record->primaryNumber = static_cast<int32_t>(table.entries.size()) + 1;
  record->typeName = details.shortTypeName;
  record->gptTypeName = details.longTypeName;
  std::memcpy(record->gptTypeGuid, raw + gpt::kEntryTypeGuid, gpt::kGuidSize);
  std::memcpy(record->gptUniqueGuid, raw + gpt::kEntryUniqueGuid, gpt::kGuidSize);
  record->gptAttributes = LoadLe64(raw + gpt::kEntryAttributes);
  record->gptName = EntryName(raw);
  record->gptEntryIndex = static_cast<int32_t>(slot);
  details.required = (record->gptAttributes & gpt::kAttrRequired) != 0;
  details.readOnly = (record->gptAttributes & gpt::kAttrReadOnly) != 0;
  details.attributeHidden = (record->gptAttributes & gpt::kAttrHidden) != 0;

  // The file system from the partition's first three sectors.  Unread bytes
  // stay zero, so a failed or short read finds nothing rather than bytes of
  // another partition; entries starting beyond the disk are not read.
  uint8_t sectors[kBootSectorBytes] = {};
  bool failed = false;
  if ((disks.totalSectors == 0 || first < disks.totalSectors) && first <= UINT64_MAX / kSectorSize &&
      ReadFull(disks.Device(), first * kSectorSize, sectors, kBootSectorBytes, &failed) != 0 && !failed) {
    record->type = DetectFileSystem(sectors, sizeof sectors, &details.fileSystemName);
  }

  table.entries.push_back(std::move(record));
  table.details.push_back(std::move(details));
}

void ReadEntries(DiskSet& disks, GptTable& table) {
  const uint32_t sectors = table.header.arraySectors;
  table.entryArray.assign(static_cast<size_t>(sectors) * kSectorSize, 0);
  if (sectors != 0 && !ReadWhole(disks.Device(), table.header.entryArrayLba, table.entryArray.data(),
                                 sectors * kSectorSize)) {
    table.entryArray.clear();
    table.RecordError(kGptFileRead);
    return;
  }
  table.arrayLoaded = true;
  table.slotRemoved.assign(static_cast<size_t>(table.header.entryCount), 0);
  for (uint32_t slot = 0; slot < static_cast<uint32_t>(table.header.entryCount); ++slot) {
    const uint8_t* raw = table.entryArray.data() + static_cast<size_t>(slot) * gpt::kEntrySize;
    if (IsUnusedEntry(raw)) continue;
    const std::string guidText = FormatGuidText(raw + gpt::kEntryTypeGuid);
    if (LookupGptType(guidText, nullptr, nullptr) == 0) continue;  // unknown: kept on disk, not listed
    BuildRecord(disks, table, slot, guidText);
  }
}

// Where the backup entry array goes: the backup header's own array LBA when
// that header is valid, else the sectors right before the alternate header.
// Either must lie between the last usable LBA and the alternate header,
// inside the disk, clear of the primary array; false when neither does.
bool BackupArrayLba(const DiskSet& disks, const GptTable& table, uint64_t* out) {
  const GptHeaderFacts& h = table.header;
  const uint64_t alternate = h.alternateLba;
  const uint64_t sectors = h.arraySectors;
  if (alternate <= 1 || alternate <= h.lastUsableLba) return false;
  if (disks.totalSectors != 0 && alternate >= disks.totalSectors) return false;
  auto fits = [&](uint64_t lba) {
    return lba > h.lastUsableLba && lba >= h.entryArrayLba + sectors && lba <= alternate &&
           sectors <= alternate - lba;
  };
  if (table.backupValid) {
    const uint64_t own = LoadLe64(table.backupHeader + gpt::kEntryArrayLba);
    if (fits(own)) {
      *out = own;
      return true;
    }
  }
  if (alternate >= sectors && fits(alternate - sectors)) {
    *out = alternate - sectors;
    return true;
  }
  return false;
}

ResultCode Fail(GptTable& table, ResultCode code) {
  table.RecordError(code);
  return code;
}

// Keeps the in-memory records in step with a rewritten array: slot numbers
// move down past removed slots, positions close up.
void RenumberAfterWrite(GptTable& table, const std::vector<int32_t>& newSlot) {
  for (size_t i = 0; i < table.entries.size(); ++i) {
    PartitionRecord& record = *table.entries[i];
    if (record.gptEntryIndex >= 0 && static_cast<size_t>(record.gptEntryIndex) < newSlot.size()) {
      record.gptEntryIndex = newSlot[static_cast<size_t>(record.gptEntryIndex)];
    }
    record.primaryNumber = static_cast<int32_t>(i) + 1;
  }
}

GptTable* TableOf(DiskSet& disks) { return GptOf(disks); }
const GptTable* TableOf(const DiskSet& disks) { return GptOf(disks); }

}  // namespace

GptTable* GptOf(DiskSet& disks) { return dynamic_cast<GptTable*>(disks.Table()); }
const GptTable* GptOf(const DiskSet& disks) { return dynamic_cast<const GptTable*>(disks.Table()); }

std::vector<PartitionRecord*> GptTable::Records(int32_t) {
  std::vector<PartitionRecord*> out;
  out.reserve(entries.size());
  for (auto& record : entries) out.push_back(record.get());
  return out;
}

ResultCode GptTable::Delete(int32_t n) { return RemoveGptEntry(*owner_, n); }
ResultCode GptTable::DeleteAll() { return ClearGptEntries(*owner_); }

bool GptTable::MayHaveDriveLetter(const PartitionRecord& record) const {
  switch (record.type) {
    case 0x01: case 0x04: case 0x06: case 0x07: case 0x0B: case 0x0C: case 0x0D: case 0x0E:
      return true;
    default:
      return false;
  }
}

const char* GptTable::BackupStatusText() const {
  if (owner_ != nullptr ? owner_->isVirtual : isVirtual) return "Virtual";
  return backupValid ? "Valid" : "Invalid";
}

std::unique_ptr<TableDriver> LoadGptTable(DiskSet& disks) {
  auto table = std::make_unique<GptTable>(&disks);
  table->isVirtual = disks.isVirtual;

  if (!ReadWhole(disks.Device(), 1, table->primaryHeader, kSectorSize) ||
      ValidateGptHeader(table->primaryHeader, disks.totalSectors, &table->header) != kSuccess) {
    table->header = GptHeaderFacts{};
    table->RecordError(kGptInvalid);
    return table;
  }
  table->headerValid = true;
  CheckBackup(disks, *table);
  ReadEntries(disks, *table);
  return table;
}

ResultCode WriteGptEntries(DiskSet& disks) {
  GptTable* table = TableOf(disks);
  if (table == nullptr) return kNotGptDisk;
  if (!table->headerValid) return Fail(*table, kGptInvalid);
  if (!table->arrayLoaded) return Fail(*table, kGptFileRead);
  // A header whose size or entry size differs from what is rewritten here
  // would be left with checksums over the wrong bytes: it is not touched.
  if (!HeaderLayoutWritable(table->primaryHeader)) return Fail(*table, kGptSaveFailed);

  const GptHeaderFacts& h = table->header;
  const size_t count = static_cast<size_t>(h.entryCount);
  const size_t arrayBytes = count * gpt::kEntrySize;

  // The array closed up over the removed slots.  Bytes of the last sector
  // behind the entries stay as they were.
  std::vector<uint8_t> array = table->entryArray;
  std::fill(array.begin(), array.begin() + static_cast<std::ptrdiff_t>(arrayBytes), 0);
  std::vector<int32_t> newSlot(count, -1);
  size_t kept = 0;
  for (size_t slot = 0; slot < count; ++slot) {
    if (table->slotRemoved[slot]) continue;
    std::memcpy(array.data() + kept * gpt::kEntrySize, table->entryArray.data() + slot * gpt::kEntrySize,
                gpt::kEntrySize);
    newSlot[slot] = static_cast<int32_t>(kept++);
  }

  uint8_t primary[kSectorSize];
  std::memcpy(primary, table->primaryHeader, kSectorSize);
  StoreLe32(primary + gpt::kEntryArrayCrc, Crc32(array.data(), arrayBytes));
  UpdateHeaderCrc(primary);

  // The backup header is the primary seen from the other end of the disk.
  uint8_t backup[kSectorSize] = {};
  uint64_t backupArrayLba = 0;
  const bool writeBackup = BackupArrayLba(disks, *table, &backupArrayLba);
  if (writeBackup) {
    std::memcpy(backup, primary, kSectorSize);
    StoreLe64(backup + gpt::kMyLba, h.alternateLba);
    StoreLe64(backup + gpt::kAlternateLba, 1);
    StoreLe64(backup + gpt::kEntryArrayLba, backupArrayLba);
    UpdateHeaderCrc(backup);
  }

  // Primary array before its header, so that a header never describes an
  // array that is not there yet; the backup follows the same order.
  const uint32_t bytes = static_cast<uint32_t>(array.size());
  SectorDevice& device = disks.Device();
  bool ok = bytes == 0 || WriteWhole(device, h.entryArrayLba, array.data(), bytes);
  ok = ok && WriteWhole(device, 1, primary, kSectorSize);
  if (ok && writeBackup) {
    ok = (bytes == 0 || WriteWhole(device, backupArrayLba, array.data(), bytes)) &&
         WriteWhole(device, h.alternateLba, backup, kSectorSize);
  }
  ok = ok && device.Flush();

  // The records keep the new state even when the write failed, as the MBR
  // edits do: memory shows what was asked for, the code what happened.
  table->entryArray = std::move(array);
  std::fill(table->slotRemoved.begin(), table->slotRemoved.end(), 0);
  std::memcpy(table->primaryHeader, primary, kSectorSize);
  if (writeBackup && ok) {
    std::memcpy(table->backupHeader, backup, kSectorSize);
    table->backupValid = true;
  }
  RenumberAfterWrite(*table, newSlot);
  return ok ? kSuccess : Fail(*table, kGptSaveFailed);
}

ResultCode RemoveGptEntry(DiskSet& disks, int32_t n) {
  GptTable* table = TableOf(disks);
  if (table == nullptr) return kNotGptDisk;
  if (!table->headerValid) return Fail(*table, kGptInvalid);
  if (n < 1 || n > table->EntryCount()) return kInvalidPartition;
  const size_t index = static_cast<size_t>(n - 1);
  const int32_t slot = table->entries[index]->gptEntryIndex;
  if (slot >= 0 && static_cast<size_t>(slot) < table->slotRemoved.size()) {
    table->slotRemoved[static_cast<size_t>(slot)] = 1;
  }
  table->entries.erase(table->entries.begin() + static_cast<std::ptrdiff_t>(index));
  if (index < table->details.size()) table->details.erase(table->details.begin() + static_cast<std::ptrdiff_t>(index));
  return WriteGptEntries(disks);
}

ResultCode ClearGptEntries(DiskSet& disks) {
  GptTable* table = TableOf(disks);
  if (table == nullptr) return kNotGptDisk;
  if (!table->headerValid) return Fail(*table, kGptInvalid);
  if (!table->arrayLoaded) return Fail(*table, kGptFileRead);
  if (table->entries.empty()) return kSuccess;
  for (const auto& record : table->entries) {
    const int32_t slot = record->gptEntryIndex;
    if (slot >= 0 && static_cast<size_t>(slot) < table->slotRemoved.size()) {
      table->slotRemoved[static_cast<size_t>(slot)] = 1;
    }
  }
  table->entries.clear();
  table->details.clear();
  return WriteGptEntries(disks);
}

ResultCode RestoreGptImage(DiskSet& disks, const std::string& file) {
  GptTable* table = TableOf(disks);
  if (table == nullptr) return kNotGptDisk;

  DeviceHandle source;
  if (!source.OpenRead(file)) return Fail(*table, kGptFileOpen);
  uint8_t header[kSectorSize];
  if (!ReadWhole(source, 0, header, kSectorSize)) return Fail(*table, kGptFileRead);
  if (header[backup::kMagicOffset] != 'D' || header[backup::kMagicOffset + 1] != 'D' ||
      header[backup::kKindOffset] != kBackupGpt) {
    return Fail(*table, kGptBadBackupFile);
  }

  // A GPT area is at most sector 0, the header and the largest array; a
  // count beyond that is not a GPT save, and would only size an allocation.
  const uint32_t count = LoadLe32(header + backup::kSectorCountOffset);
  if (count > gpt::kMaxAreaSectors) return Fail(*table, kGptBadBackupFile);
  std::vector<uint8_t> data(static_cast<size_t>(count) * kSectorSize);
  if (count != 0 && !ReadWhole(source, 1, data.data(), static_cast<uint32_t>(data.size()))) {
    return Fail(*table, kGptFileRead);
  }
  source.Close();

  // The saved header must describe an array that lies on this disk, as a
  // header read from the disk must.
  if (count < 2 || ValidateGptHeader(data.data() + kSectorSize, disks.totalSectors, nullptr) != kSuccess) {
    return Fail(*table, kGptInvalid);
  }
  if (disks.totalSectors != 0 && count > disks.totalSectors) return Fail(*table, kGptSaveFailed);
  if (!WriteWhole(disks.Device(), 0, data.data(), static_cast<uint32_t>(data.size())) || !disks.Device().Flush()) {
    return Fail(*table, kGptSaveFailed);
  }
  return kSuccess;
}

bool GptHeaderValid(const DiskSet& disks) {
  const GptTable* table = TableOf(disks);
  return table != nullptr && table->headerValid;
}

uint64_t GptSaveSectorCount(const DiskSet& disks) {
  if (!GptHeaderValid(disks)) return 0;
  // Whole sectors: with a count that is not a multiple of 4 the last,
  // partly used sector of the array is saved too.
  return uint64_t{2} + GptOf(disks)->header.arraySectors;
}

uint64_t GptWipeLastSector(const DiskSet& disks) {
  if (!GptHeaderValid(disks)) return 0;
  const GptTable& table = *GptOf(disks);
  // The wipe ends before the first partition even when the header claims
  // more, so that a damaged header cannot make it run into data.
  uint64_t limit = disks.totalSectors != 0 ? disks.totalSectors : UINT64_MAX;
  if (table.arrayLoaded) {
    for (size_t slot = 0; slot < static_cast<size_t>(table.header.entryCount); ++slot) {
      const uint8_t* raw = table.entryArray.data() + slot * gpt::kEntrySize;
      if (!IsUnusedEntry(raw)) limit = std::min(limit, LoadLe64(raw + gpt::kEntryFirstLba));
    }
  }
  const uint64_t firstUsable = std::min(table.header.firstUsableLba, limit);
  // Sector 0 and the header are always part of the GPT area.
  return firstUsable < 2 ? 1 : firstUsable - 1;
}

}  // namespace dh
