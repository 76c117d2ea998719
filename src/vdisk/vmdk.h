// VMware disk files used in place of a physical drive: the descriptor's
// type, size, geometry and adapter, and the virtual disk's sectors reached
// through its extents (vmdk_extent.h) as one file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result_codes.h"
#include "disk/device.h"
#include "disk/virtual_disk.h"
#include "platform/platform.h"

namespace dh {

// What the disk set takes from it (VirtualDisk): the geometry, size and
// texts, and `device`, the whole virtual disk, every extent mapped, as one
// file (what a flat disk keeps in its data file).
class VmdkDisk : public VirtualDisk {
 public:
  VmdkDisk() = default;
  ~VmdkDisk() override;
  VmdkDisk(const VmdkDisk&) = delete;
  VmdkDisk& operator=(const VmdkDisk&) = delete;

  bool dataStartKnown = false;
  // The first extent file's sector that holds virtual sector 0 when that
  // extent is flat or its first grain directly follows the metadata.
  uint32_t dataStartSector = 0;
  uint8_t sector0Image[512] = {};
  std::string descriptorPath;
  // The descriptor is embedded in a sparse file, which is then the data.
  bool embeddedDescriptor = false;
  std::string dataPath;
  DeviceHandle descriptorFile;
  bool mbrValid = false;
  int32_t diskType = 0;
};

// Parses the file at `path` and opens its virtual disk; files are opened
// through `files` (the extents for writing when `writable`).  `opened` says
// whether a disk type was recognised, `errorCode` why the disk cannot be
// used (302 not a VMware file, 303 a file does not open, 304 type, size or
// layout that cannot be used).
std::unique_ptr<VmdkDisk> OpenVmdk(const std::string& path, platform::Machine& files, bool writable = true);
// Opens the virtual disk of a parsed descriptor and reads its sector 0.
void OpenDataFile(VmdkDisk& disk, platform::Machine& files, bool writable);
void CloseVmdk(VmdkDisk& disk);

// A disk image that may be a VMware disk, for the simulated machine: false
// when the file is no VMware disk (it is then a plain image); true
// otherwise, with `file` the virtual disk, or null and `why` set when it
// cannot be used.
bool OpenVmdkImage(platform::Machine& files, const std::string& path, bool writable,
                   std::unique_ptr<platform::File>* file, std::string* why);

// The disk set's opener: a VMware disk file as a virtual disk, its files
// opened on `machine`.
std::unique_ptr<VirtualDisk> OpenVirtualVmdk(platform::Machine& machine, const std::string& path);

}  // namespace dh
