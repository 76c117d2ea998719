// Creation of a new primary MBR partition: finding free space, aligning
// the start, sizing, building the 16-byte entry and placing it in the
// lowest free slot of sector 0.  The data area of the new partition is
// never touched.
#pragma once

#include <cstdint>
#include <string>

#include "base/result_codes.h"
#include "disk/table_driver.h"

namespace dh {

class DiskSet;

// The largest LBA and sector count an MBR entry can hold.
constexpr uint64_t kMaxMbrSectors = 0xFFFFFFFFull;

struct FreeArea {
  uint64_t start = 0;
  uint64_t size = 0;  // 0: no free area
};

// The first free area of the current disk, the primaries taken in table
// order (which the caller has checked to be ascending).  An area starts one
// sector after the end of what precedes it; gaps too small to give a sector
// are passed over, and fewer than 501 sectors behind the last partition do
// not count.
FreeArea FindFreeSpace(DiskSet& disks);

// Whether a primary partition covers the sector or ends right before it.
// Sectors beyond the end of the disk are never assigned.
bool IsSectorAssigned(DiskSet& disks, uint64_t sector);

// Whether [start, start + size) may take a new MBR entry: 32-bit numbers,
// on the disk, over no primary partition.  The check right before the write.
bool AreaFits(DiskSet& disks, uint64_t start, uint64_t size);

// The room from `start` up to one sector before the nearest partition that
// starts after it, or to the end of the disk when none follows; 0 when
// there is none.  Never overlaps a partition.
uint64_t MaxSizeFrom(DiskSet& disks, uint64_t start);

// The smallest sector s >= start whose byte offset s * 512 is a multiple of
// alignBytes.  False when that sector would not fit in 64 bits.
bool AlignStart(uint64_t start, uint64_t alignBytes, uint64_t* aligned);

// The 16-byte entry of a new partition: inactive, the CHS of the first
// sector and of the sector right after the partition, the type, the LBA
// and the count.  Without a usable geometry both CHS triples are the
// "beyond CHS" marker FE FF FF.
void BuildNewEntry(uint8_t entry[16], uint32_t start, uint32_t size, uint8_t type, uint32_t heads,
                   uint32_t sectorsPerTrack);

// Adds the entry to the table in the lowest free slot and writes sector 0
// in place.  518 (not recorded) when sector 0 has no 55 AA marker and
// `ignore` is off; otherwise the DiskSet's first error.
ResultCode CreatePartition(DiskSet& disks, uint64_t start, uint64_t size, uint8_t type);

// The create= command on an MBR that takes edits (the driver's Add checks
// that first): start, alignment, size and type from the request, then
// CreatePartition, then the request to the system to re-read the disk.
// Returns the command's result; 117 for a /type outside 1..255 (the caller
// names the argument).
ResultCode CreateFromRequest(DiskSet& disks, const CreateRequest& request);

}  // namespace dh
