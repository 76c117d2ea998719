// The texts the program prints where no end-to-end run pins them down: the
// final report's lines (arguments with '%' in them among them), size texts
// against the C library's own rounding and the user's locale, the
// Windows-style number format, and a disk description that would break the
// INI report's lines.  Whole reports are compared end to end.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <tuple>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "base/sink.h"
#include "disk/disk_set.h"
#include "fake_machine.h"
#include "platform/common/number_format.h"
#include "report/format.h"
#include "report/ini_report.h"

namespace dh {
namespace {

std::string Report(int32_t currentDisk = 0) {
  ::testing::internal::CaptureStdout();
  PrintFinalReport(currentDisk);
  return ::testing::internal::GetCapturedStdout();
}
std::string Failure(ResultCode code, int32_t currentDisk = 0) {
  State().resultCode = code;
  return Report(currentDisk);
}
std::string Success(int32_t command) {
  Options().command = command;
  State().completedStep = command;
  return Report();
}

TEST(Messages, FinalReportLines) {
  const std::pair<std::function<std::string()>, std::string> cases[] = {
      {[] { Options().valueText = "C:\\100%s%d%n.ini"; return Success(kCmdWriteIni); },
       " MBR information was successfully written to C:\\100%s%d%n.ini \n"},
      {[] { Options().areaKind = kAreaMbr; Options().valueText2 = "mbr%s.bin"; return Success(kCmdSave); },
       " The MBR was successfully saved to mbr%s.bin\n"},
      {[] { Options().silent = true; State().volumeIdText = "50%d"; return Success(kStepVolumeIdRead); }, "50%d"},
      {[] { Options().messageNumber = 2; return Success(kCmdHide); }, " Partition(s) successfully hidden \n"},
      {[] { Options().messageNumber = 3; return Failure(kUserCancelled); }, ""},
      {[] { State().badArgument = "/bogus%s"; return Failure(kInvalidSwitch); },
       "\n Error 105: Invalid or incomplete switch: /bogus%s\n\n Note: Command line parameters may have changed in "
       "version 3.0\n Please check the latest documentation to verify the specified parameters\n"},
      {[] { Arguments().Add("/list"); Arguments().Add("-VOL=DATA"); return Failure(kVolumeNotFound); },
       " Error 147: Unable to locate the specifed partition: 'DATA' \n"},
      {[] { Arguments().Add("-VOL=D%s"); return Failure(kDriveLetterNotFound); },
       " Error 148: Unable to locate the partition assigned to drive letter: D%s \n"},
      {[] { return Failure(kExtendedOutside, 2); },
       " Error 570: Extended partition is located outside of boundaries on disk 2\n\n"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    ResetRun();
    EXPECT_EQ(cases[i].first(), cases[i].second) << "case " << i;
  }
  ResetRun();
}

TEST(Reports, ScaledSizesRoundAsTheCLibraryDoes) {
  const std::tuple<uint64_t, int, const char*> sizes[] = {
      {500107862016ull, 20, "476940.02"}, {500107862016ull, 40, "0.45"}, {0, 20, "0.00"},
      {(1ull << 20) / 8, 20, "0.12"},      // 0.125: a tie, to the even 0.12
      {(1ull << 20) * 3 / 8, 20, "0.38"},  // 0.375: to the even 0.38
      {(1ull << 20) - 1, 20, "1.00"},      // carries into the units
      {UINT64_MAX, 20, "17592186044416.00"}};
  for (const auto& [bytes, shift, text] : sizes) EXPECT_EQ(ScaledSizeText(bytes, shift), text) << bytes;
#if defined(__GLIBC__)
  // glibc prints the exact binary value rounded half to even, which is what
  // a long double holds of any 64-bit count over 2^k.
  std::mt19937_64 random(15);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bytes = random() >> (random() % 64);
    for (int shift : {20, 30, 40}) {
      char expected[64];
      std::snprintf(expected, sizeof expected, "%.2Lf", static_cast<long double>(bytes) / (1ull << shift));
      ASSERT_EQ(ScaledSizeText(bytes, shift), expected) << bytes << " >> " << shift;
    }
  }
#endif
}

using IniReportTest = test::FakeDiskTest;

TEST_F(IniReportTest, ADescriptionFromTheSystemStaysOnItsLine) {
  MakeMbrDisk({{0x80, 0x07, 2048, 2048}});
  machine.registryStrings["SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum\n0"] = "IDE\\Disk\\1";
  machine.registryStrings["SYSTEM\\CurrentControlSet\\Enum\\IDE\\Disk\\1\nFriendlyName"] = "Evil\r\n[Disk7]\r\nX=1";
  StringSink out;
  WriteIniReport(Load(), IniReportRequest{}, out);
  EXPECT_NE(out.text.find("\r\nDescription=Evil  [Disk7]  X=1\r\n"), std::string::npos) << out.text;
  EXPECT_EQ(out.text.find("\r\n[Disk7]"), std::string::npos);
}

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

using FormatSizeTextTest = test::FakeDiskTest;

TEST_F(FormatSizeTextTest, ValuesInEnglishLocale) {
  const std::pair<int64_t, const char*> cases[] = {
      {0, "0.00Bytes"}, {1022, "1,022.00Bytes"}, {1023, "1.00KB"}, {1536, "1.50KB"}, {8589934592, "8.00GB"},
      {500107862016, "465.76GB"}, {2000398934016, "1.82TB"}, {int64_t{1} << 20, "1.00MB"},
      {(int64_t{1} << 20) - 2, "1,024.00KB"}, {(int64_t{1} << 60) - 2, "1,024.00PB"},
      {(int64_t{1} << 60) - 1, "1,024.00PB"}, {kMax, "8,192.00PB"}, {-1, "-1.00Bytes"}};
  for (const auto& [bytes, text] : cases) EXPECT_EQ(FormatSizeText(machine, bytes), text) << bytes;
  // The user's separators; an unreadable locale falls back to English.
  machine.locale[LocaleItem::DecimalSep] = ",";
  machine.locale[LocaleItem::ThousandSep] = ".";
  EXPECT_EQ(FormatSizeText(machine, 1022), "1.022,00Bytes");
  machine.localeFails = true;
  EXPECT_EQ(FormatSizeText(machine, 1022), "1,022.00Bytes");
}

TEST(FormatGroupedCount, ValuesAndWidths) {
  const std::tuple<uint32_t, int, std::string> cases[] = {
      {1985, 15, "         1,985"}, {63, 14, "           63"}, {4294967295u, 14, "4,294,967,295"}, {0, 2, "0"},
      {1000, 6, "1,000"}, {999, 6, "  999"},
      // Too narrow: the rightmost positions are kept; widths are clamped.
      {4294967295u, 5, ",295"}, {123, 1, ""}, {123, -7, ""}, {123, 24, std::string(20, ' ') + "123"},
      {123, 1000, std::string(21, ' ') + "123"}};
  for (const auto& [value, width, text] : cases) {
    EXPECT_EQ(FormatGroupedCount(value, width), text) << value << " " << width;
  }
}

}  // namespace
}  // namespace dh

namespace dh::platform {
namespace {

// The defaults: 2 digits, leading zero, groups of 3, ".", ",", "-1.1".
const NumberFormat kUs{};
const NumberFormat kGerman{.decimalSep = ",", .thousandSep = "."};

TEST(NumberFormat, Formats) {
  // "%Lf" texts as the size reports hand them over; half away from zero,
  // with carry into new groups; padded, not rounded; leading zeros; no sign
  // on a value that rounds to zero; groups.
  const std::tuple<const char*, NumberFormat, const char*> cases[] = {
      {"1022.000000", kUs, "1,022.00"},   {"1022.000000", kGerman, "1.022,00"}, {"465.761459", kUs, "465.76"},
      {"-1.005", kUs, "-1.01"},           {"99999.999", kUs, "100,000.00"},      {"9.5", {.numDigits = 0}, "10"},
      {"1.5", {.numDigits = 9}, "1.500000000"}, {"0001234", kUs, "1,234.00"},   {"-0.004", kUs, "0.00"},
      {"-0.5", {.leadingZero = 0}, "-.50"}, {"0.2", {.numDigits = 0, .leadingZero = 0}, "0"},
      {"1234567", {.grouping = 0}, "1234567.00"}, {"1234567890", {.grouping = 32}, "1,23,45,67,890.00"},
      {"123456789", {.grouping = 4, .thousandSep = "'"}, "1'2345'6789.00"}};
  for (const auto& [in, format, text] : cases) {
    std::string out;
    EXPECT_TRUE(FormatNumberLikeWindows(in, format, &out)) << in;
    EXPECT_EQ(out, text) << in;
  }
  // Every negative order, and what must be refused without touching the output.
  const char* negative[] = {"(1.1)", "-1.1", "- 1.1", "1.1-", "1.1 -"};
  for (uint32_t order = 0; order < 5; ++order) {
    std::string out;
    EXPECT_TRUE(FormatNumberLikeWindows("-1.1", {.numDigits = 1, .negativeOrder = order}, &out));
    EXPECT_EQ(out, negative[order]);
  }
  const std::tuple<const char*, NumberFormat> refused[] = {
      {"", kUs},  {"-.", kUs},  {"1.2.3", kUs}, {"+1", kUs}, {" 1", kUs},  {"1e5", kUs}, {"--1", kUs}, {"1-", kUs},
      {"1,000", kUs}, {"1", {.numDigits = 10}}, {"1", {.leadingZero = 2}}, {"1", {.grouping = 33}},
      {"1", {.negativeOrder = 5}}};
  for (const auto& [in, format] : refused) {
    std::string out = "untouched";
    EXPECT_FALSE(FormatNumberLikeWindows(in, format, &out)) << "'" << in << "'";
    EXPECT_EQ(out, "untouched");
  }
}

}  // namespace
}  // namespace dh::platform
