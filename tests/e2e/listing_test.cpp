// The disk listing end to end: simulated machines with prepared disks, the
// program's output compared byte for byte with the expected listings in
// golden/ (derived column by column from the listing's formats).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "harness.h"

namespace {

using e2e::Entry;
using e2e::ExpectGolden;
using e2e::Image;
using e2e::Machine;
using e2e::Mbr;
using e2e::Result;

const std::vector<uint8_t> kNoEntry(16, 0);

Result RunOk(const Machine& m, const std::vector<std::string>& args) {
  Result r = m.Run(args);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  return r;
}

// Free space before, between and after partitions; drive letters by disk
// signature and offset; an IDE model name.
TEST(Listing, FreeSpaceRowsAndDriveLetters) {
  Machine m;
  Image& disk = m.AddDrive(0, 20480,
                           {{"instance", "IDE\\DiskWDC_WD5000AAKS\\5&2a4f5&0&0.0.0"},
                            {"friendlyname", "WDC  WD5000AAKS ATA Device"}});
  disk.Write(0, Mbr({Entry(0x80, 0x07, 2048, 1000), Entry(0, 0x0C, 4096, 4096), Entry(0, 0x17, 8192, 1808)}));
  m.AddText(
      "\n[volume C]\ndrive = 0\noffset = 1048576\nguid = {11111111-2222-3333-4444-555555555555}\n"
      "\n[volume D]\ndrive = 0\noffset = 2097152\nguid = {66666666-2222-3333-4444-555555555555}\n"
      // A volume of another partition offset: matches nothing listed.
      "\n[volume F]\ndrive = 0\noffset = 4194304\n");
  ExpectGolden("freespace_text.txt", RunOk(m, {"/list", "/freespace", "/text", "/silent"}).out);
}

// Logical partitions follow their extended partition; rows at positions 10
// and beyond use the narrow number column; no free rows between logicals.
TEST(Listing, LogicalPartitionsAndCodePage437Frames) {
  Machine m;
  Image& disk = m.AddDrive(0, 40960);
  disk.Write(0, Mbr({Entry(0, 0x06, 63, 1985), Entry(0, 0x0F, 2048, 20480), Entry(0, 0x83, 24576, 8192),
                     Entry(0x80, 0x0D, 32768, 4096)},
                    0xCAFEF00D));
  const uint8_t types[9] = {0x07, 0x07, 0x83, 0x07, 0x0B, 0x07, 0x07, 0x82, 0x07};
  for (uint32_t i = 0; i < 9; ++i) {
    disk.Write(2048 + 2048 * i, e2e::Ebr(Entry(i == 1 ? 0x80 : 0, types[i], 1, 1500),
                                         i < 8 ? Entry(0, 0x05, 2048 * (i + 1), 2048) : kNoEntry));
  }
  const Result r = RunOk(m, {"/list", "/logical", "/freespace", "/silent"});
  ExpectGolden("logical_437.txt", r.out);
  // `extended` is the same switch; without it logical partitions never appear.
  EXPECT_EQ(RunOk(m, {"/list", "/extended", "/freespace", "/silent"}).out, r.out);
  const Result plain = RunOk(m, {"/list", "/silent", "/text"});
  EXPECT_EQ(plain.out.find(" L1 "), std::string::npos) << plain.out;
  EXPECT_NE(plain.out.find(" 2   2  0F-EXTEND"), std::string::npos) << plain.out;
}

// An empty table, a SCSI model name longer than its field.
TEST(Listing, EmptyTableAndLongDescription) {
  Machine m;
  const std::string model = "Initech Enterprise Storage Array Model 9000 Rev B Serial 0042 Vol 7";
  Image& disk = m.AddDrive(0, 2048, {{"instance", "SCSI\\Disk&Ven_Initech\\1&0001"},
                                     {"friendlyname", model + " SCSI Disk Device"}});
  disk.Write(0, Mbr({}, 0));
  ExpectGolden("empty_long_description.txt", RunOk(m, {"/list", "/text", "/silent"}).out);
}

// Two disks (drive numbers 0 and 2), UTF-8 frames, a USB stick whose letter
// comes from a device-path record; disk=1 alone; the character map after
// the last disk.
TEST(Listing, TwoDisks) {
  Machine m;
  Image& d0 = m.AddDrive(0, 20480, {{"instance", "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0"},
                                    {"friendlyname", "ST3500418AS ATA Device"}});
  d0.Write(0, Mbr({kNoEntry, Entry(0x80, 0x07, 2048, 18432)}, 0x11223344));
  Image& d2 = m.AddDrive(2, 16384, {{"media", "removable"},
                                    {"instance", "USBSTOR\\Disk&Ven_SanDisk&Prod_Cruzer&Rev_1.26\\2005"},
                                    {"friendlyname", "SanDisk Cruzer USB Device"}});
  d2.Write(0, Mbr({Entry(0, 0x0C, 2048, 14336)}, 0xA1B2C3D4));
  m.AddText(
      "\n[volume E]\ndevice = \\??\\USBSTOR#Disk&Ven_SanDisk&Prod_Cruzer&Rev_1.26#2005"
      "#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}\n");

  const Result one = RunOk(m, {"/list", "/disk=1", "/text", "/silent"});
  ExpectGolden("disk1_text.txt", one.out);
  EXPECT_EQ(RunOk(m, {"/tablist", "/disk=1", "/text", "/silent"}).out, one.out);

  const Result r = RunOk(m, {"/list", "/asciimap", "/text", "/silent"});
  const size_t map = r.out.find("\nCodepage= 437\n");
  ASSERT_NE(map, std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("Codepage=", map + 2), std::string::npos);
  EXPECT_GT(map, r.out.find(" Disk: 1 "));
  EXPECT_EQ(r.out.compare(map - 80, 80, " " + std::string(77, '-') + " \n"), 0);
  EXPECT_EQ(r.out.substr(r.out.size() - 2), "\n\n");

  m.Set("codepage", "65001");
  const Result all = RunOk(m, {"/list", "/silent"});
  ExpectGolden("two_disks_utf8.txt", all.out);
  EXPECT_EQ(RunOk(m, {"/list", "/disk=*", "/silent"}).out, all.out);
}

// A chain of EBRs that links back to its first EBR: listed at once, with the
// logical partitions found before the loop.
TEST(Listing, LoopingExtendedChainListsAtOnce) {
  Machine m;
  Image& disk = m.AddDrive(0, 8192);
  disk.Write(0, Mbr({Entry(0, 0x05, 2048, 6144)}, 0xBEEF));
  disk.Write(2048, e2e::Ebr(Entry(0, 0x83, 63, 100), Entry(0, 0x05, 2048, 2048)));
  disk.Write(4096, e2e::Ebr(Entry(0, 0x83, 63, 100), Entry(0, 0x05, 0, 2048)));
  const auto start = std::chrono::steady_clock::now();
  const Result r = RunOk(m, {"/list", "/logical", "/text", "/silent"});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  ExpectGolden("ebr_loop_text.txt", r.out);
}

// Partitions that sfdisk writes list with the starts, sizes and types that
// sfdisk itself reports.
TEST(Listing, AgreesWithSfdisk) {
  if (!e2e::HaveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  Machine m;
  Image& disk = m.AddDrive(0, 65536);
  e2e::WriteFileText(m.PathOf("layout.sfdisk"),
                     "label: dos\nlabel-id: 0x5eed1234\n"
                     "start=2048, size=8192, type=7, bootable\nstart=10240, size=4096, type=c\n"
                     "start=14336, size=2048, type=83\nstart=16384, size=40960, type=5\n"
                     "start=18432, size=4096, type=83\nstart=24576, size=8192, type=7\n"
                     "start=34816, size=2048, type=82\n");
  e2e::ShellOk("sfdisk --no-reread --no-tell-kernel -q '" + disk.path() + "' < '" + m.PathOf("layout.sfdisk") + "'");
  const std::string dump = e2e::ShellOk("sfdisk --dump '" + disk.path() + "'");

  // Partition number -> start, size, type.  sfdisk numbers primaries 1-4 by
  // slot and logical partitions from 5 on; the listing shows the slot + 1
  // in its Idx column and logical partitions as L1, L2...
  using Part = std::tuple<uint64_t, uint64_t, unsigned>;
  std::map<int, Part> expected, listed;
  const std::regex dumpLine(R"(img(\d+) : start=\s*(\d+), size=\s*(\d+), type=([0-9a-fA-F]+))");
  for (std::sregex_iterator it(dump.begin(), dump.end(), dumpLine), end; it != end; ++it) {
    expected[std::stoi((*it)[1])] = {std::stoull((*it)[2]), std::stoull((*it)[3]), static_cast<unsigned>(std::stoul((*it)[4], nullptr, 16))};
  }
  ASSERT_EQ(expected.size(), 7u) << dump;

  const Result r = RunOk(m, {"/list", "/logical", "/text", "/silent"});
  const std::regex row(R"(^ \s*(L?)(\d+)\s+(\d+|-)\s+([0-9A-F]{2})-\S+\s+\S+\s+(?:Yes|No)\s+(?:Yes|No)\s+([\d,]+)\s+([\d,]+) .*)");
  auto number = [](std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ','), text.end());
    return std::stoull(text);
  };
  std::istringstream lines(r.out);
  std::smatch f;
  for (std::string line; std::getline(lines, line);) {
    if (line.size() != 79 || !std::regex_match(line, f, row)) continue;
    const int n = f[1] == "L" ? 4 + std::stoi(f[2]) : std::stoi(f[3]);
    listed[n] = {number(f[5]), number(f[6]), static_cast<unsigned>(std::stoul(f[4], nullptr, 16))};
  }
  EXPECT_EQ(listed, expected) << r.out;
  EXPECT_NE(r.out.find("Disk Signature:  0x5EED1234"), std::string::npos) << r.out;
}

}  // namespace
