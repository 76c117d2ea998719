#include "sectors/backup_show.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "app/frame.h"
#include "app/run_state.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "mbr/partition.h"
#include "mbr/volume.h"
#include "platform/platform.h"
#include "report/format.h"
#include "report/listing.h"
#include "sectors/backup_header.h"
#include "sectors/sector_io.h"

namespace dh {

namespace {

// The VBR display reads at most this many sectors; a header that claims
// more is shown from its first ten.
constexpr uint32_t kVbrDisplaySectors = 10;
constexpr uint64_t kTrack0FileSize = 63 * uint64_t{kSectorSize};

bool BytesAre(const uint8_t* bytes, size_t size, size_t offset, const char* text) {
  const size_t length = std::strlen(text);
  return offset + length <= size && std::memcmp(bytes + offset, text, length) == 0;
}

bool HasBootMarker(const uint8_t* sector) { return sector[510] == 0x55 && sector[511] == 0xAA; }

// The word for a raw one-sector file.
const char* RawSectorWord(const uint8_t* s) {
  if (s[0] == 0x33 && s[1] == 0xC0) return "MBR";
  if (s[0] == 0xEB && s[1] == 0x58) return "BootRecord";
  if (BytesAre(s, kSectorSize, 3, "NTFS") || BytesAre(s, kSectorSize, 3, "FAT16") ||
      BytesAre(s, kSectorSize, 3, "FAT32")) {
    return "Superfloppy";
  }
  return "Unknown";
}

// Bytes of a disk size, held at the largest value a size text can show.
int64_t DiskBytes(uint64_t sectors) {
  return sectors > static_cast<uint64_t>(INT64_MAX) / kSectorSize ? INT64_MAX
                                                                   : static_cast<int64_t>(sectors * kSectorSize);
}

void PrintVbrFileSystem(const std::string& fileName, uint64_t sectorCount) {
  uint8_t sectors[kVbrDisplaySectors * kSectorSize] = {};
  const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(sectorCount, kVbrDisplaySectors));
  DeviceHandle file;
  if (file.OpenRead(fileName) && count > 0) {
    uint32_t got = 0;
    sectors::ReadFileAt(file, backup::kHeaderSize, sectors, count * kSectorSize, &got);
  }
  std::string name;
  if (DetectFileSystem(sectors, sizeof sectors, &name) != kFsNone) {
    std::printf("\n    Filesystem:     %s", name.c_str());
  }
}

void PrintHeaderBlock(DiskSet& disks, const BackupHeader& h, const std::string& fileName) {
  std::printf("\n Diskholder File Version: %d.0", h.version);
  std::printf("\n\n Source Computer");
  std::printf("\n    Name:           %s", h.computerName.c_str());
  std::printf("\n    Disk Model:     %s", h.diskModel.c_str());
  std::printf("\n    Disk Size:      %s", FormatSizeText(DiskBytes(h.diskSectors)).c_str());
  std::printf("\n    Partitions:     %d", h.partitionCount);
  std::printf("\n    Valid MBR:      %s", HasBootMarker(disks.sector0) ? "Yes" : "No");
  std::printf("\n\n File Contents:     ");
  const int64_t first = static_cast<int64_t>(h.firstSector);
  const int64_t count = static_cast<int64_t>(h.sectorCount);
  switch (h.kind) {
    case kBackupMbr:
      std::printf("MBR \n    Sector Count:   %" PRId64, count);
      break;
    case kBackupTrack0:
      std::printf("Track 0 \n    Sector Count:   %" PRId64, count);
      break;
    case kBackupGpt:
      std::printf("GPT");
      break;
    case kBackupRange:
      std::printf("Range \n    First Sector:   %" PRId64 "\n    Sector Count:   %" PRId64, first, count);
      break;
    case kBackupVbr:
      std::printf("Volume Boot Record (VBR)\n    First Sector:   %" PRId64 "\n    Sector Count:   %" PRId64, first,
                  count);
      PrintVbrFileSystem(fileName, h.sectorCount);
      break;
    case kBackupDisk:
      std::printf("Disk \n   Sector Count:   %" PRId64, count);
      break;
    default:
      std::printf("Unknown");
      break;
  }
}

// What a raw file holds, judged by its size and first sector.
void PrintRawFile(uint64_t size, const uint8_t* firstSector) {
  std::printf("\n File Version:  2.0");
  if (size == kSectorSize) {
    std::printf("\n File Content:  %s", RawSectorWord(firstSector));
    std::printf("\n Valid MBR:     %s", HasBootMarker(firstSector) ? "Yes" : "No");
  } else if (size == kTrack0FileSize) {
    std::printf("\n File Content:  Track0");
    if (HasBootMarker(firstSector)) {
      std::printf("\n Valid MBR:     Yes");
    } else {
      SetResultIfNone(kFileNotMbr);
    }
  }
}

void PrintPartitionDetails(DiskSet& disks) {
  std::printf("\n\n Partition details:");
  if (State().resultCode != kSuccess) return;
  std::printf("\n Pos Idx Type/Name  Size Active Hide  Start Sector      Sectors\n");
  std::string separator;
  for (int run : {3, 3, 10, 4, 6, 4, 14, 15}) separator += " " + FrameFill(Frame().hLine, run);
  std::fwrite(separator.data(), 1, separator.size(), stdout);
  const int32_t count = PartitionCount(disks, kKindPrimary);
  for (int32_t p = 1; p <= count; ++p) {
    if (const PartitionRecord* r = GetPartition(disks, p, kKindPrimary)) PrintPartitionRow(*r, p, kRowBackupFile);
  }
}

}  // namespace

void ShowContents(DiskSet& disks, bool isFile, const std::string& fileName) {
  std::printf("\nDisplaying contents of %s", Options().valueText2.c_str());
  bool details = true;
  if (isFile) {
    if (!platform::Host().PathExists(fileName)) {
      SetResultIfNone(kFileNotFound);
    } else {
      uint8_t header[backup::kHeaderSize];
      const uint8_t kind = ReadBackupKind(fileName, header);
      if (kind != kBackupRaw) PrintHeaderBlock(disks, DecodeBackupHeader(header), fileName);
      DeviceHandle file;
      if (file.OpenRead(fileName)) {
        uint64_t size = 0;
        if (!file.file()->Size(&size)) size = 0;
        uint8_t first[kSectorSize] = {};
        uint32_t got = 0;
        sectors::ReadFileAt(file, kind != kBackupRaw ? backup::kHeaderSize : 0, first, kSectorSize, &got);
        if (kind == kBackupRaw) PrintRawFile(size, first);
      }
      // A header file lists partitions only when it holds a sector 0.
      if (kind != kBackupRaw) details = kind == kBackupMbr || kind == kBackupTrack0 || kind == kBackupDisk;
    }
  }
  if (details) PrintPartitionDetails(disks);
  std::printf("\n");
}

}  // namespace dh
