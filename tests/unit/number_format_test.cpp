// The Windows-style number formatter behind GetNumberFormat on Linux and on
// the simulated machine.
#include "platform/common/number_format.h"

#include <gtest/gtest.h>

namespace dh::platform {
namespace {

NumberFormat Us() { return NumberFormat{}; }  // 2 digits, leading zero, 3, ".", ",", "-1.1"

std::string Format(const std::string& value, const NumberFormat& f = Us()) {
  std::string out = "untouched";
  EXPECT_TRUE(FormatNumberLikeWindows(value, f, &out)) << value;
  return out;
}

TEST(NumberFormat, SizeTextInputsAsTheReportsUseThem) {
  // What FormatSizeText hands over: "%Lf" texts with six decimals.
  EXPECT_EQ(Format("0.000000"), "0.00");
  EXPECT_EQ(Format("1022.000000"), "1,022.00");
  EXPECT_EQ(Format("1.000000"), "1.00");
  EXPECT_EQ(Format("1.500000"), "1.50");
  EXPECT_EQ(Format("465.761459"), "465.76");
  EXPECT_EQ(Format("1.819336"), "1.82");

  NumberFormat german = Us();
  german.decimalSep = ",";
  german.thousandSep = ".";
  EXPECT_EQ(Format("465.761459", german), "465,76");
  EXPECT_EQ(Format("1022.000000", german), "1.022,00");
}

TEST(NumberFormat, RoundsHalfAwayFromZeroWithCarry) {
  EXPECT_EQ(Format("1.005"), "1.01");
  EXPECT_EQ(Format("1.004999"), "1.00");
  EXPECT_EQ(Format("-1.005"), "-1.01");
  EXPECT_EQ(Format("999.995"), "1,000.00");
  EXPECT_EQ(Format("99999.999"), "100,000.00");
  NumberFormat whole = Us();
  whole.numDigits = 0;
  EXPECT_EQ(Format("0.5", whole), "1");
  EXPECT_EQ(Format("9.5", whole), "10");
  EXPECT_EQ(Format("9.49", whole), "9");
  EXPECT_EQ(Format(".5", whole), "1");
  // Short fractions are padded, not rounded.
  NumberFormat nine = Us();
  nine.numDigits = 9;
  EXPECT_EQ(Format("1.5", nine), "1.500000000");
}

TEST(NumberFormat, ZeroAndLeadingZeros) {
  EXPECT_EQ(Format("0001234"), "1,234.00");
  EXPECT_EQ(Format("-0.004"), "0.00");  // no sign on a value that rounds to zero
  EXPECT_EQ(Format("5."), "5.00");
  NumberFormat noLeading = Us();
  noLeading.leadingZero = 0;
  EXPECT_EQ(Format("0.5", noLeading), ".50");
  EXPECT_EQ(Format("-0.5", noLeading), "-.50");
  EXPECT_EQ(Format("12.5", noLeading), "12.50");
  noLeading.numDigits = 0;
  EXPECT_EQ(Format("0.2", noLeading), "0");
}

TEST(NumberFormat, Grouping) {
  NumberFormat f = Us();
  EXPECT_EQ(Format("1234567", f), "1,234,567.00");
  EXPECT_EQ(Format("123", f), "123.00");
  EXPECT_EQ(Format("123456", f), "123,456.00");
  f.grouping = 0;
  EXPECT_EQ(Format("1234567", f), "1234567.00");
  f.grouping = 32;
  EXPECT_EQ(Format("1234567", f), "12,34,567.00");
  EXPECT_EQ(Format("1234567890", f), "1,23,45,67,890.00");
  f.grouping = 4;
  f.thousandSep = "'";
  EXPECT_EQ(Format("123456789", f), "1'2345'6789.00");
  f.grouping = 3;
  f.thousandSep = "";
  EXPECT_EQ(Format("1234567", f), "1234567.00");
  f.thousandSep = "\xA0";
  EXPECT_EQ(Format("1234", f), "1\xA0" "234.00");
}

TEST(NumberFormat, NegativeOrders) {
  NumberFormat f = Us();
  f.numDigits = 1;
  const char* expected[] = {"(1.1)", "-1.1", "- 1.1", "1.1-", "1.1 -"};
  for (uint32_t order = 0; order < 5; ++order) {
    f.negativeOrder = order;
    EXPECT_EQ(Format("-1.1", f), expected[order]) << order;
    EXPECT_EQ(Format("1.1", f), "1.1") << order;
  }
}

TEST(NumberFormat, RejectsBadInputAndFormatsWithoutTouchingOutput) {
  for (const char* bad : {"", "-", ".", "-.", "1.2.3", "+1", " 1", "1 ", "1e5", "--1", "1-", "0x10", "1,000"}) {
    std::string out = "untouched";
    EXPECT_FALSE(FormatNumberLikeWindows(bad, Us(), &out)) << "'" << bad << "'";
    EXPECT_EQ(out, "untouched");
  }
  NumberFormat f = Us();
  f.numDigits = 10;
  std::string out;
  EXPECT_FALSE(FormatNumberLikeWindows("1", f, &out));
  f = Us();
  f.negativeOrder = 5;
  EXPECT_FALSE(FormatNumberLikeWindows("1", f, &out));
  f = Us();
  f.leadingZero = 2;
  EXPECT_FALSE(FormatNumberLikeWindows("1", f, &out));
  f = Us();
  f.grouping = 33;
  EXPECT_FALSE(FormatNumberLikeWindows("1", f, &out));
  EXPECT_FALSE(FormatNumberLikeWindows("1", Us(), nullptr));
}

}  // namespace
}  // namespace dh::platform
