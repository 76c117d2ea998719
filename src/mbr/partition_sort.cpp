// The sorted test and the sort command.
#include "mbr/partition_sort.h"

#include <cstdint>

#include "disk/disk_set.h"
#include "mbr/partition_edit.h"
#include "mbr/partition.h"

namespace dh {

bool IsSorted(PartitionTable& table) {
  // Every record is compared with the smallest start that follows it, so
  // the test is linear and agrees with the exchange sort: a record is out
  // of order exactly when some later record starts before it.
  // Only the records SortByStart looks at (all of them, in any table that
  // Load built) take part.
  int32_t all = table.Count(kKindAll);
  size_t count = all > 0 ? static_cast<size_t>(all) : 0;
  if (count > table.records.size()) count = table.records.size();
  bool sorted = true;
  uint64_t smallestLater = UINT64_MAX;
  for (size_t i = count; i-- > 0;) {
    uint64_t start = table.records[i]->startLba;
    if (start > smallestLater) {
      sorted = false;
      break;
    }
    if (start < smallestLater) smallestLater = start;
  }
  table.sorted = sorted ? 1 : 0;
  return sorted;
}

ResultCode PartitionTable::CheckOrder(bool* ordered) {
  *ordered = IsSorted(*this);
  return kSuccess;
}

ResultCode PartitionTable::Reorder() {
  // Packs the primaries into slots 0.. in start order (the writer refuses a
  // superfloppy, whose one partition is in order anyway).
  if (IsSorted(*this)) return kAlreadySorted;
  WritePartitionTable(*owner_, true);
  return owner_->firstError;
}

}  // namespace dh
