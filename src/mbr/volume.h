// Volume boot records: file system and label of a partition.
#pragma once

#include "mbr/partition.h"

namespace dh {

class DiskSet;

// Fills the record's volumeLabel from its volume boot record.
void ReadVolumeLabelOf(DiskSet& disks, PartitionRecord& record);

}  // namespace dh
