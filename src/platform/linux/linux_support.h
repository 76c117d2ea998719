// Pure pieces of the Linux backend: how block devices are named and ordered,
// how they are described to the disk identification code, and how Linux
// error numbers become the Windows codes the program reports.  Nothing here
// touches the system, so all of it can be tested with plain lists and buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace dh::platform::linux_native {

// Windows error codes the backend reports through LastError.
constexpr uint32_t kErrorInvalidFunction = 1;
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorPathNotFound = 3;
constexpr uint32_t kErrorTooManyOpenFiles = 4;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorNotEnoughMemory = 8;
constexpr uint32_t kErrorWriteProtect = 19;
constexpr uint32_t kErrorNotReady = 21;
constexpr uint32_t kErrorCrc = 23;
constexpr uint32_t kErrorGenFailure = 31;
constexpr uint32_t kErrorSharingViolation = 32;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorDiskFull = 112;
constexpr uint32_t kErrorModNotFound = 126;
constexpr uint32_t kErrorNegativeSeek = 131;
constexpr uint32_t kErrorFilenameExcedRange = 206;
constexpr uint32_t kErrorNotAllAssigned = 1300;

// The Windows code that stands for a Linux errno value.
uint32_t WindowsErrorFromErrno(int err);

// Which family a /sys/block entry belongs to; the families are numbered in
// the order the drives are numbered.  Partitions, eMMC boot and RPMB areas
// and everything else that is not a whole disk is NotADisk.
enum class DiskFamily { Scsi, Virtio, Ide, Xen, Nvme, Mmc, Loop, NotADisk };
DiskFamily FamilyOfBlockName(const std::string& name);

// Kernel order within one family: letter runs shorter first (sdz before
// sdaa), digit runs by value (nvme2n1 before nvme10n1, loop2 before loop10).
bool NaturalNameLess(const std::string& a, const std::string& b);

// The whole disks among /sys/block entry names, in drive-number order:
// grouped by family, natural order inside a family.  A loop device takes
// part only when `loopIsBacked` says a file is attached to it.
std::vector<std::string> OrderWholeDisks(const std::vector<std::string>& names,
                                         const std::function<bool(const std::string&)>& loopIsBacked);

// A number as "%u" writes it: digits only, no leading zero, at most nine
// digits (far beyond any drive count, and never an overflow).
bool ParseCanonicalNumber(const std::string& text, uint32_t* number);

// "\\.\PhysicalDriveN", the prefix in any case.  Returns false for any other
// path (a plain file).  For a drive path, `number` gets N, or stays false in
// `valid` when N is not a plain decimal number that fits.
struct DrivePath {
  bool valid = false;
  uint32_t number = 0;
};
bool ParsePhysicalDrivePath(const std::string& path, DrivePath* out);

// The partition type a superfloppy's drive layout reports, from the file
// system named in its first sector: NTFS 0x07, FAT32 0x0C, FAT16/FAT12 0x06,
// anything else 0.
uint8_t LayoutTypeFromBootSector(const uint8_t* sector, size_t size);

// What sysfs tells about one whole disk, already read.
struct DiskFacts {
  std::string name;        // "sda", "nvme0n1", "loop3"
  std::string devicePath;  // resolved /sys/block/<name>: the bus chain
  std::string vendor;      // device/vendor, raw
  std::string model;       // device/model (device/name for MMC), raw
  std::string backingFile; // loop devices: the attached file
};

// The registry's view of one disk, as Windows would show it.
struct DiskIdentity {
  std::string bus;           // "USB", "SCSI", "IDE", "SD"
  std::string instancePath;  // "<BUS>\Disk&Ven_<vendor>&Prod_<model>\<index>"
  std::string friendlyName;  // empty: the disk has no FriendlyName value
};
DiskIdentity IdentifyDisk(const DiskFacts& facts, uint32_t index);

// A decimal sysfs number ("2048\n"), blanks and line ends around it
// allowed; false for anything else or a value beyond 64 bits.
bool ParseSysfsNumber(const std::string& text, uint64_t* number);

// Trims blanks and line ends from both ends (sysfs pads and ends its texts).
std::string TrimSysfsText(const std::string& text);

// The exit status a POSIX shell sees for an exit value: its low 8 bits,
// except that a non-zero value whose low 8 bits are all zero (512, -512,
// -256) gives 1, so that no failure reads as success.
int ExitStatusFromValue(int32_t exitValue);

// The Windows code page that matches a locale's codeset (nl_langinfo).
uint32_t CodePageFromCodeset(const std::string& codeset);

// LOCALE_SGROUPING text from a C locale grouping string: "3;0", or "0".
std::string GroupingText(const std::string& grouping);

// GetComputerNameA's view of a host name: the first label, upper case, at
// most 15 characters (the NetBIOS limit).
std::string ComputerNameFromHostName(const std::string& hostName);

}  // namespace dh::platform::linux_native
