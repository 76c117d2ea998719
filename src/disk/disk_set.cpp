// The disk set: finds the drives, selects and loads one disk at a time
// (geometry, sector 0, kind, partition model, volume information), and
// resolves the symbolic partition selectors.
#include "disk/disk_set.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "app/grammar.h"
#include "app/run_state.h"
#include "disk/identify.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"
#include "mbr/volume.h"
#include "platform/platform.h"
#include "vdisk/vmdk.h"

namespace dh {

namespace {

// Cleared by every selection; while set, selecting the current index
// loads it all the same.
bool g_firstSelection = true;

bool IsDriveLetterType(int32_t type) {
  switch (type) {
    case 0x01: case 0x04: case 0x06: case 0x07: case 0x0B: case 0x0C: case 0x0D: case 0x0E:
      return true;
    default:
      return false;
  }
}

}  // namespace

DiskSet::DiskSet(bool ignore) : ignoreErrors(ignore) {
  CountDisks(*this);
  if (diskCount > 0) SelectDisk(0);
}

DiskSet::~DiskSet() {
  partitions.reset();
  if (savedDevice) {
    device = std::move(*savedDevice);
    savedDevice.reset();
  }
  virtualDisk.reset();
  device.Close();
  gpt.reset();
}

void DiskSet::SelectDisk(int32_t index) {
  if (index < 0 || index > diskCount - 1) {
    RecordError(kInvalidDisk);
    return;
  }
  if (index == currentDisk && !g_firstSelection) return;
  currentDisk = index;
  if (isVirtual && savedDevice) {
    device = std::move(*savedDevice);  // the physical handle comes back
    savedDevice.reset();
  }
  device.Close();
  deviceName.clear();
  char path[64];
  std::snprintf(path, sizeof path, "\\\\.\\PhysicalDrive%d", static_cast<int>(diskTable[index]));
  devicePath = path;
  if (!OpenDisk(device, diskTable[index])) RecordError(kDiskAccessFailed);
  isVirtual = false;
  LoadDisk(true);
  g_firstSelection = false;
}

void DiskSet::OpenVirtualDisk(const std::string& path) {
  if (!platform::Host().PathExists(path)) {
    RecordError(kVirtualFileMissing);
    return;
  }
  isVirtual = true;
  deviceName = path;
  ResultCode rc = OpenVmdk(*this, path);
  if (rc != kSuccess) {
    RecordError(rc);
  } else {
    LoadDisk(true);
  }
}

void DiskSet::LoadDisk(bool readSector0) {
  mediumPresent = true;
  bootSignatureValid = true;
  isGpt = false;
  if (readSector0) LoadSector0();
  partitions.reset();
  std::memset(savedSignature, 0, sizeof savedSignature);
  if (bootSignatureValid) std::memcpy(savedSignature, sector0 + mbr::kDiskSignatureOffset, 4);

  if (sector0[mbr::kSlot0TypeOffset] == mbr::kGptProtectiveType) {
    diskKindText = "GPT";
    gpt = LoadGpt(*this);
    isGpt = true;
    tableLoaded = true;
    activeIndex = -1;
  } else {
    auto table = std::make_unique<PartitionTable>(this);
    partitions = std::move(table);
    partitions->Load();
    activeIndex = -1;
    const std::vector<PartitionRecord*> all = Partitions(*this, kKindAll);
    for (size_t i = 0; i < all.size(); ++i) {
      if (all[i]->active) activeIndex = static_cast<int32_t>(i + 1);
    }
  }
  if (!skipVolumeInfo) LoadVolumeInfo();
}

void DiskSet::LoadSector0() {
  if (isVirtual) {
    LoadVirtualGeometry(*this);
  } else if (QueryGeometry(*this)) {
    mediumPresent = false;
    mediaType = platform::kMediaRemovable;
  }
  std::memset(sector0, 0, sizeof sector0);
  bootSectorLba = 0;
  superFloppy = 0;
  if (isVirtual) {
    LoadVirtualSector0(*this);
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
  if (sector0[510] == 0x55 && sector0[511] == 0xAA) {
    if (diskKindText == "None") diskKindText = "MBR";
  } else {
    bootSignatureValid = false;
  }
}

void DiskSet::LoadVolumeInfo() {
  for (PartitionRecord* r : Partitions(*this, kKindAll)) {
    if (isVirtual) {
      r->volumeLabel = "<Virtual>";
    } else {
      ReadVolumeLabelOf(*this, *r);
    }
    r->driveLetter = ' ';
    r->volumeName.clear();
    if (IsDriveLetterType(r->type)) {
      DriveLetterMatch found;
      if (FindDriveLetter(*this, r->startLba, &found)) {
        r->driveLetter = found.letter;
        r->volumeName = found.volumeName;
      }
    }
  }
}

bool LocateVolume(int32_t mode, const std::string& text, bool ignoreErrors) {
  DiskSet scan(ignoreErrors);
  bool found = false;
  std::string systemDrive;
  bool haveSystemDrive = mode == 1 && platform::Host().GetEnv("systemdrive", &systemDrive) && !systemDrive.empty();
  for (int32_t d = 0; d < scan.diskCount && !found; ++d) {
    scan.SelectDisk(d);
    const std::vector<PartitionRecord*> primaries = Partitions(scan, kKindPrimary);
    for (size_t i = 0; i < primaries.size() && !found; ++i) {
      const PartitionRecord* r = primaries[i];
      const int32_t n = static_cast<int32_t>(i + 1);
      bool match = false;
      switch (mode) {
        case 1:
          match = haveSystemDrive && r->driveLetter == systemDrive[0];
          break;
        case 2:
          // The boot indicator lives in the MBR; GPT entries have none.
          match = !scan.isGpt && r->rawEntry[mbr::kEntryBoot] == mbr::kActiveFlag;
          break;
        case 3:
          match = r->type == 0x12 || r->type == 0xDE;
          break;
        case 4:
          match = !text.empty() && EqualsIgnoreCase(r->volumeLabel, text);
          break;
        case 5:
          match = !text.empty() && std::toupper(static_cast<unsigned char>(r->driveLetter)) ==
                                        std::toupper(static_cast<unsigned char>(text[0]));
          break;
        default:
          break;
      }
      if (match) {
        State().locatedDisk = d;
        State().locatedPart = n;
        found = true;
      }
    }
  }
  return found;
}

}  // namespace dh
