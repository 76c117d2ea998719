// DeviceHandle: the platform's file as a sector device.  Every transfer is
// one positioning and one call into the platform; nothing is cached.
#include "disk/device.h"

#include "base/le.h"

namespace dh {

using platform::OpenMode;

bool DeviceHandle::Open(platform::Machine& machine, const std::string& openPath, OpenMode mode) {
  if (IsOpen()) return false;
  path = openPath;
  file_ = machine.Open(openPath, mode);
  if (!file_) return false;
  canWrite = true;
  canRead = true;
  return true;
}

void DeviceHandle::Attach(std::unique_ptr<platform::File> file, const std::string& name) {
  file_ = std::move(file);
  path = name;
  canWrite = canRead = file_ != nullptr;
}

bool DeviceHandle::ReadSome(uint64_t offset, void* buffer, uint32_t bytes, uint32_t* done) {
  *done = 0;
  bytesTransferred = 0;
  if (!IsOpen() || !canRead) return false;
  if (!file_->Seek(offset)) return false;
  bool ok = file_->Read(buffer, bytes, done);
  bytesTransferred = *done;
  return ok;
}

bool DeviceHandle::WriteSome(uint64_t offset, const void* buffer, uint32_t bytes, uint32_t* done) {
  *done = 0;
  bytesTransferred = 0;
  if (!IsOpen() || !canWrite) return false;
  if (!file_->Seek(offset)) return false;
  bool ok = file_->Write(buffer, bytes, done);
  bytesTransferred = *done;
  return ok;
}

bool DeviceHandle::Flush() { return IsOpen() && file_->Flush(); }

bool DeviceHandle::SizeBytes(uint64_t* bytes) { return IsOpen() && file_->Size(bytes); }

bool DeviceHandle::NextData(uint64_t offset, uint64_t* start, uint64_t* end) {
  if (IsOpen() && canRead) return file_->NextData(offset, start, end);
  *start = offset;
  *end = UINT64_MAX;
  return true;
}

bool DeviceHandle::ZeroRange(uint64_t offset, uint64_t bytes) {
  return IsOpen() && canWrite && file_->ZeroRange(offset, bytes);
}

void DeviceHandle::StartWriteback(uint64_t offset, uint64_t bytes) {
  if (IsOpen() && canWrite) file_->StartWriteback(offset, bytes);
}

platform::File* DeviceHandle::CloneSource() { return IsOpen() && canRead ? file_->CloneSource() : nullptr; }

bool DeviceHandle::CloneFrom(SectorDevice& source, uint64_t from, uint64_t to, uint64_t bytes) {
  platform::File* sourceFile = source.CloneSource();
  return sourceFile != nullptr && IsOpen() && canWrite && file_->CloneFrom(*sourceFile, from, to, bytes);
}

bool DeviceHandle::ReadAt(uint64_t lba, void* buffer, uint32_t bytes) {
  if (lba > UINT64_MAX / kSectorSize) return false;
  bool failed = false;
  const uint32_t got = ReadFull(*this, lba * kSectorSize, buffer, bytes, &failed);
  bytesTransferred = got;
  return !failed && got != 0;
}

bool DeviceHandle::ReadSectors(void* buffer, uint64_t lba, uint32_t count) {
  if (count > UINT32_MAX / kSectorSize) return false;
  return ReadAt(lba, buffer, count * kSectorSize);
}

}  // namespace dh
