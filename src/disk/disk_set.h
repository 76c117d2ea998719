// The disks of one run: the disk table, the first disk error, and the one
// loaded disk with its geometry, sector 0, kind and partition table.
//
// Every sector of the current disk goes through ReadSector and WriteSectors
// (or the current device itself), addressed by the disk's own LBAs: the
// device of a virtual disk maps them into its files, so nothing above adds
// an offset of its own.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/result_codes.h"
#include "disk/device.h"
#include "disk/loaded_disk.h"
#include "disk/mbr_layout.h"
#include "disk/partition_record.h"
#include "disk/table_driver.h"
#include "disk/virtual_disk.h"
#include "disk/write_plan.h"
#include "platform/platform.h"

namespace dh {

constexpr int32_t kMaxDisks = 100;

class DiskSet;

// How the disk set builds the table of a loaded disk and opens virtual disk
// files: the formats live above the disk layer and are handed in.
struct DiskDrivers {
  std::unique_ptr<TableDriver> (*loadMbr)(DiskSet& disks) = nullptr;
  std::unique_ptr<TableDriver> (*loadGpt)(DiskSet& disks) = nullptr;
  VirtualDiskOpener openVirtual = nullptr;
};

class DiskSet {
 public:
  // Counts the drives of `machine` and loads disk 0 when there is one.
  // `ignoreErrors` is the run's flag, copied.  Every drive, file and
  // system service of the set, and of the code handed the set, is the
  // machine's.
  DiskSet(platform::Machine& machine, const DiskDrivers& drivers, bool ignoreErrors);
  ~DiskSet();
  DiskSet(const DiskSet&) = delete;
  DiskSet& operator=(const DiskSet&) = delete;

  void SelectDisk(int32_t index);
  void OpenVirtualDisk(const std::string& path);
  void LoadDisk(bool readSector0);
  void LoadSector0();
  void LoadVolumeInfo();
  // Rebuilds the partition model from the sector0 image alone: no extended
  // chain, no volume inspection, no GPT read from the disk; a protective
  // entry shows as the primary partition it is.  For images that are not
  // the disk's own sector 0 (a backup file's, another sector's).
  void LoadImageTable();

  // The disk layer's first-error rule.
  void RecordError(ResultCode code) {
    if (code != kSuccess && firstError == kSuccess && !ignoreErrors) firstError = code;
  }

  // The device of the current disk: the physical drive or the virtual disk,
  // seen through the write plan in force (WriteScope): reads go through,
  // writes only inside the plan.
  SectorDevice& Device() { return guard_; }
  const WritePlan* writePlan() const { return plan_; }
  void SetWritePlan(const WritePlan* plan) { plan_ = plan; }
  // Whether the current disk refuses every write (a VMware disk whose grain
  // tables are damaged), and whether a write of this run was refused so.
  bool WritesRefused() { return RawDevice().WritesRefused(); }
  bool WriteWasRefused() const { return writeRefused_; }
  // The physical drive's handle (ioctls); null while a virtual disk is current.
  DeviceHandle* PhysicalDevice() { return disk_.isVirtual_ ? nullptr : &device; }

  // How many of `count` sectors from `lba` lie on the current disk; all of
  // them when the disk's size is unknown.
  uint64_t SectorsOnDisk(uint64_t lba, uint64_t count) const;

  // Whether the loaded table was read from disk `disk` (any number for a
  // virtual disk) of the kind given: a disk that failed to load leaves the
  // table of the disk before it in place.
  bool TableLoadedFor(int32_t disk, bool virtualDisk) const {
    return tableVirtual_ == virtualDisk && (virtualDisk || tableDisk_ == disk);
  }
  // The loaded table (null before the first load).
  TableDriver* Table() { return disk_.table_.get(); }
  const TableDriver* Table() const { return disk_.table_.get(); }
  // `del`: the n-th partition the table deletes by number (MBR primaries,
  // GPT entries), or all of them (kEveryPartition), through the table,
  // rebuilding the model when the table asks for it.  The caller checks n.
  // A refusal of the table comes back as it is; otherwise the outcome is
  // the disk layer's first error, then the table's own code, and under
  // `ignore` a failure reports 0.
  ResultCode DeletePartition(int32_t n);
  // Asked by a table whose model is made from the sector-0 image: the disk
  // is loaded again from it once the table's edit returns.
  void ReloadAfterEdit() { reloadPending_ = true; }

  const DiskDrivers& drivers() const { return drivers_; }
  platform::Machine& machine() const { return machine_; }

  // The loaded disk, to read.
  const LoadedDisk& disk() const { return disk_; }
  // Operations on it for the code that rewrites sector 0: the image the
  // table is built from, and the signature kept for it.
  void SetSector0(const uint8_t image[kSectorSize]) { std::memcpy(disk_.sector0_, image, kSectorSize); }
  void PatchSector0(size_t offset, const void* bytes, size_t count) {
    if (offset <= kSectorSize && count <= kSectorSize - offset) std::memcpy(disk_.sector0_ + offset, bytes, count);
  }
  void SetSavedSignature(const uint8_t signature[4]) { std::memcpy(disk_.savedSignature_, signature, 4); }
  // Set by the MBR loader: the table was loaded as the system sees it.
  void MarkTableLoaded() { disk_.tableLoaded_ = true; }
  // Whether loading walks the extended chains (not for the images that are
  // not the disk's own sector 0), and keeps to the image from now on: no
  // chain walks and no volume inspection for the rest of the run.
  bool walkExtended() const { return walkExtended_; }
  void KeepToImage() {
    walkExtended_ = false;
    skipVolumeInfo_ = true;
  }
  // Drops the loaded disk and the image-only options: the set is as it was
  // before its first load (a harness that loads one image after another).
  void ForgetLoadedDisk() {
    disk_ = LoadedDisk();
    walkExtended_ = true;
    skipVolumeInfo_ = false;
  }

  // Run-level fields.
  int32_t currentDisk = -1;
  int32_t diskCount = 0;
  int32_t diskTable[kMaxDisks] = {};
  std::string devicePath;
  DeviceHandle device;  // the physical drive
  bool ignoreErrors = false;
  ResultCode firstError = kSuccess;
  std::unique_ptr<VirtualDisk> virtualDisk;
  std::string diskDescription;


 private:
  // Reads the drive's geometry and size into the loaded disk; true when
  // the drive reports no geometry.
  bool QueryGeometry();
  // The device under the guard.
  SectorDevice& RawDevice();

  class Guard : public SectorDevice {
   public:
    explicit Guard(DiskSet& owner) : owner_(owner) {}
    bool ReadSome(uint64_t offset, void* buffer, uint32_t bytes, uint32_t* done) override;
    bool WriteSome(uint64_t offset, const void* buffer, uint32_t bytes, uint32_t* done) override;
    bool Flush() override;
    bool SizeBytes(uint64_t* bytes) override;
    bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override;
    bool ZeroRange(uint64_t offset, uint64_t bytes) override;
    void StartWriteback(uint64_t offset, uint64_t bytes) override;
    platform::File* CloneSource() override;
    bool CloneFrom(SectorDevice& source, uint64_t from, uint64_t to, uint64_t bytes) override;

   private:
    bool Permitted(uint64_t offset, uint64_t bytes);
    DiskSet& owner_;
  };

  Guard guard_{*this};
  const WritePlan* plan_ = nullptr;
  bool writeRefused_ = false;
  platform::Machine& machine_;
  DiskDrivers drivers_;
  // Cleared by the first selection; while set, selecting the current index
  // loads it all the same.
  bool firstSelection_ = true;
  bool reloadPending_ = false;
  LoadedDisk disk_;
  bool walkExtended_ = true;
  bool skipVolumeInfo_ = false;
  // The disk the loaded table was read from.
  int32_t tableDisk_ = -1;
  bool tableVirtual_ = false;
};

// The drive letter column of the current disk's listings and reports: "NA"
// on a virtual disk, "C:" for a partition with a letter, two blanks
// otherwise.
std::string DriveLetterText(const PartitionRecord& record, const DiskSet& disks);

// The name of the current disk in a report header, 26 characters wide: the
// disk number left-aligned, or "Virtual" for a virtual disk file.
std::string DiskNameField(const DiskSet& disks, int32_t diskNumber);

// Sector operations (they record their failures).
ResultCode CountDisks(DiskSet& disks);
bool OpenDisk(platform::Machine& machine, DeviceHandle& handle, int32_t driveNumber);
// One sector of the current disk; 0 or 506.
ResultCode ReadSector(DiskSet& disks, uint64_t lba, uint8_t* buffer);
// `count` sectors of the current disk, flushed before success; 0 or 505.  A
// write that does not fit on the disk fails without being tried.
ResultCode WriteSectors(DiskSet& disks, uint64_t lba, const uint8_t* buffer, uint32_t count);

// Count and lookup for the current disk, MBR or GPT.
int32_t PartitionCount(const DiskSet& disks, int32_t kind);
PartitionRecord* GetPartition(DiskSet& disks, int32_t n, int32_t kind);
// The records GetPartition(1..PartitionCount(kind), kind) returns, in order.
std::vector<PartitionRecord*> Partitions(DiskSet& disks, int32_t kind);

// What LocateVolume found.
struct LocatedVolume {
  bool found = false;
  int32_t disk = -1;
  int32_t part = -1;
};

// The symbolic partition selectors: the system partition (`text` is the
// "systemdrive" value; empty finds nothing), the boot (active) partition,
// a utility partition, a volume label, a drive letter.
enum class VolumeSelector { System, Boot, Utility, Label, DriveLetter };

// Finds the partition a symbolic selector names by scanning every disk of
// `machine` with a temporary DiskSet.
LocatedVolume LocateVolume(platform::Machine& machine, const DiskDrivers& drivers, VolumeSelector selector,
                           const std::string& text, bool ignoreErrors);

}  // namespace dh
