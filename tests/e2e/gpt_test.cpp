// GPT disks end to end, on images partitioned by sgdisk and sfdisk: the
// listing against what those tools report, deletes that leave a GPT the
// tools find without fault (entries of unknown types kept), byte-exact
// listings, and damaged or hostile copies of the GPT (listed from the sound
// copy, with warnings that agree with sgdisk -v, and never rewritten).
// Tests that need the tools skip without them.
#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::ExpectGolden;
using e2e::Has;
using e2e::ResultOf;
using e2e::Machine;
using e2e::Result;

constexpr uint64_t kDiskSectors = 131072;  // 64 MiB
const char* const kDiskGuid = "11223344-5566-7788-99AA-BBCCDDEEFF00";

// One partition as sgdisk -p reports it.
struct Part {
  uint64_t start = 0;
  uint64_t end = 0;
  std::string code;  // sgdisk's type code
  bool operator==(const Part& o) const { return start == o.start && end == o.end && code == o.code; }
};

// One entry row of a listing printed with the text frame.
struct Row {
  int position = 0;
  std::string type;
  uint64_t start = 0;
  std::string size;
};

std::vector<Part> SgdiskParts(const std::string& image) {
  static const std::regex row(R"(^\s+\d+\s+(\d+)\s+(\d+)\s+\S+ \S+\s+([0-9A-F]{4})\b.*)");
  std::vector<Part> parts;
  std::istringstream lines(e2e::ShellOk("sgdisk -p '" + image + "'"));
  std::smatch m;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, m, row)) parts.push_back({std::stoull(m[1]), std::stoull(m[2]), m[3]});
  }
  return parts;
}

std::vector<Row> ListedRows(const std::string& out) {
  static const std::regex row(R"(^ ([ \d]\d)  (.{19})  (.{5}) ([ \d]{13}) (.{4}) .*)");
  std::vector<Row> rows;
  std::istringstream lines(out);
  std::smatch m;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, m, row)) rows.push_back({std::stoi(m[1]), m[2], std::stoull(m[4]), m[5]});
  }
  return rows;
}

class Gpt : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!e2e::HaveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
    m.AddDrive(0, kDiskSectors);
  }
  std::string Image(int n = 0) { return m.drive(n).path(); }

  // Eight known types and one entry of a type the program does not know
  // (HP-UX data) between them.
  void MakeMixedDisk(int n = 0) {
    e2e::ShellOk("sgdisk -U " + std::string(kDiskGuid) +
       " -n 1:2048:+1M -t 1:EF00 -n 2:0:+1M -t 2:0C01 -n 3:0:+4M -t 3:0700 -n 4:0:+1M -t 4:FD00"
       " -n 5:0:+1M -t 5:8200 -n 6:0:+2M -t 6:8E00 -n 7:0:+1M -t 7:AF00 -n 8:0:+3M -t 8:C001"
       " -n 9:0:+1M -t 9:0700 '" +
       Image(n) + "'");
  }

  void ExpectSgdiskHappy(int n = 0) {
    const std::string report = e2e::ShellOk("sgdisk -v '" + Image(n) + "'");
    EXPECT_NE(report.find("No problems found"), std::string::npos) << report;
  }

  Machine m;
};

TEST_F(Gpt, ListingShowsTheKnownEntriesSgdiskReports) {
  MakeMixedDisk();
  const std::vector<Part> parts = SgdiskParts(Image());
  ASSERT_EQ(parts.size(), 9u);
  const Result r = m.Run({"/list", "/text"});
  EXPECT_EQ(r.status, 0);
  const std::vector<Row> rows = ListedRows(r.out);
  // The types the program knows; C001 (HP-UX data) is not among them.
  std::vector<Part> known;
  for (const Part& p : parts) {
    if (p.code != "C001") known.push_back(p);
  }
  ASSERT_EQ(rows.size(), known.size()) << r.out;
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].position, static_cast<int>(i + 1));
    EXPECT_EQ(rows[i].start, known[i].start) << i;
    // Whole mebibytes below ten, as the Size column shows them.
    EXPECT_EQ(rows[i].size, std::to_string((known[i].end - known[i].start + 1) / 2048) + ".0M") << i;
  }
  EXPECT_EQ(rows[0].type, "EFI System Partitio");
  EXPECT_EQ(rows[1].type, "Microsoft Reserved ");
  EXPECT_EQ(rows[6].type, "Apple HFS Plus     ");
  EXPECT_NE(r.out.find("Partitions:  8 "), std::string::npos);
  EXPECT_NE(r.out.find("GUID:  " + std::string(kDiskGuid)), std::string::npos);

  // The count the partcount query answers is the same.
  EXPECT_EQ(m.Run({"/partcount"}).status, 8);
}

TEST_F(Gpt, ListingOfAnSfdiskDisk) {
  if (!e2e::HaveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  e2e::ShellOk("printf 'label: gpt\\nlabel-id: " + std::string(kDiskGuid) +
     "\\nstart=2048, size=2048, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B\\n"
     "size=4096, type=75894C1E-3AEB-11D3-B7C1-7B03A0000000\\n"
     "size=4096, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\\n' | sfdisk -q '" +
     Image() + "'");
  const Result r = m.Run({"/list", "/text"});
  const std::vector<Row> rows = ListedRows(r.out);
  ASSERT_EQ(rows.size(), 2u) << r.out;  // the HP-UX entry is not listed
  EXPECT_EQ(std::to_string(rows[0].start) + " " + rows[0].size, "2048 1.0M");
  EXPECT_EQ(std::to_string(rows[1].start) + " " + rows[1].size, "8192 2.0M");
  EXPECT_NE(r.out.find("Backup GPT:      Valid "), std::string::npos);
}

TEST_F(Gpt, DeletingOneEntryLeavesAValidGpt) {
  MakeMixedDisk();
  std::vector<Part> expected = SgdiskParts(Image());
  // Position 3 is the Basic Data entry, the third of the array.
  const Result r = m.Run({"/del", "/part=3", "/confirm"});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Partition successfully deleted"), std::string::npos) << r.out;
  ExpectSgdiskHappy();
  expected.erase(expected.begin() + 2);
  EXPECT_EQ(SgdiskParts(Image()), expected);
}

TEST_F(Gpt, DeletingAllEntriesOnEveryDiskKeepsUnknownOnes) {
  m.AddDrive(1, kDiskSectors);
  MakeMixedDisk(0);
  MakeMixedDisk(1);
  const std::vector<uint8_t> protective = m.drive(0).Read(0);
  const Result r = m.Run({"/del", "/disk=*", "/part=*", "/confirm"});
  EXPECT_EQ(r.status, 0) << r.out;
  for (int n : {0, 1}) {
    ExpectSgdiskHappy(n);
    EXPECT_EQ(SgdiskParts(Image(n)), std::vector<Part>{(Part{24576, 30719, "C001"})}) << n;
  }
  EXPECT_EQ(m.drive(0).Read(0), protective);
  const Result list = m.Run({"/list", "/disk=0", "/text"});
  EXPECT_NE(list.out.find("  No partitions found on this disk  "), std::string::npos) << list.out;
  // Nothing left to delete: nothing changes.
  const std::string before = m.Hashes();
  EXPECT_EQ(m.Run({"/del", "/disk=*", "/part=*", "/confirm"}).status, 0);
  EXPECT_EQ(m.Hashes(), before);
}

TEST_F(Gpt, FailedDeleteEndsWith202) {
  // A sector of the backup array that cannot be written: the load reads
  // none of it, the delete's write fails there.
  m.AddDrive(0, kDiskSectors, {{"badsectors", std::to_string(kDiskSectors - 20)}});
  MakeMixedDisk();
  const Result r = m.Run({"/del", "/part=1", "/confirm", "/result"});
  EXPECT_NE(r.out.find(" Result: 202\n"), std::string::npos) << r.out;
}

TEST_F(Gpt, MissingBackupShowsInvalidAndADeleteRebuildsIt) {
  e2e::ShellOk("sgdisk -U " + std::string(kDiskGuid) + " -n 1:2048:+1M -t 1:0700 -n 2:0:+1M -t 2:8300 -n 3:0:+1M -t 3:8200 '" +
     Image() + "'");
  m.drive(0).Write(kDiskSectors - 1, std::vector<uint8_t>(512, 0));
  ExpectGolden("gpt_no_backup_text.txt", m.Run({"/list", "/text"}).out);

  const Result r = m.Run({"/del", "/part=1", "/confirm", "/result"});
  EXPECT_NE(r.out.find(" Result: 0\n"), std::string::npos) << r.out;
  ExpectSgdiskHappy();
  const std::vector<Part> left = SgdiskParts(Image());
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left[0].code + " " + left[1].code, "8300 8200");
}

TEST_F(Gpt, EmptyAndTenAndMoreEntriesListings) {
  e2e::ShellOk("sgdisk -o -U " + std::string(kDiskGuid) + " '" + Image() + "'");
  ExpectGolden("gpt_empty_text.txt", m.Run({"/list", "/text"}).out);

  m.AddDrive(0, kDiskSectors);  // a fresh, empty image
  std::string command = "sgdisk -U " + std::string(kDiskGuid);
  const char* codes[] = {"EF00", "0C01", "0700", "0700", "8300", "FD00", "8200", "8E00", "AF00", "0700", "0700", "0700"};
  for (int i = 0; i < 12; ++i) {
    const std::string n = std::to_string(i + 1);
    command += " -n " + n + ":0:+1M -t " + n + ":" + codes[i];
  }
  e2e::ShellOk(command + " '" + Image() + "'");
  m.Set("codepage", "65001");
  ExpectGolden("gpt_many_utf8.txt", m.Run({"/list"}).out);
}

// The structures `sgdisk -v` reports as damaged, in its words.
std::set<std::string> SgdiskDamaged(const std::string& image) {
  static const std::regex line(R"(^(Main header|Backup header|Main partition table|Backup partition table): ERROR$)");
  std::set<std::string> damaged;
  std::istringstream lines(e2e::Shell("sgdisk -v '" + image + "' 2>&1"));
  std::smatch m;
  for (std::string text; std::getline(lines, text);) {
    if (std::regex_match(text, m, line)) damaged.insert(m[1]);
  }
  return damaged;
}

// The structures the warning lines name, in sgdisk's words.
std::set<std::string> Warned(const std::string& err) {
  const std::pair<const char*, const char*> names[] = {{": the primary GPT header", "Main header"},
                                                       {": the backup GPT header", "Backup header"},
                                                       {": the primary GPT entry array", "Main partition table"},
                                                       {": the backup GPT entry array", "Backup partition table"}};
  std::set<std::string> warned;
  for (const auto& [ours, theirs] : names) {
    if (err.find(ours) != std::string::npos) warned.insert(theirs);
  }
  return warned;
}

void Patch(e2e::Image& image, uint64_t at, const std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> sector = image.Read(at / 512);
  for (size_t i = 0; i < bytes.size(); ++i) sector[at % 512 + i] = bytes[i];
  image.Write(at / 512, sector);
}
void Flip(e2e::Image& image, uint64_t at) {
  std::vector<uint8_t> sector = image.Read(at / 512);
  sector[at % 512] ^= 0xFF;
  image.Write(at / 512, sector);
}

// Damage found on real disks, done to a disk sgdisk made: the listing comes
// from the copy that passes its checks, the warnings name the structure
// sgdisk -v finds damaged, and the GPT is rewritten only when the primary
// passes (a delete then rebuilds the backup), else refused with nothing
// written until the saved GPT is restored.
TEST_F(Gpt, DamagedGptsAreListedFromTheSoundCopyAndNeverRewritten) {
  const uint64_t primary = 512, backup = (kDiskSectors - 1) * 512, primaryArray = 1024;
  const std::string fromBackup = "; listing the entries of the backup GPT\n";
  const std::string prefix = "diskhold: warning: disk 0: ";
  struct Case {
    const char* what;
    std::function<void(e2e::Image&)> damage;
    std::string warnings;  // all of standard error
    bool primaryDamaged;
    std::vector<e2e::Args> refusedToo;  // more writes refused with 200
  };
  const Case cases[] = {
      {"backup header CRC", [&](e2e::Image& i) { Flip(i, backup + 16); },
       prefix + "the backup GPT header's CRC is wrong\n", false, {}},
      {"backup array CRC", [&](e2e::Image& i) { Flip(i, (kDiskSectors - 33) * 512 + 100 * 128 + 56); },
       prefix + "the backup GPT entry array's CRC is wrong\n", false, {}},
      {"primary header zeroed", [&](e2e::Image& i) { i.Write(1, std::vector<uint8_t>(512, 0)); },
       prefix + "the primary GPT header is missing (no EFI PART signature)" + fromBackup, true, {{"/wipe=gpt"}}},
      {"primary header CRC", [&](e2e::Image& i) { Flip(i, primary + 16); },
       prefix + "the primary GPT header's CRC is wrong" + fromBackup, true, {}},
      {"primary array CRC", [&](e2e::Image& i) { Flip(i, primaryArray + 100 * 128 + 56); },
       prefix + "the primary GPT entry array's CRC is wrong" + fromBackup, true, {}},
      {"entry count -1", [&](e2e::Image& i) { Patch(i, primary + 80, {0xFF, 0xFF, 0xFF, 0xFF}); },
       prefix + "the primary GPT header's entry count or entry array location is out of range" + fromBackup, true,
       {{"/wipe=gpt"}}},
      {"array beyond the disk", [&](e2e::Image& i) { Patch(i, primary + 72, {0, 0, 0, 1, 0, 0, 0, 0}); },
       prefix + "the primary GPT header's entry count or entry array location is out of range" + fromBackup, true,
       {{"/wipe=gpt"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    m.AddDrive(0, kDiskSectors);  // a fresh, empty image
    MakeMixedDisk();
    const std::string healthy = m.Run({"/list", "/text"}).out;
    ASSERT_EQ(m.Run({"/save=gpt", "/filename=gpt.dhb"}).status, 0);
    c.damage(m.drive(0));

    Result r = m.Run({"/list", "/text"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, c.warnings);
    std::string expected = healthy;
    if (!c.primaryDamaged) {
      const std::string valid = "Backup GPT:      Valid  ";
      expected.replace(expected.find(valid), valid.size(), "Backup GPT:      Invalid");
    }
    EXPECT_EQ(r.out, expected);
    EXPECT_EQ(Warned(r.err), SgdiskDamaged(Image()));

    if (c.primaryDamaged) {
      const std::string before = m.drive(0).Hash();
      std::vector<e2e::Args> writes = {{"/del", "/part=1"}, {"/del", "/part=*"}};
      writes.insert(writes.end(), c.refusedToo.begin(), c.refusedToo.end());
      for (e2e::Args args : writes) {
        args.insert(args.end(), {"/confirm", "/result"});
        r = m.Run(args);
        EXPECT_NE(r.out.find(" Result: 200\n"), std::string::npos) << args[0] << "\n" << r.out;
      }
      EXPECT_EQ(m.drive(0).Hash(), before);
      // The way back: the GPT saved before the damage.
      EXPECT_EQ(m.Run({"/restore=gpt", "/filename=gpt.dhb", "/confirm"}).status, 0);
    } else {
      // A delete rewrites the backup from the sound primary.
      EXPECT_EQ(m.Run({"/del", "/part=1", "/confirm"}).status, 0);
    }
    ExpectSgdiskHappy();
  }
}

TEST_F(Gpt, WarningsComeOncePerListedDisk) {
  m.AddDrive(1, kDiskSectors);
  MakeMixedDisk(0);
  MakeMixedDisk(1);
  m.drive(0).Write(1, std::vector<uint8_t>(512, 0));
  Flip(m.drive(1), (kDiskSectors - 1) * 512 + 16);
  const std::string disk0 = "diskhold: warning: disk 0: the primary GPT header is missing (no EFI PART signature); "
                            "listing the entries of the backup GPT\n";
  const std::string disk1 = "diskhold: warning: disk 1: the backup GPT header's CRC is wrong\n";
  const std::pair<e2e::Args, std::string> runs[] = {
      {{"/list"}, disk0 + disk1},
      {{"/tablist", "/disk=1"}, disk1},  // disk 0 is loaded first, but not listed
      {{"/partcount", "/disk=0"}, ""},
  };
  for (const auto& [args, err] : runs) EXPECT_EQ(m.Run(args).err, err) << args[0];
}

}  // namespace
