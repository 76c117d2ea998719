// VMware disk files used in place of a physical drive.
#pragma once

#include <memory>
#include <string>

#include "disk/virtual_disk.h"

namespace dh {

class VmdkDisk : public VirtualDisk {};

// Opens and parses a VMware disk file; never null.  `opened` and
// `errorCode` tell whether it can serve as a disk.
std::unique_ptr<VirtualDisk> OpenVmdk(const std::string& path);

}  // namespace dh
