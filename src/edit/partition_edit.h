// Edits of the primary MBR entries of the current disk: hide and unhide,
// active and inactive, type changes and deletion, and the one routine that
// rebuilds sector 0 from the primary records and writes it.
//
// Every operation works on the DiskSet's current disk and returns the
// DiskSet's first recorded error (0 on success; always 0 under `ignore`).
// Partition numbers count the primary records in the table's current order,
// from 1.  Only sector 0 is ever written, and bytes 0..445 and 510..511 go
// back exactly as they stand in the stored image.
#pragma once

#include <cstdint>

#include "base/result_codes.h"

namespace dh {

class DiskSet;

// The nine types that hiding knows, and whether a type is one of them.
bool IsHideableType(uint32_t type);

// Rebuilds sector 0 from the primary records and writes it: in place (each
// entry in its own slot) or sorted (packed into slots 0.. in start order).
// Runs the table's SortByStart first.  0 or 505.
ResultCode WritePartitionTable(DiskSet& disks, bool sortedLayout);
// Writes the stored sector-0 image as it stands.
ResultCode WriteSector0Image(DiskSet& disks);

ResultCode SetPartitionHidden(DiskSet& disks, int32_t n, bool hide);
ResultCode SetAllPartitionsHidden(DiskSet& disks, bool hide);
ResultCode SetPartitionActive(DiskSet& disks, int32_t n, bool activate);
ResultCode DeactivateAllPartitions(DiskSet& disks);
// Stores the type byte in the n-th primary entry; CHS and LBA fields stay.
ResultCode ChangePartitionType(DiskSet& disks, int32_t n, uint8_t type);

// MBR: clears the n-th primary entry (or all four) in the stored image,
// writes it and rebuilds the model from it.  GPT: removes the n-th entry
// (or all of them) from the entry array.  The caller checks n.
ResultCode DeletePartition(DiskSet& disks, int32_t n);
ResultCode DeleteAllPartitions(DiskSet& disks);

}  // namespace dh
