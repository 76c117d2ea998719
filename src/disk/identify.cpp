// Disk identification and drive letters, read from the registry and the
// mount manager.  Every lookup that fails simply finds nothing: a listing
// without a model name or drive letter is still a correct listing.
#include "disk/identify.h"

#include <cstring>
#include <vector>

#include "disk/disk_set.h"
#include "base/le.h"
#include "platform/platform.h"
#include "disk/virtual_disk.h"

namespace dh {

namespace {

constexpr const char* kDiskEnumKey = "SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum";
constexpr const char* kEnumKeyPrefix = "SYSTEM\\CurrentControlSet\\Enum\\";
constexpr const char* kMountedDevicesKey = "SYSTEM\\MountedDevices";
constexpr const char* kRemovableMediaPrefix = "\\??\\STORAGE#RemovableMedia#";

// A text as the fixed buffers of the registry reads hold it: up to its first
// NUL, and no longer than the buffer leaves room for.
std::string BufferText(const std::string& text, size_t bufferSize) {
  size_t end = text.find('\0');
  if (end == std::string::npos) end = text.size();
  if (end > bufferSize - 1) end = bufferSize - 1;
  return text.substr(0, end);
}

bool ReadRegistryText(platform::Machine& machine, const std::string& key, const std::string& value,
                      std::string* out) {
  std::string text;
  if (!machine.RegQueryString(key, value, &text)) return false;
  *out = BufferText(text, kRegistryTextSize);
  return true;
}

// The device instance path ("BUS\DEVICE\INSTANCE") Windows lists for a disk.
bool ReadInstancePath(platform::Machine& machine, int32_t diskIndex, std::string* out) {
  // The value is named after the index written with "%u".
  std::string valueName = std::to_string(static_cast<uint32_t>(diskIndex));
  return ReadRegistryText(machine, kDiskEnumKey, valueName, out);
}

bool EqualsIgnoreCase(const std::string& a, const char* b) {
  size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]);
    unsigned char y = static_cast<unsigned char>(b[i]);
    if (x >= 'a' && x <= 'z') x = static_cast<unsigned char>(x - 'a' + 'A');
    if (y >= 'a' && y <= 'z') y = static_cast<unsigned char>(y - 'a' + 'A');
    if (x != y) return false;
  }
  return true;
}

// Whether `text`, from character `at` on, begins with `prefix`.  A text that
// ends before `at` begins with nothing.
bool ContinuesWith(const std::string& text, size_t at, const std::string& prefix) {
  if (at > text.size()) return false;
  return text.compare(at, prefix.size(), prefix) == 0 && text.size() - at >= prefix.size();
}

// The texts a virtual disk file supplies in place of the registry's (its
// descriptor names the adapter and the product); empty until one is open.
std::string VirtualDiskInterfaceText(const DiskSet& disks) {
  return disks.virtualDisk ? disks.virtualDisk->interfaceText : std::string();
}
std::string VirtualDiskDescriptionText(const DiskSet& disks) {
  return disks.virtualDisk ? disks.virtualDisk->descriptionText : std::string();
}

// Windows pads some model names ("MAKER  MODEL"); the listing shows them with
// one blank.  Only the first run is reduced, as Windows' own tools show it.
void ReduceFirstBlankRun(std::string& text) {
  size_t start = text.find("  ");
  if (start == std::string::npos) return;
  size_t end = start;
  while (end < text.size() && text[end] == ' ') ++end;
  text.erase(start + 1, end - start - 1);
}

// A mounted-device record of an MBR partition: the disk signature and the
// partition's byte offset.
bool MatchesBySignature(const DiskSet& disks, uint64_t startLba, const std::vector<uint8_t>& data) {
  if (data.size() < 12) return false;
  uint8_t expected[12];
  std::memcpy(expected, disks.disk().savedSignature(), 4);
  StoreLe64(expected + 4, startLba * kSectorSize);
  return std::memcmp(data.data(), expected, sizeof expected) == 0;
}

// A mounted-device record that is a device path (UTF-16LE): it names a whole
// disk, either a removable medium by its parent prefix or a disk by its
// instance path.
bool MatchesByDevicePath(const DiskSet& disks, const std::vector<uint8_t>& data) {
  // The 8-bit text keeps the low byte of every UTF-16 unit and, like the
  // program's C string, ends at its first NUL.
  std::string text;
  for (size_t i = 0; i < data.size(); i += 2) {
    if (data[i] == 0) break;
    text += static_cast<char>(data[i]);
  }
  const std::string removable = kRemovableMediaPrefix;
  if (ContinuesWith(text, 0, removable)) {
    std::string prefix;
    GetDiskEnumInfo(disks.machine(), disks.currentDisk, DiskEnumInfo::kParentPrefix, &prefix);
    return !prefix.empty() && ContinuesWith(text, removable.size(), prefix);
  }
  std::string path;
  GetDiskEnumInfo(disks.machine(), disks.currentDisk, DiskEnumInfo::kInstancePath, &path);
  for (char& c : path) {
    if (c == '\\') c = '#';
  }
  // The record reads "\??\" followed by the instance path with '#' for '\'.
  return !path.empty() && ContinuesWith(text, 4, path);
}

}  // namespace

bool GetDiskEnumInfo(platform::Machine& machine, int32_t diskIndex, DiskEnumInfo what, std::string* out) {
  std::string instance;
  if (!ReadInstancePath(machine, diskIndex, &instance)) return false;
  const std::string key = kEnumKeyPrefix + instance;
  std::string text;
  switch (what) {
    case DiskEnumInfo::kDescription:
      if (!ReadRegistryText(machine, key, "FriendlyName", &text) &&
          !ReadRegistryText(machine, key, "DeviceDesc", &text)) {
        return false;
      }
      break;
    case DiskEnumInfo::kParentPrefix:
      if (!ReadRegistryText(machine, key, "ParentIDPrefix", &text)) return false;
      break;
    case DiskEnumInfo::kInstancePath:
      // The platform reads values, not keys, so whether the instance key
      // itself opens cannot be asked; Windows keeps that key for every disk
      // it lists under Services\Disk\Enum, so the path found there is given.
      text = instance;
      break;
  }
  *out = text;
  return true;
}

const std::string& GetDiskBus(DiskSet& disks, int32_t diskIndex) {
  if (disks.disk().isVirtual()) {
    disks.diskDescription = VirtualDiskInterfaceText(disks);
    return disks.diskDescription;
  }
  disks.diskDescription.clear();
  std::string instance;
  if (ReadInstancePath(disks.machine(), diskIndex, &instance)) {
    std::string bus = instance.substr(0, instance.find('\\'));
    // USB disks list under "USBSTOR" and similar enumerators.
    if (bus.compare(0, 3, "USB") == 0) bus = "USB";
    disks.diskDescription = bus;
  }
  return disks.diskDescription;
}

const std::string& GetDiskDescription(DiskSet& disks, int32_t diskIndex) {
  if (disks.disk().isVirtual()) {
    disks.diskDescription = VirtualDiskDescriptionText(disks);
  } else {
    // The suffix Windows appends to the model name on each bus.
    const std::string bus = GetDiskBus(disks, diskIndex);
    const char* suffix = nullptr;
    if (EqualsIgnoreCase(bus, "USB")) {
      suffix = " USB Device";
    } else if (EqualsIgnoreCase(bus, "SCSI")) {
      suffix = " SCSI Disk Device";
    } else if (EqualsIgnoreCase(bus, "IDE")) {
      suffix = " ATA Device";
    }
    // When the registry holds no name, the bus name left by GetDiskBus
    // stands as the description.
    GetDiskEnumInfo(disks.machine(), diskIndex, DiskEnumInfo::kDescription, &disks.diskDescription);
    if (suffix != nullptr) {
      size_t at = disks.diskDescription.rfind(suffix);
      if (at != std::string::npos) disks.diskDescription.erase(at);
    }
  }
  ReduceFirstBlankRun(disks.diskDescription);
  return disks.diskDescription;
}

bool FindDriveLetter(DiskSet& disks, uint64_t startLba, DriveLetterMatch* out) {
  platform::Machine& machine = disks.machine();
  const std::vector<std::string> roots = machine.LogicalDriveStrings();
  for (const std::string& root : roots) {
    if (root.empty()) continue;
    const char letter = root[0];
    std::string mountPoint = std::string(1, letter) + ":\\";
    std::string volumeName;
    if (!machine.VolumeNameForMountPoint(mountPoint, &volumeName)) continue;
    volumeName = BufferText(volumeName, kRegistryTextSize);
    // "\\?\Volume{GUID}\" is recorded as the value "\??\Volume{GUID}".
    std::string valueName = "\\??\\";
    if (volumeName.size() > 4) valueName += volumeName.substr(4);
    valueName.pop_back();
    std::vector<uint8_t> data;
    if (!machine.RegQueryBinary(kMountedDevicesKey, valueName, &data)) continue;
    if (MatchesBySignature(disks, startLba, data) || MatchesByDevicePath(disks, data)) {
      out->letter = letter;
      out->volumeName = volumeName.substr(0, kVolumeNameLength);
      return true;
    }
  }
  return false;
}

}  // namespace dh
