// The MBR partition model: one PartitionRecord per primary entry and per
// logical partition of the extended chains, held in a PartitionTable in the
// order they were found on disk.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/result_codes.h"
#include "disk/mbr_layout.h"
#include "disk/partition_record.h"
#include "disk/table_driver.h"

namespace dh {

class DiskSet;
class DeviceHandle;


// Limit on the records an extended chain may add: the walk also stops at a
// link that was already visited, so this only bounds hostile but loop-free
// chains.
constexpr int32_t kMaxLogicalPartitions = 16384;
// Limit on the EBRs one chain walk reads.  EBRs whose first entry is empty
// add no record, so the record limit alone would not bound the reads.
constexpr int32_t kMaxExtendedLinks = 65536;

class PartitionTable : public TableDriver {
 public:
  explicit PartitionTable(DiskSet* owner) : owner_(owner) {}

  void Load();
  // Appends the logical partitions of the chain that starts at
  // `extendedStart`, numbering them on from `logicalCount`.  The walk ends
  // at a zero link, a failed read, an EBR this table has already read, or
  // the limits above.
  void ReadExtendedChain(uint64_t extendedStart);
  int32_t Count(int32_t kind) const override;
  PartitionRecord* Get(int32_t n, int32_t kind) override;
  // The records Get(1..Count(kind), kind) returns, in that order, collected
  // in one pass (Get walks the table from its start each time).
  std::vector<PartitionRecord*> Records(int32_t kind) override;
  void SortByStart();

  // The edits of the primary entries (partition_edit.cpp, partition_sort.cpp,
  // partition_create.cpp): each ends in the one writer of sector 0.  A GPT
  // disk never holds this table; a superfloppy's sector 0 is a volume boot
  // record with no entries (130).
  ResultCode Refusal(Edit edit) const override;
  ResultCode SetHidden(int32_t n, bool hide) override;
  ResultCode SetActive(int32_t n, bool active) override;
  ResultCode SetType(int32_t n, int32_t type) override;
  // MBR entries have no names.
  ResultCode SetName(int32_t, const std::string&) override { return kNotGptDisk; }
  ResultCode Add(const CreateRequest& request) override;
  // The primary entries are what `del` addresses.  Deleting clears the
  // entry (or all four) in the sector-0 image and writes the image; the
  // disk set then rebuilds the model from it.
  int32_t DeletableCount() const override { return primaryCount; }
  ResultCode Delete(int32_t n) override;
  ResultCode DeleteAll() override;
  ResultCode CheckOrder(bool* ordered) override;
  ResultCode Reorder() override;

  // An MBR carries no checksums or copies of its own to check.
  std::vector<std::string> Verify() const override { return {}; }
  // The GPT area is the only table area save= and wipe= name.
  ResultCode OwnArea(TableArea*) const override { return kNotGptDisk; }
  uint32_t BootRecordSectors(const PartitionRecord& record) const override;
  std::vector<SectorRange> OccupiedSectors() override;
  bool MayHaveDriveLetter(const PartitionRecord& record) const override;

  int32_t sorted = 0;
  std::vector<std::unique_ptr<PartitionRecord>> records;
  int32_t primaryCount = 0;
  int32_t logicalCount = 0;

  DiskSet* owner() const { return owner_; }

 private:
  DiskSet* owner_;
  // Every EBR LBA read since the last Load: a link back into any chain of
  // the table ends the walk instead of listing partitions twice.
  std::unordered_set<uint64_t> visitedEbrs_;
};

// Decodes record.rawEntry with the given type and active flag.
void DecodeEntry(PartitionRecord& record, uint32_t type, bool active);

// The first entry of the drive layout, for superfloppies.
struct DriveLayoutResult {
  uint32_t type = 0;
  uint64_t startingOffset = 0;
  uint64_t partitionLength = 0;
};
bool QueryDriveLayout(DeviceHandle& device, DriveLayoutResult* out);

// Builds the MBR table of the current disk from its sector-0 image (the
// disk set's loader).
std::unique_ptr<TableDriver> LoadMbrTable(DiskSet& disks);
// The MBR table of the current disk; null on a GPT disk (or before a load).
// For the MBR's own code: everything else asks the disk set's driver.
PartitionTable* MbrTable(DiskSet& disks);

// Rebuilds sector 0 from the primary records and writes it: in place (each
// entry in its own slot) or sorted (packed into slots 0.. in start order).
// Runs the table's SortByStart first.  Bytes 0..445 and 510..511 go back
// exactly as they stand in the stored image.  The one writer of sector 0:
// 0, 505, or 130 for a superfloppy, whose sector 0 is a volume boot record.
ResultCode WritePartitionTable(DiskSet& disks, bool sortedLayout);
// Writes the stored sector-0 image as it stands.
ResultCode WriteSector0Image(DiskSet& disks);

}  // namespace dh
