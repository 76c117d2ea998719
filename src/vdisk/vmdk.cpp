#include "vdisk/vmdk.h"

namespace dh {

// VMware disk files are not read yet: every file given as a disk is
// refused as not being one, and nothing is loaded from it.
std::unique_ptr<VirtualDisk> OpenVmdk(const std::string&) {
  auto disk = std::make_unique<VmdkDisk>();
  disk->errorCode = kVmdkNotVmware;
  return disk;
}

}  // namespace dh
