// Naming, ordering and error translation of the Linux backend (no system
// calls here; see linux_support.h).
#include "platform/linux/linux_support.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/text.h"

namespace dh::platform::linux_native {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLower(char c) { return c >= 'a' && c <= 'z'; }

char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// `from` up to the end consists of one or more characters that pass `test`.
template <typename Test>
bool RestIs(const std::string& text, size_t from, Test test) {
  if (from >= text.size()) return false;
  return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), test);
}

// One or more digits from `*pos`; moves past them.
bool SkipDigits(const std::string& text, size_t* pos) {
  size_t start = *pos;
  while (*pos < text.size() && IsDigit(text[*pos])) ++*pos;
  return *pos > start;
}

// "nvme<ctrl>n<ns>" exactly: multipath paths (nvme0c0n1) and partitions
// (nvme0n1p1) have no device node of their own to use as a whole disk.
bool IsNvmeNamespace(const std::string& name) {
  if (!StartsWith(name, "nvme")) return false;
  size_t pos = 4;
  if (!SkipDigits(name, &pos)) return false;
  if (pos >= name.size() || name[pos] != 'n') return false;
  ++pos;
  if (!SkipDigits(name, &pos)) return false;
  return pos == name.size();
}

// A digit run compared by value without converting it, so that any length
// is safe: leading zeros dropped, then the longer run is the larger.
int CompareDigitRuns(const std::string& a, const std::string& b) {
  size_t za = a.find_first_not_of('0');
  size_t zb = b.find_first_not_of('0');
  std::string va = za == std::string::npos ? std::string() : a.substr(za);
  std::string vb = zb == std::string::npos ? std::string() : b.substr(zb);
  if (va.size() != vb.size()) return va.size() < vb.size() ? -1 : 1;
  return va.compare(vb) < 0 ? -1 : (va.compare(vb) > 0 ? 1 : 0);
}

// Letter runs as the kernel hands out disk letters: a..z, then aa..zz.
int CompareLetterRuns(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  int c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

std::string NextRun(const std::string& text, size_t* pos) {
  size_t start = *pos;
  bool digits = IsDigit(text[start]);
  while (*pos < text.size() && IsDigit(text[*pos]) == digits) ++*pos;
  return text.substr(start, *pos - start);
}

// Keeps a sysfs text usable inside a registry key name: the instance path
// is split at backslashes and its device part at '&', and Windows writes
// blanks there as '_'.
std::string InstanceComponent(const std::string& text) {
  constexpr size_t kMaxLength = 64;
  std::string out;
  for (char c : text) {
    if (out.size() == kMaxLength) break;
    unsigned char u = static_cast<unsigned char>(c);
    bool plain = u > 0x20 && u < 0x7F && c != '\\' && c != '&';
    out.push_back(plain ? c : '_');
  }
  return out;
}

// A model text as the console may show it: printable ASCII only.
std::string DisplayText(const std::string& text) {
  constexpr size_t kMaxLength = 64;
  std::string out;
  for (char c : text) {
    if (out.size() == kMaxLength) break;
    unsigned char u = static_cast<unsigned char>(c);
    out.push_back(u >= 0x20 && u < 0x7F ? c : '?');
  }
  return out;
}

std::string BaseName(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

}  // namespace

uint32_t WindowsErrorFromErrno(int err) {
  switch (err) {
    case ENOENT:
      return kErrorFileNotFound;
    case ENOTDIR:
      return kErrorPathNotFound;
    case EACCES:
    case EPERM:
    case EISDIR:  // CreateFileA on a directory is refused the same way
    case EBADF:   // a write through a read-only handle
      return kErrorAccessDenied;
    case EROFS:
      return kErrorWriteProtect;
    case EIO:
      return kErrorCrc;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return kErrorDiskFull;
    case EBUSY:
    case ETXTBSY:
      return kErrorSharingViolation;
#ifdef ENOMEDIUM
    case ENOMEDIUM:
#endif
    case ENXIO:  // a removable drive without medium answers so on open
      return kErrorNotReady;
    case EINVAL:
      return kErrorInvalidParameter;
    case ENAMETOOLONG:
      return kErrorFilenameExcedRange;
    case EMFILE:
    case ENFILE:
      return kErrorTooManyOpenFiles;
    case ENOMEM:
      return kErrorNotEnoughMemory;
    case ENOTTY:
    case ENOSYS:
    case ESPIPE:
      return kErrorInvalidFunction;
    default:
      return kErrorGenFailure;
  }
}

DiskFamily FamilyOfBlockName(const std::string& name) {
  if (StartsWith(name, "sd") && RestIs(name, 2, IsLower)) return DiskFamily::Scsi;
  if (StartsWith(name, "vd") && RestIs(name, 2, IsLower)) return DiskFamily::Virtio;
  if (StartsWith(name, "hd") && RestIs(name, 2, IsLower)) return DiskFamily::Ide;
  if (StartsWith(name, "xvd") && RestIs(name, 3, IsLower)) return DiskFamily::Xen;
  if (IsNvmeNamespace(name)) return DiskFamily::Nvme;
  if (StartsWith(name, "mmcblk") && RestIs(name, 6, IsDigit)) return DiskFamily::Mmc;
  if (StartsWith(name, "loop") && RestIs(name, 4, IsDigit)) return DiskFamily::Loop;
  return DiskFamily::NotADisk;
}

bool NaturalNameLess(const std::string& a, const std::string& b) {
  size_t pa = 0;
  size_t pb = 0;
  while (pa < a.size() && pb < b.size()) {
    bool da = IsDigit(a[pa]);
    bool db = IsDigit(b[pb]);
    if (da != db) return da;  // a number sorts before a word at the same place
    std::string ra = NextRun(a, &pa);
    std::string rb = NextRun(b, &pb);
    int c = da ? CompareDigitRuns(ra, rb) : CompareLetterRuns(ra, rb);
    if (c != 0) return c < 0;
  }
  if ((pa < a.size()) != (pb < b.size())) return pa >= a.size();
  // Equal in value ("loop01" and "loop1"): plain order keeps the sort strict.
  return a < b;
}

std::vector<std::string> OrderWholeDisks(const std::vector<std::string>& names,
                                         const std::function<bool(const std::string&)>& loopIsBacked) {
  std::vector<std::string> disks;
  for (const std::string& name : names) {
    DiskFamily family = FamilyOfBlockName(name);
    if (family == DiskFamily::NotADisk) continue;
    // An unattached loop device has no sectors; it is no drive at all.
    if (family == DiskFamily::Loop && !(loopIsBacked && loopIsBacked(name))) continue;
    disks.push_back(name);
  }
  std::sort(disks.begin(), disks.end(), [](const std::string& x, const std::string& y) {
    DiskFamily fx = FamilyOfBlockName(x);
    DiskFamily fy = FamilyOfBlockName(y);
    if (fx != fy) return static_cast<int>(fx) < static_cast<int>(fy);
    return NaturalNameLess(x, y);
  });
  return disks;
}

bool ParseCanonicalNumber(const std::string& text, uint32_t* number) {
  if (text.empty() || text.size() > 9) return false;
  if (!std::all_of(text.begin(), text.end(), IsDigit)) return false;
  if (text.size() > 1 && text[0] == '0') return false;
  uint32_t value = 0;
  for (char c : text) value = value * 10 + static_cast<uint32_t>(c - '0');
  *number = value;
  return true;
}

bool ParsePhysicalDrivePath(const std::string& path, DrivePath* out) {
  static const char kPrefix[] = "\\\\.\\PhysicalDrive";
  constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
  if (path.size() < kPrefixLength) return false;
  for (size_t i = 0; i < kPrefixLength; ++i) {
    if (LowerAscii(path[i]) != LowerAscii(kPrefix[i])) return false;
  }
  *out = DrivePath();
  // The object name is "PhysicalDrive" plus the number as Windows writes
  // it; any other spelling names no drive.
  out->valid = ParseCanonicalNumber(path.substr(kPrefixLength), &out->number);
  return true;
}

uint8_t LayoutTypeFromBootSector(const uint8_t* sector, size_t size) {
  auto has = [&](size_t offset, const char* text) {
    size_t length = std::strlen(text);
    return size >= offset + length && std::memcmp(sector + offset, text, length) == 0;
  };
  if (has(3, "NTFS")) return 0x07;
  if (has(82, "FAT32")) return 0x0C;
  if (has(54, "FAT16") || has(54, "FAT12")) return 0x06;
  return 0x00;
}

bool ParseSysfsNumber(const std::string& text, uint64_t* number) {
  const std::string digits = TrimSysfsText(text);
  if (digits.empty()) return false;
  uint64_t value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    if (__builtin_mul_overflow(value, 10u, &value) || __builtin_add_overflow(value, static_cast<uint64_t>(c - '0'), &value)) {
      return false;
    }
  }
  *number = value;
  return true;
}

std::string TrimSysfsText(const std::string& text) {
  const char* kBlank = " \t\r\n";
  std::string cut = text.substr(0, text.find('\0'));
  size_t first = cut.find_first_not_of(kBlank);
  if (first == std::string::npos) return std::string();
  size_t last = cut.find_last_not_of(kBlank);
  return cut.substr(first, last - first + 1);
}

DiskIdentity IdentifyDisk(const DiskFacts& facts, uint32_t index) {
  DiskFamily family = FamilyOfBlockName(facts.name);
  DiskIdentity id;
  if (facts.devicePath.find("/usb") != std::string::npos) {
    id.bus = "USB";
  } else if (family == DiskFamily::Mmc) {
    id.bus = "SD";
  } else if (family == DiskFamily::Ide || facts.devicePath.find("/ata") != std::string::npos) {
    id.bus = "IDE";
  } else {
    // SCSI, virtio, NVMe and Xen disks, and loop devices: Windows shows its
    // own virtual and NVMe disks on the SCSI bus too.
    id.bus = "SCSI";
  }

  std::string vendor = TrimSysfsText(facts.vendor);
  std::string model = TrimSysfsText(facts.model);
  if (vendor.empty() && family == DiskFamily::Nvme) vendor = "NVMe";
  if (family == DiskFamily::Loop) {
    // A loop device is known by the file behind it.
    if (vendor.empty()) vendor = "Linux";
    if (model.empty()) model = TrimSysfsText(BaseName(TrimSysfsText(facts.backingFile)));
  }

  id.instancePath = id.bus + "\\Disk&Ven_" + InstanceComponent(vendor) + "&Prod_" + InstanceComponent(model) +
                    "\\" + std::to_string(index);

  // Without a model a FriendlyName would be the bare suffix; Windows then
  // falls back to DeviceDesc ("Disk drive"), and so do we.
  if (!model.empty()) {
    const char* suffix = "";
    if (id.bus == "USB") suffix = " USB Device";
    if (id.bus == "SCSI") suffix = " SCSI Disk Device";
    if (id.bus == "IDE") suffix = " ATA Device";
    id.friendlyName = DisplayText(model) + suffix;
  }
  return id;
}

int ExitStatusFromValue(int32_t exitValue) {
  // Two's complement low bits, as the kernel keeps them for exit(-506).
  const int low = static_cast<int>(static_cast<uint32_t>(exitValue) & 0xFFu);
  return exitValue != 0 && low == 0 ? 1 : low;
}

uint32_t CodePageFromCodeset(const std::string& codeset) {
  std::string plain;
  for (char c : codeset) {
    if (c != '-' && c != '_') plain.push_back(LowerAscii(c));
  }
  return plain == "utf8" ? 65001u : 20127u;
}

std::string GroupingText(const std::string& grouping) {
  // The C library ends the list with 0 (repeat the last size) or CHAR_MAX
  // (no more grouping); a first entry of either means no grouping at all.
  if (grouping.empty()) return "0";
  int first = static_cast<unsigned char>(grouping[0]);
  if (first == 0 || first >= 127) return "0";
  return std::to_string(first) + ";0";
}

std::string ComputerNameFromHostName(const std::string& hostName) {
  constexpr size_t kMaxComputerName = 15;
  std::string name = hostName.substr(0, hostName.find('.'));
  name = name.substr(0, name.find('\0'));
  if (name.size() > kMaxComputerName) name.resize(kMaxComputerName);
  for (char& c : name) c = AsciiUpper(c);
  return name;
}

}  // namespace dh::platform::linux_native
