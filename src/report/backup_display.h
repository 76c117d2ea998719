// The display of show=: what a backup file holds (its header, or the
// kind of a raw file) and the partition entries of a loaded sector.
#pragma once

#include <string>

#include "base/result_codes.h"

namespace dh {

class DiskSet;
class FramedWriter;

// Prints the display under "Displaying contents of " and `heading`.  With
// `isFile` the file `fileName` is described first; the partition details
// always come from the disk's sector0 image and its partition model, which
// the caller has loaded from the file or sector.  Returns 134 when the file
// is gone, 110 for a raw track-0 file without 55 AA, else 0.
ResultCode ShowContents(DiskSet& disks, bool isFile, const std::string& fileName, const std::string& heading,
                        FramedWriter& out);

}  // namespace dh
