// Raw access to drives and files: the DeviceHandle through which every
// sector transfer of the program goes.  It is the sector device of a drive,
// of an image file, and of any file the platform layer can open.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "disk/sector_device.h"
#include "platform/platform.h"

namespace dh {

class DeviceHandle : public SectorDevice {
 public:
  DeviceHandle() = default;
  ~DeviceHandle() override { Close(); }
  DeviceHandle(const DeviceHandle&) = delete;
  DeviceHandle& operator=(const DeviceHandle&) = delete;
  DeviceHandle(DeviceHandle&&) = default;
  DeviceHandle& operator=(DeviceHandle&&) = default;

  bool IsOpen() const { return file_ != nullptr; }
  // Opens the path on `machine` when closed; sets both flags on success.
  // False when the handle is already open or the open fails.
  bool Open(platform::Machine& machine, const std::string& path, platform::OpenMode mode);
  // Opens an existing file read-only.
  bool OpenRead(platform::Machine& machine, const std::string& path) {
    return Open(machine, path, platform::OpenMode::ReadExisting);
  }
  // Takes a file opened elsewhere (a virtual disk's layout, say).
  void Attach(std::unique_ptr<platform::File> file, const std::string& name);
  // Gives the file up; the handle is closed afterwards.
  std::unique_ptr<platform::File> Detach() { return std::move(file_); }
  void Close() { file_.reset(); }

  // Reads `bytes` bytes at lba x 512; records nothing.  A read that ends
  // early but delivered something succeeds.
  bool ReadAt(uint64_t lba, void* buffer, uint32_t bytes);
  bool ReadSectors(void* buffer, uint64_t lba, uint32_t count);

  // The sector device: transfers at byte offsets of the file.
  bool ReadSome(uint64_t offset, void* buffer, uint32_t bytes, uint32_t* done) override;
  bool WriteSome(uint64_t offset, const void* buffer, uint32_t bytes, uint32_t* done) override;
  bool Flush() override;
  bool SizeBytes(uint64_t* bytes) override;
  // The file's own holes and zeroing; a closed handle hides nothing and
  // zeroes nothing.
  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override;
  bool ZeroRange(uint64_t offset, uint64_t bytes) override;
  void StartWriteback(uint64_t offset, uint64_t bytes) override;
  platform::File* CloneSource() override;
  bool CloneFrom(SectorDevice& source, uint64_t from, uint64_t to, uint64_t bytes) override;
  bool WritesRefused() override { return file_ != nullptr && file_->WritesRefused(); }

  platform::File* file() { return file_.get(); }

  std::string path;
  bool canWrite = false;
  bool canRead = false;
  uint32_t bytesTransferred = 0;

 private:
  std::unique_ptr<platform::File> file_;
};

}  // namespace dh
