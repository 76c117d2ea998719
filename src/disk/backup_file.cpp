#include "disk/backup_file.h"

#include <algorithm>
#include <cstring>

#include "base/le.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "disk/identify.h"
#include "platform/platform.h"

namespace dh {

namespace {

using namespace backup;

// Copies at most `size` bytes of text, stopping at a zero; the rest of the
// field stays zero.
void PutText(uint8_t* field, size_t size, const std::string& text) {
  const size_t length = std::min(size, std::strlen(text.c_str()));
  std::memcpy(field, text.data(), length);
}

std::string GetText(const uint8_t* field, size_t size) {
  size_t length = 0;
  while (length < size && field[length] != 0) ++length;
  return std::string(reinterpret_cast<const char*>(field), length);
}

uint16_t Clamp16(int64_t value) {
  if (value < 0) return 0;
  return value > UINT16_MAX ? UINT16_MAX : static_cast<uint16_t>(value);
}

}  // namespace

void EncodeBackupHeader(const BackupHeader& h, uint8_t* out) {
  std::memset(out, 0, kHeaderSize);
  out[kMagicOffset] = 'D';
  out[kMagicOffset + 1] = 'D';
  std::memcpy(out + kTagOffset, "dhk", 3);
  out[kVersionOffset] = h.version;
  StoreLe16(out + kSectorSizeOffset, h.sectorSize);
  out[kKindOffset] = h.kind;
  out[kMbrDiskOffset] = h.mbrDisk ? 1 : 0;
  out[kRemovableOffset] = h.removable ? 1 : 0;
  StoreLe64(out + kDiskSectorsOffset, h.diskSectors);
  StoreLe16(out + kPartitionCountOffset, h.partitionCount);
  // The model may fill all 30 bytes without a terminator; the computer
  // name always keeps one.
  PutText(out + kDiskModelOffset, kDiskModelSize, h.diskModel);
  StoreLe16(out + kDiskCountOffset, h.diskCount);
  PutText(out + kComputerNameOffset, kComputerNameSize - 1, h.computerName);
  StoreLe64(out + kFirstSectorOffset, h.firstSector);
  StoreLe64(out + kSectorCountOffset, h.sectorCount);
  StoreLe16(out + kSourceDiskOffset, h.sourceDisk);
  for (size_t i = 0; i < kLabelSlotCount; ++i) {
    PutText(out + kLabelSlotsOffset + i * kLabelSlotSize, kLabelChars, h.labels[i]);
  }
  out[kSourcePartitionOffset] = h.sourcePartition;
  out[kSourceSlotOffset] = h.sourceSlot;
  out[kSourceTypeOffset] = h.sourceType;
  out[kTrailerOffset] = 'D';
  out[kTrailerOffset + 1] = 'D';
}

BackupHeader DecodeBackupHeader(const uint8_t* in) {
  BackupHeader h;
  h.version = in[kVersionOffset];
  h.sectorSize = LoadLe16(in + kSectorSizeOffset);
  h.kind = in[kKindOffset];
  h.mbrDisk = in[kMbrDiskOffset] != 0;
  h.removable = in[kRemovableOffset] != 0;
  h.diskSectors = LoadLe64(in + kDiskSectorsOffset);
  h.partitionCount = LoadLe16(in + kPartitionCountOffset);
  h.diskModel = GetText(in + kDiskModelOffset, kDiskModelSize);
  h.diskCount = LoadLe16(in + kDiskCountOffset);
  h.computerName = GetText(in + kComputerNameOffset, kComputerNameSize);
  h.firstSector = LoadLe64(in + kFirstSectorOffset);
  h.sectorCount = LoadLe64(in + kSectorCountOffset);
  h.sourceDisk = LoadLe16(in + kSourceDiskOffset);
  for (size_t i = 0; i < kLabelSlotCount; ++i) {
    h.labels[i] = GetText(in + kLabelSlotsOffset + i * kLabelSlotSize, kLabelChars);
  }
  h.sourcePartition = in[kSourcePartitionOffset];
  h.sourceSlot = in[kSourceSlotOffset];
  h.sourceType = in[kSourceTypeOffset];
  return h;
}

void FillBackupHeader(DiskSet& disks, uint8_t* buffer, uint8_t kind, uint64_t firstSector, uint64_t sectorCount) {
  BackupHeader h;
  h.kind = kind;
  h.mbrDisk = !disks.disk().isGpt();
  h.removable = disks.disk().mediaType() == platform::kMediaRemovable;
  h.diskSectors = disks.disk().totalSectors();
  // On a GPT disk the primaries are the GPT entries.
  const int32_t count = PartitionCount(disks, kKindPrimary);
  h.partitionCount = Clamp16(count);
  h.diskModel = GetDiskDescription(disks, disks.currentDisk);
  h.diskCount = Clamp16(disks.diskCount);
  h.computerName = disks.machine().ComputerName();
  h.firstSector = firstSector;
  h.sectorCount = sectorCount;
  h.sourceDisk = Clamp16(disks.currentDisk);
  bool sourceFound = false;
  for (int32_t n = 1; n <= count; ++n) {
    const PartitionRecord* r = GetPartition(disks, n, kKindPrimary);
    if (!r) continue;
    // Only partitions 1 to 4 have a slot; later GPT entries are left out
    // so that nothing reaches the source fields or the trailer.
    if (static_cast<size_t>(n) <= kLabelSlotCount) h.labels[static_cast<size_t>(n - 1)] = r->volumeLabel;
    // The first partition that starts at the saved sector is the source.
    // Its number must fit the one byte; a later GPT entry is recorded as
    // no source rather than under a wrong number.
    if (!sourceFound && r->startLba == firstSector && n <= UINT8_MAX) {
      sourceFound = true;
      h.sourcePartition = static_cast<uint8_t>(n);
      h.sourceSlot = r->slot >= 0 && r->slot <= 3 ? static_cast<uint8_t>(r->slot) : 0;
      h.sourceType = static_cast<uint8_t>(r->type);
    }
  }
  EncodeBackupHeader(h, buffer);
}

uint8_t ReadBackupKind(platform::Machine& machine, const std::string& fileName, uint8_t* buffer) {
  std::memset(buffer, 0, kHeaderSize);
  DeviceHandle file;
  if (!file.OpenRead(machine, fileName)) return kBackupRaw;
  bool failed = false;
  if (ReadFull(file, 0, buffer, kHeaderSize, &failed) < kHeaderSize || failed) return kBackupRaw;
  if (buffer[0] != 'D' || buffer[1] != 'D') return kBackupRaw;
  return buffer[kKindOffset];
}

uint64_t GetFileSizeByName(platform::Machine& machine, const std::string& fileName) {
  DeviceHandle file;
  if (!file.OpenRead(machine, fileName)) return 0;
  uint64_t size = 0;
  if (!file.file()->Size(&size)) return 0;
  return size;
}

}  // namespace dh
