// Flag, type and delete edits of the primary MBR entries, and the writer
// of sector 0 that all MBR edits end in.
#include "mbr/partition_edit.h"

#include <cstring>
#include <vector>

#include "base/le.h"
#include "disk/disk_set.h"
#include "mbr/partition.h"
#include "mbr/partition_create.h"
#include "mbr/type_table.h"

namespace dh {

namespace {

constexpr uint8_t kHiddenBit = 0x10;

PartitionRecord* Primary(DiskSet& disks, int32_t n) {
  PartitionTable* table = MbrTable(disks);
  return table ? table->Get(n, kKindPrimary) : nullptr;
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
  PartitionTable* table = MbrTable(disks);
  return table ? table->Records(kKindPrimary) : std::vector<PartitionRecord*>();
}

void StoreType(PartitionRecord& record, uint32_t type) {
  record.type = static_cast<int32_t>(type & 0xFF);
  record.rawEntry[mbr::kEntryType] = static_cast<uint8_t>(type);
}

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

}  // namespace

// The table driver's edits.

ResultCode PartitionTable::Refusal(Edit edit) const {
  // A superfloppy's sector 0 is a volume boot record with no entries; its
  // volume is still there to format.
  if (edit == Edit::Volume) return kSuccess;
  return owner_->disk().superFloppy() != 0 ? kRemovableNoMbr : kSuccess;
}

ResultCode PartitionTable::SetHidden(int32_t n, bool hide) {
  if (ResultCode refusal = Refusal(Edit::Entries)) return refusal;
  return n == kEveryPartition ? SetAllPartitionsHidden(*owner_, hide) : SetPartitionHidden(*owner_, n, hide);
}

ResultCode PartitionTable::SetActive(int32_t n, bool active) {
  if (ResultCode refusal = Refusal(Edit::Entries)) return refusal;
  // Only one partition can be active: every partition is a number that
  // names none when activating.
  if (n == kEveryPartition && !active) return DeactivateAllPartitions(*owner_);
  return SetPartitionActive(*owner_, n, active);
}

ResultCode PartitionTable::SetType(int32_t n, int32_t type) {
  if (ResultCode refusal = Refusal(Edit::Entries)) return refusal;
  // No type byte could be read from the command line: nothing is stored.
  if (type < 0) return kInvalidParameter;
  return ChangePartitionType(*owner_, n, static_cast<uint8_t>(type & 0xFF));
}

ResultCode PartitionTable::Add(const CreateRequest& request) {
  if (ResultCode refusal = Refusal(Edit::Entries)) return refusal;
  return CreateFromRequest(*owner_, request);
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

}  // namespace dh
