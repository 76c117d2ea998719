// The Windows-style number formatter behind GetNumberFormat on Linux and on
// the simulated machine.
#include "platform/common/number_format.h"

#include <gtest/gtest.h>

namespace dh::platform {
namespace {

// The defaults: 2 digits, leading zero, groups of 3, ".", ",", "-1.1".
const NumberFormat kUs{};
const NumberFormat kGerman{.decimalSep = ",", .thousandSep = "."};

TEST(NumberFormat, Formats) {
  struct Case {
    const char* in;
    NumberFormat f;
    const char* out;
  };
  const Case cases[] = {
      // "%Lf" texts with six decimals, as the size reports hand them over.
      {"0.000000", kUs, "0.00"},
      {"1022.000000", kUs, "1,022.00"},
      {"465.761459", kUs, "465.76"},
      {"1022.000000", kGerman, "1.022,00"},
      // Half away from zero, with carry into new groups.
      {"1.005", kUs, "1.01"},
      {"-1.005", kUs, "-1.01"},
      {"999.995", kUs, "1,000.00"},
      {"99999.999", kUs, "100,000.00"},
      {"0.5", {.numDigits = 0}, "1"},
      {"9.5", {.numDigits = 0}, "10"},
      {"1.5", {.numDigits = 9}, "1.500000000"},  // padded, not rounded
      // Zeros and leading zeros; no sign on a value that rounds to zero.
      {"0001234", kUs, "1,234.00"},
      {"-0.004", kUs, "0.00"},
      {"0.5", {.leadingZero = 0}, ".50"},
      {"-0.5", {.leadingZero = 0}, "-.50"},
      {"0.2", {.numDigits = 0, .leadingZero = 0}, "0"},
      // Grouping.
      {"1234567", kUs, "1,234,567.00"},
      {"1234567", {.grouping = 0}, "1234567.00"},
      {"1234567", {.grouping = 32}, "12,34,567.00"},
      {"1234567890", {.grouping = 32}, "1,23,45,67,890.00"},
      {"123456789", {.grouping = 4, .thousandSep = "'"}, "1'2345'6789.00"},
      {"1234", {.thousandSep = "\xA0"}, "1\xA0" "234.00"},
  };
  for (const Case& c : cases) {
    std::string out = "untouched";
    EXPECT_TRUE(FormatNumberLikeWindows(c.in, c.f, &out)) << c.in;
    EXPECT_EQ(out, c.out) << c.in;
  }
}

TEST(NumberFormat, NegativeOrders) {
  const char* expected[] = {"(1.1)", "-1.1", "- 1.1", "1.1-", "1.1 -"};
  for (uint32_t order = 0; order < 5; ++order) {
    const NumberFormat f{.numDigits = 1, .negativeOrder = order};
    std::string out;
    ASSERT_TRUE(FormatNumberLikeWindows("-1.1", f, &out));
    EXPECT_EQ(out, expected[order]) << order;
    ASSERT_TRUE(FormatNumberLikeWindows("1.1", f, &out));
    EXPECT_EQ(out, "1.1") << order;
  }
}

TEST(NumberFormat, RejectsBadInputWithoutTouchingOutput) {
  for (const char* bad : {"", "-", ".", "-.", "1.2.3", "+1", " 1", "1 ", "1e5", "--1", "1-", "0x10", "1,000"}) {
    std::string out = "untouched";
    EXPECT_FALSE(FormatNumberLikeWindows(bad, kUs, &out)) << "'" << bad << "'";
    EXPECT_EQ(out, "untouched");
  }
  for (const NumberFormat& f : {NumberFormat{.numDigits = 10}, NumberFormat{.leadingZero = 2},
                                NumberFormat{.grouping = 33}, NumberFormat{.negativeOrder = 5}}) {
    std::string out = "untouched";
    EXPECT_FALSE(FormatNumberLikeWindows("1", f, &out));
    EXPECT_EQ(out, "untouched");
  }
  EXPECT_FALSE(FormatNumberLikeWindows("1", kUs, nullptr));
}

}  // namespace
}  // namespace dh::platform
