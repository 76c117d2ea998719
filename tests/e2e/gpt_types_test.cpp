// GPT entries of the types users meet on today's disks (Windows recovery,
// BIOS boot, Linux, ChromeOS, FreeBSD, APFS, VMFS, Storage Spaces), made by
// sgdisk: each is listed with its name and counted, and sgdisk's own GUIDs
// for them are the ones the program knows.  An unknown type stays hidden.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace {

struct TypeCase {
  const char* code;      // sgdisk's type code
  const char* guid;      // the type GUID the program expects
  const char* longName;  // as the listing shows it (19 characters at most)
};

const TypeCase kTypes[] = {
    {"2700", "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows Recovery En"},
    {"EF02", "21686148-6449-6E6F-744E-656564454649", "BIOS Boot Partition"},
    {"8300", "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux Filesystem Da"},
    {"8304", "4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709", "Linux Root (x86-64)"},
    {"8303", "44479540-F297-41B2-9AF7-D131D5F0458A", "Linux Root (x86)"},
    {"8302", "933AC7E1-2EB4-4F13-B844-0E14E2AEF915", "Linux Home (/home)"},
    {"8306", "3B8F8425-20E0-4F3B-907F-1A25A76F98E8", "Linux Server Data ("},
    {"EA00", "BC13C2FF-59E6-4262-A352-B275FD6F7172", "Linux Extended Boot"},
    {"7F00", "FE3A2A5D-4F32-41A7-B725-ACCC3285A309", "ChromeOS Kernel"},
    {"7F01", "3CB8E202-3B7E-47DD-8A3C-7FF2A13CFCEC", "ChromeOS Root Files"},
    {"A501", "83BD6B9D-7F41-11DC-BE0B-001560B84F0F", "FreeBSD Boot"},
    {"A503", "516E7CB6-6ECF-11D6-8FF8-00022D09712B", "FreeBSD UFS"},
    {"A504", "516E7CBA-6ECF-11D6-8FF8-00022D09712B", "FreeBSD ZFS"},
    {"A502", "516E7CB5-6ECF-11D6-8FF8-00022D09712B", "FreeBSD Swap"},
    {"AF0A", "7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple APFS"},
    {"FB00", "AA31E02A-400F-11DB-9590-000C2911D1B8", "VMware VMFS"},
    {"4202", "E75CAF8F-F680-4CEE-AFA3-B001E56EFC2D", "Microsoft Storage S"},
    // The discoverable partitions' swap type is the original table's row.
    {"8200", "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "Linux Swap Partitio"},
};

std::string Sh(const std::string& command) {
  int status = 0;
  std::string out = e2e::Shell(command + " 2>&1", &status);
  EXPECT_EQ(status, 0) << command << "\n" << out;
  return out;
}

// The GPT Type column and the start of every entry row of a /text listing.
std::vector<std::pair<std::string, uint64_t>> ListedTypes(const std::string& out) {
  static const std::regex row(R"(^ ([ \d]\d)  (.{19})  .{5} ([ \d]{13}) .*)");
  std::vector<std::pair<std::string, uint64_t>> rows;
  std::istringstream lines(out);
  std::smatch m;
  for (std::string line; std::getline(lines, line);) {
    if (!std::regex_match(line, m, row)) continue;
    std::string type = m[2];
    type.erase(type.find_last_not_of(' ') + 1);
    rows.emplace_back(type, std::stoull(m[3]));
  }
  return rows;
}

TEST(GptTypes, EntriesOfCurrentSystemsAreListedAndCounted) {
  if (!e2e::HaveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
  e2e::Machine m;
  const std::string image = m.AddDrive(0, 131072).path();
  // One 1 MiB entry per type, then one of a type nobody knows (HP-UX data).
  std::string command = "sgdisk";
  int n = 0;
  for (const TypeCase& t : kTypes) {
    ++n;
    command += " -n " + std::to_string(n) + ":0:+1M -t " + std::to_string(n) + ":" + t.code;
  }
  command += " -n " + std::to_string(n + 1) + ":0:+1M -t " + std::to_string(n + 1) + ":C001";
  Sh(command + " '" + image + "'");

  // sgdisk's GUID for each code is the one the program's table holds.
  for (size_t i = 0; i < std::size(kTypes); ++i) {
    const std::string info = Sh("sgdisk -i " + std::to_string(i + 1) + " '" + image + "'");
    EXPECT_NE(info.find(std::string("Partition GUID code: ") + kTypes[i].guid), std::string::npos)
        << kTypes[i].code << "\n" << info;
  }

  const e2e::Result r = m.Run({"/list", "/text"});
  EXPECT_EQ(r.status, 0);
  const auto rows = ListedTypes(r.out);
  ASSERT_EQ(rows.size(), std::size(kTypes)) << r.out;
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].first, kTypes[i].longName) << kTypes[i].code;
    EXPECT_EQ(rows[i].second, 2048 + 2048 * i) << kTypes[i].code;  // sgdisk's 1 MiB steps
  }
  EXPECT_NE(r.out.find("Partitions:  18 "), std::string::npos) << r.out;
  EXPECT_EQ(m.Run({"/partcount"}).status, 18);
}

}  // namespace
