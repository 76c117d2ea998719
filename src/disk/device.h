// Raw access to drives and files: the DeviceHandle through which every
// sector transfer of the program goes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/platform.h"

namespace dh {

class DeviceHandle {
 public:
  DeviceHandle() = default;
  ~DeviceHandle() { Close(); }
  DeviceHandle(const DeviceHandle&) = delete;
  DeviceHandle& operator=(const DeviceHandle&) = delete;
  DeviceHandle(DeviceHandle&&) = default;
  DeviceHandle& operator=(DeviceHandle&&) = default;

  bool IsOpen() const { return file_ != nullptr; }
  // Opens the path when closed; sets both flags on success.  False when the
  // handle is already open or the open fails.
  bool Open(const std::string& path, platform::OpenMode mode);
  // Opens an existing file read-only.
  bool OpenRead(const std::string& path) { return Open(path, platform::OpenMode::ReadExisting); }
  void Close() { file_.reset(); }
  // Takes a file opened elsewhere (a virtual disk's layout) as this handle's.
  void Attach(std::unique_ptr<platform::File> file, const std::string& name) {
    file_ = std::move(file);
    path = name;
    canRead = canWrite = file_ != nullptr;
  }
  std::unique_ptr<platform::File> Detach() { return std::move(file_); }

  // Positions at lba * 512 and reads `bytes` bytes: one positioning and one
  // transfer; a short read that is not empty succeeds.
  bool ReadAt(uint64_t lba, void* buffer, uint32_t bytes);
  bool ReadSectors(void* buffer, uint64_t lba, uint32_t count);
  // Positions at lba * 512 and writes, then flushes.  The whole count must
  // be written.
  bool WriteAt(uint64_t lba, const void* buffer, uint32_t bytes);
  // Reads at the current position (bulk copies position once, then stream).
  bool Seek(uint64_t byteOffset);
  bool ReadNext(void* buffer, uint32_t bytes);
  bool WriteNext(const void* buffer, uint32_t bytes);
  bool Flush();

  platform::File* file() { return file_.get(); }

  std::string path;
  bool canWrite = false;
  bool canRead = false;
  uint32_t bytesTransferred = 0;

 private:
  std::unique_ptr<platform::File> file_;
};

}  // namespace dh
