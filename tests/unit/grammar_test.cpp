// The command-line grammar: keyword matching and order, value rules, number
// readings, option-file lines longer than a token (the rest of the option
// file is read end to end), and that the documentation names every keyword.
#include "app/grammar.h"

#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "app/command_table.h"

namespace dh {
namespace {

// Readers of the option fields the tables check.
using Field = int64_t (*)();
int64_t Command() { return Options().command; }
int64_t Disk() { return Options().diskNumber; }
int64_t Part() { return Options().partNumber; }
int64_t Area() { return Options().areaKind; }
int64_t Sector() { return Options().sectorNumber; }
int64_t Type() { return Options().typeValue; }
int64_t Repair() { return Options().rangeFirst; }

class GrammarTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetRun(); }
  void TearDown() override { ResetRun(); }

  // As the program does with its command line: list first, then parse.
  void Parse(const std::vector<std::string>& args) {
    for (const std::string& a : args) Arguments().Add(a);
    for (const std::string& a : args) ParseArgument(a);
  }

  // Parses one argument on a fresh run.
  void ParseOnly(const std::string& arg) {
    ResetRun();
    Parse({arg});
  }

  void ExpectAccepted(const std::string& arg) {
    EXPECT_TRUE(State().resultCode == kSuccess && !State().usageError) << arg;
  }

  // The code and argument a refused argument leaves; a bad switch is a usage error.
  void ExpectRefused(const std::string& arg, ResultCode code) {
    EXPECT_EQ(std::make_tuple(State().resultCode, State().badArgument, State().usageError),
              std::make_tuple(code, arg, code == kInvalidSwitch));
  }
};

TEST_F(GrammarTest, SingleArgumentsSetTheirFields) {
  struct Case {
    const char* arg;
    Field field;
    int64_t value;
  };
  const Case cases[] = {
      // Prefixes, case and bare words; abbreviations take the first keyword
      // in table order.
      {"/LIST", Command, kCmdList}, {"-list", Command, kCmdList}, {"LiSt", Command, kCmdList},
      {"/s", Command, kCmdSort}, {"/st", Command, kCmdStatus}, {"/d", Command, kCmdDelete},
      {"/di", Command, kCmdDiskCount}, {"/c", Command, kCmdCompare}, {"/cop", Command, kCmdCopy},
      {"/f", Command, kCmdFlashMbr}, {"/fo", Command, kCmdFormat}, {"/i", Command, kCmdIsSorted},
      {"/in", Command, kCmdInactive}, {"/inf", Command, kCmdInfo}, {"/isf", Command, kCmdIsFixed},
      {"/si", [] { return int64_t{Options().silent}; }, 1}, {"/si", Command, kCmdNone},
      {"/ig", [] { return int64_t{Options().ignoreErrors}; }, 1}, {"/FILE", Command, kCmdNone},
      // Disk values; the empty value names an (empty) virtual disk file.
      {"/disk=*", Disk, kAllDisks}, {"/disk=2", Disk, 2}, {"-DISK=12abc", Disk, 12},
      {"/disk=C:\\vm\\a.vmdk", Disk, kVirtualDiskNumber}, {"/disk=", Disk, kVirtualDiskNumber},
      // Partition, volume, option and sector values.
      {"/part=3", Part, 3}, {"/part=*", Part, kAllPartitions}, {"/part=SYSTEM", Part, kPartSystem},
      {"/part=Dell", Part, kPartUtility}, {"/vol=Z:", Part, kPartDriveLetter}, {"/vol=1:", Part, kPartVolumeLabel},
      {"/vol=c:x", Part, kPartVolumeLabel}, {"/option=TRACK0", Area, kAreaTrack0},
      {"/sector=63", Sector, 63}, {"/sector=Disk", Sector, kSectorDisk},
      // Type bytes: hexadecimal unless a 'd' follows the digits.
      {"/type=7d", Type, 7}, {"/type=28d", Type, 28}, {"/type=fd", Type, 0}, {"/type=FD", Type, 253},
      {"/type=0x1c", Type, 28}, {"/type:17", Type, 0x17}, {"/type=7", Command, kCmdType},
      // Area words of save, restore and wipe; the bare create is enough.
      {"/save=MBR", Command, kCmdSave}, {"/SAVE:Mbr", Area, kAreaMbr}, {"/save=range", Area, kAreaRange},
      {"/restore=2048", Command, kCmdRestore}, {"/restore=2048", Area, kAreaRange}, {"/wipe=Track0", Area, kAreaTrack0},
      {"/create", Command, kCmdCreate}, {"/status=5", Command, kCmdStatusWrite},
      {"/repair=XP", Repair, 1}, {"/repair=PartitionTable", Repair, 3}, {"/repair=2", Repair, 2},
      {"/repair=vista", Repair, 0}, {"/repair=vista", Command, kCmdRepair},
  };
  for (const Case& c : cases) {
    ParseOnly(c.arg);
    EXPECT_EQ(c.field(), c.value) << c.arg;
    ExpectAccepted(c.arg);
  }

  ParseOnly("/disk=C:\\vm\\a.vmdk");
  EXPECT_EQ(Options().diskFileName, "C:\\vm\\a.vmdk");
  ParseOnly("/filename=C:\\a b.bin");
  EXPECT_EQ(Options().valueText2, "C:\\a b.bin");
}

TEST_F(GrammarTest, RefusedArgumentsAndTheFirstCode) {
  // Abbreviations longer than the keyword, values on flags, bare
  // abbreviations or bare value keywords with a value, and empty values.
  for (const char* arg : {"/lis=1", "/lists", "l", "disk=1", "/disk:1", "/", "-", "", "/?*", "save=mbr", "x",
                          "/part=123", "/part=", "/part=bootx", "part=", "/vol=", "/option=vbr", "/sector=x1",
                          "/sector=-1", "/save", "/save=", "/savex", "/msg=", "/shutdown", "/create=", "/createX",
                          "create", "/repair="}) {
    ParseOnly(arg);
    ExpectRefused(arg, kInvalidSwitch);
    EXPECT_EQ(Options().command, kCmdNone) << arg;
  }
  ParseOnly("/type=xyz");  // no hexadecimal digit: no type byte
  EXPECT_EQ(Options().typeValue, -2);
  ExpectRefused("/type=xyz", kInvalidParameter);
  // The first code stays, and with it the argument its message names.
  ResetRun();
  Parse({"/wipe=vbr", "/status=x", "/bogus"});
  EXPECT_EQ(State().badArgument, "/wipe=vbr");
  EXPECT_EQ(State().resultCode, kInvalidParameter);
}

TEST_F(GrammarTest, ArgumentsReadTogether) {
  Parse({"/freespaceXYZ", "/EXTENDED", "/sort", "/list"});  // trailing text on flags; last command wins
  EXPECT_TRUE(Options().showFreeSpace);
  EXPECT_TRUE(Options().showLogical);
  EXPECT_EQ(Options().command, kCmdList);
  ExpectAccepted("flags");

  ResetRun();
  Parse({"/source=12", "/target=-3", "/msg=3", "/shutdown=2", "/status=254", "/range=10-20", "/size=100",
         "/signature=Read", "/volumeid=Read"});
  EXPECT_EQ(Options().rangeFirst, 12);
  EXPECT_EQ(Options().rangeLast, -3);
  EXPECT_EQ(Options().messageNumber, 3);
  EXPECT_EQ(Options().shutdownMode, 2);
  EXPECT_EQ(Options().valueText, "Read");
  EXPECT_EQ(Options().valueText2, "100");
  EXPECT_EQ(Options().valueText3, "2");
  EXPECT_EQ(Options().command, kCmdVolumeId);
  ExpectAccepted("values");

  // Creation reads "/type" itself, wherever /create stands on the line.
  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"/type=7", "/create=1"}, std::vector<std::string>{"/create=1", "/type=xyz"},
        std::vector<std::string>{"/type=7", "-CREATE"}}) {
    ResetRun();
    Parse(line);
    EXPECT_EQ(Options().command, kCmdCreate) << line[0];
    EXPECT_EQ(Options().typeValue, -2) << line[0];
    EXPECT_EQ(State().resultCode, kSuccess) << line[0];
  }
}

TEST_F(GrammarTest, NumberReadings) {
  const std::pair<const char*, int32_t> decimals[] = {
      {" \t12", 12}, {"-5x", -5}, {"+7", 7}, {"abc", 0}, {"", 0}, {"- 5", 0}, {"2147483647", INT32_MAX},
      {"2147483648", INT32_MAX}, {"-2147483648", INT32_MIN}};
  for (const auto& [text, value] : decimals) EXPECT_EQ(ReadDecimal(text), value) << text;
  EXPECT_EQ(ReadDecimal64("9223372036854775806"), INT64_MAX - 1);
  EXPECT_EQ(ReadDecimal64("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(ReadDecimal64("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(ReadDecimal64("-99999999999999999999"), INT64_MIN);

  int32_t value = 99;
  EXPECT_FALSE(ReadHexadecimal("", &value));
  EXPECT_FALSE(ReadHexadecimal("g1", &value));
  EXPECT_EQ(value, 99);
  const std::pair<const char*, int32_t> hex[] = {
      {"0x", 0} /* the '0' is a digit */, {" 0XfF", 255}, {"7fffffff", INT32_MAX}, {"100000000", INT32_MAX}};
  for (const auto& [text, expected] : hex) {
    EXPECT_TRUE(ReadHexadecimal(text, &value)) << text;
    EXPECT_EQ(value, expected) << text;
  }
}

TEST_F(GrammarTest, HugeArgumentsAreCutOrSaturatedNeverOverflowed) {
  const std::string digits(5000, '9');
  const std::string zeros(5000, '0');
  const std::pair<std::string, std::pair<Field, int64_t>> cases[] = {
      {"/disk=" + digits, {Disk, INT32_MAX}}, {"/source=" + digits, {Repair, INT64_MAX}},
      {"/msg=-" + digits, {[] { return int64_t{Options().messageNumber}; }, INT32_MIN}},
      {"/type=" + std::string(5000, 'f'), {Type, INT32_MAX}}, {"/type=" + zeros + "1c", {Type, 0x1C}},
      {"/sector=" + zeros + "5", {Sector, 5}}};
  for (const auto& [arg, check] : cases) {
    ParseOnly(arg);
    EXPECT_EQ(check.first(), check.second) << arg.substr(0, 12);
  }
  ParseOnly("/source=" + digits);
  EXPECT_EQ(Options().valueText.size(), kValueTextSize - 1);
  ParseOnly("/disk=" + std::string(5000, 'x'));
  EXPECT_EQ(Options().diskFileName.size(), kValueTextSize - 1);

  const std::string name = "/" + std::string(4999, 'n');
  const std::string longValue = "/Filename=" + std::string(4990, 'v');
  ParseOnly(name);
  ExpectRefused(name, kInvalidSwitch);
  ParseOnly(longValue);
  EXPECT_EQ(Options().valueText2.size(), kValueTextSize - 1);
}

TEST_F(GrammarTest, OptionFileLinesLongerThanATokenAreReadInPieces) {
  const auto dir = std::filesystem::temp_directory_path() / ("diskhold_opt_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(dir);
  // 1500 characters without a blank: the first 1023 form one token, the rest another.
  std::ofstream(dir / "diskhold.opt", std::ios::binary) << "/Filename=" + std::string(1490, 'a') + "\n/list\n";
  EXPECT_TRUE(ReadOptionFile((dir / "diskhold.exe").string()));
  std::filesystem::remove_all(dir);
  ASSERT_EQ(Arguments().entries.size(), 3u);
  EXPECT_EQ(Arguments().entries[0].text.size(), kArgumentTextWidth);
  EXPECT_EQ(Options().valueText2, std::string(1023 - 10, 'a'));
  EXPECT_EQ(State().badArgument, std::string(1500 - 1023, 'a'));
  EXPECT_EQ(Options().command, kCmdList);
}

// Every keyword of the command line is in the README's command reference and
// in the manual page, as "/keyword" in any letter case.
TEST(Documentation, NamesEveryKeyword) {
  const std::filesystem::path root(DISKHOLD_SOURCE_DIR);
  // A build run elsewhere (the Windows tests under Wine) may not see the tree.
  if (!std::filesystem::is_regular_file(root / "README.md")) GTEST_SKIP() << "no source tree at " << root;
  const auto lower = [](std::string text) { for (char& c : text) c = LowerAscii(c); return text; };
  std::string readme, manual;
  std::getline(std::ifstream(root / "README.md"), readme, '\0');
  std::getline(std::ifstream(root / "docs/diskhold.1"), manual, '\0');
  const size_t from = readme.find("## Command reference");  // up to the next section
  const std::string reference = lower(readme.substr(from, readme.find("\n## ", from) - from));
  manual = lower(manual);
  for (const std::string& keyword : AllKeywords()) {
    EXPECT_NE(reference.find(lower("/" + keyword)), std::string::npos) << keyword << " is not in README.md";
    EXPECT_NE(manual.find(lower("/" + keyword)), std::string::npos) << keyword << " is not in docs/diskhold.1";
  }
}

}  // namespace
}  // namespace dh
