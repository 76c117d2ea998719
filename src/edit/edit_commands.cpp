// Routing of the partition editing commands: which operation runs for which
// partition selector, the refusals that apply before anything is written,
// and the outcome each one leaves in the run state.
#include "edit/edit_commands.h"

#include <cstdint>

#include "app/messages.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "edit/partition_create.h"
#include "edit/partition_edit.h"
#include "edit/partition_sort.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"

namespace dh {

namespace {

// Why the MBR edits cannot run on the current disk, or 0.  A GPT disk keeps
// its partitions in the GPT, which these commands do not edit.  A
// superfloppy's sector 0 is a volume boot record: entries written into it
// would break the volume.  Both are refusals of the command, reported even
// under `ignore`, and nothing is written.
ResultCode MbrRefusal(const DiskSet& disks) {
  if (disks.isGpt || !disks.partitions) return kNotGptDisk;
  if (disks.superFloppy != 0) return kRemovableNoMbr;
  return kSuccess;
}

ResultCode RunFlagEdit(DiskSet& disks) {
  const RunOptions& o = Options();
  const int32_t n = o.partNumber;
  const bool all = n == kAllPartitions;
  switch (o.command) {
    case kCmdHide:
      return all ? SetAllPartitionsHidden(disks, true) : SetPartitionHidden(disks, n, true);
    case kCmdUnhide:
      return all ? SetAllPartitionsHidden(disks, false) : SetPartitionHidden(disks, n, false);
    case kCmdActive:
      // part=* never gets here (only one partition can be active); a stray
      // -1 would simply name no partition.
      return SetPartitionActive(disks, n, true);
    case kCmdInactive:
      return all ? DeactivateAllPartitions(disks) : SetPartitionActive(disks, n, false);
    case kCmdType:
      // The parser keeps -2 when the value held no hexadecimal digit and
      // refuses the argument; no such value is ever stored as a type byte.
      if (o.typeValue < 0) {
        State().badArgument = o.valueText;
        return kInvalidParameter;
      }
      return ChangePartitionType(disks, n, static_cast<uint8_t>(o.typeValue & 0xFF));
    default:
      return kSuccess;
  }
}

ResultCode DeleteAllOfCurrentDisk(DiskSet& disks) {
  if (!disks.isGpt) {
    if (ResultCode refusal = MbrRefusal(disks)) return refusal;
  }
  return DeleteAllPartitions(disks);
}

void RunDelete(DiskSet& disks) {
  const RunOptions& o = Options();
  if (o.partNumber == kAllPartitions) {
    if (o.diskNumber != kAllDisks) {
      RecordOutcome(DeleteAllOfCurrentDisk(disks), kStepDeleteAll);
      return;
    }
    // Every disk in turn; a disk that fails does not stop the others, and
    // the first failure is the run's result.
    for (int32_t d = 0; d < disks.diskCount; ++d) {
      disks.SelectDisk(d);
      RecordOutcome(DeleteAllOfCurrentDisk(disks), kStepDeleteAll);
    }
    return;
  }
  if (o.diskNumber == kAllDisks) {
    RecordOutcome(kAllDisksNeedAllPartitions, kCmdDelete);
    return;
  }
  // Logical partitions are numbered after the primaries and are never
  // deleted by number.
  const int32_t limit = disks.isGpt ? (disks.gpt ? disks.gpt->EntryCount() : 0) : PartitionCount(disks, kKindPrimary);
  if (o.partNumber < 1 || o.partNumber > limit) {
    RecordOutcome(kInvalidPartition, kCmdDelete);
    return;
  }
  if (!disks.isGpt) {
    if (ResultCode refusal = MbrRefusal(disks)) {
      RecordOutcome(refusal, kCmdDelete);
      return;
    }
  }
  RecordOutcome(DeletePartition(disks, o.partNumber), kCmdDelete);
}

}  // namespace

void RunEditCommand(DiskSet& disks) {
  const int32_t command = Options().command;
  switch (command) {
    case kCmdSort:
      // A superfloppy's one partition is always in order: 125.
      if (disks.isGpt || !disks.partitions) {
        RecordOutcome(kNotGptDisk, command);
        return;
      }
      RecordOutcome(SortPartitionEntries(disks), command);
      return;
    case kCmdIsSorted:
      if (disks.isGpt || !disks.partitions) {
        RecordOutcome(kNotGptDisk, command);
        return;
      }
      State().sortedFlag = IsSorted(*disks.partitions) ? 1 : 0;
      RecordOutcome(kSuccess, command);
      return;
    case kCmdActive:
    case kCmdInactive:
    case kCmdHide:
    case kCmdUnhide:
    case kCmdType:
      if (ResultCode refusal = MbrRefusal(disks)) {
        RecordOutcome(refusal, command);
        return;
      }
      RecordOutcome(RunFlagEdit(disks), command);
      return;
    case kCmdDelete:
      RunDelete(disks);
      return;
    case kCmdCreate:
      RecordOutcome(CreateFromArguments(disks), command);
      return;
    default:
      return;
  }
}

}  // namespace dh
