// An open file or block device of the Linux backend.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/platform.h"

namespace dh::platform::linux_native {

// The backend's GetLastError: one slot shared by the machine and every file
// it opened, so a file may outlive the machine safely.
using ErrorSlot = std::shared_ptr<uint32_t>;

// Opens `path` (a file system path, for a drive already resolved to its
// /dev node) in the way the mode stands for.  `physicalDrive` tells that the
// path names a drive of the machine.  Null on failure, with the Windows code
// in `lastError`.  `sysRoot` locates the sysfs attributes of block devices.
std::unique_ptr<File> OpenLinuxFile(const std::string& path, OpenMode mode, bool physicalDrive,
                                    const std::string& sysRoot, const ErrorSlot& lastError);

}  // namespace dh::platform::linux_native
