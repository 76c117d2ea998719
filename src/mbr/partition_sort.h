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


}  // namespace dh
