// sysfs reading for the Linux backend (see sysfs.h).
#include "platform/linux/sysfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace dh::platform::linux_native {

std::string ReadSysfsText(const std::string& path) {
  constexpr size_t kMaxAttribute = 4096;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::string();
  std::string text;
  char buffer[512];
  while (text.size() < kMaxAttribute) {
    ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  if (text.size() > kMaxAttribute) text.resize(kMaxAttribute);
  return text;
}

std::vector<std::string> ListWholeDisks(const std::string& sysRoot) {
  std::vector<std::string> names;
  std::string blockRoot = sysRoot + "/block";
  DIR* dir = ::opendir(blockRoot.c_str());
  if (dir == nullptr) return names;
  // A machine has a few dozen block devices; the cap only keeps a strange
  // tree from growing the list without end.
  constexpr size_t kMaxEntries = 4096;
  while (names.size() < kMaxEntries) {
    errno = 0;
    dirent* entry = ::readdir(dir);
    if (entry == nullptr) break;
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.push_back(name);
  }
  ::closedir(dir);
  return OrderWholeDisks(names, [&](const std::string& loop) {
    return !TrimSysfsText(ReadSysfsText(blockRoot + "/" + loop + "/loop/backing_file")).empty();
  });
}

DiskFacts ReadDiskFacts(const std::string& sysRoot, const std::string& name) {
  DiskFacts facts;
  facts.name = name;
  std::string dir = sysRoot + "/block/" + name;
  // /sys/block/<name> links into /sys/devices along the bus the disk hangs
  // on (…/usb1/…, …/ata2/…); that chain tells the bus.
  char resolved[PATH_MAX];
  if (::realpath(dir.c_str(), resolved) != nullptr) facts.devicePath = resolved;
  facts.vendor = ReadSysfsText(dir + "/device/vendor");
  facts.model = ReadSysfsText(dir + "/device/model");
  // MMC cards have no model attribute; their product name stands in.
  if (TrimSysfsText(facts.model).empty()) facts.model = ReadSysfsText(dir + "/device/name");
  facts.backingFile = ReadSysfsText(dir + "/loop/backing_file");
  return facts;
}

bool IsRemovableDisk(const std::string& blockDir) {
  std::string flag = TrimSysfsText(ReadSysfsText(blockDir + "/removable"));
  if (flag.empty()) flag = TrimSysfsText(ReadSysfsText(blockDir + "/../removable"));
  return flag == "1";
}

std::string FindPartitionName(const std::string& sysRoot, const std::string& name, uint64_t startLba,
                              uint64_t sectorCount) {
  const std::string diskDir = sysRoot + "/block/" + name;
  DIR* dir = ::opendir(diskDir.c_str());
  if (dir == nullptr) return std::string();
  // A disk has at most a few hundred partitions; the cap bounds a strange tree.
  constexpr int kMaxEntries = 4096;
  std::string found;
  for (int i = 0; i < kMaxEntries && found.empty(); ++i) {
    dirent* entry = ::readdir(dir);
    if (entry == nullptr) break;
    const std::string child = entry->d_name;
    if (child == "." || child == ".." || child.find('/') != std::string::npos) continue;
    const std::string childDir = diskDir + "/" + child;
    // Only partitions have a "partition" attribute.
    if (TrimSysfsText(ReadSysfsText(childDir + "/partition")).empty()) continue;
    uint64_t start = 0;
    uint64_t size = 0;
    if (ParseSysfsNumber(ReadSysfsText(childDir + "/start"), &start) &&
        ParseSysfsNumber(ReadSysfsText(childDir + "/size"), &size) && start == startLba && size == sectorCount) {
      found = child;
    }
  }
  ::closedir(dir);
  return found;
}

std::string BlockDirOfDevice(const std::string& sysRoot, uint32_t major, uint32_t minor) {
  return sysRoot + "/dev/block/" + std::to_string(major) + ":" + std::to_string(minor);
}

}  // namespace dh::platform::linux_native
