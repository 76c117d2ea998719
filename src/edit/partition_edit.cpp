// Flag, type and delete edits of the primary MBR entries, and the writer
// of sector 0 that all MBR edits end in.
#include "edit/partition_edit.h"

#include <cstring>
#include <vector>

#include "disk/disk_set.h"
#include "base/le.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"

namespace dh {

namespace {

constexpr uint8_t kHiddenBit = 0x10;
constexpr size_t kTableBytes = mbr::kEntrySize * mbr::kSlotCount;

// A superfloppy's sector 0 is the boot record of its one volume: bytes
// 446..509 there are the volume's boot code, not partition entries, and the
// partition the table shows comes from the system's drive layout.  Writing
// entries into it would break the volume, so every MBR write refuses such a
// disk (recorded like any other failure of the disk layer).
bool RefuseSuperFloppy(DiskSet& disks) {
  if (disks.superFloppy == 0) return false;
  disks.RecordError(kRemovableNoMbr);
  return true;
}

int32_t PrimaryCount(DiskSet& disks) { return disks.partitions ? disks.partitions->Count(kKindPrimary) : 0; }

PartitionRecord* Primary(DiskSet& disks, int32_t n) {
  return disks.partitions ? disks.partitions->Get(n, kKindPrimary) : nullptr;
}

// The n-th primary for an edit of one partition; a number that names none
// records 512.
PartitionRecord* SelectedPrimary(DiskSet& disks, int32_t n) {
  PartitionRecord* record = Primary(disks, n);
  if (!record) disks.RecordError(kInvalidPartitionSelected);
  return record;
}

// Every write sorts the records by start, which renumbers the primaries.
// Loops over all primaries therefore walk the records as they stood before
// the first write: each partition is edited exactly once, whatever order
// the slots had.
std::vector<PartitionRecord*> PrimarySnapshot(DiskSet& disks) {
  return disks.partitions ? disks.partitions->Records(kKindPrimary) : std::vector<PartitionRecord*>();
}

void StoreType(PartitionRecord& record, uint32_t type) {
  record.type = static_cast<int32_t>(type & 0xFF);
  record.rawEntry[mbr::kEntryType] = static_cast<uint8_t>(type);
}

uint64_t Sector0Lba(const DiskSet& disks) { return disks.isVirtual ? disks.bootSectorLba : 0; }

ResultCode HideRecord(DiskSet& disks, PartitionRecord& record, bool hide) {
  uint32_t type = static_cast<uint32_t>(record.type) & 0xFF;
  if (hide) {
    // An already hidden type is not in the visible column, so hiding it
    // again fails like any other type outside the set.
    if (!IsHideableType(type)) {
      disks.RecordError(kCannotHide);
      return disks.firstError;
    }
    StoreType(record, type | kHiddenBit);
  } else if (record.hidden) {
    StoreType(record, type ^ kHiddenBit);
  }
  // Unhiding a visible partition still writes sector 0, unchanged.
  WritePartitionTable(disks, false);
  return disks.firstError;
}

ResultCode ActivateRecord(DiskSet& disks, PartitionRecord& record, bool activate) {
  if (activate) {
    // A hidden partition cannot boot: it is made visible first (one write).
    HideRecord(disks, record, false);
    for (PartitionRecord* other : PrimarySnapshot(disks)) {
      other->rawEntry[mbr::kEntryBoot] = 0x00;
      other->active = 0;
    }
    record.rawEntry[mbr::kEntryBoot] = mbr::kActiveFlag;
  } else {
    record.rawEntry[mbr::kEntryBoot] = 0x00;
  }
  record.active = record.rawEntry[mbr::kEntryBoot] != 0 ? 1 : 0;
  WritePartitionTable(disks, false);
  return disks.firstError;
}

// The GPT writer keeps its own first error; a failure of the entry array
// write must still become the command's result.  A disk-layer error comes
// first, and under `ignore` failures report 0 as everywhere else.
ResultCode GptOutcome(DiskSet& disks, ResultCode gptCode) {
  if (disks.firstError != kSuccess) return disks.firstError;
  if (disks.ignoreErrors) return kSuccess;
  return gptCode;
}

}  // namespace

bool IsHideableType(uint32_t type) {
  switch (type) {
    case 0x01: case 0x04: case 0x06: case 0x07: case 0x0B: case 0x0C: case 0x0D: case 0x0E: case 0x0F:
      return true;
    default:
      return false;
  }
}

ResultCode WritePartitionTable(DiskSet& disks, bool sortedLayout) {
  if (RefuseSuperFloppy(disks)) return kRemovableNoMbr;
  uint8_t buffer[kSectorSize];
  std::memcpy(buffer, disks.sector0, sizeof buffer);
  if (disks.partitions) disks.partitions->SortByStart();
  std::memset(buffer + mbr::kEntryOffset, 0, kTableBytes);
  int32_t count = PrimaryCount(disks);
  for (int32_t i = 1; i <= count; ++i) {
    PartitionRecord* record = Primary(disks, i);
    if (!record) continue;
    int32_t slot = sortedLayout ? i - 1 : record->slot;
    // Loading and creation never give more than four primaries or a slot
    // outside 0..3; a record that had one could not be placed anyway.
    if (slot < 0 || slot >= static_cast<int32_t>(mbr::kSlotCount)) continue;
    std::memcpy(buffer + mbr::kEntryOffset + mbr::kEntrySize * static_cast<size_t>(slot), record->rawEntry,
                mbr::kEntrySize);
  }
  return WriteSectors(disks, Sector0Lba(disks), buffer, 1);
}

ResultCode WriteSector0Image(DiskSet& disks) {
  if (RefuseSuperFloppy(disks)) return kRemovableNoMbr;
  return WriteSectors(disks, Sector0Lba(disks), disks.sector0, 1);
}

ResultCode SetPartitionHidden(DiskSet& disks, int32_t n, bool hide) {
  PartitionRecord* record = SelectedPrimary(disks, n);
  if (!record) return disks.firstError;
  return HideRecord(disks, *record, hide);
}

ResultCode SetAllPartitionsHidden(DiskSet& disks, bool hide) {
  // A partition that cannot be hidden (an extended entry, say) records 558
  // and the others are still hidden.
  for (PartitionRecord* record : PrimarySnapshot(disks)) HideRecord(disks, *record, hide);
  return disks.firstError;
}

ResultCode SetPartitionActive(DiskSet& disks, int32_t n, bool activate) {
  PartitionRecord* record = SelectedPrimary(disks, n);
  if (!record) return disks.firstError;
  return ActivateRecord(disks, *record, activate);
}

ResultCode DeactivateAllPartitions(DiskSet& disks) {
  for (PartitionRecord* record : PrimarySnapshot(disks)) ActivateRecord(disks, *record, false);
  return disks.firstError;
}

ResultCode ChangePartitionType(DiskSet& disks, int32_t n, uint8_t type) {
  PartitionRecord* record = SelectedPrimary(disks, n);
  if (!record) return disks.firstError;
  // Any byte is stored, 00 and EE included: the user names the type.
  StoreType(*record, type);
  WritePartitionTable(disks, false);
  return disks.firstError;
}

ResultCode DeletePartition(DiskSet& disks, int32_t n) {
  if (disks.isGpt) return GptOutcome(disks, RemoveGptEntry(disks, n));
  if (RefuseSuperFloppy(disks)) return disks.firstError;
  PartitionRecord* record = Primary(disks, n);
  if (!record || record->slot < 0 || record->slot >= static_cast<int32_t>(mbr::kSlotCount)) {
    disks.RecordError(kInvalidPartitionSelected);
    return disks.firstError;
  }
  // Only this slot is cleared; the other entries keep their slots.
  std::memset(disks.sector0 + mbr::kEntryOffset + mbr::kEntrySize * static_cast<size_t>(record->slot), 0,
              mbr::kEntrySize);
  WriteSector0Image(disks);
  // The model is rebuilt from the image, not read back: a logical chain
  // whose extended entry went is no longer reached (its EBRs stay on disk).
  disks.LoadDisk(false);
  return disks.firstError;
}

ResultCode DeleteAllPartitions(DiskSet& disks) {
  // The GPT branch rewrites the entry array only; sector 0 and its
  // protective entry stay, so there is no MBR model to rebuild.
  if (disks.isGpt) return GptOutcome(disks, ClearGptEntries(disks));
  if (RefuseSuperFloppy(disks)) return disks.firstError;
  // A sector 0 without the 55 AA marker (blank, unreadable, or holding
  // something else) has no partition entries to clear, and its bytes
  // 446..509 may be anyone's data: nothing is written.
  if (!disks.mediumPresent || !disks.bootSignatureValid) return disks.firstError;
  std::memset(disks.sector0 + mbr::kEntryOffset, 0, kTableBytes);
  WriteSector0Image(disks);
  disks.LoadDisk(false);
  return disks.firstError;
}

}  // namespace dh
