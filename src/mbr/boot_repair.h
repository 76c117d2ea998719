// Boot code repair (`repair=`): a known-good boot program over the code area
// of the current disk's sector 0, keeping its partition table and disk
// signature.
#pragma once

#include <cstdint>

#include "base/result_codes.h"

namespace dh {

class DiskSet;

// Reads sector 0 of the current disk afresh, rebuilds the disk model from
// it, and writes it back with `image` (kBootImageSize bytes, kXpBootImage or
// kWin7BootImage) in front of the table, the disk signature kept (zero when
// the old sector had no 55 AA), bytes 444-445 zero and 55 AA set.  Nothing
// is written when sector 0 cannot be read (506); a failed write is 505.
// Returns the DiskSet's first error.
ResultCode RepairBootCode(DiskSet& disks, const uint8_t* image);

}  // namespace dh
