// Runs the one command of a run: defaults, disk selection, the partition
// checks, confirmation, then the command's operation.
#pragma once

namespace dh {

class DiskSet;

void DispatchCommand(DiskSet& disks);

}  // namespace dh
