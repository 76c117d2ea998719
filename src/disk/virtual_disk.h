// A disk file standing in for a physical drive (a VMware disk), as the disk
// set needs it: its geometry and texts, and the device its sectors are
// read and written through.  The formats live in vdisk/; the disk set opens
// them through the opener it is given.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result_codes.h"
#include "disk/device.h"

namespace dh {

class VirtualDisk {
 public:
  virtual ~VirtualDisk() = default;

  // A disk type was recognised; when not, errorCode says why.
  bool opened = false;
  ResultCode errorCode = kSuccess;
  // Geometry and size; set only when the file names all three geometry
  // values.
  int32_t cylinders = 0;
  int32_t heads = 0;
  int32_t sectorsPerTrack = 0;
  uint64_t totalSectors = 0;
  uint64_t sizeBytes = 0;
  std::string descriptionText;
  std::string interfaceText;
  // The virtual disk's sectors, sector 0 at offset 0.
  DeviceHandle device;
};

// Opens a virtual disk file on `machine`; never null.
using VirtualDiskOpener = std::unique_ptr<VirtualDisk> (*)(platform::Machine& machine, const std::string& path);

}  // namespace dh
