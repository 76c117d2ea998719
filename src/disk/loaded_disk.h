// The disk a run has loaded: where it comes from, its geometry and size,
// its sector 0 as read, the kind of table it holds and that table's driver.
// The disk set fills it when it loads a disk; everyone else reads it, and
// changes the sector-0 image only through the disk set's operations.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "base/le.h"
#include "disk/table_driver.h"

namespace dh {

class LoadedDisk {
 public:
  // A VMware disk file rather than a drive.
  bool isVirtual() const { return isVirtual_; }
  bool mediumPresent() const { return mediumPresent_; }
  // Whether sector 0 ends in 55 AA.
  bool bootSignatureValid() const { return bootSignatureValid_; }
  // False when the table could not be loaded as the system sees it.
  bool tableLoaded() const { return tableLoaded_; }
  // "MBR", "MBR (HP)", "GPT", "SuperFloppy" or "None".
  const std::string& diskKindText() const { return diskKindText_; }
  // Nonzero for a removable volume without a partition table, whose sector
  // 0 is the volume's boot record.
  int32_t superFloppy() const { return superFloppy_; }
  bool isGpt() const { return isGpt_; }
  // The 1-based place of the active partition among all, or -1.
  int32_t activeIndex() const { return activeIndex_; }
  // The image of sector 0 the table was built from.
  const uint8_t* sector0() const { return sector0_; }
  uint32_t cylinders() const { return cylinders_; }
  uint32_t heads() const { return heads_; }
  uint32_t sectorsPerTrack() const { return sectorsPerTrack_; }
  int32_t mediaType() const { return mediaType_; }
  uint64_t totalSectors() const { return totalSectors_; }
  uint64_t totalBytes() const { return totalBytes_; }
  // The disk signature of sector 0 when it was loaded with 55 AA.
  const uint8_t* savedSignature() const { return savedSignature_; }
  TableDriver* table() const { return table_.get(); }

 private:
  friend class DiskSet;

  bool isVirtual_ = false;
  bool mediumPresent_ = false;
  bool bootSignatureValid_ = false;
  bool tableLoaded_ = false;
  std::string diskKindText_ = "None";
  int32_t superFloppy_ = 0;
  bool isGpt_ = false;
  int32_t activeIndex_ = -1;
  uint8_t sector0_[kSectorSize] = {};
  uint32_t cylinders_ = 0;
  uint32_t heads_ = 0;
  uint32_t sectorsPerTrack_ = 0;
  int32_t mediaType_ = 0;
  uint64_t totalSectors_ = 0;
  uint64_t totalBytes_ = 0;
  std::unique_ptr<TableDriver> table_;
  uint8_t savedSignature_[4] = {};
};

}  // namespace dh
