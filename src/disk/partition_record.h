// One partition of the current disk as every listing, edit, backup and
// report sees it, whichever table it came from, and the kinds by which
// partitions are counted and numbered.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

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
  // The type byte of an MBR entry; the detected file system of a GPT entry.
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
  std::string gptTypeName;  // name from the GPT type table
  int32_t gptEntryIndex = -1;  // position in the on-disk entry array
};

// The drive letter column of listings and reports: "NA" on a virtual disk,
// "C:" for a partition with a letter, two blanks otherwise.
std::string DriveLetterText(const PartitionRecord& record, bool virtualDisk);

}  // namespace dh
