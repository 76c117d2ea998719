// Volume boot records: which file system a partition holds (NTFS, FAT16,
// FAT32, exFAT, HFS+), its label (FAT and exFAT root directory, NTFS $Volume
// record) and its serial number as the volume ID text.  A BitLocker volume
// holds none of them: its boot sector only looks like a FAT32 one.
//
// Everything here reads sectors that the disk controls, so every offset,
// size and loop is bounded by the buffers it works on.  Failures are
// silent: a read that fails gives no file system, no label or no ID.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "disk/partition_record.h"

namespace dh {

class DiskSet;
class SectorDevice;
namespace platform {
class Machine;
}

enum FileSystemKind : int32_t {
  kFsNone = 0,
  kFsFat16 = 1,
  kFsFat32 = 2,
  kFsNtfs = 3,
  kFsHfsJournaled = 4,  // "HFS-J"
  kFsHfsExtended = 5,   // "HFSEX"
  kFsExfat = 6,         // "exFAT"
};

// Sectors of a volume boot record that save= and restore= of a partition's
// boot record cover: the FAT boot sector with its FSInfo and spare, the
// NTFS boot sector with the rest of its boot code.
constexpr uint32_t kFatBootRecordSectors = 3;
constexpr uint32_t kNtfsBootRecordSectors = 7;

// The bytes detection looks at: three sectors from the partition's first.
constexpr uint32_t kVolumeProbeBytes = 1536;

// On-disk fields of volume boot records, offsets from the record's start.
namespace vbr {
// FAT boot sector.
constexpr size_t kFatBytesPerSector = 11;     // 2 bytes
constexpr size_t kFatSectorsPerCluster = 13;  // 1 byte
constexpr size_t kFatReservedSectors = 14;    // 2 bytes
constexpr size_t kFatCount = 16;              // 1 byte
constexpr size_t kFat16SectorsPerFat = 22;    // 2 bytes, 0 on FAT32
constexpr size_t kFat16Serial = 39;           // 4 bytes
constexpr size_t kFat16TypeText = 54;         // "FAT16"
constexpr size_t kFat32SectorsPerFat = 36;    // 4 bytes
constexpr size_t kFat32RootCluster = 44;      // 4 bytes
constexpr size_t kFat32Serial = 67;           // 4 bytes
constexpr size_t kFat32TypeText = 82;         // "FAT32"
// FAT directory entry.
constexpr size_t kDirEntrySize = 32;
constexpr size_t kDirName = 0;  // 11 bytes
constexpr size_t kDirNameSize = 11;
constexpr size_t kDirAttributes = 11;
constexpr uint8_t kDirVolumeLabel = 0x08;  // the attribute byte of the label entry, exactly
constexpr uint8_t kDirDeleted = 0xE5;      // first name byte of a deleted entry
// A name whose first character really is 0xE5 stores 0x05 there instead,
// so that the entry does not read as deleted.
constexpr uint8_t kDirEscapedE5 = 0x05;
// NTFS boot sector.
constexpr size_t kNtfsOemId = 3;               // "NTFS"
constexpr size_t kNtfsBytesPerSector = 11;     // 2 bytes
constexpr size_t kNtfsSectorsPerCluster = 13;  // 1 byte
constexpr size_t kNtfsMftCluster = 48;         // 8 bytes
constexpr size_t kNtfsClustersPerRecord = 64;  // 4 bytes
constexpr size_t kNtfsSerial = 72;             // low 4 of 8 bytes
// MFT file record.
constexpr size_t kRecordMagic = 0;  // "FILE"
constexpr size_t kRecordUpdateSequenceOffset = 4;  // 2 bytes
constexpr size_t kRecordUpdateSequenceCount = 6;   // 2 bytes
constexpr size_t kRecordFirstAttribute = 20;       // 2 bytes
constexpr uint32_t kVolumeRecordNumber = 3;        // $Volume
// Attribute header.
constexpr size_t kAttrType = 0;          // 4 bytes
constexpr size_t kAttrLength = 4;        // 4 bytes
constexpr size_t kAttrNonResident = 8;   // 1 byte
constexpr size_t kAttrValueLength = 16;  // resident: 4 bytes
constexpr size_t kAttrValueOffset = 20;  // resident: 2 bytes
constexpr size_t kAttrFirstVcn = 16;     // non-resident: 8 bytes
constexpr size_t kAttrLastVcn = 24;      // non-resident: 8 bytes
constexpr size_t kAttrRunListOffset = 32;  // non-resident: 2 bytes
constexpr size_t kAttrAllocatedSize = 40;  // non-resident: 8 bytes
constexpr size_t kAttrDataSize = 48;       // non-resident: 8 bytes
constexpr size_t kAttrNonResidentHeaderSize = 56;
constexpr uint32_t kAttrFileName = 0x30;
constexpr uint32_t kAttrVolumeName = 0x60;
constexpr uint32_t kAttrEnd = 0xFFFFFFFF;
// HFS+ volume header signature and version, 1,024 bytes into the volume.
constexpr size_t kHfsSignature = 1032;  // "HFSJ" or "10.0"
// BitLocker boot sector (Vista and later): the signature stands where
// other boot sectors name their OEM.
constexpr size_t kBitLockerSignature = 3;  // "-FVE-FS-"
// exFAT boot sector.  Positions count in the volume's own sectors
// (2^BytesPerSectorShift bytes) and clusters (2^SectorsPerClusterShift
// sectors); data clusters are numbered from 2.
constexpr size_t kExfatName = 3;                 // "EXFAT   "
constexpr size_t kExfatFatOffset = 80;           // 4 bytes, sectors
constexpr size_t kExfatClusterHeapOffset = 88;   // 4 bytes, sectors
constexpr size_t kExfatClusterCount = 92;        // 4 bytes
constexpr size_t kExfatRootCluster = 96;         // 4 bytes
constexpr size_t kExfatSerial = 100;             // 4 bytes, VolumeSerialNumber
constexpr size_t kExfatBytesPerSectorShift = 108;     // 1 byte, 9 to 12
constexpr size_t kExfatSectorsPerClusterShift = 109;  // 1 byte, at most 25 - the above
constexpr uint32_t kExfatMinSectorShift = 9;
constexpr uint32_t kExfatMaxSectorShift = 12;
constexpr uint32_t kExfatMaxClusterShift = 25;  // bytes per cluster, as a power of two
constexpr uint32_t kExfatFirstCluster = 2;
constexpr uint32_t kExfatLastCluster = 0xFFFFFFF6;  // above: bad cluster and end-of-chain marks
constexpr uint32_t kExfatFatEntrySize = 4;
// exFAT directory entry (32 bytes): the type byte, then per type.
constexpr size_t kExfatEntrySize = 32;
constexpr size_t kExfatEntryType = 0;
constexpr uint8_t kExfatEndOfDirectory = 0x00;
constexpr uint8_t kExfatVolumeLabel = 0x83;  // in use; 0x03 is a removed label
constexpr size_t kExfatLabelLength = 1;      // 1 byte, characters
constexpr size_t kExfatLabelText = 2;        // up to 11 UTF-16LE characters
constexpr uint32_t kExfatLabelMaxLength = 11;
}  // namespace vbr

// How far the exFAT root directory is searched for its label entry.  The
// label is normally its first entries; a chain that is longer, or loops,
// ends the search here.
constexpr uint32_t kExfatMaxRootEntries = 16384;

// The file system of a volume from its first bytes (normally
// kVolumeProbeBytes of them); writes its name ("NTFS", "FAT16", "FAT32",
// "exFAT", "HFS-J", "HFSEX") to `name` and leaves `name` alone when nothing
// matched.  `name` may be null.  A BitLocker volume matches nothing, whatever
// else its boot sector spells.
FileSystemKind DetectFileSystem(const uint8_t* sectors, size_t size, std::string* name);
inline FileSystemKind DetectFileSystem(const uint8_t* sectors, std::string* name) {
  return DetectFileSystem(sectors, kVolumeProbeBytes, name);
}

// Whether a boot sector (at least its first 11 bytes) carries the
// BitLocker signature.
bool IsBitLockerBootSector(const uint8_t* sector, size_t size);

// Reads the three sectors at `lba` of the current device and detects the
// file system there; kFsNone when the read fails.
FileSystemKind ReadPartitionBootSector(DiskSet& disks, uint64_t lba, std::string* name);

// Whether the volume at `lba` of the current device is BitLocker-encrypted;
// false when its boot sector cannot be read.
bool ReadVolumeEncrypted(DiskSet& disks, uint64_t lba);

// The label of the volume at `lba` of the current device: the FAT or exFAT
// root directory's label entry or the NTFS volume name; empty for every
// other kind and whenever the label cannot be read.  FAT labels are the
// bytes of the entry (0x05 first shown as the 0xE5 it stands for); exFAT and
// NTFS labels are UTF-16, of which ASCII is kept and every other character
// shows as '?'.
std::string ReadVolumeLabel(FileSystemKind kind, DiskSet& disks, uint64_t lba);

// The label of the exFAT volume at `lba`: the volume label entry of its
// root directory, searched along the cluster chain for at most
// kExfatMaxRootEntries entries.
std::string ReadExfatLabel(SectorDevice& device, uint64_t lba);

// The volume name of the NTFS volume at `lba`, from the $Volume record of
// its master file table.  A record beyond what `machine` can position at
// shows its last error.
std::string ReadNtfsLabel(platform::Machine& machine, SectorDevice& device, uint64_t lba);

// The volume ID of the n-th partition (1-based, primary numbering; on GPT
// disks the n-th entry): "1234-fABCD" for the serial bytes CD AB 34 12.
// Empty when there is no such partition or it holds no FAT, exFAT or NTFS
// volume (a BitLocker volume has none).
std::string VolumeIdText(DiskSet& disks, int32_t partNumber);
// The same for the volume at `lba` of the current disk.
std::string VolumeIdTextAt(DiskSet& disks, uint64_t lba);
// The text for four serial bytes as stored on disk.
std::string FormatVolumeId(const uint8_t* serial);

// Shows the system's message for the last error of `machine` in a message
// box, when there is a last error; returns that error code (0: nothing
// shown).
uint32_t ShowLastErrorBox(platform::Machine& machine);

// Fills the record's volumeLabel from its volume boot record (physical
// drives; the disk set labels virtual disks itself).
void ReadVolumeLabelOf(DiskSet& disks, PartitionRecord& record);

}  // namespace dh
