// The Diskhold Backup File: the 512-byte header that may precede the saved
// sectors, the content kinds, how readers tell a header file from a raw
// one, and the header built from the current disk by save=.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/le.h"

namespace dh {

class DiskSet;
namespace platform {
class Machine;
}

namespace backup {
constexpr size_t kHeaderSize = 512;
constexpr size_t kMagicOffset = 0;  // "DD"
constexpr size_t kTagOffset = 2;    // "dhk"
constexpr size_t kVersionOffset = 5;
constexpr size_t kSectorSizeOffset = 6;
constexpr size_t kKindOffset = 10;
constexpr size_t kMbrDiskOffset = 43;
constexpr size_t kRemovableOffset = 44;
constexpr size_t kDiskSectorsOffset = 45;
constexpr size_t kPartitionCountOffset = 53;
constexpr size_t kDiskModelOffset = 57;
constexpr size_t kDiskModelSize = 30;
constexpr size_t kDiskCountOffset = 104;
constexpr size_t kComputerNameOffset = 106;
constexpr size_t kComputerNameSize = 15;  // terminator included
constexpr size_t kFirstSectorOffset = 122;
constexpr size_t kSectorCountOffset = 130;
constexpr size_t kSourceDiskOffset = 138;
constexpr size_t kLabelSlotsOffset = 170;
constexpr size_t kLabelSlotSize = 11;
constexpr size_t kLabelSlotCount = 4;
constexpr size_t kLabelChars = 4;  // of each slot's 11 bytes
constexpr size_t kSourcePartitionOffset = 214;
constexpr size_t kSourceSlotOffset = 215;
constexpr size_t kSourceTypeOffset = 216;
constexpr size_t kTrailerOffset = 510;  // "DD"

constexpr uint8_t kFormatVersion = 3;

static_assert(kLabelSlotsOffset + kLabelSlotCount * kLabelSlotSize == kSourcePartitionOffset,
              "the label slots end where the source partition begins");
static_assert(kDiskModelOffset + kDiskModelSize <= kDiskCountOffset, "the disk model fits its field");
static_assert(kComputerNameOffset + kComputerNameSize < kFirstSectorOffset, "the computer name fits its field");
static_assert(kTrailerOffset + 2 == kHeaderSize, "the trailer closes the header");
}  // namespace backup

// What a file holds (header byte 10).  A raw file has no header and reads
// as kind 0.
enum BackupContentKind : uint8_t {
  kBackupRaw = 0,
  kBackupMbr = 1,
  kBackupTrack0 = 2,
  kBackupGpt = 3,
  kBackupRange = 4,
  kBackupVbr = 5,
  kBackupDisk = 6,
};

// The header's fields; every other byte of the 512 is zero.
struct BackupHeader {
  uint8_t version = backup::kFormatVersion;
  uint16_t sectorSize = kSectorSize;
  uint8_t kind = kBackupRaw;
  bool mbrDisk = false;
  bool removable = false;
  uint64_t diskSectors = 0;
  uint16_t partitionCount = 0;
  std::string diskModel;     // at most 30 characters
  uint16_t diskCount = 0;
  std::string computerName;  // at most 14 characters
  uint64_t firstSector = 0;
  uint64_t sectorCount = 0;
  uint16_t sourceDisk = 0;
  std::array<std::string, backup::kLabelSlotCount> labels;  // at most 4 characters each
  uint8_t sourcePartition = 0;  // 1-based; 0 for none
  uint8_t sourceSlot = 0;
  uint8_t sourceType = 0;
};

// Writes the 512 header bytes; texts longer than their fields are cut.
void EncodeBackupHeader(const BackupHeader& header, uint8_t* out);
// Reads the fields back; a text ends at its first zero or at its field's end.
BackupHeader DecodeBackupHeader(const uint8_t* in);

// The header of a save of `sectorCount` sectors from `firstSector` of the
// current disk, into 512 bytes at `buffer`.
void FillBackupHeader(DiskSet& disks, uint8_t* buffer, uint8_t kind, uint64_t firstSector, uint64_t sectorCount);

// Reads the first 512 bytes of a file of `machine` into `buffer` (zeros
// where the file has none) and returns the content kind: byte 10 when a whole sector was
// read and it begins with "DD", otherwise 0 (also for a file that cannot be
// opened).  Nothing else is tested, so a raw file that begins with "DD"
// passes for a header file, as it always has.
uint8_t ReadBackupKind(platform::Machine& machine, const std::string& fileName, uint8_t* buffer);

// The size of a file of `machine` in bytes; 0 when it cannot be opened.
uint64_t GetFileSizeByName(platform::Machine& machine, const std::string& fileName);

}  // namespace dh
