// The size and number formatters: the documented values, the user's locale,
// and counts beyond the largest unit.
#include "report/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "fake_machine.h"

namespace dh {
namespace {

using platform::LocaleItem;
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(FormatSizeCompact, Values) {
  const std::pair<int64_t, const char*> cases[] = {
      {0, "  0B"}, {512, "512B"}, {998, "998B"}, {999, "1.0K"}, {1536, "1.5K"}, {10240, " 10K"}, {102400, "100K"},
      {1022975, "998K"}, {1022976, "1.0M"}, {8589934592, "8.0G"}, {500107862016, "465G"}, {2000398934016, "1.8T"},
      // Format boundaries: from 99.96 units the integer part is truncated,
      // from 9.96 no decimals; each format rounds on its own.
      {102360, " 99K"}, {102359, " 100K"}, {10200, " 10K"}, {10199, "10.0K"}, {-5, " -5B"},
      // Beyond petabytes the unit stays P.
      {int64_t{999} << 40, "1.0P"}, {int64_t{999} << 50, "999P"}, {kMax, "8192P"},
      {std::numeric_limits<int64_t>::min(), "-9223372036854775808B"}};
  for (const auto& [bytes, text] : cases) EXPECT_EQ(FormatSizeCompact(bytes), text) << bytes;
}

class FormatSizeTextTest : public ::testing::Test {
 protected:
  test::FakeMachine machine;
  test::ScopedHost host{&machine};
};

TEST_F(FormatSizeTextTest, ValuesInEnglishLocale) {
  const std::pair<int64_t, const char*> cases[] = {
      {0, "0.00Bytes"}, {1022, "1,022.00Bytes"}, {1023, "1.00KB"}, {1536, "1.50KB"}, {8589934592, "8.00GB"},
      {500107862016, "465.76GB"}, {2000398934016, "1.82TB"}, {int64_t{1} << 20, "1.00MB"},
      {(int64_t{1} << 20) - 2, "1,024.00KB"}, {(int64_t{1} << 60) - 2, "1,024.00PB"},
      {(int64_t{1} << 60) - 1, "1,024.00PB"}, {kMax, "8,192.00PB"}, {-1, "-1.00Bytes"}};
  for (const auto& [bytes, text] : cases) EXPECT_EQ(FormatSizeText(bytes), text) << bytes;
  // The user's separators; an unreadable locale falls back to English.
  machine.locale[LocaleItem::DecimalSep] = ",";
  machine.locale[LocaleItem::ThousandSep] = ".";
  EXPECT_EQ(FormatSizeText(1022), "1.022,00Bytes");
  machine.localeFails = true;
  EXPECT_EQ(FormatSizeText(1022), "1,022.00Bytes");
}

TEST(FormatGroupedCount, ValuesAndWidths) {
  const std::tuple<uint32_t, int, std::string> cases[] = {
      {1985, 15, "         1,985"}, {63, 14, "           63"}, {4294967295u, 14, "4,294,967,295"}, {0, 2, "0"},
      {1000, 6, "1,000"}, {999, 6, "  999"},
      // Too narrow: the rightmost positions are kept; widths are clamped.
      {4294967295u, 5, ",295"}, {123, 1, ""}, {123, -7, ""}, {123, 24, std::string(20, ' ') + "123"},
      {123, 1000, std::string(21, ' ') + "123"}};
  for (const auto& [value, width, text] : cases) EXPECT_EQ(FormatGroupedCount(value, width), text) << value << "," << width;
}

}  // namespace
}  // namespace dh
