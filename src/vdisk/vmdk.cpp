#include "vdisk/vmdk.h"

#include "disk/disk_set.h"

namespace dh {

// VMware disk files are not read yet: every file given as a disk is
// refused as not being one, and nothing is loaded from it.
ResultCode OpenVmdk(DiskSet& disks, const std::string&) {
  disks.virtualDisk = std::make_unique<VmdkDisk>();
  disks.virtualDisk->errorCode = kVmdkNotVmware;
  disks.device.Close();
  disks.isVirtual = false;
  return kVmdkNotVmware;
}

void LoadVirtualGeometry(DiskSet&) {}
void LoadVirtualSector0(DiskSet&) {}

}  // namespace dh
