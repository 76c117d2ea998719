// Volume boot record inspection: file system detection, FAT, exFAT and NTFS
// labels, the volume ID text and the error box of the NTFS reader.
#include "disk/volume.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "base/le.h"
#include "base/text.h"
#include "disk/sector_device.h"
#include "disk/disk_set.h"
#include "platform/platform.h"

namespace dh {

namespace {

// PartitionRecord::volumeLabel holds at most this many characters.
constexpr size_t kMaxLabelLength = 127;
// NTFS file records are 1 KiB (4 KiB on some volumes); anything above this
// is a damaged boot sector, not a record worth allocating.
constexpr uint32_t kMaxFileRecordBytes = 64 * 1024;
// A volume name is at most 255 UTF-16 characters; a non-resident value
// claiming more is only read this far.
constexpr uint64_t kMaxNameValueBytes = 64 * 1024;
// NTFS protects every 512 bytes of a record with the update sequence,
// whatever the sector size of the volume.
constexpr size_t kUpdateSequenceStride = 512;
// Sectors per cluster above 0x80 hold a negative power of two on volumes
// with clusters of 128 KiB and more; 2 MiB (2^12 sectors) is the largest.
constexpr uint32_t kMaxClusterShift = 12;

bool HasText(const uint8_t* bytes, size_t size, size_t offset, const char* text) {
  const size_t length = std::strlen(text);
  return offset <= size && length <= size - offset && std::memcmp(bytes + offset, text, length) == 0;
}


std::string CapLabel(std::string label) {
  if (label.size() > kMaxLabelLength) label.resize(kMaxLabelLength);
  return label;
}

// Reads exactly `bytes` bytes at a byte offset.
bool ReadFullyAt(SectorDevice& device, uint64_t byteOffset, uint8_t* buffer, uint32_t bytes) {
  bool failed = false;
  return ReadFull(device, byteOffset, buffer, bytes, &failed) == bytes && !failed;
}

// Reads `count` sectors at `lba`; a read that ends early but delivered
// something counts, the rest of the buffer keeping what it held.
bool ReadSectorsAt(SectorDevice& device, uint8_t* buffer, uint64_t lba, uint32_t count) {
  if (lba > UINT64_MAX / kSectorSize || count > UINT32_MAX / kSectorSize) return false;
  bool failed = false;
  return ReadFull(device, lba * kSectorSize, buffer, count * kSectorSize, &failed) != 0 && !failed;
}

// ---- FAT -------------------------------------------------------------------

// The label entry of the first cluster of the root directory.
std::string ReadFatLabel(SectorDevice& device, FileSystemKind kind, uint64_t lba) {
  uint8_t boot[kSectorSize] = {};
  if (!ReadSectorsAt(device, boot, lba, 1)) return {};

  // Positions count in the volume's own sectors.  The usual 512-byte
  // sectors need no scaling; volumes formatted with larger logical sectors
  // (4K-sector media) would otherwise be searched at the wrong place.  Any
  // other value, 0 included, is taken as 512 like the rest of the program
  // takes every sector.
  const uint32_t bytesPerSector = LoadLe16(boot + vbr::kFatBytesPerSector);
  const uint32_t scale =
      (bytesPerSector == 1024 || bytesPerSector == 2048 || bytesPerSector == 4096) ? bytesPerSector / kSectorSize : 1;
  const uint32_t sectorsPerCluster = boot[vbr::kFatSectorsPerCluster];
  if (sectorsPerCluster == 0) return {};

  uint32_t sectorsPerFat = LoadLe16(boot + vbr::kFat16SectorsPerFat);
  if (sectorsPerFat == 0) sectorsPerFat = LoadLe32(boot + vbr::kFat32SectorsPerFat);
  // Reserved (16 bits) + FATs (8 bits) x sectors per FAT (32 bits), plus up
  // to 2^32 clusters of 255 sectors: well inside 64 bits.
  uint64_t rootSector = LoadLe16(boot + vbr::kFatReservedSectors) +
                        static_cast<uint64_t>(boot[vbr::kFatCount]) * sectorsPerFat;
  if (kind == kFsFat32) {
    // The FAT32 root directory is a cluster chain that almost always starts
    // at cluster 2, the first of the data area; honour a boot sector that
    // names another one.  0 and 1 are not data clusters and mean cluster 2.
    const uint32_t rootCluster = LoadLe32(boot + vbr::kFat32RootCluster);
    if (rootCluster > 2) rootSector += static_cast<uint64_t>(rootCluster - 2) * sectorsPerCluster;
  }
  uint64_t rootLba = 0;
  if (__builtin_add_overflow(lba, rootSector * scale, &rootLba)) return {};

  // At most 255 x 8 sectors: about 1 MiB.
  const uint32_t clusterSectors = sectorsPerCluster * scale;
  std::vector<uint8_t> cluster(static_cast<size_t>(clusterSectors) * kSectorSize, 0);
  if (!ReadSectorsAt(device, cluster.data(), rootLba, clusterSectors)) return {};

  for (size_t offset = 0; offset + vbr::kDirEntrySize <= cluster.size(); offset += vbr::kDirEntrySize) {
    const uint8_t* entry = cluster.data() + offset;
    if (entry[vbr::kDirAttributes] != vbr::kDirVolumeLabel) continue;
    // Changing a label marks the old entry deleted and keeps its attribute
    // byte: that is a former label, not the current one.
    if (entry[vbr::kDirName] == vbr::kDirDeleted) continue;
    char name[vbr::kDirNameSize + 1] = {};
    std::memcpy(name, entry + vbr::kDirName, vbr::kDirNameSize);
    if (entry[vbr::kDirName] == vbr::kDirEscapedE5) name[0] = static_cast<char>(vbr::kDirDeleted);
    // A label of spaces only (or starting with a zero byte) is no label:
    // the walk goes on.
    std::string label = TrimBlanks(name);
    if (!label.empty()) return label;
  }
  return {};
}

// ---- NTFS ------------------------------------------------------------------

uint64_t NtfsClusterBytes(const uint8_t* boot) {
  const uint64_t bytesPerSector = LoadLe16(boot + vbr::kNtfsBytesPerSector);
  const uint32_t code = boot[vbr::kNtfsSectorsPerCluster];
  uint64_t sectorsPerCluster = code;
  if (code > 0x80) {
    const uint32_t shift = 256 - code;
    sectorsPerCluster = shift <= kMaxClusterShift ? (uint64_t{1} << shift) : 0;
  }
  return sectorsPerCluster * bytesPerSector;
}

// The size field counts clusters when positive and small, and encodes
// 2^-n bytes when negative.  Small positive counts are taken as the
// 1,024 bytes such volumes have in practice.
uint32_t NtfsRecordBytes(const uint8_t* boot) {
  const int32_t value = static_cast<int32_t>(LoadLe32(boot + vbr::kNtfsClustersPerRecord));
  if (value <= 32) return 1024;
  const uint32_t shift = (256u - boot[vbr::kNtfsClustersPerRecord]) % 32u;
  return uint32_t{1} << shift;
}

// Puts back the bytes that the update sequence replaced at the end of every
// 512-byte stride.  A record whose sequence does not check out is left as
// read: better a possibly damaged name than none.
void ApplyUpdateSequence(std::vector<uint8_t>& record) {
  const size_t size = record.size();
  if (size < kUpdateSequenceStride || size % kUpdateSequenceStride != 0) return;
  const size_t arrayOffset = LoadLe16(record.data() + vbr::kRecordUpdateSequenceOffset);
  const size_t count = LoadLe16(record.data() + vbr::kRecordUpdateSequenceCount);
  const size_t strides = size / kUpdateSequenceStride;
  if (count != strides + 1) return;
  // The array must lie in the first stride, clear of the bytes it repairs.
  if (arrayOffset < 8 || arrayOffset + 2 * count > kUpdateSequenceStride - 2) return;
  const uint16_t sequence = LoadLe16(record.data() + arrayOffset);
  for (size_t i = 1; i <= strides; ++i) {
    if (LoadLe16(record.data() + i * kUpdateSequenceStride - 2) != sequence) return;
  }
  for (size_t i = 1; i <= strides; ++i) {
    std::memcpy(record.data() + i * kUpdateSequenceStride - 2, record.data() + arrayOffset + 2 * i, 2);
  }
}

// A little-endian field of 1 to 8 bytes; signed ones are sign-extended from
// their highest byte.
uint64_t LoadVariable(const uint8_t* p, uint32_t bytes, bool isSigned) {
  uint64_t value = 0;
  for (uint32_t i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(p[i]) << (8 * i);
  if (isSigned && bytes > 0 && bytes < 8 && (p[bytes - 1] & 0x80) != 0) value |= ~uint64_t{0} << (8 * bytes);
  return value;
}

// Assembles a non-resident value from its run list.  Every run is read
// into the buffer behind the one before; the buffer never grows past the
// bound above, so a run list pointing far or long only reads what fits.
bool ReadNonResidentValue(SectorDevice& device, uint64_t volumeOffset, uint64_t clusterBytes, const uint8_t* attr,
                          size_t attrLength, std::vector<uint8_t>* value) {
  if (attrLength < vbr::kAttrNonResidentHeaderSize) return false;
  const uint64_t firstVcn = LoadLe64(attr + vbr::kAttrFirstVcn);
  const uint64_t lastVcn = LoadLe64(attr + vbr::kAttrLastVcn);
  const uint64_t allocated = LoadLe64(attr + vbr::kAttrAllocatedSize);
  const uint64_t dataSize = LoadLe64(attr + vbr::kAttrDataSize);

  uint64_t capacity = allocated;
  if (capacity == 0 && lastVcn >= firstVcn && lastVcn - firstVcn < UINT64_MAX) capacity = lastVcn - firstVcn + 1;
  if (capacity > kMaxNameValueBytes) capacity = kMaxNameValueBytes;
  const uint64_t valueLength = dataSize < capacity ? dataSize : capacity;
  // Whole sectors, so that cluster-sized reads of a device stay aligned.
  const uint64_t storage = (capacity + kSectorSize - 1) / kSectorSize * kSectorSize;
  std::vector<uint8_t> buffer(static_cast<size_t>(storage), 0);

  uint64_t filled = 0;
  int64_t cluster = 0;
  size_t pos = LoadLe16(attr + vbr::kAttrRunListOffset);
  while (pos < attrLength && filled < storage) {
    const uint8_t header = attr[pos];
    if (header == 0) break;
    const uint32_t lengthBytes = header & 0x0F;
    const uint32_t offsetBytes = header >> 4;
    if (lengthBytes == 0 || lengthBytes > 8 || offsetBytes > 8) return false;
    if (attrLength - pos - 1 < lengthBytes + offsetBytes) return false;
    const uint64_t runClusters = LoadVariable(attr + pos + 1, lengthBytes, false);
    const uint64_t remaining = storage - filled;
    uint64_t runBytes = 0;
    if (__builtin_mul_overflow(runClusters, clusterBytes, &runBytes) || runBytes > remaining) runBytes = remaining;
    if (offsetBytes == 0) {
      // A sparse run has no clusters on disk: it reads as zeros, which the
      // buffer already holds.
    } else {
      const int64_t delta = static_cast<int64_t>(LoadVariable(attr + pos + 1 + lengthBytes, offsetBytes, true));
      if (__builtin_add_overflow(cluster, delta, &cluster) || cluster < 0) return false;
      uint64_t runOffset = 0;
      if (__builtin_mul_overflow(static_cast<uint64_t>(cluster), clusterBytes, &runOffset) ||
          __builtin_add_overflow(runOffset, volumeOffset, &runOffset)) {
        return false;
      }
      if (!ReadFullyAt(device, runOffset, buffer.data() + filled, static_cast<uint32_t>(runBytes))) return false;
    }
    filled += runBytes;
    pos += 1 + lengthBytes + offsetBytes;
  }
  buffer.resize(static_cast<size_t>(valueLength));
  *value = std::move(buffer);
  return true;
}

bool ReadAttributeValue(SectorDevice& device, uint64_t volumeOffset, uint64_t clusterBytes, const uint8_t* attr,
                        size_t attrLength, std::vector<uint8_t>* value) {
  if (attrLength <= vbr::kAttrNonResident) return false;
  if (attr[vbr::kAttrNonResident] != 0) {
    return ReadNonResidentValue(device, volumeOffset, clusterBytes, attr, attrLength, value);
  }
  if (attrLength < vbr::kAttrValueOffset + 2) return false;
  const size_t valueLength = LoadLe32(attr + vbr::kAttrValueLength);
  const size_t valueOffset = LoadLe16(attr + vbr::kAttrValueOffset);
  if (valueOffset > attrLength || valueLength > attrLength - valueOffset) return false;
  value->assign(attr + valueOffset, attr + valueOffset + valueLength);
  return true;
}

// UTF-16LE to 8-bit text.  ASCII keeps its code; every other character
// becomes '?' (a surrogate pair one '?'): labels go to consoles and INI
// files of whatever code page, where a byte above 0x7F would stand for a
// different character than the one on the volume.  The text ends at the
// first zero character.
std::string NarrowUtf16(const uint8_t* bytes, size_t size) {
  std::string text;
  bool afterHighSurrogate = false;
  for (size_t i = 0; i + 1 < size && text.size() < kMaxLabelLength; i += 2) {
    const uint16_t unit = LoadLe16(bytes + i);
    if (unit == 0) break;
    const bool lowSurrogate = unit >= 0xDC00 && unit <= 0xDFFF;
    if (unit < 0x80) {
      text += static_cast<char>(unit);
    } else if (!(lowSurrogate && afterHighSurrogate)) {
      text += '?';
    }
    afterHighSurrogate = unit >= 0xD800 && unit <= 0xDBFF;
  }
  return text;
}

}  // namespace

FileSystemKind DetectFileSystem(const uint8_t* sectors, size_t size, std::string* name) {
  struct Signature {
    size_t offset;
    const char* text;
    FileSystemKind kind;
    const char* name;
  };
  // First match wins: an NTFS boot sector may carry "FAT16" further on,
  // and an exFAT one has binary fields where FAT names its type.
  static constexpr Signature kSignatures[] = {
      {vbr::kNtfsOemId, "NTFS", kFsNtfs, "NTFS"},
      {vbr::kExfatName, "EXFAT   ", kFsExfat, "exFAT"},
      {vbr::kFat16TypeText, "FAT16", kFsFat16, "FAT16"},
      {vbr::kFat32TypeText, "FAT32", kFsFat32, "FAT32"},
      {vbr::kHfsSignature, "HFSJ", kFsHfsJournaled, "HFS-J"},
      {vbr::kHfsSignature, "10.0", kFsHfsExtended, "HFSEX"},
  };
  if (sectors == nullptr) return kFsNone;
  // An encrypted volume keeps a FAT32-like boot sector for old systems to
  // leave alone; what it names there is not what it holds.
  if (IsBitLockerBootSector(sectors, size)) return kFsNone;
  for (const Signature& s : kSignatures) {
    if (HasText(sectors, size, s.offset, s.text)) {
      if (name) *name = s.name;
      return s.kind;
    }
  }
  return kFsNone;
}

bool IsBitLockerBootSector(const uint8_t* sector, size_t size) {
  return sector != nullptr && HasText(sector, size, vbr::kBitLockerSignature, "-FVE-FS-");
}

FileSystemKind ReadPartitionBootSector(DiskSet& disks, uint64_t lba, std::string* name) {
  // A failed read must not leave bytes of some other volume to detect.
  uint8_t sectors[kVolumeProbeBytes] = {};
  if (!ReadSectorsAt(disks.Device(), sectors, lba, kVolumeProbeBytes / kSectorSize)) return kFsNone;
  return DetectFileSystem(sectors, sizeof sectors, name);
}

bool ReadVolumeEncrypted(DiskSet& disks, uint64_t lba) {
  uint8_t sector[kSectorSize] = {};
  return ReadSectorsAt(disks.Device(), sector, lba, 1) && IsBitLockerBootSector(sector, sizeof sector);
}

std::string ReadVolumeLabel(FileSystemKind kind, DiskSet& disks, uint64_t lba) {
  switch (kind) {
    case kFsNtfs:
      return ReadNtfsLabel(disks.machine(), disks.Device(), lba);
    case kFsFat16:
    case kFsFat32:
      return CapLabel(ReadFatLabel(disks.Device(), kind, lba));
    case kFsExfat:
      return ReadExfatLabel(disks.Device(), lba);
    default:
      // HFS+ volumes show their file system but no label.
      return {};
  }
}

// ---- exFAT -----------------------------------------------------------------

// The label entry of the root directory, whose clusters follow the first
// FAT from the boot sector's root cluster.  Every step is bounded: the walk
// reads one 512-byte piece at a time and stops after kExfatMaxRootEntries
// entries, so a chain that loops or never ends costs no more than that.
std::string ReadExfatLabel(SectorDevice& device, uint64_t lba) {
  uint8_t boot[kSectorSize] = {};
  if (!ReadSectorsAt(device, boot, lba, 1)) return {};
  if (!HasText(boot, sizeof boot, vbr::kExfatName, "EXFAT   ")) return {};
  const uint32_t sectorShift = boot[vbr::kExfatBytesPerSectorShift];
  const uint32_t clusterShift = boot[vbr::kExfatSectorsPerClusterShift];
  if (sectorShift < vbr::kExfatMinSectorShift || sectorShift > vbr::kExfatMaxSectorShift ||
      clusterShift > vbr::kExfatMaxClusterShift - sectorShift) {
    return {};
  }
  const uint64_t clusterBytes = uint64_t{1} << (sectorShift + clusterShift);
  const uint64_t fatSector = LoadLe32(boot + vbr::kExfatFatOffset);
  const uint64_t heapSector = LoadLe32(boot + vbr::kExfatClusterHeapOffset);
  const uint64_t clusterCount = LoadLe32(boot + vbr::kExfatClusterCount);
  uint64_t lastCluster = clusterCount + vbr::kExfatFirstCluster - 1;
  if (lastCluster > vbr::kExfatLastCluster) lastCluster = vbr::kExfatLastCluster;
  if (lba > UINT64_MAX / kSectorSize) return {};
  const uint64_t volumeOffset = lba * kSectorSize;

  // 32-bit sector and cluster numbers shifted by at most 25 bits stay far
  // below 2^63; only the volume's own offset can carry them beyond what a
  // device can be positioned at.
  auto readPiece = [&](uint64_t inVolume, uint8_t* piece) {
    uint64_t at = 0;
    return !__builtin_add_overflow(volumeOffset, inVolume, &at) && at <= static_cast<uint64_t>(INT64_MAX) &&
           ReadFullyAt(device, at, piece, kSectorSize);
  };
  auto nextCluster = [&](uint64_t cluster) -> uint64_t {
    // FAT entries are 4-byte aligned, so one never straddles two pieces.
    const uint64_t entry = (fatSector << sectorShift) + cluster * vbr::kExfatFatEntrySize;
    uint8_t piece[kSectorSize] = {};
    if (!readPiece(entry / kSectorSize * kSectorSize, piece)) return 0;
    return LoadLe32(piece + entry % kSectorSize);
  };

  uint64_t cluster = LoadLe32(boot + vbr::kExfatRootCluster);
  uint32_t entriesLeft = kExfatMaxRootEntries;
  while (cluster >= vbr::kExfatFirstCluster && cluster <= lastCluster) {
    const uint64_t first =
        (heapSector << sectorShift) + ((cluster - vbr::kExfatFirstCluster) << (sectorShift + clusterShift));
    for (uint64_t piece = 0; piece < clusterBytes; piece += kSectorSize) {
      uint8_t entries[kSectorSize] = {};
      if (!readPiece(first + piece, entries)) return {};
      for (size_t at = 0; at < kSectorSize; at += vbr::kExfatEntrySize) {
        if (entriesLeft-- == 0) return {};
        const uint8_t* entry = entries + at;
        const uint8_t type = entry[vbr::kExfatEntryType];
        if (type == vbr::kExfatEndOfDirectory) return {};
        if (type != vbr::kExfatVolumeLabel) continue;
        // The first label entry is the label, even an empty one; a length
        // above the entry's room is read as the room it has.
        uint32_t length = entry[vbr::kExfatLabelLength];
        if (length > vbr::kExfatLabelMaxLength) length = vbr::kExfatLabelMaxLength;
        return NarrowUtf16(entry + vbr::kExfatLabelText, size_t{length} * 2);
      }
    }
    cluster = nextCluster(cluster);
  }
  return {};
}

std::string ReadNtfsLabel(platform::Machine& machine, SectorDevice& device, uint64_t lba) {
  if (lba > UINT64_MAX / kSectorSize) return {};
  const uint64_t volumeOffset = lba * kSectorSize;
  uint8_t boot[kSectorSize] = {};
  if (!ReadSectorsAt(device, boot, lba, 1)) return {};
  if (!HasText(boot, sizeof boot, vbr::kNtfsOemId, "NTFS")) return {};

  const uint64_t clusterBytes = NtfsClusterBytes(boot);
  const uint32_t recordBytes = NtfsRecordBytes(boot);
  if (recordBytes > kMaxFileRecordBytes || recordBytes < vbr::kRecordFirstAttribute + 2) return {};

  // The MFT's record 3 is $Volume.  An offset past 64 bits cannot be
  // positioned at; no system call failed, so there is no error to show.
  uint64_t recordOffset = 0;
  if (__builtin_mul_overflow(LoadLe64(boot + vbr::kNtfsMftCluster), clusterBytes, &recordOffset) ||
      __builtin_add_overflow(recordOffset, volumeOffset, &recordOffset) ||
      __builtin_add_overflow(recordOffset, uint64_t{vbr::kVolumeRecordNumber} * recordBytes, &recordOffset)) {
    return {};
  }
  // An offset the system cannot position at (beyond its signed 64-bit file
  // offsets) is the system's failure to explain; a failed read is silent.
  if (recordOffset > static_cast<uint64_t>(INT64_MAX)) {
    ShowLastErrorBox(machine);
    return {};
  }
  std::vector<uint8_t> record(recordBytes, 0);
  bool failed = false;
  if (ReadFull(device, recordOffset, record.data(), recordBytes, &failed) == 0 || failed) return {};
  if (!HasText(record.data(), record.size(), vbr::kRecordMagic, "FILE")) return {};
  ApplyUpdateSequence(record);

  // Every attribute moves the walk on by its non-zero length and must lie
  // inside the record, so the walk ends within the record.
  size_t offset = LoadLe16(record.data() + vbr::kRecordFirstAttribute);
  while (offset <= record.size() - 8) {
    const uint8_t* attr = record.data() + offset;
    const uint32_t type = LoadLe32(attr + vbr::kAttrType);
    if (type == vbr::kAttrEnd) break;
    const uint32_t length = LoadLe32(attr + vbr::kAttrLength);
    if (length == 0 || length > record.size() - offset) break;
    if (type == vbr::kAttrVolumeName) {
      std::vector<uint8_t> value;
      if (!ReadAttributeValue(device, volumeOffset, clusterBytes, attr, length, &value)) return {};
      return NarrowUtf16(value.data(), value.size());
    }
    offset += length;
  }
  return {};
}

std::string FormatVolumeId(const uint8_t* serial) {
  char text[16];
  std::snprintf(text, sizeof text, "%-2.2hX%-2.2hX-f%-2.2hX%-2.2hX", static_cast<unsigned short>(serial[3]),
                static_cast<unsigned short>(serial[2]), static_cast<unsigned short>(serial[1]),
                static_cast<unsigned short>(serial[0]));
  return text;
}

std::string VolumeIdText(DiskSet& disks, int32_t partNumber) {
  const PartitionRecord* record = GetPartition(disks, partNumber, kKindPrimary);
  if (record == nullptr) return {};
  return VolumeIdTextAt(disks, record->startLba);
}

std::string VolumeIdTextAt(DiskSet& disks, uint64_t lba) {
  size_t serialOffset = 0;
  switch (ReadPartitionBootSector(disks, lba, nullptr)) {
    case kFsFat16:
      serialOffset = vbr::kFat16Serial;
      break;
    case kFsFat32:
      serialOffset = vbr::kFat32Serial;
      break;
    case kFsNtfs:
      // Only the low four of the eight serial bytes.
      serialOffset = vbr::kNtfsSerial;
      break;
    case kFsExfat:
      serialOffset = vbr::kExfatSerial;
      break;
    default:
      return {};
  }
  uint8_t sector[kSectorSize] = {};
  if (!ReadSectorsAt(disks.Device(), sector, lba, 1)) return {};
  return FormatVolumeId(sector + serialOffset);
}

uint32_t ShowLastErrorBox(platform::Machine& machine) {
  const uint32_t code = machine.LastError();
  if (code == 0) return 0;
  // Without a system text the box still names the code.
  std::string text;
  if (!machine.SystemMessageText(code, &text)) text.clear();
  char head[16];
  std::snprintf(head, sizeof head, "%lu: ", static_cast<unsigned long>(code));
  machine.MessageBox(head + text, "");
  return code;
}

void ReadVolumeLabelOf(DiskSet& disks, PartitionRecord& record) {
  // The label is read at the partition's full 64-bit start: taking only
  // its low 32 bits would read some other place of a disk beyond 2 TiB
  // (GPT entries come here too).
  const FileSystemKind kind = ReadPartitionBootSector(disks, record.startLba, nullptr);
  record.volumeLabel = ReadVolumeLabel(kind, disks, record.startLba);
}

}  // namespace dh
