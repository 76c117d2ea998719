// Sector I/O of the program: DeviceHandle and the DiskSet's sector
// operations.  Every transfer is one positioning and one call into the
// platform's file; nothing is cached.
#include "disk/device.h"

#include <cstdio>

#include "disk/disk_set.h"
#include "base/le.h"

namespace dh {

using platform::Host;
using platform::OpenMode;

bool DeviceHandle::Open(const std::string& openPath, OpenMode mode) {
  if (IsOpen()) return false;
  path = openPath;
  file_ = Host().Open(openPath, mode);
  if (!file_) return false;
  canWrite = true;
  canRead = true;
  return true;
}

bool DeviceHandle::Seek(uint64_t byteOffset) { return IsOpen() && file_->Seek(byteOffset); }

bool DeviceHandle::ReadNext(void* buffer, uint32_t bytes) {
  if (!IsOpen() || !canRead) return false;
  bytesTransferred = 0;
  uint32_t done = 0;
  bool ok = file_->Read(buffer, bytes, &done);
  bytesTransferred = done;
  return ok && done != 0;
}

bool DeviceHandle::WriteNext(const void* buffer, uint32_t bytes) {
  if (!IsOpen() || !canWrite) return false;
  // A device may take a write in pieces; only the whole count is success.
  const uint8_t* p = static_cast<const uint8_t*>(buffer);
  uint32_t total = 0;
  while (total < bytes) {
    uint32_t done = 0;
    if (!file_->Write(p + total, bytes - total, &done) || done == 0) {
      bytesTransferred = total;
      return false;
    }
    total += done;
  }
  bytesTransferred = total;
  return true;
}

bool DeviceHandle::Flush() { return IsOpen() && file_->Flush(); }

bool DeviceHandle::ReadAt(uint64_t lba, void* buffer, uint32_t bytes) {
  if (!IsOpen() || !canRead) return false;
  if (lba > UINT64_MAX / kSectorSize) return false;
  if (!file_->Seek(lba * kSectorSize)) return false;
  return ReadNext(buffer, bytes);
}

bool DeviceHandle::ReadSectors(void* buffer, uint64_t lba, uint32_t count) {
  if (count > UINT32_MAX / kSectorSize) return false;
  return ReadAt(lba, buffer, count * kSectorSize);
}

bool DeviceHandle::WriteAt(uint64_t lba, const void* buffer, uint32_t bytes) {
  if (!IsOpen() || !canWrite) return false;
  if (lba > UINT64_MAX / kSectorSize) return false;
  if (!file_->Seek(lba * kSectorSize)) return false;
  // Written data reaches the device before the write counts as done.
  return WriteNext(buffer, bytes) && file_->Flush();
}

namespace {

std::string PhysicalDrivePath(int32_t number) {
  char path[64];
  std::snprintf(path, sizeof path, "\\\\.\\PhysicalDrive%d", static_cast<int>(number));
  return path;
}

}  // namespace

ResultCode CountDisks(DiskSet& disks) {
  disks.diskCount = 0;
  for (int32_t n = 0; n < kMaxDisks; ++n) {
    DeviceHandle probe;
    if (probe.Open(PhysicalDrivePath(n), OpenMode::ProbeRead)) {
      disks.diskTable[disks.diskCount++] = n;
    }
  }
  if (disks.diskCount == 0) {
    disks.RecordError(kNoDisks);
    return kNoDisks;
  }
  return disks.firstError;
}

bool OpenDisk(DeviceHandle& handle, int32_t driveNumber) {
  return handle.Open(PhysicalDrivePath(driveNumber), OpenMode::DiskReadWrite);
}

bool QueryGeometry(DiskSet& disks) {
  disks.totalBytes = 0;
  disks.totalSectors = 0;
  platform::File* file = disks.device.file();
  if (!file) return true;
  bool failed = true;
  platform::DiskGeometry g;
  if (file->GetDriveGeometry(&g)) {
    disks.mediaType = g.mediaType;
    disks.heads = g.tracksPerCylinder;
    disks.sectorsPerTrack = g.sectorsPerTrack;
    disks.cylinders = static_cast<uint32_t>(g.cylinders);
    uint64_t perCylinder = static_cast<uint64_t>(g.tracksPerCylinder) * g.sectorsPerTrack;
    disks.totalSectors = static_cast<uint64_t>(g.cylinders) * perCylinder;
    disks.totalBytes = disks.totalSectors * kSectorSize;
    failed = false;
    if (disks.mediaType == platform::kMediaRemovable) {
      uint64_t start = 0, length = 0;
      if (file->GetPartitionInfo(&start, &length)) {
        disks.totalBytes = start + length;
        disks.totalSectors = disks.totalBytes / kSectorSize;
      }
    }
  }
  platform::DiskGeometry gx;
  uint64_t diskSize = 0;
  if (file->GetDriveGeometryEx(&gx, &diskSize)) {
    disks.totalBytes = diskSize;
    disks.totalSectors = diskSize / kSectorSize;
  }
  return failed;
}

ResultCode ReadSector(DiskSet& disks, uint64_t lba, uint8_t* buffer) {
  ResultCode rc = disks.device.ReadAt(lba, buffer, kSectorSize) ? kSuccess : kReadFailed;
  disks.RecordError(rc);
  return rc;
}

ResultCode WriteSectors(DiskSet& disks, uint64_t lba, const uint8_t* buffer, uint32_t count) {
  ResultCode rc = kWriteFailed;
  if (count <= UINT32_MAX / kSectorSize && disks.device.WriteAt(lba, buffer, count * kSectorSize)) rc = kSuccess;
  disks.RecordError(rc);
  return rc;
}

}  // namespace dh
