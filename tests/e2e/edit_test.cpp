// End-to-end tests of the partition editing commands (hide, unhide,
// active, inactive, type=, del, sort, issorted, create=) on simulated
// machines: the messages, the result value, and the bytes of the images
// afterwards.  Images made by sfdisk are read back with `sfdisk --dump`, and
// a randomised run checks that nothing but the four entries of sector 0 is
// ever written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "harness.h"

namespace {

using e2e::Args;
using e2e::Bytes;
using e2e::Entry;
using e2e::ExpectGolden;
using e2e::Has;
using e2e::ResultOf;

// A sector 0 with boot code that is not all zeros, so that a write which
// rebuilt it from anything but the stored image would show.
Bytes Sector0(const std::vector<Bytes>& entries) {
  Bytes s = e2e::Mbr(entries, 0xA1B2C3D4);
  for (size_t i = 2; i < 440; ++i) s[i] = static_cast<uint8_t>(i * 13 + 5);
  s[444] = 0x5A;
  s[445] = 0xA5;
  return s;
}

// `count` entries of sector 0 from `slot` on.
Bytes Slot(const e2e::Image& image, int slot, int count = 1) {
  Bytes s = image.Read(0);
  return Bytes(s.begin() + 446 + 16 * slot, s.begin() + 446 + 16 * (slot + count));
}

// Everything of an image except the four entries of sector 0.
Bytes OutsideTable(const e2e::Image& image) {
  Bytes all = image.Read(0, image.sectors());
  std::fill(all.begin() + 446, all.begin() + 510, 0);
  return all;
}

const Bytes kNoEntry(16, 0);

// Entries one after another, as they stand in sector 0.
Bytes Entries(const std::vector<Bytes>& entries) {
  Bytes all;
  for (const Bytes& e : entries) all.insert(all.end(), e.begin(), e.end());
  return all;
}

class EditTest : public ::testing::Test {
 protected:
  e2e::Image& AddDisk(int number, const std::vector<Bytes>& entries,
                      const std::map<std::string, std::string>& keys = {}) {
    e2e::Image& image = machine_.AddDrive(number, 8192, keys);
    image.Write(0, Sector0(entries));
    return image;
  }

  // Runs with /confirm and /result; expects the result value and, when
  // given, a piece of the output.
  e2e::Result Expect(int code, Args args, const std::string& text = "") {
    args.push_back("/confirm");
    return e2e::Expect(machine_, code, args, text);
  }

  e2e::Machine machine_;
};

// Commands run in turn on prepared disks; afterwards each disk's four
// entries are as expected and nothing else of any image has changed.
TEST(EditSteps, EntriesAfterEachRun) {
  struct Step {
    Args args;
    int code;
    std::string message;
  };
  struct Disk {
    std::vector<Bytes> table = {}, after = {};
    std::vector<std::pair<uint32_t, Bytes>> sectors = {};  // EBRs and the like
    bool signature = true;
  };
  struct Case {
    const char* what;
    std::vector<Disk> disks;
    std::vector<Step> steps;
  };
  const std::string kHidden = " Partition(s) successfully hidden \n";
  const std::string k558 = " Error 558: Unable to hide this partition type\n\n";
  const std::string k106 = " Error 106: Invalid Partition specified.\n";
  const Bytes ebr = e2e::Ebr(Entry(0, 0x07, 63, 1000));
  const Case cases[] = {
      {"hide; already hidden and extended types are refused",
       {{{Entry(0, 0x07, 63, 1000), Entry(0, 0x0F, 2048, 1000), Entry(0, 0x17, 4096, 100), Entry(0, 0x05, 5000, 100)},
         {Entry(0, 0x07, 63, 1000), Entry(0, 0x1F, 2048, 1000), Entry(0, 0x17, 4096, 100), Entry(0, 0x05, 5000, 100)}}},
       {{{"/hide", "/part=2"}, 0, kHidden}, {{"/hide", "/part=3"}, 558, k558}, {{"/hide", "/part=4"}, 558, k558}}},
      {"hide every partition: what it can, keeping the boot flag",
       {{{Entry(0x80, 0x07, 63, 1000), Entry(0, 0x05, 2048, 1000), Entry(0, 0x0B, 4096, 100)},
         {Entry(0x80, 0x17, 63, 1000), Entry(0, 0x05, 2048, 1000), Entry(0, 0x1B, 4096, 100)}}},
       {{{"/hide", "/part=*"}, 558, ""}}},
      {"unhide every partition",
       {{{Entry(0x80, 0x17, 63, 1000), Entry(0, 0x05, 2048, 1000), Entry(0, 0x1B, 4096, 100)},
         {Entry(0x80, 0x07, 63, 1000), Entry(0, 0x05, 2048, 1000), Entry(0, 0x0B, 4096, 100)}}},
       {{{"/unhide", "/part=*"}, 0, " Partition(s) successfully unhidden \n"}}},
      {"every partition of an unsorted table, in place",
       {{{Entry(0x80, 0x07, 4096, 100), Entry(0x80, 0x07, 63, 100), Entry(0x80, 0x0C, 2048, 100)},
         {Entry(0, 0x17, 4096, 100), Entry(0, 0x17, 63, 100), Entry(0, 0x1C, 2048, 100)}}},
       {{{"/hide", "/part=*"}, 0, kHidden}, {{"/inactive", "/part=*"}, 0, ""}}},
      {"hide on all disks touches disk 0 only",
       {{{Entry(0, 0x07, 63, 1000)}, {Entry(0, 0x17, 63, 1000)}}, {{Entry(0, 0x07, 63, 1000)}, {Entry(0, 0x07, 63, 1000)}}},
       {{{"/hide", "/disk=*", "/part=*"}, 0, kHidden}}},
      {"active unhides and clears every other boot indicator",
       {{{Entry(0x81, 0x07, 63, 1000), Entry(0x00, 0x17, 2048, 1000), Entry(0x80, 0x0C, 4096, 100)},
         {Entry(0, 0x07, 63, 1000), Entry(0x80, 0x07, 2048, 1000), Entry(0, 0x0C, 4096, 100)}}},
       {{{"/active", "/part=2"}, 0, " Partition successfully set as bootable \n"}}},
      {"inactive",
       {{{Entry(0, 0x07, 63, 1000), Entry(0x80, 0x07, 2048, 1000)}, {Entry(0, 0x07, 63, 1000), Entry(0, 0x07, 2048, 1000)}}},
       {{{"/inactive", "/part=2"}, 0, " Partition successfully set inactive \n"}, {{"/active", "/part=*"}, 106, ""}}},
      {"type keeps the entry's other fields",
       {{{Entry(0x80, 0x07, 63, 1000), Entry(0, 0x0C, 2048, 1000)}, {Entry(0x80, 0x00, 63, 1000), Entry(0, 0x0C, 2048, 1000)}}},
       {{{"/type=0", "/part=1"}, 0, " Partition type successfully changed \n"}}},
      {"type in decimal with a trailing d",
       {{{Entry(0x80, 0x07, 63, 1000), Entry(0, 0x0C, 2048, 1000)}, {Entry(0x80, 0x07, 63, 1000), Entry(0, 0x1C, 2048, 1000)}}},
       {{{"/type=28d", "/part=2"}, 0, ""}}},
      {"delete keeps the other slots and renumbers",
       {{{Entry(0, 0x07, 63, 1000), kNoEntry, Entry(0, 0x0C, 4096, 100)}, {kNoEntry, kNoEntry, Entry(0, 0x0C, 4096, 100)}}},
       {{{"/del", "/part=1"}, 0, " Partition successfully deleted \n"}, {{"/del", "/part=2"}, 106, k106}}},
      {"delete the last partition", {{{kNoEntry, kNoEntry, Entry(0, 0x0C, 4096, 100)}, {}}}, {{{"/del", "/part=1"}, 0, ""}}},
      {"logical partitions are not edited; deleting the extended entry leaves its EBR",
       {{{Entry(0, 0x07, 63, 1000), Entry(0, 0x05, 2048, 4000)}, {Entry(0, 0x07, 63, 1000)}, {{2048, ebr}}}},
       {{{"/hide", "/part=3"}, 512, ""}, {{"/active", "/part=3"}, 512, ""}, {{"/type=0C", "/part=3"}, 512, ""},
        {{"/del", "/part=3"}, 106, ""}, {{"/del", "/part=2"}, 0, ""}}},
      {"delete all on one disk, then on every disk; a disk without a table is left alone",
       {{{Entry(0x80, 0x07, 63, 1000), Entry(0, 0x0C, 2048, 1000)}, {}},
        {{Entry(0, 0x0B, 63, 1000)}, {}},
        {{Entry(0x5A, 0x07, 63, 100)}, {Entry(0x5A, 0x07, 63, 100)}, {}, false}},
       {{{"/del", "/disk=*", "/part=1"}, 113, " Error 113: All disks can only be used with all partitions\n"},
        {{"/del", "/disk=1", "/part=*"}, 0, " All Partitions successfully deleted \n"},
        {{"/del", "/disk=*", "/part=*"}, 0, " All Partitions successfully deleted \n"}}},
      {"sort, and issorted in the exit value",
       {{{Entry(0, 0x07, 2048, 1000), Entry(0x80, 0x0B, 63, 1000), Entry(0, 0x0C, 4096, 100)},
         {Entry(0x80, 0x0B, 63, 1000), Entry(0, 0x07, 2048, 1000), Entry(0, 0x0C, 4096, 100)}}},
       {{{"/issorted"}, 1, " Partition entries are not sorted \n"},
        {{"/sort"}, 0, " Partition entries successfully sorted \n"},
        {{"/issorted"}, 0, " Partition entries are sorted \n"}}},
      {"a sorted table keeps its gap",
       {{{Entry(0, 0x07, 63, 1000), kNoEntry, Entry(0, 0x0C, 4096, 100)}, {Entry(0, 0x07, 63, 1000), kNoEntry, Entry(0, 0x0C, 4096, 100)}}},
       {{{"/sort"}, 125, " Partition entries already sorted. No changes have been made.\n"}}},
      // Creation needs a free slot, free space and a sorted table.
      {"full table",
       {{{Entry(0, 0x07, 63, 100), Entry(0, 0x07, 200, 100), Entry(0, 0x07, 400, 100), Entry(0, 0x07, 600, 100)},
         {Entry(0, 0x07, 63, 100), Entry(0, 0x07, 200, 100), Entry(0, 0x07, 400, 100), Entry(0, 0x07, 600, 100)}}},
       {{{"/create=1"}, 143, " Error 143: Partition table is full, unable to create new partitions \n"}}},
      {"500 sectors left",
       {{{Entry(0, 0x07, 63, 7629)}, {Entry(0, 0x07, 63, 7629)}}},
       {{{"/create=1"}, 142, " Error 142: Unable to locate available freepace for new partition \n"}}},
      {"unsorted",
       {{{Entry(0, 0x07, 2048, 100), Entry(0, 0x07, 63, 100)}, {Entry(0, 0x07, 2048, 100), Entry(0, 0x07, 63, 100)}}},
       {{{"/create=1"}, 126, " Error 126: Partition table must be sorted before performing this operation \n"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    e2e::Machine machine;
    std::vector<Bytes> outside;
    for (size_t n = 0; n < c.disks.size(); ++n) {
      e2e::Image& image = machine.AddDrive(static_cast<int>(n), 8192);
      Bytes s0 = Sector0(c.disks[n].table);
      if (!c.disks[n].signature) s0[510] = 0;
      image.Write(0, s0);
      for (const auto& [lba, bytes] : c.disks[n].sectors) image.Write(lba, bytes);
      outside.push_back(OutsideTable(image));
    }
    for (const Step& step : c.steps) {
      Args args = step.args;
      args.push_back("/confirm");
      e2e::Expect(machine, step.code, args, step.message);
    }
    for (size_t n = 0; n < c.disks.size(); ++n) {
      Bytes after = Entries(c.disks[n].after);
      after.resize(64, 0);
      EXPECT_EQ(after, Slot(machine.drive(static_cast<int>(n)), 0, 4)) << "disk " << n;
      EXPECT_EQ(outside[n], OutsideTable(machine.drive(static_cast<int>(n)))) << "disk " << n;
    }
  }
}

TEST_F(EditTest, TheQuestionAndItsRefusal) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000), Entry(0, 0x0C, 2048, 1000)});
  const std::string before = disk.Hash();
  // 'n', Enter, and the end of input all decline; the key is echoed.
  const std::pair<const char*, const char*> refusals[] = {
      {"n", "edit_del_refused_n.txt"}, {"\n", "edit_del_refused_enter.txt"}, {"", "edit_del_refused_eof.txt"}};
  for (const auto& [input, golden] : refusals) {
    e2e::Result r = machine_.Run({"/del", "/part=2", "/silent", "/result"}, input);
    ExpectGolden(golden, r.out);
    EXPECT_EQ(129, r.status);
    EXPECT_EQ(before, disk.Hash());
  }
  e2e::Result r = machine_.Run({"/del", "/part=2", "/silent", "/result"}, "Y");
  ExpectGolden("edit_del_confirmed.txt", r.out);
  EXPECT_EQ(kNoEntry, Slot(disk, 1));
}

TEST_F(EditTest, AReadOnlyDriveIsNeverWritten) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000)}, {{"readonly", "yes"}});
  const std::string before = disk.Hash();
  for (const char* command : {"/hide", "/active", "/del", "/sort", "/create=1"}) {
    Expect(571, {command, "/part=1"}, " Error 571: Unable to access the specifed disk\n\n");
    // With ignore the drive is still not opened for writing.
    machine_.Run({command, "/part=1", "/confirm", "/ignore"});
    EXPECT_EQ(before, disk.Hash()) << command;
  }
}

TEST_F(EditTest, ASuperfloppyKeepsItsBootRecord) {
  e2e::Image& disk = machine_.AddDrive(0, 8192, {{"media", "removable"}, {"layout", "0C,0,4194304"}});
  Bytes vbr(512);
  for (size_t i = 0; i < vbr.size(); ++i) vbr[i] = static_cast<uint8_t>(i * 7);
  vbr[0] = 0xEB;
  vbr[1] = 0x58;
  vbr[510] = 0x55;
  vbr[511] = 0xAA;
  disk.Write(0, vbr);
  for (const Args& args : std::vector<Args>{{"/hide", "/part=1"}, {"/active", "/part=1"}, {"/inactive", "/part=1"},
                                            {"/del", "/part=1"}, {"/del", "/part=*"}, {"/type=7", "/part=1"},
                                            {"/create=1"}}) {
    Expect(130, args);
    EXPECT_EQ(vbr, disk.Read(0)) << args[0];
  }
}

// Creation: where the entry goes, its fields, and that nothing else changes.
TEST(EditCreateTest, Options) {
  const std::vector<Bytes> one = {Entry(0, 0x07, 63, 1985)};
  struct Case {
    std::vector<Bytes> table;
    Args args;
    int slot;
    Bytes entry;
  };
  const Case cases[] = {
      // CHS with 255 heads and 63 sectors per track: 64 is head 1, sector 2;
      // 8192 is head 130, sector 3.
      {{}, {}, 0, {0x00, 0x01, 0x02, 0x00, 0x07, 0x82, 0x03, 0x00, 0x40, 0, 0, 0, 0xC0, 0x1F, 0, 0}},
      {one, {}, 1, Entry(0, 0x07, 2049, 6143)},
      {one, {"/align=1k"}, 1, Entry(0, 0x07, 2050, 6142)},
      {one, {"/align=1024"}, 1, Entry(0, 0x07, 4096, 4096)},
      {one, {"/align=1"}, 1, Entry(0, 0x07, 2050, 6142)},
      {one, {"/size=1024", "/type=12"}, 1, Entry(0, 0x0C, 2049, 2048)},
      {one, {"/start=3000", "/size=max"}, 1, Entry(0, 0x07, 3000, 5192)},
      {one, {"/start=freespace", "/size=2"}, 1, Entry(0, 0x07, 2049, 4)},
      // Slots 0 and 2 used: the new entry goes into slot 1.
      {{Entry(0, 0x07, 63, 1000), kNoEntry, Entry(0, 0x07, 4096, 1000)}, {}, 1, Entry(0, 0x07, 1064, 3031)},
      // max: the whole free run the listing shows from the start.
      {{Entry(0, 0x07, 63, 1000), kNoEntry, Entry(0, 0x07, 4096, 1000)}, {"/start=1100", "/size=max"}, 1,
       Entry(0, 0x07, 1100, 2996)},
  };
  for (const Case& c : cases) {
    e2e::Machine machine;
    e2e::Image& disk = machine.AddDrive(0, 8192);
    disk.Write(0, Sector0(c.table));
    Bytes expected = Slot(disk, 0, 4);
    std::copy(c.entry.begin(), c.entry.end(), expected.begin() + 16 * c.slot);
    const Bytes outside = OutsideTable(disk);
    Args args = {"/create=1", "/result"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    e2e::Result r = machine.Run(args);
    SCOPED_TRACE(::testing::PrintToString(c.args));
    EXPECT_EQ(0, ResultOf(r)) << r.out;
    EXPECT_TRUE(Has(r, " Partition created successfully \n")) << r.out;
    const Bytes actual = Slot(disk, 0, 4);
    if (!c.table.empty()) {  // CHS fields are checked on the empty disk only
      for (int i : {1, 2, 3, 5, 6, 7}) expected[16 * c.slot + i] = actual[16 * c.slot + i];
    }
    EXPECT_EQ(expected, actual);
    EXPECT_EQ(outside, OutsideTable(disk));
  }
}

TEST_F(EditTest, CreateRefusals) {
  // Each run's message goes into one transcript, compared with a golden
  // file; nothing is written by any of them.
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1985)});
  const std::string before = disk.Hash();
  std::string transcript;
  for (const Args& args : std::vector<Args>{{"/align=3"}, {"/align=x"}, {"/start=63"}, {"/start=2048"},
                                            {"/start=later"}, {"/start=2049", "/size=4000"},
                                            {"/start=2049", "/size=none"}, {"/start=9000"}}) {
    Args all = {"/create=1", "/silent", "/result"};
    all.insert(all.end(), args.begin(), args.end());
    transcript += machine_.Run(all).out;
  }
  ExpectGolden("edit_create_refusals.txt", transcript);
  EXPECT_EQ(before, disk.Hash());
}

// Tables written by sfdisk, edited, and read back by sfdisk.

class EditSfdiskTest : public EditTest {
 protected:
  void SetUp() override {
    if (!e2e::HaveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  }

  // Drive 0 partitioned by sfdisk from a script.
  e2e::Image& Partition(const std::string& script) {
    e2e::Image& disk = machine_.AddDrive(0, 8192);
    const std::string scriptPath = machine_.PathOf("table.sfdisk");
    e2e::WriteFileText(scriptPath, script);
    e2e::ShellOk("sfdisk -q '" + disk.path() + "' < '" + scriptPath + "'");
    return disk;
  }

  // The partition lines of `sfdisk --dump`, without the device name.
  std::string Dump(const e2e::Image& disk) {
    std::istringstream in(e2e::Shell("sfdisk --dump '" + disk.path() + "' 2>/dev/null"));
    std::string line, out;
    while (std::getline(in, line)) {
      const size_t at = line.find(" : start=");
      if (at == std::string::npos) continue;
      out += line.substr(line.find_last_not_of("0123456789", at - 1) + 1) + "\n";
    }
    return out;
  }
};

TEST_F(EditSfdiskTest, CreateSortDeleteAndType) {
  struct Case {
    const char* script;
    std::vector<Args> commands;
    const char* dump;
  };
  const Case cases[] = {
      {"label: dos\nstart=63, size=1985, type=7\n",
       {{"/create=1", "/align=1024", "/type=131"}},
       "1 : start=          63, size=        1985, type=7\n"
       "2 : start=        4096, size=        4096, type=83\n"},
      // The extended entry moves behind the earlier primaries with its chain.
      {"label: dos\nstart=4096, size=3000, type=5\nstart=2048, size=1000, type=c\n"
       "start=63, size=1000, type=b, bootable\nstart=4159, size=1000, type=83\n",
       {{"/sort"}},
       "1 : start=          63, size=        1000, type=b, bootable\n"
       "2 : start=        2048, size=        1000, type=c\n"
       "3 : start=        4096, size=        3000, type=5\n"
       "5 : start=        4159, size=        1000, type=83\n"},
      // Deleting the extended partition leaves its EBR.
      {"label: dos\nstart=63, size=1000, type=7\nstart=2048, size=4000, type=5\n"
       "start=2111, size=1000, type=83\nstart=6048, size=1000, type=c\n",
       {{"/type=17", "/part=3"}, {"/del", "/part=2"}},
       "1 : start=          63, size=        1000, type=7\n"
       "3 : start=        6048, size=        1000, type=17\n"},
      // max takes the free run that /freespace lists (4096 to 6143) from the
      // start on, up to the next partition's first sector.
      {"label: dos\nstart=2048, size=2048, type=7\nstart=6144, size=1024, type=83\n",
       {{"/create=1", "/start=4500", "/size=max"}},
       "1 : start=        2048, size=        2048, type=7\n"
       "2 : start=        6144, size=        1024, type=83\n"
       "3 : start=        4500, size=        1644, type=7\n"},
  };
  for (const Case& c : cases) {
    e2e::Image& disk = Partition(c.script);
    const Bytes outside = OutsideTable(disk);
    for (const Args& command : c.commands) Expect(0, command);
    EXPECT_EQ(c.dump, Dump(disk));
    EXPECT_EQ(outside, OutsideTable(disk));
  }
}

TEST_F(EditSfdiskTest, GptDisksAreRefusedByTheMbrCommandsButDeleteWorks) {
  e2e::Image& disk = Partition(
      "label: gpt\nstart=2048, size=1024, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n"
      "start=4096, size=1024, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n");
  const std::string before = disk.Hash();
  for (const char* command : {"/hide", "/unhide", "/active", "/inactive", "/type=7", "/sort", "/issorted",
                              "/create=1"}) {
    // issorted answers "not sorted" in its exit value whatever failed.
    Expect(std::string(command) == "/issorted" ? 1 : 131, {command, "/part=1"},
           " Error 131: Unable to perform GPT operations on Non-GPT Disks\n");
  }
  EXPECT_EQ(before, disk.Hash());

  const Bytes protective = disk.Read(0);
  Expect(0, {"/del", "/part=1"});
  const std::string dump = Dump(disk);
  EXPECT_EQ(std::string::npos, dump.find("start=        2048")) << dump;
  EXPECT_NE(std::string::npos, dump.find("start=        4096")) << dump;
  EXPECT_EQ(protective, disk.Read(0));
}

// Random tables, random edits: whatever happens, only the 64 table bytes of
// sector 0 may change.

Args RandomCommand(std::mt19937& rng) {
  auto pick = [&rng](const std::vector<std::string>& v) { return v[rng() % v.size()]; };
  // Mostly numbers that exist on the random tables, sometimes ones that do not.
  auto part = [&] { return "/part=" + pick({"1", "1", "1", "2", "2", "3", "4", "*", "*", "0", "5"}); };
  static const char* const kPartCommands[] = {"/hide", "/unhide", "/active", "/inactive"};
  Args args;
  const unsigned kind = rng() % 9;
  if (kind < 4) {
    args = {kPartCommands[kind], part()};
  } else if (kind == 4) {
    char type[16];
    std::snprintf(type, sizeof type, "/type=%X", static_cast<unsigned>(rng() % 256));
    args = {type, part()};
  } else if (kind == 5) {
    args = {"/del", part()};
  } else if (kind == 6) {
    args = {pick({"/sort", "/issorted"})};
  } else {
    args = {"/create=1"};
    if (rng() % 2) args.push_back("/start=" + pick({"freespace", "0", "63", "64", "100", "1000", "2047", "junk", "99999"}));
    if (rng() % 2) args.push_back("/size=" + pick({"max", "1", "10", "100", "512", "1000", "0", "x"}));
    if (rng() % 2) args.push_back("/align=" + pick({"1", "2", "3", "4k", "64", "1024", "0"}));
    if (rng() % 3 == 0) args.push_back("/type=" + pick({"7", "12", "131", "0", "300"}));
  }
  if (rng() % 8 == 0) args.push_back("/ignore");
  return args;
}

TEST(EditRandomTest, OnlyTheTableBytesOfSectorZeroEverChange) {
  constexpr uint64_t kSectors = 2048;
  std::mt19937 rng(0x5EED);
  e2e::Machine machine;
  e2e::Image& disk = machine.AddDrive(0, kSectors);
  const uint8_t types[] = {0x07, 0x0B, 0x0C, 0x17, 0x1C, 0x05, 0x0F, 0x83, 0x06, 0x01, 0x12, 0xDE};
  auto randomSector = [&rng] {
    Bytes s(512);
    for (auto& b : s) b = static_cast<uint8_t>(rng());
    return s;
  };
  for (int iteration = 0; iteration < 200; ++iteration) {
    Bytes s0 = randomSector();
    std::fill(s0.begin() + 446, s0.begin() + 510, 0);
    s0[510] = rng() % 20 ? 0x55 : 0x00;
    s0[511] = 0xAA;
    // Up to four partitions in increasing order, placed in random slots.
    const int count = std::min(4, static_cast<int>(rng() % 6));
    std::vector<int> slots = {0, 1, 2, 3};
    std::shuffle(slots.begin(), slots.end(), rng);
    uint32_t next = 1 + rng() % 100;
    for (int i = 0; i < count && next < kSectors - 10; ++i) {
      const uint32_t size = 1 + rng() % ((kSectors - next) / 4);
      const uint8_t type = types[rng() % sizeof types];
      const uint8_t boot = rng() % 3 == 0 ? 0x80 : (rng() % 5 == 0 ? 0x81 : 0x00);
      Bytes entry = Entry(boot, type, next, size);
      std::copy(entry.begin(), entry.end(), s0.begin() + 446 + 16 * slots[i]);
      if (type == 0x05 || type == 0x0F) {
        // An EBR with one logical partition inside the extended one.
        Bytes ebr = randomSector();
        Bytes logical = Entry(0, 0x07, 1, size > 2 ? size - 1 : 1);
        std::copy(logical.begin(), logical.end(), ebr.begin() + 446);
        std::fill(ebr.begin() + 462, ebr.begin() + 478, 0);
        disk.Write(next, ebr);
      }
      next += size + static_cast<uint32_t>(rng() % 4);
    }
    disk.Write(0, s0);
    // Some data elsewhere, so that a stray write has something to spoil.
    for (int i = 0; i < 3; ++i) {
      const Bytes data = randomSector();
      disk.Write(1 + rng() % (kSectors - 1), data);
    }

    const Bytes before = OutsideTable(disk);
    Args args = RandomCommand(rng);
    const std::string shown = ::testing::PrintToString(args);
    args.push_back("/confirm");
    e2e::Result r = machine.Run(args);
    ASSERT_NE(-1, r.status) << "iteration " << iteration << ": " << shown << " did not end by itself";
    ASSERT_EQ(std::string::npos, r.out.find("Exception")) << shown;
    ASSERT_TRUE(before == OutsideTable(disk)) << "iteration " << iteration << ": " << shown
                                              << " changed bytes outside the partition entries";
  }
}

}  // namespace
