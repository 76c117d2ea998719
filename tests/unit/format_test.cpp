// The size and number formatters: the documented values, the user's locale,
// a failing number format, and counts beyond the largest unit.
#include "report/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "fake_machine.h"

namespace dh {
namespace {

using platform::LocaleItem;
using test::FakeMachine;
using test::ScopedHost;

TEST(FormatSizeCompact, DocumentedValues) {
  struct Case {
    int64_t bytes;
    const char* text;
  };
  const Case cases[] = {
      {0, "  0B"},         {512, "512B"},          {998, "998B"},          {999, "1.0K"},
      {1536, "1.5K"},      {10240, " 10K"},        {102400, "100K"},       {1022975, "998K"},
      {1022976, "1.0M"},   {8589934592, "8.0G"},   {500107862016, "465G"}, {2000398934016, "1.8T"},
  };
  for (const Case& c : cases) EXPECT_EQ(FormatSizeCompact(c.bytes), c.text) << c.bytes;
}

TEST(FormatSizeCompact, FormatBoundaries) {
  // From 99.96 units on, the integer part is truncated; from 9.96 on, no
  // decimals; below, one decimal.  Each format rounds on its own.
  EXPECT_EQ(FormatSizeCompact(102360), " 99K");   // 99.9609
  EXPECT_EQ(FormatSizeCompact(102359), " 100K");  // 99.9599
  EXPECT_EQ(FormatSizeCompact(10200), " 10K");    // 9.9609
  EXPECT_EQ(FormatSizeCompact(10199), "10.0K");   // 9.9599
  EXPECT_EQ(FormatSizeCompact(-5), " -5B");
}

TEST(FormatSizeCompact, CountsBeyondPetabytesStayInPetabytes) {
  EXPECT_EQ(FormatSizeCompact(int64_t{999} << 40), "1.0P");
  EXPECT_EQ(FormatSizeCompact(int64_t{999} << 50), "999P");
  EXPECT_EQ(FormatSizeCompact(std::numeric_limits<int64_t>::max()), "8192P");
  EXPECT_EQ(FormatSizeCompact(std::numeric_limits<int64_t>::min()), "-9223372036854775808B");
}

class FormatSizeTextTest : public ::testing::Test {
 protected:
  FakeMachine machine;
  ScopedHost host{&machine};
};

TEST_F(FormatSizeTextTest, DocumentedValuesInEnglishLocale) {
  struct Case {
    int64_t bytes;
    const char* text;
  };
  const Case cases[] = {
      {0, "0.00Bytes"},        {1022, "1,022.00Bytes"},     {1023, "1.00KB"},
      {1536, "1.50KB"},        {8589934592, "8.00GB"},      {500107862016, "465.76GB"},
      {2000398934016, "1.82TB"},
  };
  for (const Case& c : cases) EXPECT_EQ(FormatSizeText(c.bytes), c.text) << c.bytes;
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

TEST_F(FormatSizeTextTest, CommaDecimalLocale) {
  machine.locale[LocaleItem::DecimalSep] = ",";
  machine.locale[LocaleItem::ThousandSep] = ".";
  EXPECT_EQ(FormatSizeText(500107862016), "465,76GB");
  EXPECT_EQ(FormatSizeText(1022), "1.022,00Bytes");
}

TEST_F(FormatSizeTextTest, UnreadableLocaleFallsBackToEnglishSeparators) {
  machine.localeFails = true;
  EXPECT_EQ(FormatSizeText(1022), "1,022.00Bytes");
  machine.localeFails = false;
  machine.locale[LocaleItem::DecimalSep] = "123456789";  // does not fit 9 characters
  EXPECT_EQ(FormatSizeText(1536), "1.50KB");
}

TEST_F(FormatSizeTextTest, FailedNumberFormatShowsTheSystemMessage) {
  machine.numberFormatFails = true;
  machine.numberFormatError = 87;
  machine.messages[87] = "The parameter is incorrect.\r\n";
  EXPECT_EQ(FormatSizeText(8589934592), "The parameter is incorrect.GB");
  // No message for the code: only the unit word remains.
  machine.numberFormatError = 12345;
  EXPECT_EQ(FormatSizeText(8589934592), "GB");
  // A message longer than the result may hold is cut, keeping the unit.
  machine.messages[12345] = std::string(300, 'x') + "\r\n";
  std::string text = FormatSizeText(8589934592);
  EXPECT_EQ(text.size(), 100u);
  EXPECT_EQ(text.substr(98), "GB");
}

TEST_F(FormatSizeTextTest, UnitBoundariesAndCountsBeyondPetabytes) {
  EXPECT_EQ(FormatSizeText(int64_t{1} << 20), "1.00MB");
  EXPECT_EQ(FormatSizeText((int64_t{1} << 20) - 2), "1,024.00KB");
  EXPECT_EQ(FormatSizeText((int64_t{1} << 60) - 2), "1,024.00PB");
  EXPECT_EQ(FormatSizeText((int64_t{1} << 60) - 1), "1,024.00PB");
  EXPECT_EQ(FormatSizeText(std::numeric_limits<int64_t>::max()), "8,192.00PB");
  EXPECT_EQ(FormatSizeText(-1), "-1.00Bytes");
}

TEST(FormatGroupedCount, DocumentedValues) {
  EXPECT_EQ(FormatGroupedCount(1985, 15), "         1,985");
  EXPECT_EQ(FormatGroupedCount(63, 14), "           63");
  EXPECT_EQ(FormatGroupedCount(4294967295u, 14), "4,294,967,295");
}

TEST(FormatGroupedCount, NarrowAndOutOfRangeWidths) {
  EXPECT_EQ(FormatGroupedCount(0, 2), "0");
  EXPECT_EQ(FormatGroupedCount(1000, 6), "1,000");
  EXPECT_EQ(FormatGroupedCount(999, 6), "  999");
  // Too narrow: the rightmost positions are kept.
  EXPECT_EQ(FormatGroupedCount(4294967295u, 5), ",295");
  EXPECT_EQ(FormatGroupedCount(123, 1), "");
  EXPECT_EQ(FormatGroupedCount(123, -7), "");
  EXPECT_EQ(FormatGroupedCount(123, 24), std::string(20, ' ') + "123");
  EXPECT_EQ(FormatGroupedCount(123, 1000), std::string(21, ' ') + "123");
}

}  // namespace
}  // namespace dh
