#include "report/backup_display.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "base/le.h"
#include "base/sink.h"
#include "disk/backup_file.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "disk/mbr_layout.h"
#include "disk/volume.h"
#include "platform/platform.h"
#include "report/format.h"
#include "report/listing.h"
#include "report/text_fields.h"

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

void PrintVbrFileSystem(Sink& out, platform::Machine& machine, const std::string& fileName, uint64_t sectorCount) {
  uint8_t sectors[kVbrDisplaySectors * kSectorSize] = {};
  const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(sectorCount, kVbrDisplaySectors));
  DeviceHandle file;
  if (file.OpenRead(machine, fileName) && count > 0) ReadFull(file, backup::kHeaderSize, sectors, count * kSectorSize);
  std::string name;
  if (DetectFileSystem(sectors, sizeof sectors, &name) != kFsNone) {
    out.Printf("\n    Filesystem:     %s", name.c_str());
  }
}

void PrintHeaderBlock(Sink& out, DiskSet& disks, const BackupHeader& h, const std::string& fileName) {
  out.Printf("\n Diskholder File Version: %d.0", h.version);
  out.Printf("\n\n Source Computer");
  out.Printf("\n    Name:           %s", h.computerName.c_str());
  out.Printf("\n    Disk Model:     %s", h.diskModel.c_str());
  out.Printf("\n    Disk Size:      %s", FormatSizeText(disks.machine(), DiskBytes(h.diskSectors)).c_str());
  out.Printf("\n    Partitions:     %d", h.partitionCount);
  out.Printf("\n    Valid MBR:      %s", mbr::HasBootSignature(disks.disk().sector0()) ? "Yes" : "No");
  out.Printf("\n\n File Contents:     ");
  const int64_t first = static_cast<int64_t>(h.firstSector);
  const int64_t count = static_cast<int64_t>(h.sectorCount);
  switch (h.kind) {
    case kBackupMbr:
      out.Printf("MBR \n    Sector Count:   %" PRId64, count);
      break;
    case kBackupTrack0:
      out.Printf("Track 0 \n    Sector Count:   %" PRId64, count);
      break;
    case kBackupGpt:
      out.Printf("GPT");
      break;
    case kBackupRange:
      out.Printf("Range \n    First Sector:   %" PRId64 "\n    Sector Count:   %" PRId64, first, count);
      break;
    case kBackupVbr:
      out.Printf("Volume Boot Record (VBR)\n    First Sector:   %" PRId64 "\n    Sector Count:   %" PRId64, first,
                  count);
      PrintVbrFileSystem(out, disks.machine(), fileName, h.sectorCount);
      break;
    case kBackupDisk:
      out.Printf("Disk \n   Sector Count:   %" PRId64, count);
      break;
    default:
      out.Printf("Unknown");
      break;
  }
}

// What a raw file holds, judged by its size and first sector; 110 for a
// track-0 file without 55 AA.
ResultCode PrintRawFile(Sink& out, uint64_t size, const uint8_t* firstSector) {
  out.Printf("\n File Version:  2.0");
  if (size == kSectorSize) {
    out.Printf("\n File Content:  %s", RawSectorWord(firstSector));
    out.Printf("\n Valid MBR:     %s", mbr::HasBootSignature(firstSector) ? "Yes" : "No");
  } else if (size == kTrack0FileSize) {
    out.Printf("\n File Content:  Track0");
    if (mbr::HasBootSignature(firstSector)) {
      out.Printf("\n Valid MBR:     Yes");
    } else {
      return kFileNotMbr;
    }
  }
  return kSuccess;
}

void PrintPartitionDetails(DiskSet& disks, bool failed, FramedWriter& out) {
  out.sink().Printf("\n\n Partition details:");
  if (failed) return;
  out.sink().Printf("\n Pos Idx Type/Name  Size Active Hide  Start Sector      Sectors\n");
  std::string separator;
  for (int run : {3, 3, 10, 4, 6, 4, 14, 15}) separator += " " + out.frame().Fill(out.frame().hLine, run);
  out.Emit(separator);
  const std::vector<PartitionRecord*> primaries = Partitions(disks, kKindPrimary);
  for (size_t p = 0; p < primaries.size(); ++p) {
    PrintPartitionRow(*primaries[p], static_cast<int>(p + 1), kRowBackupFile, "", out);
  }
}

}  // namespace

ResultCode ShowContents(DiskSet& disks, bool isFile, const std::string& fileName, const std::string& heading,
                        FramedWriter& writer) {
  Sink& out = writer.sink();
  out.Write("\nDisplaying contents of ");
  out.Write(heading);
  ResultCode result = kSuccess;
  bool details = true;
  if (isFile) {
    if (!disks.machine().PathExists(fileName)) {
      result = kFileNotFound;
    } else {
      uint8_t header[backup::kHeaderSize];
      const uint8_t kind = ReadBackupKind(disks.machine(), fileName, header);
      if (kind != kBackupRaw) PrintHeaderBlock(out, disks, DecodeBackupHeader(header), fileName);
      DeviceHandle file;
      if (file.OpenRead(disks.machine(), fileName)) {
        uint64_t size = 0;
        if (!file.SizeBytes(&size)) size = 0;
        uint8_t first[kSectorSize] = {};
        ReadFull(file, kind != kBackupRaw ? backup::kHeaderSize : 0, first, kSectorSize);
        if (kind == kBackupRaw) result = PrintRawFile(out, size, first);
      }
      // A header file lists partitions only when it holds a sector 0.
      if (kind != kBackupRaw) details = kind == kBackupMbr || kind == kBackupTrack0 || kind == kBackupDisk;
    }
  }
  if (details) PrintPartitionDetails(disks, result != kSuccess, writer);
  out.Write("\n");
  return result;
}

}  // namespace dh
