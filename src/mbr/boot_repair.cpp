// Boot code repair: what stays and what is replaced in sector 0.
#include "mbr/boot_repair.h"

#include <cstring>

#include "base/le.h"
#include "disk/disk_set.h"
#include "mbr/boot_images.h"
#include "mbr/partition.h"

namespace dh {

namespace {

// The two bytes between the disk signature and the first entry.
constexpr size_t kReservedOffset = mbr::kDiskSignatureOffset + 4;
// 55 AA as a little-endian word.
constexpr uint16_t kBootSignature = 0xAA55;

}  // namespace

ResultCode RepairBootCode(DiskSet& disks, const uint8_t* image) {
  // The table and signature come from the disk as it is now, not from
  // whatever was loaded earlier in the run.
  uint8_t sector[kSectorSize] = {};
  bool failed = false;
  // Never write a table that was not read whole: zeros would wipe it.  A
  // short read counts as a read elsewhere, but here the missing tail is the
  // partition table about to be written back.  Under `ignore` nothing is
  // recorded and the repair just does not happen.
  const bool whole = ReadFull(disks.Device(), 0, sector, kSectorSize, &failed) == kSectorSize && !failed;
  disks.SetSector0(sector);
  if (!whole) {
    disks.RecordError(kReadFailed);
    return disks.firstError;
  }
  const bool hadBootSignature = mbr::HasBootSignature(sector);

  disks.LoadDisk(false);
  // Rebuilding from memory does not look at 55 AA again, so the bytes at
  // 440 of a sector without it would pass for a signature; they are not one.
  static const uint8_t kNoSignature[4] = {};
  if (!hadBootSignature) disks.SetSavedSignature(kNoSignature);

  std::memcpy(sector, image, kBootImageSize);
  std::memcpy(sector + mbr::kDiskSignatureOffset, disks.disk().savedSignature(), 4);
  StoreLe16(sector + kReservedOffset, 0);
  StoreLe16(sector + mbr::kBootSignatureOffset, kBootSignature);
  disks.SetSector0(sector);
  // The one writer of sector 0 (it refuses a superfloppy, whose sector 0
  // is its volume's boot record).
  WriteSector0Image(disks);
  return disks.firstError;
}

}  // namespace dh
