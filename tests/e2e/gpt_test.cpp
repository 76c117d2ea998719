// GPT disks end to end, on images partitioned by sgdisk and sfdisk: the
// listing against what those tools report, deletes that leave a GPT the
// tools find without fault (entries of unknown types kept), byte-exact
// listings, and hostile headers.  Tests that need the tools skip without
// them.
#include <gtest/gtest.h>

#include <regex>
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

TEST_F(Gpt, HostileHeadersEndWith200) {
  struct Case {
    const char* what;
    long offset;  // in the header
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {"entry count -1", 80, {0xFF, 0xFF, 0xFF, 0xFF}},
      {"entry count 2^31-1", 80, {0xFF, 0xFF, 0xFF, 0x7F}},
      {"array beyond the disk", 72, {0x00, 0x00, 0x00, 0x01, 0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    m.AddDrive(0, kDiskSectors);  // a fresh, empty image
    MakeMixedDisk();
    std::vector<uint8_t> header = m.drive(0).Read(1);
    std::copy(c.bytes.begin(), c.bytes.end(), header.begin() + c.offset);
    m.drive(0).Write(1, header);
    const std::string before = m.drive(0).Hash();

    Result r = m.Run({"/list", "/text"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("GPT Revision:    0.0 "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("No partitions found on this disk"), std::string::npos);

    r = m.Run({"/del", "/part=*", "/confirm", "/result"});
    EXPECT_NE(r.out.find(" Result: 200\n"), std::string::npos) << r.out;
    EXPECT_EQ(m.drive(0).Hash(), before);
    EXPECT_EQ(m.Run({"/partcount"}).status, 0);
  }
}

}  // namespace
