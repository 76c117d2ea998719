// Disk identification and drive letters: the bus and model name of a disk
// as Windows knows it (registry), and the drive letter of a partition of the
// current disk (mount manager and SYSTEM\MountedDevices).  None of this is
// stored on the disk itself; every failure here is silent.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

class DiskSet;
namespace platform {
class Machine;
}

// Registry texts are read into 4,096-byte buffers: longer texts are cut to
// 4,095 characters (the buffer keeps its terminator).
constexpr size_t kRegistryTextSize = 4096;
// Longest Windows volume name kept with a drive letter ("\\?\Volume{GUID}\").
constexpr size_t kVolumeNameLength = 49;

// What GetDiskEnumInfo reads from a disk's device instance key.
enum class DiskEnumInfo {
  kDescription,   // "FriendlyName", else "DeviceDesc"
  kParentPrefix,  // "ParentIDPrefix"
  kInstancePath,  // the instance path itself
};

// Reads one fact about disk `diskIndex` (its position in the disk table)
// from the registry of `machine`.  Writes `out` and returns true only when
// the fact was found; `out` is left untouched otherwise.
bool GetDiskEnumInfo(platform::Machine& machine, int32_t diskIndex, DiskEnumInfo what, std::string* out);

// The bus name of a disk ("USB", "IDE", "SCSI", ...), left in
// disks.diskDescription, which is also returned; empty when unknown.
const std::string& GetDiskBus(DiskSet& disks, int32_t diskIndex);

// The model name of a disk with the bus's standard suffix (" ATA Device"...)
// taken off, left in disks.diskDescription, which is also returned.  Falls
// back to the bus name when the registry holds no name.
const std::string& GetDiskDescription(DiskSet& disks, int32_t diskIndex);

// A drive letter found for a partition.
struct DriveLetterMatch {
  char letter = ' ';
  std::string volumeName;  // "\\?\Volume{GUID}\", at most kVolumeNameLength characters
};

// Looks for the drive root whose volume is the partition of the current disk
// that starts at `startLba`.  On success fills `out` and returns true; `out`
// is left untouched otherwise.
bool FindDriveLetter(DiskSet& disks, uint64_t startLba, DriveLetterMatch* out);

}  // namespace dh
