// The GPT partition type table: exact whole-text matches, the names it
// hands out, and the rows that must not be there.
#include "gpt/gpt_types.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "gpt/gpt_format.h"
#include "gpt_test_image.h"

namespace dh {
namespace {

TEST(GptTypeTable, LooksUpWholeTextsOnly) {
  struct Row {
    const char* guid;
    int32_t number;
    const char* shortName;
    const char* longName;
  };
  // The two Apple RAID rows share a short name but not a long one.
  for (const Row& r : {Row{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 4, "BDP", "Basic Data Partition"},
                       Row{"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", 2, "EFI", "EFI System Partition"},
                       Row{"52414944-0000-11AA-AA11-00306543ECAC", 21, "APL-RAID", "Apple RAID"},
                       Row{"52414944-5F4F-11AA-AA11-00306543ECAC", 22, "APL-RAID", "Apple Offline RAID"},
                       // Rows after the original table.
                       Row{"DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", 24, "WIN-RE", "Windows Recovery Environment"},
                       Row{"0FC63DAF-8483-4772-8E79-3D69D8477DE4", 26, "LX-DATA", "Linux Filesystem Data"},
                       Row{"E75CAF8F-F680-4CEE-AFA3-B001E56EFC2D", 40, "MS-SPACE", "Microsoft Storage Spaces"}}) {
    std::string shortName, longName;
    EXPECT_EQ(LookupGptType(r.guid, &shortName, &longName), r.number);
    EXPECT_EQ(shortName, r.shortName);
    EXPECT_EQ(longName, r.longName);
  }

  // Unused entries, a type nobody added (HP-UX data), a GUID agreeing in its
  // first 16 characters only, lower case and a prefix: no row, names
  // untouched.
  std::string shortName = "x", longName = "y";
  for (const char* text : {"00000000-0000-0000-0000-000000000000", test::kUnknownType,
                           "EBD0A0A2-B9E5-4433-0000-000000000000", "ebd0a0a2-b9e5-4433-87c0-68b6b72699c7",
                           "EBD0A0A2-B9E5-4433-87C0-68B6B72699C", ""}) {
    EXPECT_EQ(LookupGptType(text, &shortName, &longName), 0) << text;
  }
  EXPECT_EQ(shortName, "x");
  EXPECT_EQ(longName, "y");
}

TEST(GptTypeTable, RowsAreWellFormed) {
  size_t count = 0;
  const GptTypeInfo* rows = GptTypeRows(&count);
  std::set<int32_t> numbers;
  std::set<std::string> guids;
  for (size_t i = 0; i < count; ++i) {
    const GptTypeInfo& row = rows[i];
    EXPECT_TRUE(numbers.insert(row.number).second) << row.number;
    EXPECT_TRUE(guids.insert(row.guidText).second) << row.guidText;
    EXPECT_LE(std::strlen(row.shortName), 8u) << row.shortName;
    EXPECT_LE(std::strlen(row.longName), 39u) << row.longName;
    // Each GUID text is what the reader makes of its own bytes.
    EXPECT_EQ(FormatGuidText(test::GuidBytes(row.guidText).data()), row.guidText);
    // Either output may be absent.
    std::string shortName, longName;
    EXPECT_EQ(LookupGptType(row.guidText, &shortName, nullptr), row.number);
    EXPECT_EQ(LookupGptType(row.guidText, nullptr, &longName), row.number);
    EXPECT_EQ(shortName + "|" + longName, std::string(row.shortName) + "|" + row.longName);
  }
}

}  // namespace
}  // namespace dh
