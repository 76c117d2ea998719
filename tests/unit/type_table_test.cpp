// The partition type table: names, the hidden column, and the bytes that
// have no row.
#include "mbr/type_table.h"

#include <gtest/gtest.h>

#include <cstring>

namespace dh {
namespace {

TEST(TypeTable, KnownTypesGiveTheirShortNames) {
  struct Case {
    uint32_t type;
    const char* name;
    bool hidden;
  };
  const Case cases[] = {
      {0x01, "FAT12", false},  {0x05, "EXTEND", false},  {0x07, "NTFS", false},    {0x0A, "OS2BOOT", false},
      {0x0F, "EXTEND", false}, {0x11, "DOS", false},     {0x14, "FAT16", true},    {0x15, "EXTEND", false},
      {0x17, "NTFS", true},    {0x1B, "FAT32", true},    {0x1C, "FAT32X", true},   {0x1E, "FAT16X", true},
      {0x1F, "EXTEND", true},  {0x39, "Theosv4", false}, {0x3D, "Netware", true}, {0x52, "CP/M", false},
      {0x85, "LxExt", false},  {0x86, "NTVol", false},   {0x87, "NTVol", false},   {0xEE, "GPT", false},
      {0xEF, "EFI", false},    {0xFE, "IBM", false},
  };
  for (const Case& c : cases) {
    const PartitionTypeInfo* row = LookupPartitionType(c.type);
    ASSERT_NE(row, nullptr) << std::hex << c.type;
    EXPECT_STREQ(row->shortName, c.name) << std::hex << c.type;
    EXPECT_EQ(row->hidden, c.hidden) << std::hex << c.type;
    EXPECT_EQ(PartitionTypeName(c.type), c.name);
  }
}

TEST(TypeTable, NamesFitTheRecordFieldAndGapsAreUnknown) {
  for (uint32_t type = 0; type < 256; ++type) {
    const PartitionTypeInfo* row = LookupPartitionType(type);
    if (row == nullptr) continue;
    EXPECT_EQ(row->type, type);
    EXPECT_LE(std::strlen(row->shortName), 7u);
  }
  for (uint32_t type : {0x00u, 0x0Du, 0x13u, 0x19u, 0x1Au, 0x1Du, 0x69u, 0xFFu, 0x100u, 0x107u}) {
    EXPECT_EQ(LookupPartitionType(type), nullptr) << std::hex << type;
    EXPECT_EQ(PartitionTypeName(type), "UNKNWN") << std::hex << type;
  }
}

}  // namespace
}  // namespace dh
