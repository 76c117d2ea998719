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
  std::string shortName = "x", longName = "y";
  EXPECT_EQ(LookupGptType("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", &shortName, &longName), 4);
  EXPECT_EQ(shortName, "BDP");
  EXPECT_EQ(longName, "Basic Data Partition");

  // Unused entries, Linux filesystem data, a GUID agreeing in its first 16
  // characters only, lower case and a prefix: no row, names untouched.
  shortName = "x";
  longName = "y";
  for (const char* text : {"00000000-0000-0000-0000-000000000000", test::kLinuxFsType,
                           "EBD0A0A2-B9E5-4433-0000-000000000000", "ebd0a0a2-b9e5-4433-87c0-68b6b72699c7",
                           "EBD0A0A2-B9E5-4433-87C0-68B6B72699C", ""}) {
    EXPECT_EQ(LookupGptType(text, &shortName, &longName), 0) << text;
  }
  EXPECT_EQ(shortName, "x");
  EXPECT_EQ(longName, "y");

  // Either output may be absent.
  EXPECT_EQ(LookupGptType("C12A7328-F81F-11D2-BA4B-00A0C93EC93B", nullptr, &longName), 2);
  EXPECT_EQ(longName, "EFI System Partition");
  EXPECT_EQ(LookupGptType("48465300-0000-11AA-AA11-00306543ECAC", &shortName, nullptr), 18);
  EXPECT_EQ(shortName, "HFS-PLUS");
}

TEST(GptTypeTable, RowsAreWellFormed) {
  size_t count = 0;
  const GptTypeInfo* rows = GptTypeRows(&count);
  ASSERT_EQ(count, 16u);
  std::set<int32_t> numbers;
  for (size_t i = 0; i < count; ++i) {
    const GptTypeInfo& row = rows[i];
    EXPECT_NE(row.number, 0);
    EXPECT_TRUE(numbers.insert(row.number).second) << row.number;
    EXPECT_LE(std::strlen(row.shortName), 8u) << row.shortName;
    EXPECT_LE(std::strlen(row.longName), 39u) << row.longName;
    // Each GUID text is what the reader makes of its own bytes.
    EXPECT_EQ(FormatGuidText(test::GuidBytes(row.guidText).data()), row.guidText);
    EXPECT_EQ(LookupGptType(row.guidText, nullptr, nullptr), row.number);
  }
  // The numbers the program has always used, gaps included.
  EXPECT_EQ(numbers, (std::set<int32_t>{1, 2, 3, 4, 5, 6, 8, 9, 16, 17, 18, 19, 20, 21, 22, 23}));
  // The two Apple RAID rows share a short name but not a long one.
  std::string s21, l21, s22, l22;
  LookupGptType("52414944-0000-11AA-AA11-00306543ECAC", &s21, &l21);
  LookupGptType("52414944-5F4F-11AA-AA11-00306543ECAC", &s22, &l22);
  EXPECT_EQ(s21, "APL-RAID");
  EXPECT_EQ(s22, "APL-RAID");
  EXPECT_EQ(l21, "Apple RAID");
  EXPECT_EQ(l22, "Apple Offline RAID");
}

}  // namespace
}  // namespace dh
