// The disk set: finds the drives, selects and loads one disk at a time
// (geometry, sector 0, kind, partition table, volume information), and
// resolves the symbolic partition selectors.
#include "disk/disk_set.h"

#include <cstdio>
#include <cstring>

#include "base/le.h"
#include "base/text.h"
#include "disk/identify.h"
#include "disk/volume.h"
#include "platform/platform.h"

namespace dh {

namespace {

std::string PhysicalDrivePath(int32_t number) {
  char path[64];
  std::snprintf(path, sizeof path, "\\\\.\\PhysicalDrive%d", static_cast<int>(number));
  return path;
}

}  // namespace

std::string DriveLetterText(const PartitionRecord& record, const DiskSet& disks) {
  return DriveLetterText(record, disks.isVirtual);
}

std::string DiskNameField(const DiskSet& disks, int32_t diskNumber) {
  if (disks.isVirtual) return "Virtual" + std::string(19, ' ');
  // "%-2d" and 24 blanks: a number of three digits pushes the field out.
  std::string number = std::to_string(diskNumber);
  if (number.size() < 2) number += ' ';
  return number + std::string(24, ' ');
}

std::string DriveLetterText(const PartitionRecord& record, bool virtualDisk) {
  if (virtualDisk) return "NA";
  if (static_cast<unsigned char>(record.driveLetter) > ' ') return std::string(1, record.driveLetter) + ":";
  return "  ";
}

DiskSet::DiskSet(platform::Machine& machine, const DiskDrivers& drivers, bool ignore)
    : ignoreErrors(ignore), machine_(machine), drivers_(drivers) {
  CountDisks(*this);
  if (diskCount > 0) SelectDisk(0);
}

DiskSet::~DiskSet() {
  table.reset();
  virtualDisk.reset();
  device.Close();
}

SectorDevice& DiskSet::RawDevice() {
  if (isVirtual && virtualDisk) return virtualDisk->device;
  return device;
}

bool DiskSet::Guard::Permitted(uint64_t offset, uint64_t bytes) {
  if (owner_.RawDevice().WritesRefused()) {
    owner_.writeRefused_ = true;
    return false;
  }
  const WritePlan* plan = owner_.plan_;
  if (plan == nullptr || bytes == 0) return plan != nullptr;
  if (offset > UINT64_MAX - bytes) return false;
  const uint64_t first = offset / kSectorSize;
  const uint64_t last = (offset + bytes - 1) / kSectorSize;
  return plan->Permits(first, last - first + 1);
}

bool DiskSet::Guard::ReadSome(uint64_t offset, void* buffer, uint32_t bytes, uint32_t* done) {
  return owner_.RawDevice().ReadSome(offset, buffer, bytes, done);
}

bool DiskSet::Guard::WriteSome(uint64_t offset, const void* buffer, uint32_t bytes, uint32_t* done) {
  *done = 0;
  if (!Permitted(offset, bytes)) return false;
  return owner_.RawDevice().WriteSome(offset, buffer, bytes, done);
}

bool DiskSet::Guard::Flush() { return owner_.RawDevice().Flush(); }
bool DiskSet::Guard::SizeBytes(uint64_t* bytes) { return owner_.RawDevice().SizeBytes(bytes); }
bool DiskSet::Guard::NextData(uint64_t offset, uint64_t* start, uint64_t* end) {
  return owner_.RawDevice().NextData(offset, start, end);
}
bool DiskSet::Guard::ZeroRange(uint64_t offset, uint64_t bytes) {
  return Permitted(offset, bytes) && owner_.RawDevice().ZeroRange(offset, bytes);
}
void DiskSet::Guard::StartWriteback(uint64_t offset, uint64_t bytes) {
  owner_.RawDevice().StartWriteback(offset, bytes);
}
platform::File* DiskSet::Guard::CloneSource() { return owner_.RawDevice().CloneSource(); }
bool DiskSet::Guard::CloneFrom(SectorDevice& source, uint64_t from, uint64_t to, uint64_t bytes) {
  return Permitted(to, bytes) && owner_.RawDevice().CloneFrom(source, from, to, bytes);
}

uint64_t DiskSet::SectorsOnDisk(uint64_t lba, uint64_t count) const {
  if (totalSectors == 0) return count;
  if (lba >= totalSectors) return 0;
  const uint64_t room = totalSectors - lba;
  return count < room ? count : room;
}

void DiskSet::SelectDisk(int32_t index) {
  if (index < 0 || index > diskCount - 1) {
    RecordError(kInvalidDisk);
    return;
  }
  // While a virtual disk is loaded, the drive of currentDisk is not: it is
  // loaded again.
  if (index == currentDisk && !firstSelection_ && !isVirtual) return;
  currentDisk = index;
  // The virtual disk stays allocated; the physical drive is current again.
  isVirtual = false;
  device.Close();
  deviceName.clear();
  devicePath = PhysicalDrivePath(diskTable[index]);
  if (!OpenDisk(machine_, device, diskTable[index])) RecordError(kDiskAccessFailed);
  if (device.file() != nullptr) RecordError(device.file()->UnusableReason());
  LoadDisk(true);
  firstSelection_ = false;
}

void DiskSet::OpenVirtualDisk(const std::string& path) {
  if (!machine_.PathExists(path)) {
    RecordError(kVirtualFileMissing);
    return;
  }
  isVirtual = true;
  deviceName = path;
  virtualDisk = drivers_.openVirtual ? drivers_.openVirtual(machine_, path) : nullptr;
  device.Close();
  if (virtualDisk && virtualDisk->opened && virtualDisk->errorCode == kSuccess) {
    LoadDisk(true);
    return;
  }
  // Nothing is loaded: the table of the disk before stays, but no device
  // reads for it any more.
  RecordError(virtualDisk ? virtualDisk->errorCode : kVmdkNotVmware);
}

void DiskSet::LoadDisk(bool readSector0) {
  mediumPresent = true;
  bootSignatureValid = true;
  isGpt = false;
  if (readSector0) LoadSector0();
  table.reset();
  std::memset(savedSignature, 0, sizeof savedSignature);
  if (bootSignatureValid) std::memcpy(savedSignature, sector0 + mbr::kDiskSignatureOffset, 4);

  if (sector0[mbr::kSlot0TypeOffset] == mbr::kGptProtectiveType) {
    diskKindText = "GPT";
    isGpt = true;
    if (drivers_.loadGpt) table = drivers_.loadGpt(*this);
    tableLoaded = true;
  } else if (drivers_.loadMbr) {
    table = drivers_.loadMbr(*this);
  }
  tableDisk_ = currentDisk;
  tableVirtual_ = isVirtual;
  activeIndex = -1;
  const std::vector<PartitionRecord*> all = Partitions(*this, kKindAll);
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i]->active) activeIndex = static_cast<int32_t>(i + 1);
  }
  if (!skipVolumeInfo) LoadVolumeInfo();
}

void DiskSet::LoadSector0() {
  if (isVirtual) {
    const VirtualDisk& v = *virtualDisk;
    cylinders = static_cast<uint32_t>(v.cylinders);
    heads = static_cast<uint32_t>(v.heads);
    sectorsPerTrack = static_cast<uint32_t>(v.sectorsPerTrack);
    totalSectors = v.totalSectors;
    totalBytes = v.sizeBytes;
  } else if (QueryGeometry(*this)) {
    mediumPresent = false;
    mediaType = platform::kMediaRemovable;
  }
  std::memset(sector0, 0, sizeof sector0);
  bootSectorLba = 0;
  superFloppy = 0;
  if (isVirtual) {
    // A virtual disk's sector 0 without 55 AA counts as empty.
    uint8_t image[kSectorSize] = {};
    if (ReadFull(Device(), 0, image, kSectorSize) == kSectorSize && mbr::HasBootSignature(image)) {
      std::memcpy(sector0, image, kSectorSize);
    }
  } else {
    ReadSector(*this, 0, sector0);
    if (mediaType == platform::kMediaRemovable) {
      if (std::memcmp(sector0 + 3, "NTFS", 4) == 0) {
        superFloppy = 1;
      } else if (std::memcmp(sector0 + 3, "FAT16", 5) == 0) {
        superFloppy = 2;
      } else if (std::memcmp(sector0 + 3, "FAT32", 5) == 0) {
        superFloppy = 3;
      }
    }
  }
  if (sector0[0] == 0x33 && sector0[1] == 0xC0) {
    diskKindText = "MBR";
  } else if (sector0[0] == 0x33 && sector0[1] == 0xFF) {
    diskKindText = "MBR (HP)";
  } else if (sector0[0] == 0xEB && sector0[1] == 0x58) {
    diskKindText = "SuperFloppy";
    superFloppy = 1;
  } else if (superFloppy != 0) {
    diskKindText = "SuperFloppy";
    superFloppy = 1;
  } else {
    diskKindText = "None";
  }
  if (mbr::HasBootSignature(sector0)) {
    if (diskKindText == "None") diskKindText = "MBR";
  } else {
    bootSignatureValid = false;
  }
}

void DiskSet::LoadVolumeInfo() {
  if (!table) return;
  for (PartitionRecord* r : table->Records(kKindAll)) {
    if (isVirtual) {
      r->volumeLabel = "<Virtual>";
    } else {
      ReadVolumeLabelOf(*this, *r);
    }
    r->driveLetter = ' ';
    r->volumeName.clear();
    if (table->MayHaveDriveLetter(*r)) {
      DriveLetterMatch found;
      if (FindDriveLetter(*this, r->startLba, &found)) {
        r->driveLetter = found.letter;
        r->volumeName = found.volumeName;
      }
    }
  }
}

void DiskSet::LoadImageTable() {
  // The rows come from the image's own entries, not from the drive layout
  // that stands in for the table of a volume without one.
  superFloppy = 0;
  const bool walk = walkExtended;
  const bool skip = skipVolumeInfo;
  walkExtended = false;
  skipVolumeInfo = true;
  if (sector0[mbr::kSlot0TypeOffset] != mbr::kGptProtectiveType) {
    LoadDisk(false);
  } else {
    // Loading a protective MBR would read the GPT of the disk, which is not
    // what the image holds: its entries are shown as they stand.
    mediumPresent = true;
    bootSignatureValid = true;
    isGpt = false;
    table = drivers_.loadMbr ? drivers_.loadMbr(*this) : nullptr;
    tableDisk_ = currentDisk;
    tableVirtual_ = isVirtual;
    activeIndex = -1;
  }
  walkExtended = walk;
  skipVolumeInfo = skip;
}

ResultCode DiskSet::DeletePartition(int32_t n) {
  const bool all = n == kEveryPartition;
  ResultCode rc = all ? kSuccess : kInvalidPartition;
  if (table) {
    if (const ResultCode refusal = table->Refusal(TableDriver::Edit::Delete)) return refusal;
    reloadPending_ = false;
    rc = all ? table->DeleteAll() : table->Delete(n);
    if (reloadPending_) {
      reloadPending_ = false;
      LoadDisk(false);
    }
  }
  // A table writer (the GPT's) may keep its own first error; a failure of
  // its write must still become the command's result.
  if (firstError != kSuccess) return firstError;
  if (ignoreErrors) return kSuccess;
  return rc;
}

ResultCode CountDisks(DiskSet& disks) {
  disks.diskCount = 0;
  for (int32_t n = 0; n < kMaxDisks; ++n) {
    DeviceHandle probe;
    if (probe.Open(disks.machine(), PhysicalDrivePath(n), platform::OpenMode::ProbeRead)) {
      disks.diskTable[disks.diskCount++] = n;
    }
  }
  if (disks.diskCount == 0) {
    disks.RecordError(kNoDisks);
    return kNoDisks;
  }
  return disks.firstError;
}

bool OpenDisk(platform::Machine& machine, DeviceHandle& handle, int32_t driveNumber) {
  return handle.Open(machine, PhysicalDrivePath(driveNumber), platform::OpenMode::DiskReadWrite);
}

bool QueryGeometry(DiskSet& disks) {
  disks.totalBytes = 0;
  disks.totalSectors = 0;
  platform::File* file = disks.device.file();
  if (!file) return true;
  bool failed = true;
  platform::DiskGeometry g;
  if (file->GetDriveGeometry(&g)) {
    disks.mediaType = g.mediaType;
    disks.heads = g.tracksPerCylinder;
    disks.sectorsPerTrack = g.sectorsPerTrack;
    disks.cylinders = static_cast<uint32_t>(g.cylinders);
    uint64_t perCylinder = static_cast<uint64_t>(g.tracksPerCylinder) * g.sectorsPerTrack;
    disks.totalSectors = static_cast<uint64_t>(g.cylinders) * perCylinder;
    disks.totalBytes = disks.totalSectors * kSectorSize;
    failed = false;
    if (disks.mediaType == platform::kMediaRemovable) {
      uint64_t start = 0, length = 0;
      if (file->GetPartitionInfo(&start, &length)) {
        disks.totalBytes = start + length;
        disks.totalSectors = disks.totalBytes / kSectorSize;
      }
    }
  }
  platform::DiskGeometry gx;
  uint64_t diskSize = 0;
  if (file->GetDriveGeometryEx(&gx, &diskSize)) {
    disks.totalBytes = diskSize;
    disks.totalSectors = diskSize / kSectorSize;
  }
  return failed;
}

ResultCode ReadSector(DiskSet& disks, uint64_t lba, uint8_t* buffer) {
  bool failed = false;
  ResultCode rc = kReadFailed;
  if (lba <= UINT64_MAX / kSectorSize &&
      ReadFull(disks.Device(), lba * kSectorSize, buffer, kSectorSize, &failed) != 0 && !failed) {
    rc = kSuccess;
  }
  disks.RecordError(rc);
  return rc;
}

ResultCode WriteSectors(DiskSet& disks, uint64_t lba, const uint8_t* buffer, uint32_t count) {
  ResultCode rc = kWriteFailed;
  // Sectors beyond the end would fail on a drive and grow an image file.
  if (count <= UINT32_MAX / kSectorSize && disks.SectorsOnDisk(lba, count) == count &&
      lba <= UINT64_MAX / kSectorSize) {
    SectorDevice& device = disks.Device();
    // Written data reaches the medium before the write counts as done.
    if (WriteFull(device, lba * kSectorSize, buffer, count * kSectorSize) && device.Flush()) rc = kSuccess;
  }
  disks.RecordError(rc);
  return rc;
}

int32_t PartitionCount(const DiskSet& disks, int32_t kind) {
  const TableDriver* table = disks.Table();
  return table ? table->Count(kind) : 0;
}

PartitionRecord* GetPartition(DiskSet& disks, int32_t n, int32_t kind) {
  TableDriver* table = disks.Table();
  return table ? table->Get(n, kind) : nullptr;
}

std::vector<PartitionRecord*> Partitions(DiskSet& disks, int32_t kind) {
  TableDriver* table = disks.Table();
  return table ? table->Records(kind) : std::vector<PartitionRecord*>();
}

LocatedVolume LocateVolume(platform::Machine& machine, const DiskDrivers& drivers, VolumeSelector selector,
                           const std::string& text, bool ignoreErrors) {
  DiskSet scan(machine, drivers, ignoreErrors);
  LocatedVolume result;
  for (int32_t d = 0; d < scan.diskCount && !result.found; ++d) {
    scan.SelectDisk(d);
    const std::vector<PartitionRecord*> primaries = Partitions(scan, kKindPrimary);
    for (size_t i = 0; i < primaries.size() && !result.found; ++i) {
      const PartitionRecord* r = primaries[i];
      bool match = false;
      switch (selector) {
        case VolumeSelector::System:
          match = !text.empty() && r->driveLetter == text[0];
          break;
        case VolumeSelector::Boot:
          // The boot indicator lives in the MBR entry; GPT records have none.
          match = r->rawEntry[mbr::kEntryBoot] == mbr::kActiveFlag;
          break;
        case VolumeSelector::Utility:
          match = r->type == 0x12 || r->type == 0xDE;
          break;
        case VolumeSelector::Label:
          match = !text.empty() && EqualsIgnoreCase(r->volumeLabel, text);
          break;
        case VolumeSelector::DriveLetter:
          match = !text.empty() && LowerAscii(r->driveLetter) == LowerAscii(text[0]);
          break;
      }
      if (match) {
        result.found = true;
        result.disk = d;
        result.part = static_cast<int32_t>(i + 1);
      }
    }
  }
  return result;
}

}  // namespace dh
