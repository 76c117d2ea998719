#include "app/dispatcher.h"

#include "app/command_table.h"
#include "app/confirm.h"
#include "app/messages.h"
#include "base/sink.h"
#include "disk/disk_set.h"

namespace dh {

void DispatchCommand(CommandContext& c) {
  RunOptions& o = c.options;
  RunState& s = c.state;
  DiskSet& disks = c.disks;
  const CommandSpec* spec = FindCommand(o.command);
  const uint32_t rules = spec ? spec->selectors : 0;

  if (s.resultCode == kSuccess) {
    if (o.diskNumber == kDiskNotGiven) {
      o.diskNumber = 0;
      o.diskExplicit = false;
    }
    const bool partGiven = o.partNumber != kPartNotGiven;
    if (!partGiven) o.partNumber = 1;
    const bool wholeDisk = (rules & kWholeDisk) != 0 && o.areaKind != kAreaVbr;
    if (o.sectorNumber == kSectorNotGiven) o.sectorNumber = 0;

    bool selected = false;
    if (o.diskNumber != kAllDisks) {
      if (o.diskNumber == kVirtualDiskNumber) {
        disks.OpenVirtualDisk(o.diskFileName);
      } else {
        disks.SelectDisk(o.diskNumber);
      }
      selected = true;
      if (disks.firstError != kSuccess) {
        SetResultIfNone(disks.firstError);
      } else {
        s.completedStep = 0;
      }
    }

    if (selected) {
      if (o.partNumber == kAllPartitions) {
        if ((rules & kAllPartitionsOk) == 0) SetResultIfNone(kInvalidPartition);
      } else {
        // On a GPT disk this counts its entries.
        const int32_t count = PartitionCount(disks, kKindAll);
        const bool inRange = o.partNumber >= 1 && o.partNumber <= count;
        if (!inRange && (rules & kAnyPartNumber) == 0 && (partGiven || !wholeDisk)) SetResultIfNone(kInvalidPartition);
      }
    }

    if (o.diskNumber == kAllDisks && (rules & kAllDisksOk) == 0) SetResultIfNone(kAllDisksNotAllowed);
    if (o.partNumber == kAllPartitions && (rules & kAllPartitionsOk) == 0) SetResultIfNone(kAllPartitionsNotAllowed);

    // A command that would write is refused before its question on a disk
    // that opened for reading only; what writes without a question meets
    // the same refusal at its first write.
    if (s.resultCode == kSuccess && selected && disks.WritesRefused() && !ConfirmActionText(o, disks).empty()) {
      SetResultIfNone(kVmdkReadOnly);
    }

    if (s.resultCode == kSuccess) {
      if (!o.confirmed && !ConfirmCommand(o, disks, c.out)) {
        SetResultIfNone(kUserCancelled);
      } else if (spec != nullptr && spec->handler != nullptr) {
        spec->handler(c);
      }
    }
  }

  if (o.helpRequested) PrintUsage(c.out);
  if (!o.silent) c.out.Write("\n");
}

}  // namespace dh
