#include "sectors/save_restore.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/le.h"
#include "base/sink.h"
#include "base/version.h"
#include "disk/backup_file.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "disk/mbr_layout.h"
#include "platform/platform.h"
#include "sectors/sparse_copy.h"

namespace dh {

namespace {

using platform::OpenMode;

constexpr char kSavingText[] = "Saving sectors to file, please wait...";
constexpr int kProgressRow = 8;
constexpr int kProgressEndRow = 11;

// The progress screen of a long save: the screen is cleared, the banner
// printed in its long form, and the percentage kept at one place.
class SaveProgress {
 public:
  SaveProgress(bool on, Sink& out, platform::Machine& console) : on_(on), out_(out), console_(console) {
    if (!on_) return;
    console_.ClearScreen();
    console_.SetCursorPosition(1, 2);
    out_.Printf("\n%s for %s        %s\n", kProgramTitle, kPlatformName, kReleaseDate);
    out_.Printf("  %s\n", kMakerNotice);
    console_.SetCursorPosition(2, kProgressRow);
    out_.Printf("%s", kSavingText);
    column_ = static_cast<int>(sizeof kSavingText - 1) + 4;
    console_.SetCursorPosition(column_, kProgressRow);
  }

  // Shows the share of `count` reached before a chunk starts at `done`;
  // the last chunk always shows 100.
  void Show(uint64_t done, uint64_t count, bool lastChunk) {
    if (!on_) return;
    // 128-bit, so that no count of 64-bit sectors can overflow the product.
    unsigned __int128 share = (static_cast<unsigned __int128>(done) + 1) * 100 / count;
    int64_t percent = share < 1 ? 1 : (share > 100 ? 100 : static_cast<int64_t>(share));
    if (lastChunk) percent = 100;
    if (percent == shown_) return;
    shown_ = percent;
    console_.SetCursorPosition(column_, kProgressRow);
    out_.Printf("%" PRId64 "%% complete", percent);
  }

  void End() {
    if (on_) console_.SetCursorPosition(column_, kProgressEndRow);
  }

 private:
  bool on_;
  Sink& out_;
  platform::Machine& console_;
  int column_ = 0;
  int64_t shown_ = -1;
};

// A backup file counts as written once its data has reached the medium:
// the file is what a later restore depends on.
bool CloseBackupFile(DeviceHandle& file) {
  bool ok = file.Flush();
  file.Close();
  return ok;
}

// Puts `count` sectors from `data` at `lba`, as one write would.  Over a
// hole of the disk that the plan lets us write, zeros are already in place
// and only the blocks holding data are written; elsewhere a chunk of zeros
// is zeroed by the medium where it can, and written where it cannot.
// `knownZero`: the chunk came from a hole.
bool WriteChunk(DiskSet& disks, HoleMap& diskHoles, uint64_t lba, const uint8_t* data, uint32_t count,
                bool knownZero) {
  SectorDevice& device = disks.Device();
  const uint64_t offset = lba * kSectorSize;
  const uint32_t bytes = count * kSectorSize;
  const WritePlan* plan = disks.writePlan();
  if (plan != nullptr && plan->Permits(lba, count) && diskHoles.IsHole(offset, bytes)) {
    uint64_t end = 0;
    return knownZero || WriteSparse(device, offset, data, bytes, &end);
  }
  if ((knownZero || AllZero(data, bytes)) && device.ZeroRange(offset, bytes)) return true;
  return WriteFull(device, offset, data, bytes);
}

}  // namespace

ResultCode SaveSectorsToFile(DiskSet& disks, const std::string& fileName, uint64_t firstSector, uint64_t count,
                             uint8_t kind) {
  DeviceHandle file;
  if (!file.Open(disks.machine(), fileName, OpenMode::CreateAlways)) {
    disks.RecordError(disks.machine().PathExists(fileName) ? kCannotOverwrite : kInvalidPath);
    return disks.firstError;
  }
  bool written = true;
  uint64_t fileOffset = 0;
  if (kind != kBackupRaw) {
    uint8_t header[backup::kHeaderSize];
    FillBackupHeader(disks, header, kind, firstSector, count);
    written = WriteFull(file, 0, header, sizeof header);
    fileOffset = sizeof header;
  }
  bool lastSaved = false;
  uint8_t sector[kSectorSize];
  for (uint64_t i = 0; i < count; ++i) {
    lastSaved = false;
    std::memset(sector, 0, sizeof sector);
    // A sector number past 2^64 cannot be read; it fails like a bad sector.
    if (firstSector > UINT64_MAX - i) {
      disks.RecordError(kReadFailed);
      continue;
    }
    if (ReadSector(disks, firstSector + i, sector) != kSuccess) continue;
    if (!WriteFull(file, fileOffset, sector, sizeof sector)) {
      written = false;
      continue;
    }
    fileOffset += sizeof sector;
    lastSaved = true;
  }
  // A file that misses a sector in its middle is as unusable as one that
  // misses its last.
  if (!CloseBackupFile(file) || !written || !lastSaved) disks.RecordError(kBackupWriteFailed);
  return disks.firstError;
}

ResultCode SaveRangeToFile(DiskSet& disks, const std::string& fileName, uint64_t firstSector, uint64_t count,
                           uint8_t kind, Sink& out) {
  DeviceHandle file;
  if (!file.Open(disks.machine(), fileName, OpenMode::CreateAlways)) {
    disks.RecordError(kInvalidPath);
    return disks.firstError;
  }
  SaveProgress progress(count > kQuietSaveSectors, out, disks.machine());
  // Runs of zeros are left as holes only in a file that starts empty: a
  // name that opens something that keeps its bytes (a device) gets every
  // byte written.
  uint64_t startSize = 1;
  const bool sparse = file.SizeBytes(&startSize) && startSize == 0;
  uint64_t fileEnd = 0;  // the end of what has actually been written
  bool written = true;
  uint64_t fileOffset = 0;
  if (kind != kBackupRaw) {
    uint8_t header[backup::kHeaderSize];
    FillBackupHeader(disks, header, kind, firstSector, count);
    written = WriteFull(file, 0, header, sizeof header);
    fileOffset = sizeof header;
    fileEnd = fileOffset;
  }

  const bool positioned = firstSector <= UINT64_MAX / kSectorSize;
  uint64_t diskOffset = positioned ? firstSector * kSectorSize : 0;
  if (!written) {
    disks.RecordError(kBackupWriteFailed);
  } else if (!positioned || count == 0) {
    disks.RecordError(kBackupReadFailed);
  } else {
    std::vector<uint8_t> buffer(kChunkBytes);
    HoleMap holes(disks.Device());
    // A new file on the disk's own file system may share the disk's blocks
    // instead of copying them; the first refusal ends the attempts.
    uint64_t diskBytes = 0;
    bool clone = sparse && disks.Device().SizeBytes(&diskBytes);
    uint64_t done = 0;
    // A short read (the end of the disk) hands over what it has; the next
    // read then fails, so a save never ends with fewer sectors than asked
    // for and no error.
    while (done < count) {
      const uint64_t left = count - done;
      const bool lastChunk = left <= kChunkSectors;
      const uint32_t chunk = lastChunk ? static_cast<uint32_t>(left) : kChunkSectors;
      progress.Show(done, count, lastChunk);
      uint32_t got = 0;
      const uint32_t chunkBytes = chunk * kSectorSize;
      const bool hole = holes.IsHole(diskOffset, chunkBytes);
      if (hole) {
        got = chunkBytes;
      } else if (clone && diskOffset <= diskBytes && chunkBytes <= diskBytes - diskOffset &&
                 file.CloneFrom(disks.Device(), diskOffset, fileOffset, chunkBytes)) {
        done += chunk;
        diskOffset += chunkBytes;
        fileOffset += chunkBytes;
        fileEnd = fileOffset;
        continue;
      } else {
        clone = false;
        bool failed = false;
        got = ReadData(disks.Device(), holes, diskOffset, buffer.data(), chunk * kSectorSize, &failed);
      }
      const uint32_t whole = got / kSectorSize;
      if (whole == 0) {
        disks.RecordError(kBackupReadFailed);
        break;
      }
      done += whole;
      diskOffset += uint64_t{whole} * kSectorSize;
      // Any failed write of the file fails the save, the last one too: a
      // backup that silently lacks its end would restore a damaged disk.
      const uint32_t bytes = whole * kSectorSize;
      bool ok = true;
      if (sparse) {
        ok = hole || WriteSparse(file, fileOffset, buffer.data(), bytes, &fileEnd);
      } else {
        if (hole) std::memset(buffer.data(), 0, bytes);
        ok = WriteFull(file, fileOffset, buffer.data(), bytes);
      }
      if (!ok) {
        disks.RecordError(kBackupWriteFailed);
        break;
      }
      if (!hole) file.StartWriteback(fileOffset, bytes);
      fileOffset += bytes;
    }
  }
  // Zeros at the end are part of the file: its last sector is written so
  // that the file has its full length.
  if (sparse && fileEnd < fileOffset) {
    const uint8_t zeros[kSectorSize] = {};
    if (!WriteFull(file, fileOffset - kSectorSize, zeros, kSectorSize)) disks.RecordError(kBackupWriteFailed);
  }
  progress.End();
  if (!CloseBackupFile(file)) disks.RecordError(kBackupWriteFailed);
  return disks.firstError;
}

ResultCode RestoreFromFile(DiskSet& disks, const std::string& fileName, uint64_t targetSector, int64_t count,
                           bool requireMbr, Sink& out) {
  uint8_t header[backup::kHeaderSize];
  platform::Machine& machine = disks.machine();
  const bool hasHeader = ReadBackupKind(machine, fileName, header) != kBackupRaw;
  const uint64_t headerCount = hasHeader ? LoadLe64(header + backup::kSectorCountOffset) : 0;

  DeviceHandle file;
  if (!file.OpenRead(machine, fileName)) {
    disks.RecordError(kFileMissing);
    return disks.firstError;
  }
  // The data a header file declares; a count too large for bytes counts
  // as more than any command asks for.
  const bool sizeFits = headerCount <= UINT64_MAX / kSectorSize;
  const uint64_t dataSize = hasHeader ? (sizeFits ? headerCount * kSectorSize : UINT64_MAX)
                                      : GetFileSizeByName(machine, fileName);
  // A restore writes at most the sectors its area names: a file that holds
  // more (a header file counted one sector long, a disk image larger than
  // the disk) is refused before anything is written.  A smaller file is
  // accepted.
  const uint64_t room =
      count > 0 ? static_cast<uint64_t>(count) : (disks.disk().totalSectors() != 0 ? disks.SectorsOnDisk(targetSector, UINT64_MAX)
                                                                            : UINT64_MAX);
  const uint64_t allowed = room > UINT64_MAX / kSectorSize ? UINT64_MAX : room * kSectorSize;
  // A whole-disk restore leaves a last partial sector out, as it always has.
  const uint64_t wholeBytes = count > 0 ? dataSize : dataSize / kSectorSize * kSectorSize;
  // A header file cut short holds less than its header declares: restoring
  // it would leave the area half old, half restored.
  const uint64_t fileSize = hasHeader ? GetFileSizeByName(machine, fileName) : 0;
  const bool truncated = hasHeader && (fileSize < backup::kHeaderSize || fileSize - backup::kHeaderSize < dataSize);
  if (!sizeFits || truncated || (count > 0 && dataSize % kSectorSize != 0) || wholeBytes > allowed) {
    disks.RecordError(kFileSizeMismatch);
    return disks.firstError;
  }
  if (count == -1) out.Printf("\n Sector Count: %" PRIu64 " \n", hasHeader ? headerCount : dataSize / kSectorSize);

  // A header file gives only the sectors its header declares: bytes that
  // follow them are not part of the backup and never reach the disk.
  uint64_t remaining = hasHeader ? headerCount : UINT64_MAX;
  std::vector<uint8_t> buffer(kChunkBytes, 0);
  uint64_t target = targetSector;
  bool wroteAny = false;
  uint64_t fileOffset = hasHeader ? backup::kHeaderSize : 0;
  HoleMap fileHoles(file);
  HoleMap diskHoles(disks.Device());
  // Where the file and the disk share a file system that can, the disk's
  // blocks are made to share the file's instead of being copied; the first
  // refusal ends the attempts.  An MBR restore reads its sector to check it.
  uint64_t fileBytes = 0;
  bool clone = !requireMbr && file.SizeBytes(&fileBytes);
  while (remaining > 0) {
    const uint32_t want = remaining < kChunkSectors ? static_cast<uint32_t>(remaining) * kSectorSize : kChunkBytes;
    bool failed = false;
    uint32_t got = 0;
    // A hole of the file is read as the zeros it holds, without reading.
    const bool zeros = fileHoles.IsHole(fileOffset, want);
    if (!zeros && clone) {
      const uint32_t sectors = want / kSectorSize;
      if (fileOffset <= fileBytes && want <= fileBytes - fileOffset && target <= UINT64_MAX / kSectorSize &&
          disks.SectorsOnDisk(target, sectors) == sectors && sectors <= UINT64_MAX - target &&
          disks.Device().CloneFrom(file, fileOffset, target * kSectorSize, want)) {
        wroteAny = true;
        fileOffset += want;
        target += sectors;
        remaining -= sectors;
        continue;
      }
      clone = false;
    }
    if (zeros) {
      std::memset(buffer.data(), 0, want);
      got = want;
    } else {
      got = ReadData(file, fileHoles, fileOffset, buffer.data(), want, &failed);
    }
    fileOffset += got;
    if (got == 0) break;
    if (requireMbr && !mbr::HasBootSignature(buffer.data())) {
      disks.RecordError(kFileNoMbrUseIgnore);
      break;
    }
    // Bytes beyond the last whole sector are not written.
    const uint32_t whole = got / kSectorSize;
    const uint32_t fitting = static_cast<uint32_t>(disks.SectorsOnDisk(target, whole));
    if (fitting > 0) {
      // Chunks go to the device and are flushed once at the end; each is
      // placed on its own so that a failed one cannot shift the rest.
      if (target <= UINT64_MAX / kSectorSize &&
          WriteChunk(disks, diskHoles, target, buffer.data(), fitting, zeros)) {
        if (!zeros) disks.Device().StartWriteback(target * kSectorSize, uint64_t{fitting} * kSectorSize);
        wroteAny = true;
      } else {
        disks.RecordError(kWriteFailed);
      }
    }
    // The rest of the file has no place on the disk.
    if (fitting < whole) {
      disks.RecordError(kWriteFailed);
      break;
    }
    // No sector number may wrap around to the start of the disk.
    if (whole > UINT64_MAX - target) {
      disks.RecordError(kWriteFailed);
      break;
    }
    target += whole;
    remaining -= whole;
    if (failed || got < want) break;
  }
  file.Close();
  if (wroteAny && !disks.Device().Flush()) disks.RecordError(kWriteFailed);
  if (!wroteAny) disks.RecordError(kFileNoValidMbr);
  return disks.firstError;
}

}  // namespace dh
