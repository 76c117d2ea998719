// The size and number formatters: the documented values, the user's locale,
// a failing number format, and counts beyond the largest unit.
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
}

TEST_F(FormatSizeTextTest, HandsSixDecimalsAndTheLocaleToTheNumberFormat) {
  machine.locale[LocaleItem::Grouping] = "3;2;0";
  machine.locale[LocaleItem::LeadingZero] = "0";
  machine.locale[LocaleItem::NegativeNumber] = "3";
  FormatSizeText(1536);
  EXPECT_EQ(machine.lastNumberValue, "1.500000");
  EXPECT_EQ(machine.lastNumberFormat.numDigits, 2u);
  EXPECT_EQ(machine.lastNumberFormat.grouping, 3u);  // the leading number only
  EXPECT_EQ(machine.lastNumberFormat.leadingZero, 0u);
  EXPECT_EQ(machine.lastNumberFormat.negativeOrder, 3u);
  EXPECT_EQ(machine.lastNumberFormat.decimalSep, ".");
  EXPECT_EQ(machine.lastNumberFormat.thousandSep, ",");
}

TEST_F(FormatSizeTextTest, LocaleSeparatorsAndFallbacks) {
  machine.locale[LocaleItem::DecimalSep] = ",";
  machine.locale[LocaleItem::ThousandSep] = ".";
  EXPECT_EQ(FormatSizeText(500107862016), "465,76GB");
  EXPECT_EQ(FormatSizeText(1022), "1.022,00Bytes");
  // An unreadable locale, or an item too long for 9 characters, falls back to English.
  machine.localeFails = true;
  EXPECT_EQ(FormatSizeText(1022), "1,022.00Bytes");
  machine.localeFails = false;
  machine.locale[LocaleItem::DecimalSep] = "123456789";
  EXPECT_EQ(FormatSizeText(1536), "1.50KB");
}

TEST_F(FormatSizeTextTest, FailedNumberFormatShowsTheSystemMessage) {
  machine.numberFormatFails = true;
  machine.numberFormatError = 87;
  machine.messages[87] = "The parameter is incorrect.\r\n";
  EXPECT_EQ(FormatSizeText(8589934592), "The parameter is incorrect.GB");
  machine.numberFormatError = 12345;  // no message: only the unit word
  EXPECT_EQ(FormatSizeText(8589934592), "GB");
  // A message longer than the result may hold is cut, keeping the unit.
  machine.messages[12345] = std::string(300, 'x') + "\r\n";
  std::string text = FormatSizeText(8589934592);
  EXPECT_EQ(text.size(), 100u);
  EXPECT_EQ(text.substr(98), "GB");
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
