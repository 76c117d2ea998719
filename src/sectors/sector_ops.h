// Sector maintenance without a backup file: wiping areas with zeros,
// copying and comparing single sectors, and loading one sector as the
// current disk's sector 0 image for display.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "base/le.h"
#include "base/result_codes.h"

namespace dh {

class DiskSet;

// Writes zeros over sectors first..last (inclusive) of the current disk;
// nothing when last < first.  Many sectors go in one write, with the same
// outcome as one write per sector: a chunk that fails is written again
// sector by sector, each failing sector records 505 and the following ones
// are still cleared.  Sectors beyond the end of the disk fail (505) without
// being tried.  A disk whose size is unknown is not touched (516).
// Returns the DiskSet's first error.
ResultCode WipeArea(DiskSet& disks, uint64_t first, uint64_t last);

// Reads the source sector into the disk's sector0 image and, only when
// that worked, writes it to the target sector (506 / 505).
ResultCode CopySector(DiskSet& disks, uint64_t source, uint64_t target);

// One side of a comparison: a sector of the current disk or a file, whose
// first data sector (after its header, when it has one) is compared.
struct CompareSide {
  bool isFile = false;
  uint64_t sector = 0;
  std::string fileName;
};

// Fills 512 bytes from a side; false when the sector or file cannot be read.
bool LoadCompareSector(DiskSet& disks, const CompareSide& side, uint8_t* buffer);

// Thrown when a sector side of a comparison cannot be read: the run ends
// there, the way it ends on any exception ("Error 99: Exception thrown"),
// and no comparison result is reported.
class CompareReadError : public std::runtime_error {
 public:
  CompareReadError() : std::runtime_error("a sector to compare cannot be read") {}
};

// 0 when both sides hold the same 512 bytes, 153 when they differ, 151 or
// 152 when the source or target file cannot be read (`message` then names
// the file).  A sector side that cannot be read throws CompareReadError.
ResultCode CompareItems(DiskSet& disks, const CompareSide& source, const CompareSide& target, std::string* message);

// Reads a sector into the disk's sector0 image (zeros first; 506 when the
// read fails) and, when `requireMarker` is false or the sector ends in
// 55 AA, rebuilds the partition model from the image; otherwise records
// 510.  Returns 0, or the code of this call's failure.
ResultCode ReadSectorIntoImage(DiskSet& disks, uint64_t sector, bool requireMarker);


}  // namespace dh
