// The format command: the partNumber-th primary partition of the current
// disk goes to the system's format engine.  The formatter prints its own
// progress and failure lines; no outcome is recorded, so no success text
// follows.
#include "app/command_table.h"
#include "app/handlers.h"
#include "disk/disk_set.h"
#include "disk/formatter.h"

namespace dh {

void HandleFormat(CommandContext& c) {
  // The primaries come from the MBR; a GPT disk has none to count.
  if (c.disks.isGpt) {
    SetResultIfNone(kNotGptDisk);
    return;
  }
  const int32_t n = c.options.partNumber;
  Formatter formatter(c.out);
  const PartitionRecord* partition =
      n >= 1 && n <= PartitionCount(c.disks, kKindPrimary) ? GetPartition(c.disks, n, kKindPrimary) : nullptr;
  if (partition == nullptr) {
    SetResultIfNone(kInvalidPartition);
    return;
  }
  FormatVolume(c.disks, *partition, formatter);
}

}  // namespace dh
