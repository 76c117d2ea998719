// The MBR partition type table: short names and the hidden column.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

struct PartitionTypeInfo {
  uint32_t type;
  const char* shortName;
  bool hidden;
};

// The row of a type byte, or null when the table has none.
const PartitionTypeInfo* LookupPartitionType(uint32_t type);
// The short name, "UNKNWN" when the type is not in the table.
std::string PartitionTypeName(uint32_t type);

// The rules by type byte that the model and the edits share.
// Extended: 05, 0F, 15, 1F start a chain of logical partitions.
bool IsExtendedType(uint32_t type);
// Hidden as decoding an entry sees it: 11, 14, 16, 17, 1B, 1C, 1D, 1E, 1F
// (not the table's hidden column, which serves drive-layout records).
bool IsHiddenTypeByRule(uint32_t type);
// The nine visible types that hiding knows (hiding sets bit 0x10).
bool IsHideableType(uint32_t type);
// Sectors of a volume boot record saved for a partition type: 3 for the
// FAT and extended types, 7 for NTFS (07, 17), 0 for any other type.
uint32_t VbrSectorCount(uint32_t type);
// (The drive-letter types live with the MBR layout: both table drivers use
// them.)

}  // namespace dh
