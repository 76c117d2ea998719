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
  return DriveLetterText(record, disks.disk().isVirtual());
}

std::string DiskNameField(const DiskSet& disks, int32_t diskNumber) {
  if (disks.disk().isVirtual()) return "Virtual" + std::string(19, ' ');
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
  disk_.table_.reset();
  virtualDisk.reset();
  device.Close();
}

SectorDevice& DiskSet::RawDevice() {
  if (disk_.isVirtual_ && virtualDisk) return virtualDisk->device;
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
  if (disk_.totalSectors_ == 0) return count;
  if (lba >= disk_.totalSectors_) return 0;
  const uint64_t room = disk_.totalSectors_ - lba;
  return count < room ? count : room;
}

void DiskSet::SelectDisk(int32_t index) {
  if (index < 0 || index > diskCount - 1) {
    RecordError(kInvalidDisk);
    return;
  }
  // While a virtual disk is loaded, the drive of currentDisk is not: it is
  // loaded again.
  if (index == currentDisk && !firstSelection_ && !disk_.isVirtual_) return;
  currentDisk = index;
  // The virtual disk stays allocated; the physical drive is current again.
  disk_.isVirtual_ = false;
  device.Close();
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
  disk_.isVirtual_ = true;
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
  disk_.mediumPresent_ = true;
  disk_.bootSignatureValid_ = true;
  disk_.isGpt_ = false;
  if (readSector0) LoadSector0();
  disk_.table_.reset();
  std::memset(disk_.savedSignature_, 0, sizeof disk_.savedSignature_);
  if (disk_.bootSignatureValid_) std::memcpy(disk_.savedSignature_, disk_.sector0_ + mbr::kDiskSignatureOffset, 4);

  if (disk_.sector0_[mbr::kSlot0TypeOffset] == mbr::kGptProtectiveType) {
    disk_.diskKindText_ = "GPT";
    disk_.isGpt_ = true;
    if (drivers_.loadGpt) disk_.table_ = drivers_.loadGpt(*this);
    disk_.tableLoaded_ = true;
  } else if (drivers_.loadMbr) {
    disk_.table_ = drivers_.loadMbr(*this);
  }
  tableDisk_ = currentDisk;
  tableVirtual_ = disk_.isVirtual_;
  disk_.activeIndex_ = -1;
  const std::vector<PartitionRecord*> all = Partitions(*this, kKindAll);
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i]->active) disk_.activeIndex_ = static_cast<int32_t>(i + 1);
  }
  if (!skipVolumeInfo_) LoadVolumeInfo();
}

void DiskSet::LoadSector0() {
  if (disk_.isVirtual_) {
    const VirtualDisk& v = *virtualDisk;
    disk_.cylinders_ = static_cast<uint32_t>(v.cylinders);
    disk_.heads_ = static_cast<uint32_t>(v.heads);
    disk_.sectorsPerTrack_ = static_cast<uint32_t>(v.sectorsPerTrack);
    disk_.totalSectors_ = v.totalSectors;
    disk_.totalBytes_ = v.sizeBytes;
  } else if (QueryGeometry()) {
    disk_.mediumPresent_ = false;
    disk_.mediaType_ = platform::kMediaRemovable;
  }
  std::memset(disk_.sector0_, 0, sizeof disk_.sector0_);
  disk_.superFloppy_ = 0;
  if (disk_.isVirtual_) {
    // A virtual disk's sector 0 without 55 AA counts as empty.
    uint8_t image[kSectorSize] = {};
    if (ReadFull(Device(), 0, image, kSectorSize) == kSectorSize && mbr::HasBootSignature(image)) {
      std::memcpy(disk_.sector0_, image, kSectorSize);
    }
  } else {
    ReadSector(*this, 0, disk_.sector0_);
    if (disk_.mediaType_ == platform::kMediaRemovable) {
      if (std::memcmp(disk_.sector0_ + 3, "NTFS", 4) == 0) {
        disk_.superFloppy_ = 1;
      } else if (std::memcmp(disk_.sector0_ + 3, "FAT16", 5) == 0) {
        disk_.superFloppy_ = 2;
      } else if (std::memcmp(disk_.sector0_ + 3, "FAT32", 5) == 0) {
        disk_.superFloppy_ = 3;
      }
    }
  }
  if (disk_.sector0_[0] == 0x33 && disk_.sector0_[1] == 0xC0) {
    disk_.diskKindText_ = "MBR";
  } else if (disk_.sector0_[0] == 0x33 && disk_.sector0_[1] == 0xFF) {
    disk_.diskKindText_ = "MBR (HP)";
  } else if (disk_.sector0_[0] == 0xEB && disk_.sector0_[1] == 0x58) {
    disk_.diskKindText_ = "SuperFloppy";
    disk_.superFloppy_ = 1;
  } else if (disk_.superFloppy_ != 0) {
    disk_.diskKindText_ = "SuperFloppy";
    disk_.superFloppy_ = 1;
  } else {
    disk_.diskKindText_ = "None";
  }
  if (mbr::HasBootSignature(disk_.sector0_)) {
    if (disk_.diskKindText_ == "None") disk_.diskKindText_ = "MBR";
  } else {
    disk_.bootSignatureValid_ = false;
  }
}

void DiskSet::LoadVolumeInfo() {
  if (!disk_.table_) return;
  for (PartitionRecord* r : disk_.table_->Records(kKindAll)) {
    if (disk_.isVirtual_) {
      r->volumeLabel = "<Virtual>";
    } else {
      ReadVolumeLabelOf(*this, *r);
    }
    r->driveLetter = ' ';
    r->volumeName.clear();
    if (disk_.table_->MayHaveDriveLetter(*r)) {
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
  disk_.superFloppy_ = 0;
  const bool walk = walkExtended_;
  const bool skip = skipVolumeInfo_;
  walkExtended_ = false;
  skipVolumeInfo_ = true;
  if (disk_.sector0_[mbr::kSlot0TypeOffset] != mbr::kGptProtectiveType) {
    LoadDisk(false);
  } else {
    // Loading a protective MBR would read the GPT of the disk, which is not
    // what the image holds: its entries are shown as they stand.
    disk_.mediumPresent_ = true;
    disk_.bootSignatureValid_ = true;
    disk_.isGpt_ = false;
    disk_.table_ = drivers_.loadMbr ? drivers_.loadMbr(*this) : nullptr;
    tableDisk_ = currentDisk;
    tableVirtual_ = disk_.isVirtual_;
    disk_.activeIndex_ = -1;
  }
  walkExtended_ = walk;
  skipVolumeInfo_ = skip;
}

ResultCode DiskSet::DeletePartition(int32_t n) {
  const bool all = n == kEveryPartition;
  ResultCode rc = all ? kSuccess : kInvalidPartition;
  if (disk_.table_) {
    if (const ResultCode refusal = disk_.table_->Refusal(TableDriver::Edit::Delete)) return refusal;
    reloadPending_ = false;
    rc = all ? disk_.table_->DeleteAll() : disk_.table_->Delete(n);
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

bool DiskSet::QueryGeometry() {
  disk_.totalBytes_ = 0;
  disk_.totalSectors_ = 0;
  platform::File* file = device.file();
  if (!file) return true;
  bool failed = true;
  platform::DiskGeometry g;
  if (file->GetDriveGeometry(&g)) {
    disk_.mediaType_ = g.mediaType;
    disk_.heads_ = g.tracksPerCylinder;
    disk_.sectorsPerTrack_ = g.sectorsPerTrack;
    disk_.cylinders_ = static_cast<uint32_t>(g.cylinders);
    uint64_t perCylinder = static_cast<uint64_t>(g.tracksPerCylinder) * g.sectorsPerTrack;
    disk_.totalSectors_ = static_cast<uint64_t>(g.cylinders) * perCylinder;
    disk_.totalBytes_ = disk_.totalSectors_ * kSectorSize;
    failed = false;
    if (disk_.mediaType_ == platform::kMediaRemovable) {
      uint64_t start = 0, length = 0;
      if (file->GetPartitionInfo(&start, &length)) {
        disk_.totalBytes_ = start + length;
        disk_.totalSectors_ = disk_.totalBytes_ / kSectorSize;
      }
    }
  }
  platform::DiskGeometry gx;
  uint64_t diskSize = 0;
  if (file->GetDriveGeometryEx(&gx, &diskSize)) {
    disk_.totalBytes_ = diskSize;
    disk_.totalSectors_ = diskSize / kSectorSize;
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
