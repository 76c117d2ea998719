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

using Bytes = std::vector<uint8_t>;
using e2e::Entry;

std::string GoldenPath(const std::string& name) {
  const std::string here = __FILE__;
  const size_t slash = here.rfind('/');
  return (slash == std::string::npos ? std::string(".") : here.substr(0, slash)) + "/golden/" + name;
}

void ExpectGolden(const std::string& name, const std::string& actual) {
  const std::string expected = e2e::ReadFileText(GoldenPath(name));
  ASSERT_FALSE(expected.empty()) << "missing golden file " << GoldenPath(name);
  EXPECT_EQ(expected, actual) << "output differs from " << name;
}

// The whole value from the "/result" line, which is the last line.
int ResultOf(const e2e::Result& r) {
  const size_t at = r.out.rfind("Result:");
  if (at == std::string::npos) return -99999;
  return std::atoi(r.out.c_str() + at + 7);
}

// A sector 0 with boot code that is not all zeros, so that a write which
// rebuilt it from anything but the stored image would show.
Bytes Sector0(const std::vector<Bytes>& entries) {
  Bytes s = e2e::Mbr(entries, 0xA1B2C3D4);
  for (size_t i = 2; i < 440; ++i) s[i] = static_cast<uint8_t>(i * 13 + 5);
  s[444] = 0x5A;
  s[445] = 0xA5;
  return s;
}

Bytes Slot(const e2e::Image& image, int slot) {
  Bytes s = image.Read(0);
  return Bytes(s.begin() + 446 + 16 * slot, s.begin() + 462 + 16 * slot);
}

// The four entries of sector 0.
Bytes Table(const e2e::Image& image) {
  Bytes s = image.Read(0);
  return Bytes(s.begin() + 446, s.begin() + 510);
}

// Everything of an image except the four entries of sector 0.
Bytes OutsideTable(const e2e::Image& image) {
  Bytes all = image.Read(0, image.sectors());
  std::fill(all.begin() + 446, all.begin() + 510, 0);
  return all;
}

class EditTest : public ::testing::Test {
 protected:
  e2e::Image& AddDisk(int number, const std::vector<Bytes>& entries, uint64_t sectors = 8192,
                      const std::map<std::string, std::string>& keys = {}) {
    e2e::Image& image = machine_.AddDrive(number, sectors, keys);
    image.Write(0, Sector0(entries));
    return image;
  }

  e2e::Result Run(std::vector<std::string> args, const std::string& input = "") {
    args.push_back("/result");
    return machine_.Run(args, input);
  }

  e2e::Machine machine_;
};

TEST_F(EditTest, HideTurnsVisibleTypesHiddenAndRefusesOthers) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000), Entry(0, 0x0F, 2048, 1000), Entry(0, 0x17, 4096, 100),
                                 Entry(0, 0x05, 5000, 100)});
  const Bytes outside = OutsideTable(disk);

  e2e::Result r = Run({"/hide", "/part=2", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition(s) successfully hidden \n")) << r.out;
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(0x1F, Slot(disk, 1)[4]);

  const Bytes table = disk.Read(0);
  for (const char* part : {"/part=3", "/part=4"}) {
    r = Run({"/hide", part, "/confirm"});
    EXPECT_NE(std::string::npos, r.out.find(" Error 558: Unable to hide this partition type\n\n")) << r.out;
    EXPECT_EQ(558, ResultOf(r));
    EXPECT_EQ(table, disk.Read(0)) << part;
  }
  EXPECT_EQ(outside, OutsideTable(disk));
}

TEST_F(EditTest, HideAllPartitionsHidesWhatItCanAndReports558) {
  e2e::Image& disk =
      AddDisk(0, {Entry(0x80, 0x07, 63, 1000), Entry(0, 0x05, 2048, 1000), Entry(0, 0x0B, 4096, 100)});
  const Bytes outside = OutsideTable(disk);
  e2e::Result r = Run({"/hide", "/part=*", "/confirm"});
  EXPECT_EQ(558, ResultOf(r));
  EXPECT_EQ(0x17, Slot(disk, 0)[4]);
  EXPECT_EQ(0x05, Slot(disk, 1)[4]);
  EXPECT_EQ(0x1B, Slot(disk, 2)[4]);
  EXPECT_EQ(0x80, Slot(disk, 0)[0]);
  EXPECT_EQ(outside, OutsideTable(disk));

  // Unhiding every partition brings the types back; 05 is left alone.
  r = Run({"/unhide", "/part=*", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_NE(std::string::npos, r.out.find(" Partition(s) successfully unhidden \n"));
  EXPECT_EQ(0x07, Slot(disk, 0)[4]);
  EXPECT_EQ(0x05, Slot(disk, 1)[4]);
  EXPECT_EQ(0x0B, Slot(disk, 2)[4]);
}

TEST_F(EditTest, HideWithAllDisksTouchesDiskZeroOnly) {
  e2e::Image& first = AddDisk(0, {Entry(0, 0x07, 63, 1000)});
  e2e::Image& second = AddDisk(1, {Entry(0, 0x07, 63, 1000)});
  const Bytes secondBefore = second.Read(0, second.sectors());
  e2e::Result r = Run({"/hide", "/disk=*", "/part=*", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(0x17, Slot(first, 0)[4]);
  EXPECT_EQ(secondBefore, second.Read(0, second.sectors()));
}

TEST_F(EditTest, ActiveUnhidesAndClearsEveryOtherBootIndicator) {
  e2e::Image& disk =
      AddDisk(0, {Entry(0x81, 0x07, 63, 1000), Entry(0x00, 0x17, 2048, 1000), Entry(0x80, 0x0C, 4096, 100)});
  const Bytes outside = OutsideTable(disk);
  e2e::Result r = Run({"/active", "/part=2", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition successfully set as bootable \n")) << r.out;
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(0x00, Slot(disk, 0)[0]);
  EXPECT_EQ(0x80, Slot(disk, 1)[0]);
  EXPECT_EQ(0x07, Slot(disk, 1)[4]);
  EXPECT_EQ(0x00, Slot(disk, 2)[0]);
  EXPECT_EQ(outside, OutsideTable(disk));

  r = Run({"/inactive", "/part=2", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition successfully set inactive \n"));
  EXPECT_EQ(0x00, Slot(disk, 1)[0]);

  // part=* is not a choice for active.
  r = Run({"/active", "/part=*", "/confirm"});
  EXPECT_EQ(106, ResultOf(r));
}

TEST_F(EditTest, InactiveOnEveryPartition) {
  e2e::Image& disk = AddDisk(0, {Entry(0x80, 0x07, 4096, 100), Entry(0x80, 0x0B, 63, 1000)});
  e2e::Result r = Run({"/inactive", "/part=*", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(0x00, Slot(disk, 0)[0]);
  EXPECT_EQ(0x00, Slot(disk, 1)[0]);
  // In place: the unsorted entries kept their slots.
  EXPECT_EQ(Entry(0, 0x07, 4096, 100), Slot(disk, 0));
}

TEST_F(EditTest, TypeZeroKeepsTheEntrysOtherFields) {
  e2e::Image& disk = AddDisk(0, {Entry(0x80, 0x07, 63, 1000), Entry(0, 0x0C, 2048, 1000)});
  e2e::Result r = Run({"/type=0", "/part=1", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition type successfully changed \n")) << r.out;
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(Entry(0x80, 0x00, 63, 1000), Slot(disk, 0));
  // Decimal with a trailing d; the slot that was empty stays empty.
  r = Run({"/type=28d", "/part=1", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(0x1C, Slot(disk, 1)[4]);
  EXPECT_EQ(Bytes(16, 0), Slot(disk, 2));
}

TEST_F(EditTest, DeleteKeepsTheOtherSlotsAndRenumbers) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000), Bytes(16, 0), Entry(0, 0x0C, 4096, 100)});
  const Bytes outside = OutsideTable(disk);
  e2e::Result r = Run({"/del", "/part=1", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition successfully deleted \n")) << r.out;
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(Bytes(16, 0), Slot(disk, 0));
  EXPECT_EQ(Entry(0, 0x0C, 4096, 100), Slot(disk, 2));
  EXPECT_EQ(outside, OutsideTable(disk));

  // What was partition 2 is now partition 1; there is no partition 2.
  r = Run({"/del", "/part=2", "/confirm"});
  EXPECT_EQ(106, ResultOf(r));
  EXPECT_NE(std::string::npos, r.out.find(" Error 106: Invalid Partition specified.\n"));
  r = Run({"/del", "/part=1", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(Bytes(64, 0), Table(disk));
}

TEST_F(EditTest, DeletingTheExtendedEntryLeavesItsEbrs) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000), Entry(0, 0x05, 2048, 4000)});
  Bytes ebr(512, 0);
  Bytes logical = Entry(0, 0x07, 63, 1000);
  std::copy(logical.begin(), logical.end(), ebr.begin() + 446);
  ebr[510] = 0x55;
  ebr[511] = 0xAA;
  disk.Write(2048, ebr);
  const Bytes outside = OutsideTable(disk);

  // The logical partition (number 3) cannot be deleted by number.
  e2e::Result r = Run({"/del", "/part=3", "/confirm"});
  EXPECT_EQ(106, ResultOf(r));
  r = Run({"/del", "/part=2", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(Bytes(16, 0), Slot(disk, 1));
  EXPECT_EQ(outside, OutsideTable(disk));
  EXPECT_EQ(ebr, disk.Read(2048));
}

TEST_F(EditTest, DeleteAllOnOneOrEveryDisk) {
  e2e::Image& first = AddDisk(0, {Entry(0x80, 0x07, 63, 1000), Entry(0, 0x0C, 2048, 1000)});
  e2e::Image& second = AddDisk(1, {Entry(0, 0x0B, 63, 1000)});
  const Bytes firstOutside = OutsideTable(first);
  const Bytes secondOutside = OutsideTable(second);

  e2e::Result r = Run({"/del", "/disk=*", "/part=1", "/confirm"});
  EXPECT_EQ(113, ResultOf(r));
  EXPECT_NE(std::string::npos, r.out.find(" Error 113: All disks can only be used with all partitions\n"));

  r = Run({"/del", "/disk=1", "/part=*", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" All Partitions successfully deleted \n")) << r.out;
  EXPECT_EQ(Bytes(16, 0), Slot(second, 0));
  EXPECT_EQ(0x07, Slot(first, 0)[4]);

  r = Run({"/del", "/disk=*", "/part=*", "/confirm"});
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_NE(std::string::npos, r.out.find(" All Partitions successfully deleted \n"));
  EXPECT_EQ(Bytes(64, 0), Table(first));
  EXPECT_EQ(firstOutside, OutsideTable(first));
  EXPECT_EQ(secondOutside, OutsideTable(second));
}

TEST_F(EditTest, SortOrdersTheEntriesAndIsSortedAnswersInTheExitValue) {
  e2e::Image& disk =
      AddDisk(0, {Entry(0, 0x07, 2048, 1000), Entry(0x80, 0x0B, 63, 1000), Entry(0, 0x0C, 4096, 100)});
  const Bytes outside = OutsideTable(disk);

  e2e::Result r = Run({"/issorted"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition entries are not sorted \n")) << r.out;
  EXPECT_EQ(1, ResultOf(r));
  EXPECT_EQ(1, r.status);

  r = Run({"/sort", "/confirm"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition entries successfully sorted \n")) << r.out;
  EXPECT_EQ(0, ResultOf(r));
  EXPECT_EQ(Entry(0x80, 0x0B, 63, 1000), Slot(disk, 0));
  EXPECT_EQ(Entry(0, 0x07, 2048, 1000), Slot(disk, 1));
  EXPECT_EQ(Entry(0, 0x0C, 4096, 100), Slot(disk, 2));
  EXPECT_EQ(Bytes(16, 0), Slot(disk, 3));
  EXPECT_EQ(outside, OutsideTable(disk));

  r = Run({"/issorted"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition entries are sorted \n"));
  EXPECT_EQ(0, r.status);
}

TEST_F(EditTest, ASortedTableKeepsItsGap) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000), Bytes(16, 0), Entry(0, 0x0C, 4096, 100)});
  const std::string before = disk.Hash();
  e2e::Result r = machine_.Run({"/sort", "/confirm", "/silent", "/result"});
  ExpectGolden("edit_sort_already_sorted.txt", r.out);
  EXPECT_EQ(125, r.status);
  EXPECT_EQ(before, disk.Hash());
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
  EXPECT_EQ(Bytes(16, 0), Slot(disk, 1));
}

TEST_F(EditTest, AReadOnlyDriveIsNeverWritten) {
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1000)}, 8192, {{"readonly", "yes"}});
  const std::string before = disk.Hash();
  for (const char* command : {"/hide", "/active", "/del", "/sort", "/create=1"}) {
    e2e::Result r = Run({command, "/part=1", "/confirm"});
    EXPECT_EQ(571, ResultOf(r)) << command;
    EXPECT_NE(std::string::npos, r.out.find(" Error 571: Unable to access the specifed disk\n\n")) << r.out;
    // With ignore the drive is still not opened for writing: nothing can
    // be read or changed, and nothing is.
    r = Run({command, "/part=1", "/confirm", "/ignore"});
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
  for (const char* command : {"/hide", "/del", "/type=7", "/create=1"}) {
    e2e::Result r = Run({command, "/part=1", "/confirm"});
    EXPECT_EQ(130, ResultOf(r)) << command << r.out;
    EXPECT_EQ(vbr, disk.Read(0)) << command;
  }
}

// Creation.

TEST_F(EditTest, CreateOnAnEmptyDisk) {
  e2e::Image& empty = AddDisk(0, {});
  e2e::Result r = Run({"/create=1"});
  EXPECT_NE(std::string::npos, r.out.find(" Partition created successfully \n")) << r.out;
  EXPECT_EQ(0, ResultOf(r));
  Bytes entry = Slot(empty, 0);
  EXPECT_EQ(0x07, entry[4]);
  EXPECT_EQ(Bytes({0x40, 0, 0, 0, 0xC0, 0x1F, 0, 0}), Bytes(entry.begin() + 8, entry.end()));  // 64, 8128
  // CHS with 255 heads and 63 sectors per track: 64 is head 1, sector 2;
  // 8192 is head 130, sector 3.
  EXPECT_EQ(Bytes({0x00, 0x01, 0x02, 0x00, 0x07, 0x82, 0x03, 0x00}), Bytes(entry.begin(), entry.begin() + 8));
}

TEST_F(EditTest, CreateOptions) {
  struct Case {
    std::vector<std::string> args;
    uint32_t start;
    uint32_t count;
    uint8_t type;
  };
  const Case cases[] = {
      {{}, 2049, 6143, 0x07},
      {{"/align=1k"}, 2050, 6142, 0x07},
      {{"/align=1024"}, 4096, 4096, 0x07},
      {{"/align=1"}, 2050, 6142, 0x07},
      {{"/size=1024", "/type=12"}, 2049, 2048, 0x0C},
      {{"/start=3000", "/size=max"}, 3000, 5192, 0x07},
      {{"/start=freespace", "/size=2"}, 2049, 4, 0x07},
  };
  for (const Case& c : cases) {
    e2e::Machine machine;
    e2e::Image& disk = machine.AddDrive(0, 8192);
    disk.Write(0, Sector0({Entry(0, 0x07, 63, 1985)}));
    const Bytes outside = OutsideTable(disk);
    std::vector<std::string> args = {"/create=1", "/result"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    e2e::Result r = machine.Run(args);
    EXPECT_EQ(0, ResultOf(r)) << c.args.size() << r.out;
    Bytes entry = Slot(disk, 1);
    EXPECT_EQ(c.start, entry[8] | entry[9] << 8 | entry[10] << 16 | static_cast<uint32_t>(entry[11]) << 24);
    EXPECT_EQ(c.count, entry[12] | entry[13] << 8 | entry[14] << 16 | static_cast<uint32_t>(entry[15]) << 24);
    EXPECT_EQ(c.type, entry[4]);
    EXPECT_EQ(Entry(0, 0x07, 63, 1985), Slot(disk, 0));
    EXPECT_EQ(outside, OutsideTable(disk));
  }
}

TEST_F(EditTest, CreateRefusals) {
  // Each run's message goes into one transcript, compared with a golden
  // file; nothing is written by any of them.
  e2e::Image& disk = AddDisk(0, {Entry(0, 0x07, 63, 1985)});
  const std::string before = disk.Hash();
  std::string transcript;
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"/align=3"},
           {"/align=x"},
           {"/start=63"},
           {"/start=2048"},
           {"/start=later"},
           {"/start=2049", "/size=4000"},
           {"/start=2049", "/size=none"},
           {"/start=9000"},
       }) {
    std::vector<std::string> all = {"/create=1", "/silent", "/result"};
    all.insert(all.end(), args.begin(), args.end());
    transcript += machine_.Run(all).out;
  }
  ExpectGolden("edit_create_refusals.txt", transcript);
  EXPECT_EQ(before, disk.Hash());
}

TEST_F(EditTest, CreateNeedsAFreeSlotSpaceAndOrder) {
  {
    e2e::Machine machine;
    e2e::Image& disk = machine.AddDrive(0, 8192);
    disk.Write(0, Sector0({Entry(0, 0x07, 63, 100), Entry(0, 0x07, 200, 100), Entry(0, 0x07, 400, 100),
                           Entry(0, 0x07, 600, 100)}));
    e2e::Result r = machine.Run({"/create=1", "/result"});
    EXPECT_EQ(143, ResultOf(r));
    EXPECT_NE(std::string::npos, r.out.find(" Error 143: Partition table is full, unable to create new partitions \n"));
  }
  {
    e2e::Machine machine;
    e2e::Image& disk = machine.AddDrive(0, 8192);
    disk.Write(0, Sector0({Entry(0, 0x07, 63, 7629)}));  // 500 sectors left
    const std::string before = disk.Hash();
    e2e::Result r = machine.Run({"/create=1", "/result"});
    EXPECT_EQ(142, ResultOf(r));
    EXPECT_NE(std::string::npos, r.out.find(" Error 142: Unable to locate available freepace for new partition \n"));
    EXPECT_EQ(before, disk.Hash());
  }
  {
    e2e::Machine machine;
    e2e::Image& disk = machine.AddDrive(0, 8192);
    disk.Write(0, Sector0({Entry(0, 0x07, 2048, 100), Entry(0, 0x07, 63, 100)}));
    e2e::Result r = machine.Run({"/create=1", "/result"});
    EXPECT_EQ(126, ResultOf(r));
    EXPECT_NE(std::string::npos,
              r.out.find(" Error 126: Partition table must be sorted before performing this operation \n"));
  }
  {
    // Slots 0 and 2 used: the new entry goes into slot 1.
    e2e::Machine machine;
    e2e::Image& disk = machine.AddDrive(0, 8192);
    disk.Write(0, Sector0({Entry(0, 0x07, 63, 1000), Bytes(16, 0), Entry(0, 0x07, 4096, 1000)}));
    e2e::Result r = machine.Run({"/create=1", "/result"});
    EXPECT_EQ(0, ResultOf(r));
    Bytes entry = Slot(disk, 1);
    EXPECT_EQ(Bytes({0x28, 0x04, 0, 0, 0xD7, 0x0B, 0, 0}), Bytes(entry.begin() + 8, entry.end()));  // 1064, 3031
    EXPECT_EQ(Entry(0, 0x07, 4096, 1000), Slot(disk, 2));
  }
}

// Tables written by sfdisk, edited, and read back by sfdisk.

class EditSfdiskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!e2e::HaveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  }

  // Drive 0 partitioned by sfdisk from a script.
  e2e::Image& Partition(const std::string& script, uint64_t sectors = 8192) {
    e2e::Image& disk = machine_.AddDrive(0, sectors);
    const std::string scriptPath = machine_.PathOf("table.sfdisk");
    e2e::WriteFileText(scriptPath, script);
    int status = 0;
    e2e::Shell("sfdisk -q '" + disk.path() + "' < '" + scriptPath + "' 2>&1", &status);
    EXPECT_EQ(0, status) << "sfdisk could not write the table";
    return disk;
  }

  // The partition lines of `sfdisk --dump`, without the device name.
  std::string Dump(const e2e::Image& disk) {
    int status = 0;
    std::istringstream in(e2e::Shell("sfdisk --dump '" + disk.path() + "' 2>/dev/null", &status));
    std::string line, out;
    while (std::getline(in, line)) {
      const size_t at = line.find(" : start=");
      if (at == std::string::npos) continue;
      const size_t number = line.find_last_not_of("0123456789", at - 1);
      out += line.substr(number + 1) + "\n";
    }
    return out;
  }

  e2e::Result Run(std::vector<std::string> args) {
    args.push_back("/confirm");
    args.push_back("/result");
    return machine_.Run(args);
  }

  e2e::Machine machine_;
};

TEST_F(EditSfdiskTest, Create) {
  e2e::Image& disk = Partition("label: dos\nstart=63, size=1985, type=7\n");
  EXPECT_EQ(0, ResultOf(Run({"/create=1", "/align=1024", "/type=131"})));
  EXPECT_EQ(
      "1 : start=          63, size=        1985, type=7\n"
      "2 : start=        4096, size=        4096, type=83\n",
      Dump(disk));
}

TEST_F(EditSfdiskTest, Sort) {
  e2e::Image& disk = Partition(
      "label: dos\nstart=4096, size=1000, type=7\nstart=2048, size=1000, type=c\n"
      "start=63, size=1000, type=b, bootable\n");
  EXPECT_EQ(0, ResultOf(Run({"/sort"})));
  EXPECT_EQ(
      "1 : start=          63, size=        1000, type=b, bootable\n"
      "2 : start=        2048, size=        1000, type=c\n"
      "3 : start=        4096, size=        1000, type=7\n",
      Dump(disk));
}

TEST_F(EditSfdiskTest, DeleteAndType) {
  e2e::Image& disk = Partition(
      "label: dos\nstart=63, size=1000, type=7\nstart=2048, size=4000, type=5\n"
      "start=2111, size=1000, type=83\nstart=6048, size=1000, type=c\n");
  const Bytes ebr = disk.Read(2048);
  EXPECT_EQ(0, ResultOf(Run({"/type=17", "/part=3"})));
  EXPECT_EQ(0, ResultOf(Run({"/del", "/part=2"})));
  EXPECT_EQ(
      "1 : start=          63, size=        1000, type=7\n"
      "3 : start=        6048, size=        1000, type=17\n",
      Dump(disk));
  EXPECT_EQ(ebr, disk.Read(2048));
}

TEST_F(EditSfdiskTest, GptDisksAreRefusedByTheMbrCommands) {
  e2e::Image& disk = Partition(
      "label: gpt\nstart=2048, size=1024, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n");
  const std::string before = disk.Hash();
  for (const char* command : {"/hide", "/unhide", "/active", "/inactive", "/type=7", "/sort", "/issorted",
                              "/create=1"}) {
    e2e::Result r = Run({command});
    EXPECT_NE(std::string::npos, r.out.find(" Error 131: Unable to perform GPT operations on Non-GPT Disks\n"))
        << command << r.out;
    // issorted answers "not sorted" in its exit value whatever failed.
    EXPECT_EQ(std::string(command) == "/issorted" ? 1 : 131, ResultOf(r)) << command;
  }
  EXPECT_EQ(before, disk.Hash());
}

TEST_F(EditSfdiskTest, DeleteOnAGptDisk) {
  e2e::Image& disk = Partition(
      "label: gpt\nstart=2048, size=1024, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n"
      "start=4096, size=1024, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n");
  const Bytes protective = disk.Read(0);
  EXPECT_EQ(131, ResultOf(Run({"/type=7", "/part=1"})));
  EXPECT_EQ(0, ResultOf(Run({"/del", "/part=1"})));
  const std::string dump = Dump(disk);
  EXPECT_EQ(std::string::npos, dump.find("start=        2048")) << dump;
  EXPECT_NE(std::string::npos, dump.find("start=        4096")) << dump;
  EXPECT_EQ(protective, disk.Read(0));
}

// Random tables, random edits: whatever happens, only the 64 table bytes of
// sector 0 may change.

// Mostly numbers that exist on the random tables, sometimes ones that do not.
std::string RandomPart(std::mt19937& rng) {
  static const char* const kParts[] = {"1", "1", "1", "2", "2", "3", "4", "*", "*", "0", "5"};
  return std::string("/part=") + kParts[rng() % (sizeof kParts / sizeof kParts[0])];
}

std::vector<std::string> RandomCommand(std::mt19937& rng) {
  auto pick = [&rng](std::initializer_list<const char*> options) {
    std::vector<const char*> v(options);
    return std::string(v[rng() % v.size()]);
  };
  std::vector<std::string> args;
  switch (rng() % 9) {
    case 0: args = {"/hide", RandomPart(rng)}; break;
    case 1: args = {"/unhide", RandomPart(rng)}; break;
    case 2: args = {"/active", RandomPart(rng)}; break;
    case 3: args = {"/inactive", RandomPart(rng)}; break;
    case 4: {
      char type[16];
      std::snprintf(type, sizeof type, "/type=%X", static_cast<unsigned>(rng() % 256));
      args = {type, RandomPart(rng)};
      break;
    }
    case 5: args = {"/del", RandomPart(rng)}; break;
    case 6: args = {pick({"/sort", "/issorted"})}; break;
    default: {
      args = {"/create=1"};
      if (rng() % 2) args.push_back("/start=" + pick({"freespace", "0", "63", "64", "100", "1000", "2047", "junk", "99999"}));
      if (rng() % 2) args.push_back("/size=" + pick({"max", "1", "10", "100", "512", "1000", "0", "x"}));
      if (rng() % 2) args.push_back("/align=" + pick({"1", "2", "3", "4k", "64", "1024", "0"}));
      if (rng() % 3 == 0) args.push_back("/type=" + pick({"7", "12", "131", "0", "300"}));
      break;
    }
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
  for (int iteration = 0; iteration < 200; ++iteration) {
    Bytes s0(512);
    for (auto& b : s0) b = static_cast<uint8_t>(rng());
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
        Bytes ebr(512);
        for (auto& b : ebr) b = static_cast<uint8_t>(rng());
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
      Bytes data(512);
      for (auto& b : data) b = static_cast<uint8_t>(rng());
      disk.Write(1 + rng() % (kSectors - 1), data);
    }

    const Bytes before = OutsideTable(disk);
    std::vector<std::string> args = RandomCommand(rng);
    std::string shown;
    for (const std::string& a : args) shown += a + " ";
    args.push_back("/confirm");
    e2e::Result r = machine.Run(args);
    ASSERT_NE(-1, r.status) << "iteration " << iteration << ": " << shown << "did not end by itself";
    ASSERT_EQ(std::string::npos, r.out.find("Exception")) << shown;
    ASSERT_TRUE(before == OutsideTable(disk)) << "iteration " << iteration << ": " << shown
                                              << "changed bytes outside the partition entries";
  }
}

}  // namespace
