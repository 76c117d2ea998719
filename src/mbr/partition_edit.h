// Edits of the primary MBR entries of the current disk: hide and unhide,
// active and inactive, and type changes, behind the MBR table's driver
// operations.  Each ends in the MBR's one writer of sector 0
// (WritePartitionTable).
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

ResultCode SetPartitionHidden(DiskSet& disks, int32_t n, bool hide);
ResultCode SetAllPartitionsHidden(DiskSet& disks, bool hide);
ResultCode SetPartitionActive(DiskSet& disks, int32_t n, bool activate);
ResultCode DeactivateAllPartitions(DiskSet& disks);
// Stores the type byte in the n-th primary entry; CHS and LBA fields stay.
ResultCode ChangePartitionType(DiskSet& disks, int32_t n, uint8_t type);

}  // namespace dh
