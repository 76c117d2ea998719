// The MBR partition model: decoding of MBR and EBR entries into records,
// the walk of the extended chains, counting and lookup by kind, and the
// in-memory sort by start sector.
#include "mbr/partition.h"

#include <algorithm>
#include <cstring>

#include "base/le.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "mbr/type_table.h"
#include "platform/platform.h"

namespace dh {

namespace {

uint32_t EntryFirstSector(const uint8_t* entry) { return LoadLe32(entry + mbr::kEntryFirstSector); }
uint32_t EntrySectorCount(const uint8_t* entry) { return LoadLe32(entry + mbr::kEntrySectorCount); }

bool IsAllZero(const uint8_t* bytes, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

// 10 bits of cylinder: bits 8-9 in the top of the sector byte.
uint32_t Cylinder(uint8_t sectorByte, uint8_t cylinderByte) {
  return (static_cast<uint32_t>(sectorByte & 0xC0) << 2) | cylinderByte;
}

bool IsExtendedPrimary(const PartitionRecord& record) {
  return record.isPrimary != 0 && IsExtendedType(record.rawEntry[mbr::kEntryType]);
}

bool MatchesKind(const PartitionRecord& record, int32_t kind) {
  switch (kind) {
    case kKindPrimary:
      return record.isPrimary != 0;
    case kKindLogical:
      return record.isPrimary == 0;
    case kKindExtended:
      // Only primaries are counted as extended (see Count), so a logical
      // entry that carries an extended type byte is never returned here.
      return IsExtendedPrimary(record);
    case kKindAll:
      return true;
    default:
      return false;
  }
}

}  // namespace

void DecodeEntry(PartitionRecord& record, uint32_t type, bool active) {
  const uint8_t* e = record.rawEntry;
  if (e[mbr::kEntryType] == 0) return;
  record.active = active ? 1 : 0;
  // A type is one byte on disk; keeping its low 8 bits keeps `type` and the
  // entry's type byte in step whatever an editor passes.
  record.type = static_cast<int32_t>(type & 0xFF);
  record.rawEntry[mbr::kEntryType] = static_cast<uint8_t>(type);
  record.typeName = PartitionTypeName(type & 0xFF);
  record.startCylinder = Cylinder(e[mbr::kEntryStartSector], e[mbr::kEntryStartCylinder]);
  record.startHead = e[mbr::kEntryStartHead];
  record.startSector = e[mbr::kEntryStartSector] & 0x3Fu;
  record.endCylinder = Cylinder(e[mbr::kEntryEndSector], e[mbr::kEntryEndCylinder]);
  record.endHead = e[mbr::kEntryEndHead];
  record.endSector = e[mbr::kEntryEndSector] & 0x3Fu;
  record.startLba = EntryFirstSector(e);
  record.sectorCount = EntrySectorCount(e);
  record.sizeBytes = record.sectorCount * kSectorSize;
  // Decoding uses its own hidden rule, not the type table's column: 0x11 and
  // 0x1D count as hidden, 0x3D does not.
  record.hidden = IsHiddenTypeByRule(type & 0xFF) ? 1 : 0;
}

void PartitionTable::Load() {
  records.clear();
  primaryCount = 0;
  logicalCount = 0;
  visitedEbrs_.clear();
  if (!owner_) return;
  DiskSet& disk = *owner_;
  disk.MarkTableLoaded();
  if (!disk.disk().mediumPresent()) return;

  if (disk.disk().superFloppy() != 0) {
    // A volume without partition table: the system's drive layout describes
    // the one partition.
    DriveLayoutResult layout;
    DeviceHandle* drive = disk.PhysicalDevice();
    if (drive == nullptr || !QueryDriveLayout(*drive, &layout)) return;
    auto record = std::make_unique<PartitionRecord>();
    record->type = static_cast<int32_t>(layout.type);
    const PartitionTypeInfo* row = LookupPartitionType(layout.type);
    record->typeName = row ? row->shortName : "UNKNWN";
    record->hidden = row && row->hidden ? 1 : 0;
    record->startLba = layout.startingOffset / kSectorSize;
    record->sectorCount = layout.partitionLength / kSectorSize;
    record->sizeBytes = layout.partitionLength;
    record->isPrimary = 1;
    record->primaryNumber = 1;
    primaryCount = 1;
    records.push_back(std::move(record));
    return;
  }

  if (!disk.disk().bootSignatureValid()) return;
  for (size_t slot = 0; slot < mbr::kSlotCount; ++slot) {
    const uint8_t* entry = disk.disk().sector0() + mbr::kEntryOffset + mbr::kEntrySize * slot;
    uint8_t type = entry[mbr::kEntryType];
    if (type == 0) continue;
    auto record = std::make_unique<PartitionRecord>();
    std::memcpy(record->rawEntry, entry, mbr::kEntrySize);
    DecodeEntry(*record, type, entry[mbr::kEntryBoot] == mbr::kActiveFlag);
    record->slot = static_cast<int32_t>(slot);
    record->isPrimary = 1;
    record->primaryNumber = primaryCount + 1;
    uint64_t start = record->startLba;
    records.push_back(std::move(record));
    ++primaryCount;
    if (IsExtendedType(type) && disk.walkExtended()) ReadExtendedChain(start);
  }
}

// Two choices where the on-disk chain can mislead the walk:
// - An MBR with several extended primaries numbers the logical partitions
//   of all chains in one sequence, so that every record stays reachable by
//   Count and Get and no two logical partitions share a number.
// - A chain that loops, points back into a chain already read, or breaks off
//   at an unreadable EBR ends there, keeping the partitions found so far; a
//   short read counts only for the bytes it delivered.  Nothing is reported:
//   this walk only inspects.
void PartitionTable::ReadExtendedChain(uint64_t extendedStart) {
  if (!owner_) return;
  DiskSet& disk = *owner_;
  uint64_t ebrLba = extendedStart;
  int32_t added = 0;
  for (int32_t links = 0; links < kMaxExtendedLinks; ++links) {
    if (!visitedEbrs_.insert(ebrLba).second) return;
    uint8_t ebr[kSectorSize] = {};
    if (ebrLba > UINT64_MAX / kSectorSize) return;
    bool failed = false;
    if (ReadFull(disk.Device(), ebrLba * kSectorSize, ebr, kSectorSize, &failed) == 0 || failed) return;

    const uint8_t* entry = ebr + mbr::kEntryOffset;
    uint8_t type = entry[mbr::kEntryType];
    if (type != 0) {
      if (added >= kMaxLogicalPartitions) return;
      auto record = std::make_unique<PartitionRecord>();
      std::memcpy(record->rawEntry, entry, mbr::kEntrySize);
      DecodeEntry(*record, type, entry[mbr::kEntryBoot] == mbr::kActiveFlag);
      // Both terms are below 2^33, so the sum cannot wrap.
      record->startLba = EntryFirstSector(entry) + ebrLba;
      record->ebrLba = ebrLba;
      record->sectorCount = EntrySectorCount(entry);
      record->sizeBytes = record->sectorCount * kSectorSize;
      record->isPrimary = 0;
      record->primaryNumber = 0;
      ++logicalCount;
      record->logicalNumber = logicalCount;
      std::memcpy(record->ebrImage, ebr, kSectorSize);
      records.push_back(std::move(record));
      ++added;
    }

    // The link ends the chain only when all of it is zero: a link whose
    // type byte alone is zero is still followed.
    const uint8_t* link = ebr + mbr::kEbrLinkOffset;
    if (IsAllZero(link, mbr::kEntrySize)) return;
    ebrLba = extendedStart + EntryFirstSector(link);
  }
}

int32_t PartitionTable::Count(int32_t kind) const {
  switch (kind) {
    case kKindPrimary:
      return primaryCount;
    case kKindLogical:
      return logicalCount;
    case kKindAll:
      return primaryCount + logicalCount;
    case kKindExtended: {
      int32_t seen = 0;
      int32_t extended = 0;
      for (const auto& record : records) {
        if (seen >= primaryCount) break;
        if (record->isPrimary == 0) continue;
        ++seen;
        if (IsExtendedType(record->rawEntry[mbr::kEntryType])) ++extended;
      }
      return extended;
    }
    default:
      return 0;
  }
}

PartitionRecord* PartitionTable::Get(int32_t n, int32_t kind) {
  if (n < 1 || n > Count(kind)) return nullptr;
  int32_t matched = 0;
  for (auto& record : records) {
    if (!MatchesKind(*record, kind)) continue;
    if (++matched == n) return record.get();
  }
  return nullptr;
}

std::vector<PartitionRecord*> PartitionTable::Records(int32_t kind) {
  std::vector<PartitionRecord*> out;
  const size_t count = static_cast<size_t>(std::max<int32_t>(Count(kind), 0));
  for (auto& record : records) {
    if (out.size() >= count) break;
    if (MatchesKind(*record, kind)) out.push_back(record.get());
  }
  return out;
}

void PartitionTable::SortByStart() {
  sorted = 1;
  // A plain selection sort, comparing position i with every later one and
  // exchanging on a strictly greater start: equal starts never move, and
  // the order that results (which is not stable) is the one the sort and
  // issorted commands have always produced.
  size_t count = static_cast<size_t>(Count(kKindAll) > 0 ? Count(kKindAll) : 0);
  if (count > records.size()) count = records.size();
  for (size_t i = 0; i + 1 < count; ++i) {
    for (size_t j = i + 1; j < count; ++j) {
      if (records[i]->startLba > records[j]->startLba) {
        records[i].swap(records[j]);
        sorted = 0;
      }
    }
  }
}

bool QueryDriveLayout(DeviceHandle& device, DriveLayoutResult* out) {
  *out = DriveLayoutResult{};
  platform::File* file = device.file();
  if (!file) return false;
  platform::LayoutEntry first;
  if (file->GetDriveLayoutEx(&first)) {
    // Only an MBR-style entry has a type byte; other styles give zeros.
    if (first.present && first.partitionStyle == 0) {
      out->type = first.partitionType;
      out->startingOffset = first.startingOffset;
      out->partitionLength = first.partitionLength;
    }
    return true;
  }
  first = platform::LayoutEntry{};
  if (file->GetDriveLayout(&first)) {
    if (first.present) {
      out->type = first.partitionType;
      out->startingOffset = first.startingOffset;
      out->partitionLength = first.partitionLength;
    }
    return true;
  }
  return false;
}

bool PartitionTable::MayHaveDriveLetter(const PartitionRecord& record) const {
  return mbr::IsDriveLetterType(static_cast<uint32_t>(record.type));
}

namespace {

constexpr size_t kTableBytes = mbr::kEntrySize * mbr::kSlotCount;

// A superfloppy's sector 0 is the boot record of its one volume: bytes
// 446..509 there are the volume's boot code, not partition entries, and the
// partition the table shows comes from the system's drive layout.  Writing
// entries into it would break the volume, so every MBR write refuses such a
// disk (recorded like any other failure of the disk layer).
bool RefuseSuperFloppy(DiskSet& disks) {
  if (disks.disk().superFloppy() == 0) return false;
  disks.RecordError(kRemovableNoMbr);
  return true;
}

}  // namespace

// The model is made from the sector-0 image: however a delete ends, the
// disk set rebuilds it from the image afterwards.
ResultCode PartitionTable::Delete(int32_t n) {
  DiskSet& disks = *owner_;
  disks.ReloadAfterEdit();
  if (RefuseSuperFloppy(disks)) return disks.firstError;
  PartitionRecord* record = Get(n, kKindPrimary);
  if (!record || record->slot < 0 || record->slot >= static_cast<int32_t>(mbr::kSlotCount)) {
    disks.RecordError(kInvalidPartitionSelected);
    return disks.firstError;
  }
  // Only this slot is cleared; the other entries keep their slots.  The
  // model is then rebuilt from the image, not read back: a logical chain
  // whose extended entry went is no longer reached (its EBRs stay on disk).
  static const uint8_t kEmptyEntry[mbr::kEntrySize] = {};
  disks.PatchSector0(mbr::kEntryOffset + mbr::kEntrySize * static_cast<size_t>(record->slot), kEmptyEntry,
                     mbr::kEntrySize);
  WriteSector0Image(disks);
  return disks.firstError;
}

ResultCode PartitionTable::DeleteAll() {
  DiskSet& disks = *owner_;
  disks.ReloadAfterEdit();
  if (RefuseSuperFloppy(disks)) return disks.firstError;
  // A sector 0 without the 55 AA marker (blank, unreadable, or holding
  // something else) has no partition entries to clear, and its bytes
  // 446..509 may be anyone's data: nothing is written.
  if (!disks.disk().mediumPresent() || !disks.disk().bootSignatureValid()) return disks.firstError;
  static const uint8_t kEmptyTable[kTableBytes] = {};
  disks.PatchSector0(mbr::kEntryOffset, kEmptyTable, kTableBytes);
  WriteSector0Image(disks);
  return disks.firstError;
}

uint32_t PartitionTable::BootRecordSectors(const PartitionRecord& record) const {
  return VbrSectorCount(static_cast<uint32_t>(record.type) & 0xFF);
}

std::vector<SectorRange> PartitionTable::OccupiedSectors() {
  // Extended primaries cover their logical partitions and the EBRs.
  std::vector<SectorRange> out;
  for (const auto& record : records) {
    if (record->sectorCount != 0) out.push_back({record->startLba, record->sectorCount});
  }
  return out;
}

namespace {

// Sector 0 and nothing else.
WritePlan Sector0Plan() {
  WritePlan plan;
  plan.Allow(0, 1);
  return plan;
}

}  // namespace

std::unique_ptr<TableDriver> LoadMbrTable(DiskSet& disks) {
  auto table = std::make_unique<PartitionTable>(&disks);
  table->Load();
  return table;
}

PartitionTable* MbrTable(DiskSet& disks) { return dynamic_cast<PartitionTable*>(disks.Table()); }

ResultCode WritePartitionTable(DiskSet& disks, bool sortedLayout) {
  if (RefuseSuperFloppy(disks)) return kRemovableNoMbr;
  PartitionTable* table = MbrTable(disks);
  uint8_t buffer[kSectorSize];
  std::memcpy(buffer, disks.disk().sector0(), sizeof buffer);
  if (table) table->SortByStart();
  std::memset(buffer + mbr::kEntryOffset, 0, kTableBytes);
  const std::vector<PartitionRecord*> primaries =
      table ? table->Records(kKindPrimary) : std::vector<PartitionRecord*>();
  for (size_t i = 0; i < primaries.size(); ++i) {
    const int32_t slot = sortedLayout ? static_cast<int32_t>(i) : primaries[i]->slot;
    // Loading and creation never give more than four primaries or a slot
    // outside 0..3; a record that had one could not be placed anyway.
    if (slot < 0 || slot >= static_cast<int32_t>(mbr::kSlotCount)) continue;
    std::memcpy(buffer + mbr::kEntryOffset + mbr::kEntrySize * static_cast<size_t>(slot), primaries[i]->rawEntry,
                mbr::kEntrySize);
  }
  const WritePlan plan = Sector0Plan();
  WriteScope scope(disks, plan);
  return WriteSectors(disks, 0, buffer, 1);
}

ResultCode WriteSector0Image(DiskSet& disks) {
  if (RefuseSuperFloppy(disks)) return kRemovableNoMbr;
  const WritePlan plan = Sector0Plan();
  WriteScope scope(disks, plan);
  return WriteSectors(disks, 0, disks.disk().sector0(), 1);
}

}  // namespace dh
