// The report texts no end-to-end run pins down: sizes against the C
// library's own rounding, the boot menu's answers, and a disk description
// that would break the INI report's lines.  Whole reports are compared end
// to end (e2e/reports_test).
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "app/run_state.h"
#include "base/sink.h"
#include "disk/disk_set.h"
#include "fake_machine.h"
#include "report/info.h"
#include "report/ini_report.h"

namespace dh {
namespace {

TEST(Reports, ScaledSizesAndBootMenuAnswers) {
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

  // Only the first character chooses a row; the number itself is not
  // compared with the rows, and only the buffer's 99 characters are read.
  const std::tuple<std::string, bool, int32_t> answers[] = {
      {"3", true, 3},   {"4", false, 4},  {"0", false, 0}, {"", false, 0}, {" 2", false, 0}, {"2x7", true, 2},
      {"35", true, 35}, {"1" + std::string(200, '9'), true, INT32_MAX}, {std::string(98, '0') + "21", false, 2}};
  for (const auto& [line, valid, number] : answers) {
    const BootMenuChoice choice = ReadBootMenuAnswer(line, 3);
    EXPECT_TRUE(choice.asked);
    EXPECT_EQ(choice.valid, valid) << line;
    EXPECT_EQ(choice.number, number) << line;
  }
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

}  // namespace
}  // namespace dh
