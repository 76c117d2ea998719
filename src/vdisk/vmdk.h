// VMware disk files used in place of a physical drive.
#pragma once

#include <string>

#include "base/result_codes.h"

namespace dh {

class DiskSet;

class VmdkDisk {
 public:
  bool opened = false;
  ResultCode errorCode = kSuccess;
  std::string descriptionText;
  std::string interfaceText;
};

// Opens the file as the current disk of `disks`; returns the code to record.
ResultCode OpenVmdk(DiskSet& disks, const std::string& path);
// Geometry and sector 0 of the current virtual disk.
void LoadVirtualGeometry(DiskSet& disks);
void LoadVirtualSector0(DiskSet& disks);

}  // namespace dh
