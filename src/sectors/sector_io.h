// Transfers shared by the sector commands: sectors of the current disk
// counted from the disk's own sector 0, and complete reads of files.
#pragma once

#include <cstdint>

#include "base/result_codes.h"
#include "base/le.h"

namespace dh {

class DiskSet;
class DeviceHandle;

namespace sectors {

// The chunk of the bulk copies and of restores: 2048 sectors, 1 MiB.
constexpr uint32_t kChunkSectors = 2048;
constexpr uint32_t kChunkBytes = kChunkSectors * kSectorSize;

// Where sector `lba` of the current disk lies on its device.  A virtual
// disk's sector 0 lies at bootSectorLba of its data file, a physical
// drive's at 0.  False when the sum does not fit in 64 bits.
bool DeviceLba(const DiskSet& disks, uint64_t lba, uint64_t* deviceLba);

// How many of `count` sectors from `lba` lie on the current disk; all of
// them when the disk's size is unknown.  Writes stop at the end: on a drive
// they would fail there, and a virtual disk's data file would grow.
uint64_t SectorsOnDisk(const DiskSet& disks, uint64_t lba, uint64_t count);

// ReadSector and WriteSectors with the disk's own sector numbers; they
// record their failures (506, 505) like the disk layer does.  A write that
// does not fit on the disk fails without being tried.
ResultCode ReadDiskSector(DiskSet& disks, uint64_t lba, uint8_t* buffer);
ResultCode WriteDiskSectors(DiskSet& disks, uint64_t lba, const uint8_t* buffer, uint32_t count);

// Reads at the handle's current position until `bytes` bytes are in or the
// file ends or fails; a device may hand over less than asked per call.
// Returns the byte count read; `failed` tells a failure from the end.
uint32_t ReadFully(DeviceHandle& handle, void* buffer, uint32_t bytes, bool* failed = nullptr);

// Positions at a byte offset and reads like ReadFully; false when the
// positioning fails.
bool ReadFileAt(DeviceHandle& handle, uint64_t byteOffset, void* buffer, uint32_t bytes, uint32_t* got);

}  // namespace sectors
}  // namespace dh
