#include "sectors/sector_ops.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "disk/backup_file.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "disk/mbr_layout.h"
#include "mbr/partition.h"
#include "sectors/save_restore.h"

namespace dh {

namespace {

// Writes `count` sectors of zeros at `lba` without flushing; false when
// the write fails.
bool WriteZeros(DiskSet& disks, const std::vector<uint8_t>& zeros, uint64_t lba, uint32_t count) {
  if (lba > UINT64_MAX / kSectorSize) return false;
  if (!WriteFull(disks.Device(), lba * kSectorSize, zeros.data(), count * kSectorSize)) return false;
  disks.Device().StartWriteback(lba * kSectorSize, count * kSectorSize);
  return true;
}

}  // namespace

ResultCode WipeArea(DiskSet& disks, uint64_t first, uint64_t last) {
  if (last < first) return disks.firstError;
  // Without a size there is no end to stop at.
  if (disks.disk().totalSectors() == 0) {
    disks.RecordError(kWipeFailed);
    return disks.firstError;
  }
  // Every sector past the end would fail on its own; they are not tried,
  // but their failure is reported.
  const uint64_t diskLast = disks.disk().totalSectors() - 1;
  const uint64_t end = std::min(last, diskLast);
  // The whole area at once by the medium's own zeroing (a hole punched in
  // an image, BLKZEROOUT on a drive); where that is refused, chunk by chunk,
  // and a chunk refused again is written.
  if (first <= end && end < UINT64_MAX / kSectorSize &&
      disks.Device().ZeroRange(first * kSectorSize, (end - first + 1) * kSectorSize)) {
    if (last > diskLast) disks.RecordError(kWriteFailed);
    if (!disks.Device().Flush()) disks.RecordError(kWriteFailed);
    return disks.firstError;
  }
  const std::vector<uint8_t> zeros(kChunkBytes, 0);
  bool wrote = false;
  for (uint64_t lba = first; lba <= end;) {
    const uint64_t left = end - lba;  // sectors after this one
    const uint32_t chunk = left < kChunkSectors ? static_cast<uint32_t>(left) + 1 : kChunkSectors;
    if (lba <= UINT64_MAX / kSectorSize - kChunkSectors &&
        disks.Device().ZeroRange(lba * kSectorSize, uint64_t{chunk} * kSectorSize)) {
      wrote = true;
    } else if (WriteZeros(disks, zeros, lba, chunk)) {
      wrote = true;
    } else {
      for (uint32_t i = 0; i < chunk; ++i) {
        if (WriteZeros(disks, zeros, lba + i, 1)) {
          wrote = true;
        } else {
          disks.RecordError(kWriteFailed);
        }
      }
    }
    if (left < chunk) break;  // `end` was in this chunk
    lba += chunk;
  }
  if (last > diskLast) disks.RecordError(kWriteFailed);
  // One flush for the whole area: the zeros are on the medium before the
  // wipe reports success.
  if (wrote && !disks.Device().Flush()) disks.RecordError(kWriteFailed);
  return disks.firstError;
}

ResultCode CopySector(DiskSet& disks, uint64_t source, uint64_t target) {
  // The sector passes through the disk's sector-0 image, as it always has.
  uint8_t sector[kSectorSize];
  std::memcpy(sector, disks.disk().sector0(), kSectorSize);
  const ResultCode read = ReadSector(disks, source, sector);
  disks.SetSector0(sector);
  if (read != kSuccess) return disks.firstError;
  WriteSectors(disks, target, sector, 1);
  return disks.firstError;
}

bool LoadCompareSector(DiskSet& disks, const CompareSide& side, uint8_t* buffer) {
  std::memset(buffer, 0, kSectorSize);
  if (!side.isFile) return ReadSector(disks, side.sector, buffer) == kSuccess;
  uint8_t header[backup::kHeaderSize];
  const uint64_t dataSector = ReadBackupKind(disks.machine(), side.fileName, header) != kBackupRaw ? 1 : 0;
  DeviceHandle file;
  if (!file.OpenRead(disks.machine(), side.fileName)) return false;
  // Like any sector read, a short read that is not empty counts.
  bool failed = false;
  return ReadFull(file, dataSector * kSectorSize, buffer, kSectorSize, &failed) > 0 && !failed;
}

ResultCode CompareItems(DiskSet& disks, const CompareSide& source, const CompareSide& target, std::string* message) {
  uint8_t a[kSectorSize];
  uint8_t b[kSectorSize];
  const CompareSide* sides[2] = {&source, &target};
  uint8_t* buffers[2] = {a, b};
  const ResultCode fileCodes[2] = {kFileError151, kFileError152};
  for (int i = 0; i < 2; ++i) {
    if (LoadCompareSector(disks, *sides[i], buffers[i])) continue;
    if (!sides[i]->isFile) throw CompareReadError();
    *message = "Unable to open file " + sides[i]->fileName;
    return fileCodes[i];
  }
  return std::memcmp(a, b, kSectorSize) == 0 ? kSuccess : kItemsDiffer;
}

ResultCode ReadSectorIntoImage(DiskSet& disks, uint64_t sector, bool requireMarker) {
  uint8_t image[kSectorSize] = {};
  const ResultCode read = ReadSector(disks, sector, image);
  disks.SetSector0(image);
  if (!requireMarker || mbr::HasBootSignature(disks.disk().sector0())) {
    disks.LoadImageTable();
    return read;
  }
  disks.RecordError(kNoMbrHere);
  return read != kSuccess ? read : kNoMbrHere;
}

}  // namespace dh
