// Whether the partition table lists its partitions in the order they lie on
// the disk, and the sort command that rewrites the primary entries so.
#pragma once

#include "base/result_codes.h"

namespace dh {

class DiskSet;
class PartitionTable;

// True when no record has a later record with a smaller start sector (equal
// starts never count as out of order); sets the table's `sorted` indicator.
// The answer is the one SortByStart gives by exchanging nothing.
bool IsSorted(PartitionTable& table);

// The sort command on the current MBR disk: 125 when the table is already
// sorted (nothing written), otherwise the primary entries are packed into
// slots 0.. in start order and written; then the DiskSet's first error.
ResultCode SortPartitionEntries(DiskSet& disks);

}  // namespace dh
