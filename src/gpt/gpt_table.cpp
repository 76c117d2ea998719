// The GPT of the current disk: reading and checking both copies (primary
// and backup header, each with its entry array) and taking the entries from
// the one that passes; removing entries and writing the array back; the
// restore of a saved GPT area; the GPT area's size for save and wipe.
//
// Only a primary that passes every check is ever rewritten: entries read
// from the backup are shown, never written back over a damaged primary.
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
#include "disk/write_plan.h"
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

bool IsUnusedEntry(const uint8_t* entry) {
  static const uint8_t kZero[gpt::kGuidSize] = {};
  return std::memcmp(entry + gpt::kEntryTypeGuid, kZero, gpt::kGuidSize) == 0;
}

// Reads the `facts.arraySectors` whole sectors of an entry array; false
// (and nothing kept) when they cannot be read.
bool ReadArray(DiskSet& disks, const GptHeaderFacts& facts, std::vector<uint8_t>* array) {
  const uint32_t sectors = facts.arraySectors;
  array->assign(static_cast<size_t>(sectors) * kSectorSize, 0);
  if (sectors == 0 || ReadWhole(disks.Device(), facts.entryArrayLba, array->data(), sectors * kSectorSize)) {
    return true;
  }
  array->clear();
  return false;
}

bool ArrayCrcMatches(const uint8_t* header, const std::vector<uint8_t>& array, int32_t count) {
  return LoadLe32(header + gpt::kEntryArrayCrc) ==
         Crc32(array.data(), static_cast<size_t>(count) * gpt::kEntrySize);
}

// The primary header at LBA 1 and its array.  A header that passes the
// field checks has its array read whatever else fails, so that it can
// still be listed (and saved) as it stands.
void CheckPrimary(DiskSet& disks, GptTable& table) {
  GptFault fault = GptFault::kUnreadable;
  if (ReadWhole(disks.Device(), 1, table.primaryHeader, kSectorSize)) {
    fault = CheckGptHeader(table.primaryHeader, 1, 0, disks.disk().totalSectors(), &table.header);
  }
  table.headerValid =
      fault != GptFault::kUnreadable && fault != GptFault::kNoSignature && fault != GptFault::kBadFields;
  if (!table.headerValid) {
    table.header = GptHeaderFacts{};
    table.primaryFault = fault;
    return;
  }
  table.arrayLoaded = ReadArray(disks, table.header, &table.entryArray);
  table.arrayCrcValid = table.arrayLoaded && ArrayCrcMatches(table.primaryHeader, table.entryArray,
                                                             table.header.entryCount);
  if (fault == GptFault::kNone && !table.arrayLoaded) fault = GptFault::kArrayUnreadable;
  if (fault == GptFault::kNone && !table.arrayCrcValid) fault = GptFault::kBadArrayCrc;
  table.primaryFault = fault;
}

// The backup header and its array.  A primary header that passed its
// checks says where the backup is; otherwise (or when it points off the
// disk) the backup is looked for at the disk's last sector, where it
// belongs.  The backup must name that sector as its own and LBA 1 as its
// alternate.
void CheckBackup(DiskSet& disks, GptTable& table) {
  const uint64_t total = disks.disk().totalSectors();
  const uint64_t alternate = table.header.alternateLba;
  uint64_t lba = 0;
  if (!IsHeaderFault(table.primaryFault) && alternate > 1 && (total == 0 || alternate < total)) {
    lba = alternate;
  } else if (total > 2) {
    lba = total - 1;
  }
  GptFault fault = GptFault::kUnreadable;
  if (lba != 0 && ReadWhole(disks.Device(), lba, table.backupHeader, kSectorSize)) {
    fault = CheckGptHeader(table.backupHeader, lba, 1, total, &table.backupFacts);
  }
  if (fault == GptFault::kNone) {
    if (!ReadArray(disks, table.backupFacts, &table.backupArray)) {
      fault = GptFault::kArrayUnreadable;
    } else if (!ArrayCrcMatches(table.backupHeader, table.backupArray, table.backupFacts.entryCount)) {
      fault = GptFault::kBadArrayCrc;
    }
  }
  if (fault != GptFault::kNone) table.backupArray.clear();
  table.backupLba = lba;
  table.backupFault = fault;
  table.backupValid = fault == GptFault::kNone;
}

void BuildRecord(DiskSet& disks, GptTable& table, const uint8_t* raw, uint32_t slot, const std::string& guidText) {
  auto record = std::make_unique<PartitionRecord>();
  EntryDetails details;
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
  record->gptEntryIndex = static_cast<int32_t>(slot);
  details.required = (record->gptAttributes & gpt::kAttrRequired) != 0;
  details.readOnly = (record->gptAttributes & gpt::kAttrReadOnly) != 0;
  details.attributeHidden = (record->gptAttributes & gpt::kAttrHidden) != 0;

  // The file system from the partition's first three sectors.  Unread bytes
  // stay zero, so a failed or short read finds nothing rather than bytes of
  // another partition; entries starting beyond the disk are not read.
  uint8_t sectors[kBootSectorBytes] = {};
  bool failed = false;
  if ((disks.disk().totalSectors() == 0 || first < disks.disk().totalSectors()) && first <= UINT64_MAX / kSectorSize &&
      ReadFull(disks.Device(), first * kSectorSize, sectors, kBootSectorBytes, &failed) != 0 && !failed) {
    record->type = DetectFileSystem(sectors, sizeof sectors, &details.fileSystemName);
  }

  table.entries.push_back(std::move(record));
  table.details.push_back(std::move(details));
}

// The records of the entries of known types in the first `count` slots of
// `array`.
void BuildEntries(DiskSet& disks, GptTable& table, const std::vector<uint8_t>& array, int32_t count) {
  for (uint32_t slot = 0; slot < static_cast<uint32_t>(count); ++slot) {
    const uint8_t* raw = array.data() + static_cast<size_t>(slot) * gpt::kEntrySize;
    if (IsUnusedEntry(raw)) continue;
    const std::string guidText = FormatGuidText(raw + gpt::kEntryTypeGuid);
    if (LookupGptType(guidText, nullptr, nullptr) == 0) continue;  // unknown: kept on disk, not listed
    BuildRecord(disks, table, raw, slot, guidText);
  }
}

// Used-slot ranges of an array, of a known type or not.
void AddOccupied(const std::vector<uint8_t>& array, int32_t count, std::vector<SectorRange>* out) {
  for (size_t slot = 0; slot < static_cast<size_t>(count); ++slot) {
    const uint8_t* raw = array.data() + slot * gpt::kEntrySize;
    if (IsUnusedEntry(raw)) continue;
    const uint64_t first = LoadLe64(raw + gpt::kEntryFirstLba);
    const uint64_t last = LoadLe64(raw + gpt::kEntryLastLba);
    if (last >= first) out->push_back({first, last - first == UINT64_MAX ? UINT64_MAX : last - first + 1});
  }
}

// Where a rewrite of the GPT writes: the primary array and header where
// the primary header says (behind sector 1, clear of every partition), and
// the backup header at the disk's last sector with its array right before
// it, beyond the last usable LBA and clear of every partition, whatever the
// header's alternate LBA says.  The write plan allows exactly these sectors.
struct RewritePlan {
  uint64_t backupHeaderLba = 0;
  uint64_t backupArrayLba = 0;
  WritePlan plan;
};

// The code a damaged table refuses a rewrite with, or 0 with `out` filled.
ResultCode PlanRewrite(DiskSet& disks, const GptTable& table, RewritePlan* out) {
  if (!table.headerValid) return kGptInvalid;
  if (!table.arrayLoaded) return kGptFileRead;
  // A header whose size or entry size differs from what is rewritten here
  // would be left with checksums over the wrong bytes: it is not touched.
  if (!HeaderLayoutWritable(table.primaryHeader)) return kGptSaveFailed;
  // Numbers from a header or array that fails a check are not trusted to
  // say where anything goes, and entries shown from the backup are no
  // licence to rewrite the primary: a damaged table waits for a repair.
  if (table.primaryFault != GptFault::kNone || table.fromBackup) return kGptInvalid;
  const GptHeaderFacts& h = table.header;
  const uint64_t sectors = h.arraySectors;
  const uint64_t total = disks.disk().totalSectors();
  if (total < 3 || sectors > total - 3) return kGptSaveFailed;
  out->backupHeaderLba = total - 1;
  out->backupArrayLba = total - 1 - sectors;
  if (out->backupArrayLba <= h.lastUsableLba || out->backupArrayLba < h.entryArrayLba + sectors) {
    return kGptSaveFailed;
  }
  WritePlan& plan = out->plan;
  plan.Allow(1, 1);
  plan.Allow(h.entryArrayLba, sectors);
  plan.Allow(out->backupArrayLba, sectors + 1);
  for (const SectorRange& r : KnownPartitionSectors(disks)) plan.Forbid(r.first, r.count);
  const bool fits = plan.Permits(1, 1) && plan.Permits(h.entryArrayLba, sectors) &&
                    plan.Permits(out->backupArrayLba, sectors + 1);
  return fits ? kSuccess : kGptSaveFailed;
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

std::vector<SectorRange> GptTable::OccupiedSectors() {
  // Every entry in use, of a known type or not, in either array that was
  // read: a partition only one copy still knows is a partition all the same.
  std::vector<SectorRange> out;
  if (arrayLoaded) AddOccupied(entryArray, header.entryCount, &out);
  if (backupValid) AddOccupied(backupArray, backupFacts.entryCount, &out);
  if (!arrayLoaded && !backupValid) {
    for (const auto& record : entries) {
      if (record->sectorCount != 0) out.push_back({record->startLba, record->sectorCount});
    }
  }
  return out;
}

bool GptTable::MayHaveDriveLetter(const PartitionRecord& record) const {
  return mbr::IsDriveLetterType(static_cast<uint32_t>(record.type));
}

const char* GptTable::BackupStatusText() const {
  if (owner_ != nullptr ? owner_->disk().isVirtual() : isVirtual) return "Virtual";
  return backupValid ? "Valid" : "Invalid";
}

namespace {

// What is wrong with one copy of the GPT, naming the structure at fault.
std::string FaultText(const char* copy, GptFault fault) {
  const std::string header = std::string("the ") + copy + " GPT header";
  const std::string array = std::string("the ") + copy + " GPT entry array";
  switch (fault) {
    case GptFault::kNone:
      break;
    case GptFault::kUnreadable:
      return header + " cannot be read";
    case GptFault::kNoSignature:
      return header + " is missing (no EFI PART signature)";
    case GptFault::kBadFields:
      return header + "'s entry count or entry array location is out of range";
    case GptFault::kBadLayout:
      return header + "'s header size or entry size is not supported";
    case GptFault::kBadHeaderCrc:
      return header + "'s CRC is wrong";
    case GptFault::kBadLba:
      return header + "'s MyLBA or AlternateLBA is wrong";
    case GptFault::kArrayUnreadable:
      return array + " cannot be read";
    case GptFault::kBadArrayCrc:
      return array + "'s CRC is wrong";
  }
  return std::string();
}

}  // namespace

bool GptTable::HeaderFacts(TableHeaderFacts* facts) const {
  // The revision and disk GUID are those of the header the entries come
  // from.  Without one that passed the field checks there is nothing to
  // show: revision 0.0 and a zero GUID stand in for it.
  const uint8_t* shown = ShownHeader();
  static const uint8_t kZeroGuid[gpt::kGuidSize] = {};
  facts->revision = shown != nullptr ? std::to_string(shown[gpt::kRevisionMajor]) + "." +
                                           std::to_string(shown[gpt::kRevisionMinor])
                                     : "0.0";
  facts->backupStatus = BackupStatusText();
  facts->diskGuid = FormatGuidText(shown != nullptr ? shown + gpt::kDiskGuid : kZeroGuid);
  return true;
}

std::vector<std::string> GptTable::Verify() const {
  std::vector<std::string> problems;
  if (primaryFault != GptFault::kNone) {
    const char* outcome = fromBackup    ? "; listing the entries of the backup GPT"
                          : arrayLoaded ? "; listing the entries of the primary GPT as they stand"
                                        : "; no entries can be listed";
    problems.push_back(FaultText("primary", primaryFault) + outcome);
  }
  if (backupFault != GptFault::kNone) problems.push_back(FaultText("backup", backupFault));
  return problems;
}

ResultCode GptTable::OwnArea(TableArea* area) const {
  if (!headerValid) return kGptInvalid;
  area->saveSectors = GptSaveSectorCount(*owner_);
  area->wipeLast = GptWipeLastSector(*owner_);
  return kSuccess;
}

uint32_t GptTable::BootRecordSectors(const PartitionRecord& record) const {
  switch (record.type) {
    case kFsFat16:
    case kFsFat32:
      return kFatBootRecordSectors;
    case kFsNtfs:
      return kNtfsBootRecordSectors;
    default:
      return 0;
  }
}

std::unique_ptr<TableDriver> LoadGptTable(DiskSet& disks) {
  auto table = std::make_unique<GptTable>(&disks);
  table->isVirtual = disks.disk().isVirtual();

  CheckPrimary(disks, *table);
  CheckBackup(disks, *table);
  if (!table->headerValid) table->RecordError(kGptInvalid);
  if (!table->backupValid) table->RecordError(kGptBackupInvalid);
  if (table->headerValid && !table->arrayLoaded) table->RecordError(kGptFileRead);

  if (table->arrayLoaded) table->slotRemoved.assign(static_cast<size_t>(table->header.entryCount), 0);
  if (table->primaryFault != GptFault::kNone && table->backupValid) {
    table->fromBackup = true;
    BuildEntries(disks, *table, table->backupArray, table->backupFacts.entryCount);
  } else if (table->arrayLoaded) {
    BuildEntries(disks, *table, table->entryArray, table->header.entryCount);
  }
  return table;
}

ResultCode WriteGptEntries(DiskSet& disks) {
  GptTable* table = TableOf(disks);
  if (table == nullptr) return kNotGptDisk;
  RewritePlan where;
  if (ResultCode refusal = PlanRewrite(disks, *table, &where)) return Fail(*table, refusal);

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

  // The primary names the backup where it now goes.
  uint8_t primary[kSectorSize];
  std::memcpy(primary, table->primaryHeader, kSectorSize);
  StoreLe64(primary + gpt::kAlternateLba, where.backupHeaderLba);
  StoreLe32(primary + gpt::kEntryArrayCrc, Crc32(array.data(), arrayBytes));
  UpdateHeaderCrc(primary);

  // The backup header is the primary seen from the other end of the disk.
  uint8_t backup[kSectorSize] = {};
  std::memcpy(backup, primary, kSectorSize);
  StoreLe64(backup + gpt::kMyLba, where.backupHeaderLba);
  StoreLe64(backup + gpt::kAlternateLba, 1);
  StoreLe64(backup + gpt::kEntryArrayLba, where.backupArrayLba);
  UpdateHeaderCrc(backup);

  // Primary array before its header, so that a header never describes an
  // array that is not there yet; the backup follows the same order.  A
  // failure anywhere puts back what was written: a primary that no longer
  // agrees with its backup is a half-written table.
  WriteScope scope(disks, where.plan);
  const uint32_t bytes = static_cast<uint32_t>(array.size());
  const bool ok = WriteAllOrNothing(disks.Device(), {{h.entryArrayLba, array.data(), bytes},
                                                     {1, primary, kSectorSize},
                                                     {where.backupArrayLba, array.data(), bytes},
                                                     {where.backupHeaderLba, backup, kSectorSize}});
  const bool writeBackup = true;

  // The records keep the new state even when the write failed, as the MBR
  // edits do: memory shows what was asked for, the code what happened.
  table->entryArray = std::move(array);
  std::fill(table->slotRemoved.begin(), table->slotRemoved.end(), 0);
  std::memcpy(table->primaryHeader, primary, kSectorSize);
  table->header.alternateLba = where.backupHeaderLba;
  if (writeBackup && ok) {
    std::memcpy(table->backupHeader, backup, kSectorSize);
    table->backupValid = true;
    table->backupFault = GptFault::kNone;
    table->backupLba = where.backupHeaderLba;
    table->backupFacts = table->header;
    table->backupFacts.entryArrayLba = where.backupArrayLba;
    table->backupFacts.alternateLba = 1;
    table->backupArray = table->entryArray;
  }
  RenumberAfterWrite(*table, newSlot);
  return ok ? kSuccess : Fail(*table, kGptSaveFailed);
}

ResultCode RemoveGptEntry(DiskSet& disks, int32_t n) {
  GptTable* table = TableOf(disks);
  if (table == nullptr) return kNotGptDisk;
  if (n < 1 || n > table->EntryCount()) return kInvalidPartition;
  // A table that cannot be rewritten is refused before anything changes.
  RewritePlan where;
  if (ResultCode refusal = PlanRewrite(disks, *table, &where)) return Fail(*table, refusal);
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
  RewritePlan where;
  if (ResultCode refusal = PlanRewrite(disks, *table, &where)) return Fail(*table, refusal);
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

namespace {

// Whether sector 0 of the disk holds no partition table at all: no 55 AA,
// or four empty entries.  A GPT backup may be restored onto such a disk
// (one whose GPT was wiped, say), never over an MBR partition table.
bool HoldsNoPartitionTable(const DiskSet& disks) {
  const uint8_t* s = disks.disk().sector0();
  if (!mbr::HasBootSignature(s)) return true;
  for (size_t slot = 0; slot < mbr::kSlotCount; ++slot) {
    if (s[mbr::kEntryOffset + mbr::kEntrySize * slot + mbr::kEntryType] != 0) return false;
  }
  return true;
}

}  // namespace

ResultCode RestoreGptImage(DiskSet& disks, const std::string& file) {
  GptTable* table = TableOf(disks);
  const auto fail = [&](ResultCode code) {
    if (table != nullptr) table->RecordError(code);
    return code;
  };
  const bool blankDisk = table == nullptr && HoldsNoPartitionTable(disks);
  if (table == nullptr && !blankDisk) return kNotGptDisk;

  DeviceHandle source;
  if (!source.OpenRead(disks.machine(), file)) return fail(kGptFileOpen);
  uint8_t header[kSectorSize];
  if (!ReadWhole(source, 0, header, kSectorSize)) return fail(kGptFileRead);
  if (header[backup::kMagicOffset] != 'D' || header[backup::kMagicOffset + 1] != 'D' ||
      header[backup::kKindOffset] != kBackupGpt) {
    return fail(kGptBadBackupFile);
  }

  // The saved header says what the area is: sector 0, the header, and the
  // array right behind it.  It must pass the checks a header read from the
  // disk passes, its CRC included, and describe an array on this disk.
  if (LoadLe64(header + backup::kSectorCountOffset) < 2) return fail(kGptInvalid);
  uint8_t head[2 * kSectorSize];
  if (!ReadWhole(source, 1, head, sizeof head)) return fail(kGptFileRead);
  const uint8_t* savedHeader = head + kSectorSize;
  GptHeaderFacts facts;
  if (ValidateGptHeader(savedHeader, disks.disk().totalSectors(), &facts) != kSuccess || !HeaderCrcMatches(savedHeader) ||
      facts.entryArrayLba != 2) {
    return fail(kGptInvalid);
  }
  const uint64_t area = uint64_t{2} + facts.arraySectors;
  // A file that holds more (or less) than that area is not restored.
  if (LoadLe64(header + backup::kSectorCountOffset) != area) return fail(kFileSizeMismatch);
  std::vector<uint8_t> data(static_cast<size_t>(area) * kSectorSize);
  if (!ReadWhole(source, 1, data.data(), static_cast<uint32_t>(data.size()))) return fail(kGptFileRead);
  source.Close();
  const size_t arrayBytes = static_cast<size_t>(facts.entryCount) * gpt::kEntrySize;
  if (Crc32(data.data() + 2 * kSectorSize, arrayBytes) != LoadLe32(data.data() + kSectorSize + gpt::kEntryArrayCrc)) {
    return fail(kGptInvalid);
  }
  // Onto a disk without a partition table only a whole GPT goes: its
  // protective MBR must be one.
  const uint8_t* mbrSector = data.data();
  if (blankDisk && (!mbr::HasBootSignature(mbrSector) ||
                    mbrSector[mbr::kSlot0TypeOffset] != mbr::kGptProtectiveType)) {
    return kNotGptDisk;
  }

  // The backup goes to the disk's end, beyond the saved usable area; the
  // restored primary names it there.
  const uint64_t total = disks.disk().totalSectors();
  const uint64_t sectors = facts.arraySectors;
  if (total < area + sectors + 1) return fail(kGptInvalid);
  const uint64_t backupHeaderLba = total - 1;
  const uint64_t backupArrayLba = total - 1 - sectors;
  if (backupArrayLba <= facts.lastUsableLba || backupArrayLba < area) return fail(kGptInvalid);
  uint8_t* primary = data.data() + kSectorSize;
  if (LoadLe64(primary + gpt::kAlternateLba) != backupHeaderLba) {
    StoreLe64(primary + gpt::kAlternateLba, backupHeaderLba);
    UpdateHeaderCrc(primary);
  }
  uint8_t backupHeader[kSectorSize];
  std::memcpy(backupHeader, primary, kSectorSize);
  StoreLe64(backupHeader + gpt::kMyLba, backupHeaderLba);
  StoreLe64(backupHeader + gpt::kAlternateLba, 1);
  StoreLe64(backupHeader + gpt::kEntryArrayLba, backupArrayLba);
  UpdateHeaderCrc(backupHeader);

  // Exactly the area and the backup, clear of every partition the disk
  // knows of now.
  WritePlan plan;
  plan.Allow(0, area);
  plan.Allow(backupArrayLba, sectors + 1);
  for (const SectorRange& r : KnownPartitionSectors(disks)) plan.Forbid(r.first, r.count);
  if (!plan.Permits(0, area) || !plan.Permits(backupArrayLba, sectors + 1)) return fail(kGptSaveFailed);
  // All of it or nothing: a restored primary beside the old backup would
  // be a half-written table.
  WriteScope scope(disks, plan);
  const bool ok = WriteAllOrNothing(
      disks.Device(), {{0, data.data(), static_cast<uint32_t>(data.size())},
                       {backupArrayLba, data.data() + 2 * kSectorSize, static_cast<uint32_t>(sectors * kSectorSize)},
                       {backupHeaderLba, backupHeader, kSectorSize}});
  return ok ? kSuccess : fail(kGptSaveFailed);
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

uint64_t GptWipeLastSector(DiskSet& disks) {
  if (!GptHeaderValid(disks)) return 0;
  const GptTable& table = *GptOf(disks);
  // The wipe ends before the first partition of either table, whatever the
  // header claims, so that a damaged header cannot make it run into data.
  uint64_t limit = disks.disk().totalSectors() != 0 ? disks.disk().totalSectors() : UINT64_MAX;
  for (const SectorRange& r : KnownPartitionSectors(disks)) limit = std::min(limit, r.first);
  // Without an array that checks out, or with none at all, the partitions
  // are not known: the wipe keeps to the area the header itself occupies
  // (at least the usual 34 sectors).
  if (!table.arrayLoaded || !table.arrayCrcValid || table.header.entryCount == 0) {
    limit = std::min(limit, std::max<uint64_t>(table.header.entryArrayLba + table.header.arraySectors, 34));
  }
  const uint64_t firstUsable = std::min(table.header.firstUsableLba, limit);
  // Sector 0 and the header are always part of the GPT area.
  return firstUsable < 2 ? 1 : firstUsable - 1;
}

}  // namespace dh
