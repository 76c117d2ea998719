// The command-line grammar: keyword matching and order, value rules, number
// readings, the ArgumentList and the option file.
#include "app/grammar.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/frame.h"
#include "app/run_state.h"

namespace dh {
namespace {

class GrammarTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRun();
    Arguments().Clear();
  }
  void TearDown() override {
    ResetRun();
    Arguments().Clear();
  }

  // As the program does with its command line: list first, then parse.
  void Parse(const std::vector<std::string>& args) {
    for (const std::string& a : args) Arguments().Add(a);
    for (const std::string& a : args) ParseArgument(a);
  }

  // Parses one argument on a fresh run.
  void ParseOnly(const std::string& arg) {
    ResetRun();
    Arguments().Clear();
    Parse({arg});
  }

  void ExpectInvalidSwitch(const std::string& arg) {
    ParseOnly(arg);
    EXPECT_TRUE(State().usageError) << arg;
    EXPECT_EQ(State().resultCode, kInvalidSwitch) << arg;
    EXPECT_EQ(State().badArgument, arg) << arg;
  }
};

TEST_F(GrammarTest, PrefixesCaseAndBareWords) {
  for (const char* arg : {"/LIST", "-list", "/l", "list", "LiSt", "/Li"}) {
    ParseOnly(arg);
    EXPECT_EQ(Options().command, kCmdList) << arg;
    EXPECT_FALSE(State().usageError) << arg;
    EXPECT_EQ(State().resultCode, kSuccess) << arg;
  }
  // Abbreviations longer than the keyword, values on flags, and bare
  // abbreviations or bare value keywords with a value are all refused.
  for (const char* arg : {"/lis=1", "/lists", "l", "disk=1", "/disk:1", "/", "-", "", "/?*", "save=mbr", "x"}) {
    ExpectInvalidSwitch(arg);
  }
}

TEST_F(GrammarTest, AbbreviationsTakeTheFirstKeywordInTableOrder) {
  struct Case {
    const char* arg;
    int32_t command;
  };
  const Case commands[] = {
      {"/s", kCmdSort},        {"/st", kCmdStatus},   {"/d", kCmdDelete},    {"/de", kCmdDelete},
      {"/di", kCmdDiskCount},  {"/c", kCmdCompare},   {"/co", kCmdCompare},  {"/cop", kCmdCopy},
      {"/f", kCmdFlashMbr},    {"/fl", kCmdFlashMbr}, {"/fo", kCmdFormat},   {"/i", kCmdIsSorted},
      {"/is", kCmdIsSorted},   {"/in", kCmdInactive}, {"/inf", kCmdInfo},    {"/t", kCmdTabList},
      {"/h", kCmdHide},        {"/u", kCmdUnhide},    {"/a", kCmdActive},    {"/b", kCmdBootMenu},
      {"/w", kCmdWriteIni},    {"/isf", kCmdIsFixed}, {"/p", kCmdPartCount}, {"/status", kCmdStatus},
      {"/disk", kCmdDiskCount}};
  for (const Case& c : commands) {
    ParseOnly(c.arg);
    EXPECT_EQ(Options().command, c.command) << c.arg;
    EXPECT_EQ(State().resultCode, kSuccess) << c.arg;
  }

  // Keywords without a command of their own.
  ParseOnly("/si");
  EXPECT_TRUE(Options().silent);
  EXPECT_EQ(Options().command, kCmdNone);
  ParseOnly("/con");
  EXPECT_TRUE(Options().confirmed);
  ParseOnly("/r");
  EXPECT_TRUE(Options().showResult);
  ParseOnly("/ig");
  EXPECT_TRUE(Options().ignoreErrors);
  ParseOnly("/n");
  EXPECT_TRUE(Options().noHeader);
  ParseOnly("/as");
  EXPECT_TRUE(Options().asciiMap);
  ParseOnly("/?");
  EXPECT_TRUE(Options().helpRequested);
  for (const char* accepted : {"/fi", "/FILE", "/deb", "/debug"}) {
    ParseOnly(accepted);
    EXPECT_EQ(State().resultCode, kSuccess) << accepted;
    EXPECT_EQ(Options().command, kCmdNone) << accepted;
  }

  Frame() = FrameChars();
  SelectFrameChars(1);
  ParseOnly("/te");
  EXPECT_EQ(Frame().hLine, 0x2Du);
  EXPECT_EQ(Frame().topLeft, 0x20u);
}

TEST_F(GrammarTest, FixedKeywordsIgnoreTrailingTextOnFlags) {
  Parse({"/freespaceXYZ", "/EXTENDED"});
  EXPECT_TRUE(Options().showFreeSpace);
  EXPECT_TRUE(Options().showLogical);
  EXPECT_EQ(State().resultCode, kSuccess);
  ParseOnly("logical");
  EXPECT_TRUE(Options().showLogical);
}

TEST_F(GrammarTest, LastCommandWinsWithoutConflict) {
  Parse({"/sort", "/list"});
  EXPECT_EQ(Options().command, kCmdList);
  EXPECT_EQ(State().resultCode, kSuccess);
}

TEST_F(GrammarTest, DiskValues) {
  ParseOnly("/disk=*");
  EXPECT_EQ(Options().diskNumber, kAllDisks);
  ParseOnly("/disk=2");
  EXPECT_EQ(Options().diskNumber, 2);
  ParseOnly("-DISK=12abc");
  EXPECT_EQ(Options().diskNumber, 12);
  ParseOnly("/disk=C:\\vm\\a.vmdk");
  EXPECT_EQ(Options().diskNumber, kVirtualDiskNumber);
  EXPECT_EQ(Options().diskFileName, "C:\\vm\\a.vmdk");
  // The empty value names an (empty) virtual disk file; opening it fails later.
  ParseOnly("/disk=");
  EXPECT_EQ(Options().diskNumber, kVirtualDiskNumber);
  EXPECT_EQ(Options().diskFileName, "");
  EXPECT_EQ(State().resultCode, kSuccess);
}

TEST_F(GrammarTest, PartValues) {
  ParseOnly("/part=3");
  EXPECT_EQ(Options().partNumber, 3);
  EXPECT_EQ(Options().partArgument, "/part=3");
  ParseOnly("/part=0");
  EXPECT_EQ(Options().partNumber, 0);
  ParseOnly("/part=*");
  EXPECT_EQ(Options().partNumber, kAllPartitions);
  ParseOnly("/part=Boot");
  EXPECT_EQ(Options().partNumber, kPartBoot);
  ParseOnly("/part=SYSTEM");
  EXPECT_EQ(Options().partNumber, kPartSystem);
  for (const char* utility : {"/part=diag", "/part=Dell", "/part=utility"}) {
    ParseOnly(utility);
    EXPECT_EQ(Options().partNumber, kPartUtility) << utility;
  }
  for (const char* bad : {"/part=123", "/part=", "/part=bootx", "part="}) ExpectInvalidSwitch(bad);
}

TEST_F(GrammarTest, VolOptionSectorValues) {
  ParseOnly("/vol=c:");
  EXPECT_EQ(Options().partNumber, kPartDriveLetter);
  ParseOnly("/vol=Z:");
  EXPECT_EQ(Options().partNumber, kPartDriveLetter);
  for (const char* label : {"/vol=DATA", "/vol=1:", "/vol=c:x", "/vol=c"}) {
    ParseOnly(label);
    EXPECT_EQ(Options().partNumber, kPartVolumeLabel) << label;
  }
  ExpectInvalidSwitch("/vol=");

  ParseOnly("/option=TRACK0");
  EXPECT_EQ(Options().areaKind, kAreaTrack0);
  ParseOnly("/option=gpt");
  EXPECT_EQ(Options().areaKind, kAreaGpt);
  ExpectInvalidSwitch("/option=vbr");

  ParseOnly("/sector=63");
  EXPECT_EQ(Options().sectorNumber, 63);
  ParseOnly("/sector=Disk");
  EXPECT_EQ(Options().sectorNumber, kSectorDisk);
  ExpectInvalidSwitch("/sector=x1");
  ExpectInvalidSwitch("/sector=-1");

  ParseOnly("/filename=C:\\a b.bin");
  EXPECT_EQ(Options().valueText2, "C:\\a b.bin");
}

TEST_F(GrammarTest, TypeValues) {
  struct Case {
    const char* arg;
    int32_t type;
  };
  const Case cases[] = {{"/type=7", 7},     {"/type=7d", 7},   {"/type=1C", 28},   {"/type=28d", 28},
                        {"/type=fd", 0},    {"/type=FD", 253}, {"/type=0x1c", 28}, {"/type=ee", 0xEE},
                        {"/type:17", 0x17}, {"/type=7D", 0x7D}};
  for (const Case& c : cases) {
    ParseOnly(c.arg);
    EXPECT_EQ(Options().command, kCmdType) << c.arg;
    EXPECT_EQ(Options().typeValue, c.type) << c.arg;
    EXPECT_EQ(State().resultCode, kSuccess) << c.arg;
  }
  // No hexadecimal digit: no type byte, refused as an invalid parameter.
  ParseOnly("/type=xyz");
  EXPECT_EQ(Options().typeValue, -2);
  EXPECT_EQ(State().resultCode, kInvalidParameter);
  EXPECT_EQ(State().badArgument, "/type=xyz");
  EXPECT_FALSE(State().usageError);

  // Creation reads "/type" itself, wherever /create stands on the line.
  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"/type=7", "/create=1"}, std::vector<std::string>{"/create=1", "/type=xyz"},
        std::vector<std::string>{"/type=7", "-CREATE"}}) {
    ResetRun();
    Arguments().Clear();
    Parse(line);
    EXPECT_EQ(Options().command, kCmdCreate) << line[0];
    EXPECT_EQ(Options().typeValue, -2) << line[0];
    EXPECT_EQ(State().resultCode, kSuccess) << line[0];
  }
}

TEST_F(GrammarTest, AreaWordsOfSaveRestoreWipe) {
  for (const char* arg : {"/save=MBR", "/save:mbr", "/SAVE=Mbr"}) {
    ParseOnly(arg);
    EXPECT_EQ(Options().command, kCmdSave) << arg;
    EXPECT_EQ(Options().areaKind, kAreaMbr) << arg;
    EXPECT_EQ(Options().valueText, std::string(arg).substr(6)) << arg;
  }
  ParseOnly("/save=range");
  EXPECT_EQ(Options().areaKind, kAreaRange);
  ParseOnly("/restore=vbr");
  EXPECT_EQ(Options().areaKind, kAreaVbr);
  ParseOnly("/restore=2048");
  EXPECT_EQ(Options().command, kCmdRestore);
  EXPECT_EQ(Options().areaKind, kAreaRange);

  // An unknown area word of save= and restore= replaces a pending code.
  for (const char* arg : {"/save=boot", "/restore=range"}) {
    ResetRun();
    State().resultCode = kNotElevated;
    Parse({arg});
    EXPECT_EQ(State().resultCode, kInvalidSwitch) << arg;
    EXPECT_TRUE(State().usageError) << arg;
    EXPECT_EQ(State().badArgument, arg);
  }

  ParseOnly("/wipe=Track0");
  EXPECT_EQ(Options().command, kCmdWipe);
  EXPECT_EQ(Options().areaKind, kAreaTrack0);
  ParseOnly("/wipe=foo");
  EXPECT_EQ(Options().command, kCmdWipe);
  EXPECT_EQ(State().resultCode, kInvalidParameter);
  EXPECT_EQ(State().badArgument, "/wipe=foo");
  EXPECT_FALSE(State().usageError);
  // The first code stays, and with it the argument its message names.
  ResetRun();
  Parse({"/wipe=vbr", "/status=x", "/bogus"});
  EXPECT_EQ(State().badArgument, "/wipe=vbr");
  EXPECT_EQ(State().resultCode, kInvalidParameter);
}

TEST_F(GrammarTest, EmptyValuesAreInvalidSwitches) {
  for (const char* arg :
       {"/save", "/save=", "/savex", "save=", "/msg=", "/shutdown", "/create=", "/createX", "create", "/repair="}) {
    ExpectInvalidSwitch(arg);
    EXPECT_EQ(Options().command, kCmdNone) << arg;
  }
  // The value of create= is never used, so the bare name is enough.
  ParseOnly("/create");
  EXPECT_EQ(Options().command, kCmdCreate);
  EXPECT_EQ(State().resultCode, kSuccess);
  // A pending code stays when the value is missing.
  ResetRun();
  State().resultCode = kNotElevated;
  Parse({"/save="});
  EXPECT_EQ(State().resultCode, kNotElevated);
}

TEST_F(GrammarTest, ValueKeywordsFillTheirFields) {
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
  EXPECT_EQ(State().resultCode, kSuccess);

  ParseOnly("/status=5");
  EXPECT_EQ(Options().command, kCmdStatusWrite);
  EXPECT_EQ(Options().valueText, "5");
  ParseOnly("/signature:Read");
  EXPECT_EQ(Options().command, kCmdSignature);
  ParseOnly("/show=File");
  EXPECT_EQ(Options().command, kCmdShow);
  EXPECT_EQ(Options().valueText, "File");
}

TEST_F(GrammarTest, RepairKinds) {
  struct Case {
    const char* arg;
    int64_t kind;
  };
  for (const Case& c : {Case{"/repair=XP", 1}, Case{"/repair=win7", 2}, Case{"/repair=PT", 3},
                        Case{"/repair=PartitionTable", 3}, Case{"/repair=2", 2}, Case{"/repair=vista", 0}}) {
    ParseOnly(c.arg);
    EXPECT_EQ(Options().command, kCmdRepair) << c.arg;
    EXPECT_EQ(Options().rangeFirst, c.kind) << c.arg;
  }
  ResetRun();
  EXPECT_EQ(ParseRepairKind(), -1);
}

TEST_F(GrammarTest, NumberReadings) {
  EXPECT_EQ(ReadDecimal(" \t12"), 12);
  EXPECT_EQ(ReadDecimal("-5x"), -5);
  EXPECT_EQ(ReadDecimal("+7"), 7);
  EXPECT_EQ(ReadDecimal("abc"), 0);
  EXPECT_EQ(ReadDecimal(""), 0);
  EXPECT_EQ(ReadDecimal("- 5"), 0);
  EXPECT_EQ(ReadDecimal("2147483647"), INT32_MAX);
  EXPECT_EQ(ReadDecimal("2147483648"), INT32_MAX);
  EXPECT_EQ(ReadDecimal("-2147483648"), INT32_MIN);
  EXPECT_EQ(ReadDecimal64("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(ReadDecimal64("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(ReadDecimal64("-99999999999999999999"), INT64_MIN);

  int32_t value = 99;
  EXPECT_FALSE(ReadHexadecimal("", &value));
  EXPECT_FALSE(ReadHexadecimal("g1", &value));
  EXPECT_EQ(value, 99);
  EXPECT_TRUE(ReadHexadecimal("0x", &value));  // the '0' is a digit
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(ReadHexadecimal(" 0XfF", &value));
  EXPECT_EQ(value, 255);
  EXPECT_TRUE(ReadHexadecimal("7fffffff", &value));
  EXPECT_EQ(value, INT32_MAX);
  EXPECT_TRUE(ReadHexadecimal("100000000", &value));
  EXPECT_EQ(value, INT32_MAX);
}

TEST_F(GrammarTest, HugeArgumentsAreCutOrSaturatedNeverOverflowed) {
  const std::string digits(5000, '9');
  ParseOnly("/disk=" + digits);
  EXPECT_EQ(Options().diskNumber, INT32_MAX);
  ParseOnly("/source=" + digits);
  EXPECT_EQ(Options().rangeFirst, INT64_MAX);
  EXPECT_EQ(Options().valueText.size(), kValueTextSize - 1);
  ParseOnly("/msg=-" + digits);
  EXPECT_EQ(Options().messageNumber, INT32_MIN);
  ParseOnly("/type=" + std::string(5000, 'f'));
  EXPECT_EQ(Options().typeValue, INT32_MAX);
  ParseOnly("/type=" + std::string(5000, '0') + "1c");
  EXPECT_EQ(Options().typeValue, 0x1C);
  ParseOnly("/sector=" + std::string(5000, '0') + "5");
  EXPECT_EQ(Options().sectorNumber, 5);
  ParseOnly("/disk=" + std::string(5000, 'x'));
  EXPECT_EQ(Options().diskFileName.size(), kValueTextSize - 1);

  const std::string name = "/" + std::string(4999, 'n');
  const std::string longValue = "/Filename=" + std::string(4990, 'v');
  ExpectInvalidSwitch(name);
  ParseOnly(longValue);
  EXPECT_EQ(Options().valueText2.size(), kValueTextSize - 1);

  Arguments().Clear();
  Arguments().Add(longValue);
  Arguments().Add(name + "=x");
  Arguments().Add(name);
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
    dir_ = std::filesystem::temp_directory_path() /
           ("diskhold_opt_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    std::filesystem::remove_all(dir_);
    GrammarTest::TearDown();
  }
  void Write(const std::string& text) {
    std::ofstream out(dir_ / "diskhold.opt", std::ios::binary);
    out << text;
  }
  std::string Program() const { return (dir_ / "diskhold.exe").string(); }

  std::filesystem::path dir_;
};

TEST_F(OptionFileTest, TokensActLikeArguments) {
  Write("/list /disk=1\r\n\t/silent  \n\n");
  Arguments().Add("/stale");
  EXPECT_TRUE(ReadOptionFile(Program()));
  ASSERT_EQ(Arguments().entries.size(), 3u);
  EXPECT_EQ(Arguments().entries[2].text, "/silent");
  EXPECT_EQ(Options().command, kCmdList);
  EXPECT_EQ(Options().diskNumber, 1);
  EXPECT_TRUE(Options().silent);
  EXPECT_EQ(State().resultCode, kSuccess);
}

TEST_F(OptionFileTest, MissingOrEmptyFileReadsNoToken) {
  EXPECT_FALSE(ReadOptionFile(Program()));
  Write(" \t\r\n\n");
  EXPECT_FALSE(ReadOptionFile(Program()));
  EXPECT_TRUE(Arguments().entries.empty());
  // A folder of that name is no option file.
  std::filesystem::remove(dir_ / "diskhold.opt");
  std::filesystem::create_directory(dir_ / "sub");
  std::filesystem::create_directory(dir_ / "sub" / "diskhold.opt");
  EXPECT_FALSE(ReadOptionFile((dir_ / "sub" / "x").string()));
}

TEST_F(OptionFileTest, InvalidTokenIsAUsageError) {
  Write("/list /bogus\n");
  EXPECT_TRUE(ReadOptionFile(Program()));
  EXPECT_TRUE(State().usageError);
  EXPECT_EQ(State().badArgument, "/bogus");
}

TEST_F(OptionFileTest, LongLinesAreReadInPieces) {
  // 1500 characters without a blank: the first 1023 form one token, the rest
  // another.
  std::string token = "/Filename=" + std::string(1490, 'a');
  Write(token + "\n/list\n");
  EXPECT_TRUE(ReadOptionFile(Program()));
  ASSERT_EQ(Arguments().entries.size(), 3u);
  EXPECT_EQ(Arguments().entries[0].text.size(), kArgumentTextWidth);
  EXPECT_EQ(Options().valueText2, std::string(1023 - 10, 'a'));
  EXPECT_EQ(State().badArgument, std::string(1500 - 1023, 'a'));
  EXPECT_EQ(Options().command, kCmdList);
}

TEST_F(OptionFileTest, TypeBeforeCreateInTheFileIsTheTypeCommand) {
  // Tokens join the list one by one, so /create later in the file is not
  // yet known when /type= is parsed.
  Write("/type=7 /create=1 /type=9\n");
  EXPECT_TRUE(ReadOptionFile(Program()));
  EXPECT_EQ(Options().command, kCmdCreate);
  EXPECT_EQ(Options().typeValue, 7);
}

}  // namespace
}  // namespace dh
