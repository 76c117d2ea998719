// The display of show=: what a backup file holds (its header, or the
// kind of a raw file) and the partition entries of a loaded sector.
#pragma once

#include <string>

namespace dh {

class DiskSet;

// Prints the display.  The heading text is Options().valueText2.  With
// `isFile` the file `fileName` is described first; the partition details
// always come from the disk's sector0 image and its partition model, which
// the caller has loaded from the file or sector.
void ShowContents(DiskSet& disks, bool isFile, const std::string& fileName);

}  // namespace dh
