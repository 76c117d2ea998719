// The INI report of `writeini`: one section for the system, one per
// physical disk and one per partition, with CR LF line ends and no line end
// after the last key.  Scripts read it, so every key, its order and its
// value form are fixed.
#pragma once

#include <cstdint>
#include <string>

#include "base/result_codes.h"

namespace dh {

class DiskSet;
class Sink;

// The disk to select again once every disk has been reported: a disk
// index, or 999 for the virtual disk file `diskFileName`.
struct IniReportRequest {
  int32_t diskNumber = 0;
  std::string diskFileName;
};

// Writes the report of every physical disk (virtual disks are not
// reported) to `out`, selecting each disk in turn and the requested disk
// again at the end.  A disk that fails to load is reported from what its
// record then holds; its code stays in the disk set's first error.
void WriteIniReport(DiskSet& disks, const IniReportRequest& request, Sink& out);

// The same into the file `fileName`, replaced when it exists; 104 when it
// cannot be opened (nothing is selected or written then), 0 otherwise.
// Write errors while the report is written go unnoticed.
ResultCode WriteIniFile(DiskSet& disks, const std::string& fileName, const IniReportRequest& request);

// "%.2f" of bytes / 2^shift, rounded as printf rounds the exact value
// (half to even): "476940.02" for 500,107,862,016 bytes and shift 20.
std::string ScaledSizeText(uint64_t bytes, int shift);

}  // namespace dh
