#include "mbr/volume.h"

#include "disk/disk_set.h"

namespace dh {

// File systems are not inspected yet: every partition shows without label.
void ReadVolumeLabelOf(DiskSet&, PartitionRecord& record) { record.volumeLabel.clear(); }

}  // namespace dh
