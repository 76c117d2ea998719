#include "sectors/sector_io.h"

#include "disk/device.h"
#include "disk/disk_set.h"

namespace dh::sectors {

bool DeviceLba(const DiskSet& disks, uint64_t lba, uint64_t* deviceLba) {
  if (lba > UINT64_MAX - disks.bootSectorLba) return false;
  *deviceLba = disks.bootSectorLba + lba;
  return true;
}

uint64_t SectorsOnDisk(const DiskSet& disks, uint64_t lba, uint64_t count) {
  if (disks.totalSectors == 0) return count;
  if (lba >= disks.totalSectors) return 0;
  const uint64_t room = disks.totalSectors - lba;
  return count < room ? count : room;
}

ResultCode ReadDiskSector(DiskSet& disks, uint64_t lba, uint8_t* buffer) {
  uint64_t at = 0;
  if (!DeviceLba(disks, lba, &at)) {
    disks.RecordError(kReadFailed);
    return kReadFailed;
  }
  return ReadSector(disks, at, buffer);
}

ResultCode WriteDiskSectors(DiskSet& disks, uint64_t lba, const uint8_t* buffer, uint32_t count) {
  uint64_t at = 0;
  if (SectorsOnDisk(disks, lba, count) < count || !DeviceLba(disks, lba, &at)) {
    disks.RecordError(kWriteFailed);
    return kWriteFailed;
  }
  return WriteSectors(disks, at, buffer, count);
}

uint32_t ReadFully(DeviceHandle& handle, void* buffer, uint32_t bytes, bool* failed) {
  uint8_t* p = static_cast<uint8_t*>(buffer);
  uint32_t total = 0;
  bool bad = !handle.IsOpen() || !handle.canRead;
  while (!bad && total < bytes) {
    // The platform's own call, so that the end of a file (an empty read)
    // stays apart from a failing read.
    uint32_t done = 0;
    if (!handle.file()->Read(p + total, bytes - total, &done)) {
      bad = true;
      break;
    }
    if (done == 0) break;
    total += done;
  }
  handle.bytesTransferred = total;
  if (failed) *failed = bad;
  return total;
}

bool ReadFileAt(DeviceHandle& handle, uint64_t byteOffset, void* buffer, uint32_t bytes, uint32_t* got) {
  *got = 0;
  if (!handle.Seek(byteOffset)) return false;
  bool failed = false;
  *got = ReadFully(handle, buffer, bytes, &failed);
  return !failed;
}

}  // namespace dh::sectors
