// The format command: the partNumber-th primary partition of the current
// disk goes to the system's format engine.  The formatter prints its own
// progress and failure lines; no outcome is recorded, so no success text
// follows.
//
// Formatting asks nothing, except when the volume is BitLocker-encrypted:
// its boot sector looks like FAT32 to other tools, and what the format
// overwrites could only ever be read with its key.  The question is asked
// here, from the boot sector as it is now; /confirm answers it as any other.
#include <cstdio>

#include "app/command_table.h"
#include "app/confirm.h"
#include "disk/disk_set.h"
#include "disk/formatter.h"
#include "disk/volume.h"

namespace dh {

void HandleFormat(CommandContext& c) {
  // The partitions are numbered among the primaries, which only the MBR has.
  const TableDriver* table = c.disks.Table();
  if (const ResultCode refusal = table != nullptr ? table->Refusal(TableDriver::Edit::Volume) : kSuccess) {
    SetResultIfNone(refusal);
    return;
  }
  const int32_t n = c.options.partNumber;
  const PartitionRecord* partition =
      n >= 1 && n <= PartitionCount(c.disks, kKindPrimary) ? GetPartition(c.disks, n, kKindPrimary) : nullptr;
  if (partition == nullptr) {
    SetResultIfNone(kInvalidPartition);
    return;
  }
  if (!c.options.confirmed && ReadVolumeEncrypted(c.disks, partition->startLba)) {
    // A virtual disk file has no disk number of its own.
    char action[96];
    if (c.disks.disk().isVirtual()) {
      std::snprintf(action, sizeof action, "format the encrypted (BitLocker) volume of virtual disk partition %d",
                    static_cast<int>(n));
    } else {
      std::snprintf(action, sizeof action, "format the encrypted (BitLocker) volume of partition %d on disk %d",
                    static_cast<int>(n), static_cast<int>(c.disks.currentDisk));
    }
    if (!ConfirmAction(action, c.out)) {
      SetResultIfNone(kUserCancelled);
      return;
    }
  }
  Formatter formatter(c.out, c.disks.machine());
  FormatVolume(c.disks, *partition, formatter);
}

}  // namespace dh
