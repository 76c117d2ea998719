// Files and devices of the win32 backend: one CreateFileA handle each, moved
// with SetFilePointerEx, ReadFile and WriteFile, and asked about disks with
// DeviceIoControl.
#include "platform/win32/win32_api.h"
#include "platform/win32/win32_records.h"

#include <cstring>
#include <limits>

namespace dh::platform::win32 {
namespace {

class Win32File final : public File {
 public:
  Win32File(HANDLE handle, ErrorSlot errors) : handle_(handle), errors_(std::move(errors)) {}
  ~Win32File() override { ::CloseHandle(handle_); }
  Win32File(const Win32File&) = delete;
  Win32File& operator=(const Win32File&) = delete;

  bool Seek(uint64_t offset) override {
    // SetFilePointerEx takes a signed distance; an offset beyond it can only
    // be a mistake, and must not turn into a position before the start.
    if (offset > static_cast<uint64_t>(std::numeric_limits<LONGLONG>::max())) {
      *errors_ = ERROR_INVALID_PARAMETER;
      return false;
    }
    LARGE_INTEGER distance;
    distance.QuadPart = static_cast<LONGLONG>(offset);
    if (!::SetFilePointerEx(handle_, distance, nullptr, FILE_BEGIN)) return Fail(errors_);
    return true;
  }

  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override {
    DWORD moved = 0;
    const BOOL ok = ::ReadFile(handle_, buffer, bytes, &moved, nullptr);
    *done = moved;
    if (!ok) return Fail(errors_);
    return true;
  }

  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    DWORD moved = 0;
    const BOOL ok = ::WriteFile(handle_, buffer, bytes, &moved, nullptr);
    *done = moved;
    if (!ok) return Fail(errors_);
    return true;
  }

  bool Flush() override {
    if (!::FlushFileBuffers(handle_)) return Fail(errors_);
    return true;
  }

  bool Size(uint64_t* bytes) override {
    LARGE_INTEGER size;
    const bool fileSize = ::GetFileSizeEx(handle_, &size) != 0;
    if (fileSize && size.QuadPart > 0) {
      *bytes = static_cast<uint64_t>(size.QuadPart);
      return true;
    }
    // A disk device has no file size (the call fails or answers 0); its
    // length comes from the disk driver.  An empty plain file fails the
    // control code and keeps its size of 0.
    GET_LENGTH_INFORMATION length;
    DWORD returned = 0;
    if (::DeviceIoControl(handle_, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof length, &returned,
                          nullptr) &&
        returned >= sizeof length && length.Length.QuadPart >= 0) {
      *bytes = static_cast<uint64_t>(length.Length.QuadPart);
      return true;
    }
    if (!fileSize) return Fail(errors_);
    *bytes = 0;
    return true;
  }

  bool GetDriveGeometry(DiskGeometry* out) override {
    alignas(8) uint8_t buffer[kGeometrySize] = {};
    DWORD returned = 0;
    if (!Control(IOCTL_DISK_GET_DRIVE_GEOMETRY, buffer, sizeof buffer, &returned)) return false;
    return Decoded(DecodeGeometry(buffer, returned, out));
  }

  bool GetDriveGeometryEx(DiskGeometry* geometry, uint64_t* diskSize) override {
    alignas(8) uint8_t buffer[kGeometryExSize] = {};
    DWORD returned = 0;
    if (!Control(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, buffer, sizeof buffer, &returned)) return false;
    return Decoded(DecodeGeometryEx(buffer, returned, geometry, diskSize));
  }

  bool GetPartitionInfo(uint64_t* startingOffset, uint64_t* partitionLength) override {
    alignas(8) uint8_t buffer[kPartitionInfoSize] = {};
    DWORD returned = 0;
    if (!Control(IOCTL_DISK_GET_PARTITION_INFO, buffer, sizeof buffer, &returned)) return false;
    return Decoded(DecodePartitionInfo(buffer, returned, startingOffset, partitionLength));
  }

  bool GetDriveLayoutEx(LayoutEntry* first) override {
    alignas(8) uint8_t buffer[kLayoutBufferSize] = {};
    DWORD returned = 0;
    if (!Control(IOCTL_DISK_GET_DRIVE_LAYOUT_EX, buffer, sizeof buffer, &returned)) return false;
    return Decoded(DecodeDriveLayoutEx(buffer, returned, first));
  }

  bool GetDriveLayout(LayoutEntry* first) override {
    alignas(8) uint8_t buffer[kLayoutBufferSize] = {};
    DWORD returned = 0;
    if (!Control(IOCTL_DISK_GET_DRIVE_LAYOUT, buffer, sizeof buffer, &returned)) return false;
    return Decoded(DecodeDriveLayout(buffer, returned, first));
  }

  bool UpdateProperties() override {
    DWORD returned = 0;
    if (!::DeviceIoControl(handle_, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, &returned, nullptr)) {
      return Fail(errors_);
    }
    return true;
  }

  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override {
    uint64_t size = 0;
    const uint64_t maxOffset = static_cast<uint64_t>(std::numeric_limits<LONGLONG>::max());
    if (offset > maxOffset || !Size(&size) || offset >= size) return File::NextData(offset, start, end);
    FILE_ALLOCATED_RANGE_BUFFER query;
    query.FileOffset.QuadPart = static_cast<LONGLONG>(offset);
    query.Length.QuadPart = static_cast<LONGLONG>(size - offset);
    FILE_ALLOCATED_RANGE_BUFFER found[1];
    DWORD returned = 0;
    // One range is all a caller needs; more of them is not a failure.
    if (!::DeviceIoControl(handle_, FSCTL_QUERY_ALLOCATED_RANGES, &query, sizeof query, found, sizeof found,
                           &returned, nullptr) &&
        ::GetLastError() != ERROR_MORE_DATA) {
      // A device, or a file system without the query: all of it is data.
      return File::NextData(offset, start, end);
    }
    if (returned < sizeof found[0]) return false;
    if (found[0].FileOffset.QuadPart < 0 || found[0].Length.QuadPart <= 0) return File::NextData(offset, start, end);
    const uint64_t first = static_cast<uint64_t>(found[0].FileOffset.QuadPart);
    const uint64_t length = static_cast<uint64_t>(found[0].Length.QuadPart);
    *start = first < offset ? offset : first;
    *end = length > UINT64_MAX - first ? UINT64_MAX : first + length;
    return true;
  }

  bool ZeroRange(uint64_t offset, uint64_t bytes) override {
    if (bytes == 0) return true;
    uint64_t size = 0;
    if (!Size(&size) || offset > size || bytes > size - offset) {
      *errors_ = ERROR_INVALID_PARAMETER;
      return false;
    }
    FILE_ZERO_DATA_INFORMATION zero;
    zero.FileOffset.QuadPart = static_cast<LONGLONG>(offset);
    zero.BeyondFinalZero.QuadPart = static_cast<LONGLONG>(offset + bytes);
    DWORD returned = 0;
    // On a sparse file the range becomes a hole; on any other file the file
    // system writes the zeros itself.  Disks refuse the call.
    if (!::DeviceIoControl(handle_, FSCTL_SET_ZERO_DATA, &zero, sizeof zero, nullptr, 0, &returned, nullptr)) {
      return Fail(errors_);
    }
    return true;
  }

  // Files the program creates are sparse, so that the runs of zeros it
  // leaves unwritten take no room.
  void MakeSparse() {
    DWORD returned = 0;
    ::DeviceIoControl(handle_, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  }

 private:
  bool Control(DWORD code, uint8_t* buffer, DWORD size, DWORD* returned) {
    if (!::DeviceIoControl(handle_, code, nullptr, 0, buffer, size, returned, nullptr)) return Fail(errors_);
    return true;
  }

  // A driver that claims success but returns less than the record is treated
  // like a failed query.
  bool Decoded(bool ok) {
    if (!ok) *errors_ = ERROR_INVALID_DATA;
    return ok;
  }

  HANDLE handle_;
  ErrorSlot errors_;
};

struct CreateArguments {
  DWORD access;
  DWORD share;
  DWORD disposition;
  DWORD attributes;
};

// The program's CreateFileA calls, one per mode.
CreateArguments ArgumentsOf(OpenMode mode) {
  switch (mode) {
    case OpenMode::ProbeRead:
      return {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL};
    case OpenMode::DiskReadWrite:
      return {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0};
    case OpenMode::ReadExisting:
      return {GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0};
    case OpenMode::ReadWriteExisting:
      return {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, 0};
    case OpenMode::CreateAlways:
      return {GENERIC_WRITE, FILE_SHARE_WRITE, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL};
  }
  return {GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0};
}

}  // namespace

std::unique_ptr<File> OpenFile(const std::string& path, OpenMode mode, const ErrorSlot& errors) {
  // A name with an embedded zero would open a different file than the one
  // the caller named.
  if (path.find('\0') != std::string::npos) {
    *errors = ERROR_INVALID_NAME;
    return nullptr;
  }
  const CreateArguments a = ArgumentsOf(mode);
  HANDLE handle = ::CreateFileA(path.c_str(), a.access, a.share, nullptr, a.disposition, a.attributes, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    Fail(errors);
    return nullptr;
  }
  auto file = std::make_unique<Win32File>(handle, errors);
  if (mode == OpenMode::CreateAlways) file->MakeSparse();
  return file;
}

}  // namespace dh::platform::win32
