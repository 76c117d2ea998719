// The disks of one run: the disk table, the first disk error, and the one
// loaded disk with its geometry, sector 0, kind and partition model.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/result_codes.h"
#include "disk/device.h"
#include "mbr/partition.h"

namespace dh {

class GptTable;
class VmdkDisk;

constexpr int32_t kMaxDisks = 100;

class DiskSet {
 public:
  // Counts the drives and loads disk 0 when there is one.  `ignoreErrors`
  // is the run's flag, copied.
  explicit DiskSet(bool ignoreErrors);
  ~DiskSet();
  DiskSet(const DiskSet&) = delete;
  DiskSet& operator=(const DiskSet&) = delete;

  void SelectDisk(int32_t index);
  void OpenVirtualDisk(const std::string& path);
  void LoadDisk(bool readSector0);
  void LoadSector0();
  void LoadVolumeInfo();

  // The disk layer's first-error rule.
  void RecordError(ResultCode code) {
    if (code != kSuccess && firstError == kSuccess && !ignoreErrors) firstError = code;
  }

  // Run-level fields.
  int32_t currentDisk = -1;
  std::string deviceName;
  int32_t diskCount = 0;
  int32_t diskTable[kMaxDisks] = {};
  std::string devicePath;
  DeviceHandle device;
  std::unique_ptr<DeviceHandle> savedDevice;
  bool ignoreErrors = false;
  ResultCode firstError = kSuccess;
  std::unique_ptr<GptTable> gpt;
  std::unique_ptr<VmdkDisk> virtualDisk;
  std::string messageBuffer;
  std::string diskDescription;

  // The loaded disk (DiskRecord).
  bool isVirtual = false;
  bool mediumPresent = false;
  bool bootSignatureValid = false;
  bool tableLoaded = false;
  std::string diskKindText = "None";
  int32_t superFloppy = 0;
  bool isGpt = false;
  bool walkExtended = true;
  bool skipVolumeInfo = false;
  int32_t activeIndex = -1;
  uint64_t bootSectorLba = 0;
  uint8_t sector0[512] = {};
  uint32_t cylinders = 0;
  uint32_t heads = 0;
  uint32_t sectorsPerTrack = 0;
  int32_t mediaType = 0;
  uint64_t totalSectors = 0;
  uint64_t totalBytes = 0;
  std::unique_ptr<PartitionTable> partitions;
  uint8_t savedSignature[4] = {};
};

// Sector operations of the current disk (they record their failures).
ResultCode CountDisks(DiskSet& disks);
bool OpenDisk(DeviceHandle& handle, int32_t driveNumber);
bool QueryGeometry(DiskSet& disks);
ResultCode ReadSector(DiskSet& disks, uint64_t lba, uint8_t* buffer);
ResultCode WriteSectors(DiskSet& disks, uint64_t lba, const uint8_t* buffer, uint32_t count);

// Finds the partition a symbolic selector names by scanning every disk with
// a temporary DiskSet.  Modes: 1 system, 2 boot, 3 utility, 4 volume label,
// 5 drive letter.  On success sets State().locatedDisk and locatedPart.
bool LocateVolume(int32_t mode, const std::string& text, bool ignoreErrors);

}  // namespace dh
