// Reading what the kernel publishes about block devices under /sys.  The
// root is a parameter so that tests can lay out a small tree of their own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/linux/linux_support.h"

namespace dh::platform::linux_native {

// A small sysfs attribute, at most 4,096 bytes, untrimmed; empty when the
// file is missing or unreadable.
std::string ReadSysfsText(const std::string& path);

// The whole disks of <sysRoot>/block in drive-number order (loop devices
// only with a file attached).
std::vector<std::string> ListWholeDisks(const std::string& sysRoot);

// Bus chain, vendor, model and loop backing file of one whole disk.
DiskFacts ReadDiskFacts(const std::string& sysRoot, const std::string& name);

// Whether the disk behind a sysfs block directory reports removable media.
// A partition's directory holds no flag of its own: its disk's is used.
bool IsRemovableDisk(const std::string& blockDir);

// The partition of disk `name` that starts at `startLba` and holds
// `sectorCount` sectors (sysfs counts in 512-byte units): its block name
// ("sdb1", "nvme0n1p2"); empty when the kernel knows no such partition.
std::string FindPartitionName(const std::string& sysRoot, const std::string& name, uint64_t startLba,
                              uint64_t sectorCount);

// <sysRoot>/dev/block/<major>:<minor>: the sysfs directory of a device node.
std::string BlockDirOfDevice(const std::string& sysRoot, uint32_t major, uint32_t minor);

}  // namespace dh::platform::linux_native
