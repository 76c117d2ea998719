// Files and block devices of the Linux backend: positioned transfers at a
// stored offset, and the disk queries answered from ioctls and sysfs.
#include "platform/linux/linux_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "base/le.h"
#include "platform/linux/linux_support.h"
#include "platform/linux/sysfs.h"

namespace dh::platform::linux_native {

namespace {

constexpr uint64_t kMaxOffset = static_cast<uint64_t>(INT64_MAX);
// The geometry a disk is given when its driver reports none (loop, and
// most disks larger than CHS can address): the usual BIOS translation.
constexpr uint32_t kDefaultHeads = 255;
constexpr uint32_t kDefaultSectorsPerTrack = 63;

class LinuxFile final : public File {
 public:
  LinuxFile(int fd, bool blockDevice, std::string blockDir, ErrorSlot lastError)
      : fd_(fd), blockDevice_(blockDevice), blockDir_(std::move(blockDir)), lastError_(std::move(lastError)) {}
  ~LinuxFile() override { ::close(fd_); }
  LinuxFile(const LinuxFile&) = delete;
  LinuxFile& operator=(const LinuxFile&) = delete;

  bool Seek(uint64_t offset) override {
    // SetFilePointerEx takes a signed distance; what does not fit is a
    // position before the start of the file to Windows.
    if (offset > kMaxOffset) return FailWith(kErrorNegativeSeek);
    offset_ = offset;
    return true;
  }

  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override {
    uint32_t moved = 0;
    bool ok = Transfer(bytes, &moved, [&](uint32_t at, uint32_t count, off_t where) {
      return ::pread(fd_, static_cast<uint8_t*>(buffer) + at, count, where);
    });
    if (done != nullptr) *done = moved;
    return ok;
  }

  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    uint32_t moved = 0;
    bool ok = Transfer(bytes, &moved, [&](uint32_t at, uint32_t count, off_t where) {
      return ::pwrite(fd_, static_cast<const uint8_t*>(buffer) + at, count, where);
    });
    // A write that stops short without an error has nowhere to go: to the
    // caller that is a full disk, as WriteFile would report it.
    if (ok && moved < bytes) ok = FailWith(kErrorDiskFull);
    if (done != nullptr) *done = moved;
    return ok;
  }

  bool Flush() override {
    while (::fsync(fd_) != 0) {
      if (errno != EINTR) return FailWithErrno(errno);
    }
    return true;
  }

  bool Size(uint64_t* bytes) override {
    uint64_t size = 0;
    if (blockDevice_) {
      if (::ioctl(fd_, BLKGETSIZE64, &size) != 0) return FailWithErrno(errno);
    } else {
      struct stat info {};
      if (::fstat(fd_, &info) != 0) return FailWithErrno(errno);
      size = info.st_size > 0 ? static_cast<uint64_t>(info.st_size) : 0;
    }
    if (bytes != nullptr) *bytes = size;
    return true;
  }

  bool GetDriveGeometry(DiskGeometry* out) override {
    uint64_t size = 0;
    return QueryGeometry(out, &size);
  }

  bool GetDriveGeometryEx(DiskGeometry* geometry, uint64_t* diskSize) override {
    uint64_t size = 0;
    if (!QueryGeometry(geometry, &size)) return false;
    if (diskSize != nullptr) *diskSize = size;
    return true;
  }

  bool GetPartitionInfo(uint64_t* startingOffset, uint64_t* partitionLength) override {
    uint64_t size = 0;
    if (!MediumSize(&size)) return false;
    // The whole device is the one "partition" Linux can describe here.
    if (startingOffset != nullptr) *startingOffset = 0;
    if (partitionLength != nullptr) *partitionLength = size;
    return true;
  }

  bool GetDriveLayoutEx(LayoutEntry* first) override { return QueryLayout(first); }
  bool GetDriveLayout(LayoutEntry* first) override { return QueryLayout(first); }

  bool UpdateProperties() override {
    if (!blockDevice_) return true;  // an image file has no table to re-read
    // A busy disk (a partition mounted) cannot re-read its table; the
    // caller must learn that the new table is not in effect yet.
    if (::ioctl(fd_, BLKRRPART) != 0) return FailWithErrno(errno);
    return true;
  }

  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override {
    // A device has no holes the kernel tells of; every sector is data.
    if (blockDevice_ || offset > kMaxOffset) return File::NextData(offset, start, end);
    off_t data = -1;
    do {
      data = ::lseek(fd_, static_cast<off_t>(offset), SEEK_DATA);
    } while (data < 0 && errno == EINTR);
    if (data < 0) {
      // ENXIO: no data from here to the end.  Anything else (a file system
      // without the query) gives no answer, so everything counts as data.
      if (errno == ENXIO) return false;
      return File::NextData(offset, start, end);
    }
    off_t hole = -1;
    do {
      hole = ::lseek(fd_, data, SEEK_HOLE);
    } while (hole < 0 && errno == EINTR);
    *start = static_cast<uint64_t>(data);
    *end = hole > data ? static_cast<uint64_t>(hole) : UINT64_MAX;
    return true;
  }

  void StartWriteback(uint64_t offset, uint64_t bytes) override {
    if (bytes == 0 || offset > kMaxOffset || bytes > kMaxOffset - offset) return;
    // Only a start: SYNC_FILE_RANGE_WRITE waits for nothing, and an error
    // here shows again at the Flush that makes the data durable.
    (void)::sync_file_range(fd_, static_cast<off_t>(offset), static_cast<off_t>(bytes), SYNC_FILE_RANGE_WRITE);
  }

  File* CloneSource() override { return blockDevice_ ? nullptr : this; }
  int CloneDescriptor() override { return blockDevice_ ? -1 : fd_; }

  bool CloneFrom(File& source, uint64_t from, uint64_t to, uint64_t bytes) override {
    File* other = source.CloneSource();
    const int sourceFd = other != nullptr ? other->CloneDescriptor() : -1;
    if (sourceFd < 0 || blockDevice_ || bytes == 0) return false;
    if (from > kMaxOffset || bytes > kMaxOffset - from || to > kMaxOffset || bytes > kMaxOffset - to) return false;
    file_clone_range range{};
    range.src_fd = sourceFd;
    range.src_offset = from;
    range.src_length = bytes;
    range.dest_offset = to;
    int rc = -1;
    do {
      rc = ::ioctl(fd_, FICLONERANGE, &range);
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
  }

  bool ZeroRange(uint64_t offset, uint64_t bytes) override {
    if (bytes == 0) return true;
    if (offset > kMaxOffset || bytes > kMaxOffset - offset) return FailWith(kErrorInvalidParameter);
    uint64_t size = 0;
    if (!Size(&size) || offset + bytes > size) return FailWith(kErrorInvalidParameter);
    if (blockDevice_) {
      // The device's own zeroing reads back as zeros; a discard need not.
      uint64_t range[2] = {offset, bytes};
      while (::ioctl(fd_, BLKZEROOUT, range) != 0) {
        if (errno != EINTR) return FailWithErrno(errno);
      }
      return true;
    }
    // Holes already read as zeros; only the data runs inside the range are
    // zeroed, so that a sparse image stays sparse.
    const uint64_t limit = offset + bytes;
    uint64_t at = offset;
    while (at < limit) {
      uint64_t start = 0;
      uint64_t end = 0;
      if (!NextData(at, &start, &end) || start >= limit) break;
      if (end > limit) end = limit;
      if (!ZeroRun(static_cast<off_t>(start), static_cast<off_t>(end - start))) return FailWithErrno(errno);
      at = end;
    }
    return true;
  }

 private:
  bool FailWith(uint32_t code) {
    *lastError_ = code;
    return false;
  }
  bool FailWithErrno(int err) { return FailWith(WindowsErrorFromErrno(err)); }

  // Moves `bytes` from the current offset in as many calls as it takes,
  // advancing the offset.  End of file ends a read early without error.
  template <typename Call>
  bool Transfer(uint32_t bytes, uint32_t* moved, Call call) {
    *moved = 0;
    while (*moved < bytes) {
      if (offset_ > kMaxOffset) return FailWith(kErrorNegativeSeek);
      ssize_t n = call(*moved, bytes - *moved, static_cast<off_t>(offset_));
      if (n < 0) {
        if (errno == EINTR) continue;
        return FailWithErrno(errno);
      }
      if (n == 0) break;
      *moved += static_cast<uint32_t>(n);
      offset_ += static_cast<uint64_t>(n);
    }
    return true;
  }

  // Zeroing keeps the blocks (as unwritten extents) and costs the file
  // system far less than freeing them; punching is for those without it.
  bool ZeroRun(off_t at, off_t length) {
    return Fallocate(FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE, at, length) ||
           Fallocate(FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, length);
  }

  bool Fallocate(int mode, off_t at, off_t length) {
    while (::fallocate(fd_, mode, at, length) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }

  // The size of a block device's medium; the disk queries fail for files.
  bool MediumSize(uint64_t* size) {
    if (!blockDevice_) return FailWith(kErrorInvalidFunction);
    if (::ioctl(fd_, BLKGETSIZE64, size) != 0) return FailWithErrno(errno);
    // A drive without medium (an empty card reader opened by its node)
    // reports no sectors; Windows answers its queries with "not ready".
    if (*size == 0) return FailWith(kErrorNotReady);
    return true;
  }

  bool QueryGeometry(DiskGeometry* out, uint64_t* size) {
    if (!MediumSize(size)) return false;
    uint32_t heads = 0;
    uint32_t sectors = 0;
    hd_geometry geo {};
    if (::ioctl(fd_, HDIO_GETGEO, &geo) == 0) {
      heads = geo.heads;
      sectors = geo.sectors;
    }
    if (heads == 0) heads = kDefaultHeads;
    if (sectors == 0) sectors = kDefaultSectorsPerTrack;
    int logicalSector = 0;
    uint32_t bytesPerSector = kSectorSize;
    if (::ioctl(fd_, BLKSSZGET, &logicalSector) == 0 && logicalSector > 0) {
      bytesPerSector = static_cast<uint32_t>(logicalSector);
    }
    if (out != nullptr) {
      out->cylinders = static_cast<int64_t>(*size / kSectorSize / (static_cast<uint64_t>(heads) * sectors));
      out->tracksPerCylinder = heads;
      out->sectorsPerTrack = sectors;
      out->bytesPerSector = bytesPerSector;
      out->mediaType = IsRemovableDisk(blockDir_) ? kMediaRemovable : kMediaFixed;
    }
    return true;
  }

  // Linux keeps no drive layout of a disk without partition table; the
  // one entry is the whole device, typed by the file system it holds.
  bool QueryLayout(LayoutEntry* first) {
    uint64_t size = 0;
    if (!MediumSize(&size)) return false;
    uint8_t sector[kSectorSize] = {};
    uint32_t got = 0;
    while (got < kSectorSize) {
      ssize_t n = ::pread(fd_, sector + got, kSectorSize - got, static_cast<off_t>(got));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return FailWithErrno(errno);
      if (n == 0) break;
      got += static_cast<uint32_t>(n);
    }
    if (first != nullptr) {
      *first = LayoutEntry();
      first->partitionStyle = 0;
      first->partitionType = LayoutTypeFromBootSector(sector, got);
      first->startingOffset = 0;
      first->partitionLength = size;
      first->present = true;
    }
    return true;
  }

  int fd_;
  uint64_t offset_ = 0;
  bool blockDevice_;
  std::string blockDir_;
  ErrorSlot lastError_;
};

int OpenFlags(OpenMode mode) {
  switch (mode) {
    case OpenMode::ProbeRead:
    case OpenMode::ReadExisting:
      return O_RDONLY;
    case OpenMode::DiskReadWrite:
    case OpenMode::ReadWriteExisting:
      return O_RDWR;
    case OpenMode::CreateAlways:
      return O_WRONLY | O_CREAT | O_TRUNC;
  }
  return O_RDONLY;
}

}  // namespace

std::unique_ptr<File> OpenLinuxFile(const std::string& path, OpenMode mode, bool physicalDrive,
                                    const std::string& sysRoot, const ErrorSlot& lastError) {
  int flags = OpenFlags(mode) | O_CLOEXEC;
  // A plain path may name a FIFO, whose open would wait for a partner.
  // Drives are opened plainly so that a drive without medium fails to open
  // as it does on Windows.
  if (!physicalDrive) flags |= O_NONBLOCK;
  int fd = -1;
  do {
    fd = ::open(path.c_str(), flags, 0644);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    *lastError = WindowsErrorFromErrno(errno);
    return nullptr;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    *lastError = WindowsErrorFromErrno(errno);
    ::close(fd);
    return nullptr;
  }
  // Only something with positions can stand in for a file or a disk:
  // CreateFileA refuses directories, and pipes and sockets cannot seek.
  if (S_ISDIR(info.st_mode) || S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode)) {
    *lastError = kErrorAccessDenied;
    ::close(fd);
    return nullptr;
  }
  if ((flags & O_NONBLOCK) != 0) {
    int current = ::fcntl(fd, F_GETFL);
    if (current >= 0) ::fcntl(fd, F_SETFL, current & ~O_NONBLOCK);
  }
  bool block = S_ISBLK(info.st_mode);
  std::string blockDir;
  if (block) blockDir = BlockDirOfDevice(sysRoot, major(info.st_rdev), minor(info.st_rdev));
  return std::make_unique<LinuxFile>(fd, block, std::move(blockDir), lastError);
}

}  // namespace dh::platform::linux_native
