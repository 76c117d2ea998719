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

}  // namespace dh
