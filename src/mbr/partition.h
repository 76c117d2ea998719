// The MBR partition model: one PartitionRecord per primary entry and per
// logical partition of the extended chains, held in a PartitionTable in the
// order they were found on disk.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace dh {

class DiskSet;
class DeviceHandle;

// On-disk MBR / EBR layout.
namespace mbr {
constexpr size_t kDiskSignatureOffset = 440;
constexpr size_t kEntryOffset = 446;  // slot 0; slot i at 446 + 16 * i
constexpr size_t kEntrySize = 16;
constexpr size_t kSlotCount = 4;
constexpr size_t kBootSignatureOffset = 510;
constexpr size_t kSlot0TypeOffset = 450;
constexpr size_t kEbrLinkOffset = 462;
// Fields of a 16-byte entry.
constexpr size_t kEntryBoot = 0;
constexpr size_t kEntryStartHead = 1;
constexpr size_t kEntryStartSector = 2;
constexpr size_t kEntryStartCylinder = 3;
constexpr size_t kEntryType = 4;
constexpr size_t kEntryEndHead = 5;
constexpr size_t kEntryEndSector = 6;
constexpr size_t kEntryEndCylinder = 7;
constexpr size_t kEntryFirstSector = 8;
constexpr size_t kEntrySectorCount = 12;
constexpr uint8_t kActiveFlag = 0x80;
constexpr uint8_t kGptProtectiveType = 0xEE;
}  // namespace mbr

bool IsExtendedType(uint32_t type);
// The hidden rule used when decoding an entry.
bool IsHiddenTypeByRule(uint32_t type);

enum PartitionKind : int32_t {
  kKindPrimary = 0,
  kKindLogical = 1,
  kKindExtended = 2,
  kKindAll = 3,
};

struct PartitionRecord {
  uint64_t startLba = 0;
  uint64_t sectorCount = 0;
  uint64_t sizeBytes = 0;
  int32_t type = 0;
  std::string volumeName;   // at most 49 characters
  std::string volumeLabel;  // at most 127 characters
  char driveLetter = 0;
  int32_t isPrimary = 0;
  int32_t active = 0;
  int32_t hidden = 0;
  int32_t slot = 0;
  std::string typeName;  // at most 7 characters
  uint32_t startCylinder = 0;
  uint32_t startHead = 0;
  uint32_t startSector = 0;
  uint32_t endCylinder = 0;
  uint32_t endHead = 0;
  uint32_t endSector = 0;
  int32_t primaryNumber = 0;
  int32_t logicalNumber = 0;
  uint8_t rawEntry[16] = {};
  uint64_t ebrLba = 0;
  uint8_t ebrImage[512] = {};

  // Fields of records made from GPT entries.
  uint8_t gptTypeGuid[16] = {};
  uint8_t gptUniqueGuid[16] = {};
  uint64_t gptAttributes = 0;
  std::string gptName;      // UTF-16 name converted to 8-bit text
  std::string gptTypeName;  // name from the GPT type table
  int32_t gptEntryIndex = -1;  // position in the on-disk entry array
};

// Limit on the records an extended chain may add: the walk also stops at a
// link that was already visited, so this only bounds hostile but loop-free
// chains.
constexpr int32_t kMaxLogicalPartitions = 16384;
// Limit on the EBRs one chain walk reads.  EBRs whose first entry is empty
// add no record, so the record limit alone would not bound the reads.
constexpr int32_t kMaxExtendedLinks = 65536;

class PartitionTable {
 public:
  explicit PartitionTable(DiskSet* owner) : owner_(owner) {}

  void Load();
  // Appends the logical partitions of the chain that starts at
  // `extendedStart`, numbering them on from `logicalCount`.  The walk ends
  // at a zero link, a failed read, an EBR this table has already read, or
  // the limits above.
  void ReadExtendedChain(uint64_t extendedStart);
  int32_t Count(int32_t kind) const;
  PartitionRecord* Get(int32_t n, int32_t kind);
  // The records Get(1..Count(kind), kind) returns, in that order, collected
  // in one pass (Get walks the table from its start each time).
  std::vector<PartitionRecord*> Records(int32_t kind);
  void SortByStart();

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

// Count and lookup for the current disk, MBR or GPT.
int32_t PartitionCount(DiskSet& disks, int32_t kind);
PartitionRecord* GetPartition(DiskSet& disks, int32_t n, int32_t kind);
// The records GetPartition(1..PartitionCount(kind), kind) returns, in order.
std::vector<PartitionRecord*> Partitions(DiskSet& disks, int32_t kind);

}  // namespace dh
