// The command-line grammar: keyword matching and order, value rules, number
// readings, the ArgumentList and the option file.
#include "app/grammar.h"

#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/run_state.h"

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
using Text = const std::string& (*)();
const std::string& ValueText() { return Options().valueText; }
const std::string& ValueText2() { return Options().valueText2; }
const std::string& DiskFile() { return Options().diskFileName; }

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
    EXPECT_EQ(State().resultCode, kSuccess) << arg;
    EXPECT_FALSE(State().usageError) << arg;
  }

  void ExpectInvalidSwitch(const std::string& arg) {
    ParseOnly(arg);
    EXPECT_TRUE(State().usageError) << arg;
    EXPECT_EQ(State().resultCode, kInvalidSwitch) << arg;
    EXPECT_EQ(State().badArgument, arg) << arg;
  }

  void ExpectInvalidParameter(const std::string& arg) {
    EXPECT_EQ(State().resultCode, kInvalidParameter) << arg;
    EXPECT_EQ(State().badArgument, arg) << arg;
    EXPECT_FALSE(State().usageError) << arg;
  }
};

TEST_F(GrammarTest, SingleArgumentsSetTheirFields) {
  struct Case {
    const char* arg;
    Field field;
    int64_t value;
  };
  const Case cases[] = {
      // Prefixes, case and bare words.
      {"/LIST", Command, kCmdList}, {"-list", Command, kCmdList}, {"/l", Command, kCmdList},
      {"list", Command, kCmdList}, {"LiSt", Command, kCmdList}, {"/Li", Command, kCmdList},
      // Abbreviations take the first keyword in table order.
      {"/s", Command, kCmdSort}, {"/st", Command, kCmdStatus}, {"/d", Command, kCmdDelete},
      {"/de", Command, kCmdDelete}, {"/di", Command, kCmdDiskCount}, {"/c", Command, kCmdCompare},
      {"/co", Command, kCmdCompare}, {"/cop", Command, kCmdCopy}, {"/f", Command, kCmdFlashMbr},
      {"/fl", Command, kCmdFlashMbr}, {"/fo", Command, kCmdFormat}, {"/i", Command, kCmdIsSorted},
      {"/is", Command, kCmdIsSorted}, {"/in", Command, kCmdInactive}, {"/inf", Command, kCmdInfo},
      {"/t", Command, kCmdTabList}, {"/h", Command, kCmdHide}, {"/u", Command, kCmdUnhide},
      {"/a", Command, kCmdActive}, {"/b", Command, kCmdBootMenu}, {"/w", Command, kCmdWriteIni},
      {"/isf", Command, kCmdIsFixed}, {"/p", Command, kCmdPartCount}, {"/status", Command, kCmdStatus},
      {"/disk", Command, kCmdDiskCount},
      // Keywords without a command of their own.
      {"/si", [] { return int64_t{Options().silent}; }, 1}, {"/si", Command, kCmdNone},
      {"/con", [] { return int64_t{Options().confirmed}; }, 1},
      {"/r", [] { return int64_t{Options().showResult}; }, 1},
      {"/ig", [] { return int64_t{Options().ignoreErrors}; }, 1},
      {"/n", [] { return int64_t{Options().noHeader}; }, 1},
      {"/as", [] { return int64_t{Options().asciiMap}; }, 1},
      {"/?", [] { return int64_t{Options().helpRequested}; }, 1},
      {"logical", [] { return int64_t{Options().showLogical}; }, 1}, {"/fi", Command, kCmdNone},
      {"/FILE", Command, kCmdNone}, {"/deb", Command, kCmdNone}, {"/debug", Command, kCmdNone},
      // Disk values; the empty value names an (empty) virtual disk file.
      {"/disk=*", Disk, kAllDisks}, {"/disk=2", Disk, 2}, {"-DISK=12abc", Disk, 12},
      {"/disk=C:\\vm\\a.vmdk", Disk, kVirtualDiskNumber}, {"/disk=", Disk, kVirtualDiskNumber},
      // Partition, volume, option and sector values.
      {"/part=3", Part, 3}, {"/part=0", Part, 0}, {"/part=*", Part, kAllPartitions}, {"/part=Boot", Part, kPartBoot},
      {"/part=SYSTEM", Part, kPartSystem}, {"/part=diag", Part, kPartUtility}, {"/part=Dell", Part, kPartUtility},
      {"/part=utility", Part, kPartUtility}, {"/vol=c:", Part, kPartDriveLetter}, {"/vol=Z:", Part, kPartDriveLetter},
      {"/vol=DATA", Part, kPartVolumeLabel}, {"/vol=1:", Part, kPartVolumeLabel}, {"/vol=c:x", Part, kPartVolumeLabel},
      {"/vol=c", Part, kPartVolumeLabel}, {"/option=TRACK0", Area, kAreaTrack0}, {"/option=gpt", Area, kAreaGpt},
      {"/sector=63", Sector, 63}, {"/sector=Disk", Sector, kSectorDisk},
      // Type bytes: hexadecimal unless a 'd' follows the digits.
      {"/type=7", Type, 7}, {"/type=7d", Type, 7}, {"/type=1C", Type, 28}, {"/type=28d", Type, 28},
      {"/type=fd", Type, 0}, {"/type=FD", Type, 253}, {"/type=0x1c", Type, 28}, {"/type=ee", Type, 0xEE},
      {"/type:17", Type, 0x17}, {"/type=7D", Type, 0x7D}, {"/type=7", Command, kCmdType},
      // Area words of save, restore and wipe.
      {"/save=MBR", Command, kCmdSave}, {"/save=MBR", Area, kAreaMbr}, {"/save:mbr", Area, kAreaMbr},
      {"/SAVE=Mbr", Area, kAreaMbr}, {"/save=range", Area, kAreaRange}, {"/restore=vbr", Area, kAreaVbr},
      {"/restore=2048", Command, kCmdRestore}, {"/restore=2048", Area, kAreaRange},
      {"/wipe=Track0", Command, kCmdWipe}, {"/wipe=Track0", Area, kAreaTrack0},
      // The value of create= is never used, so the bare name is enough.
      {"/create", Command, kCmdCreate},
      {"/status=5", Command, kCmdStatusWrite}, {"/signature:Read", Command, kCmdSignature},
      {"/show=File", Command, kCmdShow},
      // Repair kinds.
      {"/repair=XP", Repair, 1}, {"/repair=win7", Repair, 2}, {"/repair=PT", Repair, 3},
      {"/repair=PartitionTable", Repair, 3}, {"/repair=2", Repair, 2}, {"/repair=vista", Repair, 0},
      {"/repair=vista", Command, kCmdRepair},
  };
  for (const Case& c : cases) {
    ParseOnly(c.arg);
    EXPECT_EQ(c.field(), c.value) << c.arg;
    ExpectAccepted(c.arg);
  }

  struct TextCase {
    const char* arg;
    Text field;
    const char* value;
  };
  const TextCase texts[] = {
      {"/disk=C:\\vm\\a.vmdk", DiskFile, "C:\\vm\\a.vmdk"}, {"/disk=", DiskFile, ""},
      {"/filename=C:\\a b.bin", ValueText2, "C:\\a b.bin"}, {"/save=MBR", ValueText, "MBR"},
      {"/save:mbr", ValueText, "mbr"}, {"/status=5", ValueText, "5"}, {"/show=File", ValueText, "File"},
      {"/part=3", []() -> const std::string& { return Options().partArgument; }, "/part=3"},
  };
  for (const TextCase& c : texts) {
    ParseOnly(c.arg);
    EXPECT_EQ(c.field(), c.value) << c.arg;
  }

  ParseOnly("/te");
  EXPECT_TRUE(Options().textFrame);
  ResetRun();
  EXPECT_EQ(ParseRepairKind(), -1);
}

TEST_F(GrammarTest, RefusedArgumentsAreInvalidSwitches) {
  // Abbreviations longer than the keyword, values on flags, bare
  // abbreviations or bare value keywords with a value, and empty values.
  for (const char* arg : {"/lis=1", "/lists", "l", "disk=1", "/disk:1", "/", "-", "", "/?*", "save=mbr", "x",
                          "/part=123", "/part=", "/part=bootx", "part=", "/vol=", "/option=vbr", "/sector=x1",
                          "/sector=-1", "/save", "/save=", "/savex", "/msg=", "/shutdown", "/create=", "/createX",
                          "create", "/repair="}) {
    ExpectInvalidSwitch(arg);
    EXPECT_EQ(Options().command, kCmdNone) << arg;
  }
  // An unknown area word of save= and restore= replaces a pending code...
  for (const char* arg : {"/save=boot", "/restore=range"}) {
    ResetRun();
    State().resultCode = kNotElevated;
    Parse({arg});
    EXPECT_EQ(State().resultCode, kInvalidSwitch) << arg;
    EXPECT_TRUE(State().usageError) << arg;
    EXPECT_EQ(State().badArgument, arg);
  }
  // ...but a pending code stays when the value is missing.
  ResetRun();
  State().resultCode = kNotElevated;
  Parse({"/save="});
  EXPECT_EQ(State().resultCode, kNotElevated);
}

TEST_F(GrammarTest, InvalidParametersAndTheFirstCode) {
  ParseOnly("/type=xyz");  // no hexadecimal digit: no type byte
  EXPECT_EQ(Options().typeValue, -2);
  ExpectInvalidParameter("/type=xyz");
  ParseOnly("/wipe=foo");
  EXPECT_EQ(Options().command, kCmdWipe);
  ExpectInvalidParameter("/wipe=foo");
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
  ExpectInvalidSwitch(name);
  ParseOnly(longValue);
  EXPECT_EQ(Options().valueText2.size(), kValueTextSize - 1);

  ResetRun();
  for (const std::string& a : {longValue, name + "=x", name}) Arguments().Add(a);
  const auto& e = Arguments().entries;
  ASSERT_EQ(e.size(), 3u);
  EXPECT_TRUE(e[0].hasValue);
  EXPECT_EQ(e[0].text.size(), kArgumentTextWidth);
  EXPECT_EQ(e[0].name, "/Filename");
  EXPECT_EQ(e[0].value, std::string(kArgumentValueWidth, 'v'));
  EXPECT_EQ(e[1].name.size(), kArgumentNameWidth);
  EXPECT_EQ(e[1].value, "x");
  EXPECT_FALSE(e[2].hasValue);
  EXPECT_TRUE(e[2].name.empty());
  EXPECT_EQ(e[2].text.size(), kArgumentTextWidth);
  EXPECT_TRUE(FindArgument("/Filename"));
  EXPECT_EQ(CurrentArgumentValue().size(), kArgumentValueWidth);
}

TEST_F(GrammarTest, FindArgumentByName) {
  for (const char* arg : {"/list", "vol=bare", "-VOL=DATA", "/vol=second", "/Create", "/a=b=c", ""}) {
    Arguments().Add(arg);
  }
  EXPECT_TRUE(FindArgument("/Vol"));
  EXPECT_EQ(CurrentArgumentValue(), "DATA");
  EXPECT_EQ(CurrentArgumentText(), "-VOL=DATA");
  EXPECT_TRUE(FindArgument("-create"));
  EXPECT_EQ(CurrentArgumentValue(), "");
  EXPECT_EQ(CurrentArgumentText(), "/Create");
  EXPECT_TRUE(FindArgument("/A"));
  EXPECT_EQ(CurrentArgumentValue(), "b=c");
  // "/Filename" is not "/Filename=x"'s text, and a miss leaves no current entry.
  EXPECT_FALSE(FindArgument("/Filename"));
  EXPECT_EQ(CurrentArgumentValue(), "");
  EXPECT_EQ(CurrentArgumentText(), "");
  EXPECT_FALSE(FindArgument("/lis"));
  EXPECT_FALSE(FindArgument("/"));
}

class OptionFileTest : public GrammarTest {
 protected:
  void SetUp() override {
    GrammarTest::SetUp();
    const auto* unit = ::testing::UnitTest::GetInstance();
    dir_ = std::filesystem::temp_directory_path() / ("diskhold_opt_" + std::to_string(unit->random_seed()) + "_" +
                                                     unit->current_test_info()->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    std::filesystem::remove_all(dir_);
    GrammarTest::TearDown();
  }
  bool ReadWith(const std::string& text) {
    std::ofstream(dir_ / "diskhold.opt", std::ios::binary) << text;
    return ReadOptionFile((dir_ / "diskhold.exe").string());
  }

  std::filesystem::path dir_;
};

TEST_F(OptionFileTest, TokensActLikeArguments) {
  Arguments().Add("/stale");
  EXPECT_TRUE(ReadWith("/list /disk=1\r\n\t/silent  \n\n"));
  ASSERT_EQ(Arguments().entries.size(), 3u);
  EXPECT_EQ(Arguments().entries[2].text, "/silent");
  EXPECT_EQ(Options().command, kCmdList);
  EXPECT_EQ(Options().diskNumber, 1);
  EXPECT_TRUE(Options().silent);
  EXPECT_EQ(State().resultCode, kSuccess);

  ResetRun();
  EXPECT_TRUE(ReadWith("/list /bogus\n"));
  EXPECT_TRUE(State().usageError);
  EXPECT_EQ(State().badArgument, "/bogus");

  // Tokens join the list one by one, so /create later in the file is not
  // yet known when /type= is parsed.
  ResetRun();
  EXPECT_TRUE(ReadWith("/type=7 /create=1 /type=9\n"));
  EXPECT_EQ(Options().command, kCmdCreate);
  EXPECT_EQ(Options().typeValue, 7);
}

TEST_F(OptionFileTest, MissingOrEmptyFileReadsNoToken) {
  EXPECT_FALSE(ReadOptionFile((dir_ / "diskhold.exe").string()));
  EXPECT_FALSE(ReadWith(" \t\r\n\n"));
  EXPECT_TRUE(Arguments().entries.empty());
  // A folder of that name is no option file.
  std::filesystem::create_directories(dir_ / "sub" / "diskhold.opt");
  EXPECT_FALSE(ReadOptionFile((dir_ / "sub" / "x").string()));
}

TEST_F(OptionFileTest, LongLinesAreReadInPieces) {
  // 1500 characters without a blank: the first 1023 form one token, the rest another.
  EXPECT_TRUE(ReadWith("/Filename=" + std::string(1490, 'a') + "\n/list\n"));
  ASSERT_EQ(Arguments().entries.size(), 3u);
  EXPECT_EQ(Arguments().entries[0].text.size(), kArgumentTextWidth);
  EXPECT_EQ(Options().valueText2, std::string(1023 - 10, 'a'));
  EXPECT_EQ(State().badArgument, std::string(1500 - 1023, 'a'));
  EXPECT_EQ(Options().command, kCmdList);
}

}  // namespace
}  // namespace dh
