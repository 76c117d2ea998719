// The disk listing end to end: simulated machines with prepared disks, the
// program's output compared byte for byte with the expected listings in
// golden/ (derived column by column from the listing's formats).
#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Entry;
using e2e::Image;
using e2e::Machine;
using e2e::Mbr;
using e2e::Result;

std::string GoldenPath(const std::string& name) {
  std::string here = __FILE__;
  size_t slash = here.find_last_of("/\\");
  return (slash == std::string::npos ? std::string(".") : here.substr(0, slash)) + "/golden/" + name;
}

// Compares with a golden file; on a difference, names the first differing
// line and leaves the actual output beside the test's temporary files.
void ExpectGolden(const std::string& name, const std::string& actual) {
  const std::string expected = e2e::ReadFileText(GoldenPath(name));
  ASSERT_FALSE(expected.empty()) << "missing golden file " << GoldenPath(name);
  if (actual == expected) return;
  std::string saved = ::testing::TempDir() + name + ".actual";
  e2e::WriteFileText(saved, actual);
  std::istringstream a(actual), e(expected);
  std::string la, le;
  int line = 1;
  while (true) {
    bool ga = static_cast<bool>(std::getline(a, la));
    bool ge = static_cast<bool>(std::getline(e, le));
    if (!ga && !ge) break;
    if (la != le || ga != ge) {
      ADD_FAILURE() << name << " differs at line " << line << "\n  expected: [" << le << "]\n  actual:   [" << la
                    << "]\n  whole output saved in " << saved;
      return;
    }
    ++line;
  }
  ADD_FAILURE() << name << " differs (line ends); output saved in " << saved;
}

// An EBR: the logical partition's entry and the link to the next EBR.
std::vector<uint8_t> Ebr(const std::vector<uint8_t>& logical, const std::vector<uint8_t>& link) {
  std::vector<uint8_t> s(512, 0);
  for (size_t j = 0; j < 16; ++j) {
    s[446 + j] = logical[j];
    s[462 + j] = link[j];
  }
  s[510] = 0x55;
  s[511] = 0xAA;
  return s;
}

std::vector<uint8_t> NoEntry() { return std::vector<uint8_t>(16, 0); }

// A FAT32 boot sector and a root directory that holds a volume label.
void WriteFat32Label(const Image& image, uint32_t lba, const std::string& label) {
  std::vector<uint8_t> boot(512, 0);
  boot[11] = 0x00;  // 512 bytes per sector
  boot[12] = 0x02;
  boot[13] = 1;   // sectors per cluster
  boot[14] = 32;  // reserved sectors
  boot[16] = 2;   // FATs
  boot[36] = 8;   // sectors per FAT (32-bit field)
  for (int i = 0; i < 5; ++i) boot[82 + i] = static_cast<uint8_t>("FAT32"[i]);
  boot[510] = 0x55;
  boot[511] = 0xAA;
  image.Write(lba, boot);
  std::vector<uint8_t> root(512, 0);
  std::string name = label;
  name.resize(11, ' ');
  for (int i = 0; i < 11; ++i) root[i] = static_cast<uint8_t>(name[i]);
  root[11] = 0x08;
  image.Write(lba + 32 + 2 * 8, root);
}

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
  Result r = RunOk(m, {"/list", "/freespace", "/text", "/silent"});
  ExpectGolden("freespace_text.txt", r.out);
}

// Labels fill their column, cut or blank-filled to 11 characters.
TEST(Listing, VolumeLabelsShowInTheirColumn) {
  Machine m;
  Image& disk = m.AddDrive(0, 16384);
  disk.Write(0, Mbr({Entry(0, 0x0C, 2048, 4096), Entry(0, 0x0C, 6144, 4096)}));
  WriteFat32Label(disk, 2048, "ARCHIVE2024");
  WriteFat32Label(disk, 6144, "DATA");
  Result r = RunOk(m, {"/list", "/text", "/silent"});
  EXPECT_NE(r.out.find("\n  1   1  0C-FAT32X 2.0M  No   No           2,048          4,096    ARCHIVE2024 \n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\n  2   2  0C-FAT32X 2.0M  No   No           6,144          4,096    DATA        \n"),
            std::string::npos)
      << r.out;
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
    auto link = i < 8 ? Entry(0, 0x05, 2048 * (i + 1), 2048) : NoEntry();
    disk.Write(2048 + 2048 * i, Ebr(Entry(i == 1 ? 0x80 : 0, types[i], 1, 1500), link));
  }
  Result r = RunOk(m, {"/list", "/logical", "/freespace", "/silent"});
  ExpectGolden("logical_437.txt", r.out);

  // Without the switch the logical partitions never appear.
  Result plain = RunOk(m, {"/list", "/silent", "/text"});
  EXPECT_EQ(plain.out.find(" L1 "), std::string::npos) << plain.out;
  EXPECT_NE(plain.out.find(" 2   2  0F-EXTEND"), std::string::npos) << plain.out;
  // `extended` is the same switch.
  Result extended = RunOk(m, {"/list", "/extended", "/freespace", "/silent"});
  EXPECT_EQ(extended.out, r.out);
}

// An empty table, a SCSI model name longer than its field.
TEST(Listing, EmptyTableAndLongDescription) {
  Machine m;
  const std::string model = "Initech Enterprise Storage Array Model 9000 Rev B Serial 0042 Vol 7";
  Image& disk = m.AddDrive(0, 2048, {{"instance", "SCSI\\Disk&Ven_Initech\\1&0001"},
                                     {"friendlyname", model + " SCSI Disk Device"}});
  disk.Write(0, Mbr({}, 0));
  Result r = RunOk(m, {"/list", "/text", "/silent"});
  ExpectGolden("empty_long_description.txt", r.out);
}

// Two disks (drive numbers 0 and 2), UTF-8 frames, a USB stick whose letter
// comes from a device-path record; then disk=1 alone.
class TwoDisks : public ::testing::Test {
 protected:
  void SetUp() override {
    Image& d0 = m.AddDrive(0, 20480, {{"instance", "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0"},
                                      {"friendlyname", "ST3500418AS ATA Device"}});
    d0.Write(0, Mbr({NoEntry(), Entry(0x80, 0x07, 2048, 18432)}, 0x11223344));
    Image& d2 = m.AddDrive(2, 16384, {{"media", "removable"},
                                      {"instance", "USBSTOR\\Disk&Ven_SanDisk&Prod_Cruzer&Rev_1.26\\2005"},
                                      {"friendlyname", "SanDisk Cruzer USB Device"}});
    d2.Write(0, Mbr({Entry(0, 0x0C, 2048, 14336)}, 0xA1B2C3D4));
    m.AddText(
        "\n[volume E]\ndevice = \\??\\USBSTOR#Disk&Ven_SanDisk&Prod_Cruzer&Rev_1.26#2005"
        "#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}\n");
  }
  Machine m;
};

TEST_F(TwoDisks, EveryDiskIsListedWithUtf8Frames) {
  m.Set("codepage", "65001");
  Result r = RunOk(m, {"/list", "/silent"});
  ExpectGolden("two_disks_utf8.txt", r.out);
  // disk=* lists every disk as well.
  Result all = RunOk(m, {"/list", "/disk=*", "/silent"});
  EXPECT_EQ(all.out, r.out);
}

TEST_F(TwoDisks, DiskOneAlone) {
  Result r = RunOk(m, {"/list", "/disk=1", "/text", "/silent"});
  ExpectGolden("disk1_text.txt", r.out);
  Result tab = RunOk(m, {"/tablist", "/disk=1", "/text", "/silent"});
  EXPECT_EQ(tab.out, r.out);
}

TEST_F(TwoDisks, CharacterMapFollowsTheLastDisk) {
  Result r = RunOk(m, {"/list", "/asciimap", "/text", "/silent"});
  size_t map = r.out.find("\nCodepage= 437\n");
  ASSERT_NE(map, std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("Codepage=", map + 2), std::string::npos);
  EXPECT_GT(map, r.out.find(" Disk: 1 "));
  EXPECT_EQ(r.out.compare(map - 80, 80, " " + std::string(77, '-') + " \n"), 0);
  EXPECT_EQ(r.out.substr(r.out.size() - 2), "\n\n");
}

// A chain of EBRs that links back to its first EBR: listed at once, with the
// logical partitions found before the loop.
TEST(Listing, LoopingExtendedChainListsAtOnce) {
  Machine m;
  Image& disk = m.AddDrive(0, 8192);
  disk.Write(0, Mbr({Entry(0, 0x05, 2048, 6144)}, 0xBEEF));
  disk.Write(2048, Ebr(Entry(0, 0x83, 63, 100), Entry(0, 0x05, 2048, 2048)));
  disk.Write(4096, Ebr(Entry(0, 0x83, 63, 100), Entry(0, 0x05, 0, 2048)));
  auto start = std::chrono::steady_clock::now();
  Result r = RunOk(m, {"/list", "/logical", "/text", "/silent"});
  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 10.0);
  ExpectGolden("ebr_loop_text.txt", r.out);
}

// Partitions that sfdisk writes list with the starts, sizes and types that
// sfdisk itself reports.
TEST(Listing, AgreesWithSfdisk) {
  if (!e2e::HaveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  Machine m;
  Image& disk = m.AddDrive(0, 65536);
  const std::string script =
      "label: dos\n"
      "label-id: 0x5eed1234\n"
      "start=2048, size=8192, type=7, bootable\n"
      "start=10240, size=4096, type=c\n"
      "start=14336, size=2048, type=83\n"
      "start=16384, size=40960, type=5\n"
      "start=18432, size=4096, type=83\n"
      "start=24576, size=8192, type=7\n"
      "start=34816, size=2048, type=82\n";
  e2e::WriteFileText(m.PathOf("layout.sfdisk"), script);
  int status = -1;
  e2e::Shell("sfdisk --no-reread --no-tell-kernel -q '" + disk.path() + "' < '" + m.PathOf("layout.sfdisk") +
                 "' 2>&1",
             &status);
  ASSERT_EQ(status, 0);
  std::string dump = e2e::Shell("sfdisk --dump '" + disk.path() + "'", &status);
  ASSERT_EQ(status, 0);

  // sfdisk numbers primaries 1-4 by slot and logical partitions from 5 on.
  struct Part {
    uint64_t start, size;
    unsigned type;
  };
  std::map<int, Part> expected;
  std::regex dumpLine(R"(img(\d+) : start=\s*(\d+), size=\s*(\d+), type=([0-9a-fA-F]+))");
  for (std::sregex_iterator it(dump.begin(), dump.end(), dumpLine), end; it != end; ++it) {
    expected[std::stoi((*it)[1])] = {std::stoull((*it)[2]), std::stoull((*it)[3]),
                                     static_cast<unsigned>(std::stoul((*it)[4], nullptr, 16))};
  }
  ASSERT_EQ(expected.size(), 7u) << dump;

  Result r = RunOk(m, {"/list", "/logical", "/text", "/silent"});
  auto number = [](const std::string& field) {
    std::string digits;
    for (char c : field) {
      if (c >= '0' && c <= '9') digits += c;
    }
    return std::stoull(digits);
  };
  std::map<int, Part> listed;
  std::istringstream lines(r.out);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.size() != 79) continue;
    const std::string text = line.substr(1, 77);
    // Partition rows carry the type byte in hexadecimal before a '-'.
    if (!std::isxdigit(static_cast<unsigned char>(text[8])) || !std::isxdigit(static_cast<unsigned char>(text[9])) ||
        text[10] != '-') {
      continue;
    }
    const std::string lead = text.substr(0, 7);
    int n;
    if (lead.find('L') != std::string::npos) {
      n = 4 + std::stoi(lead.substr(lead.find('L') + 1));
    } else {
      n = std::stoi(lead.substr(5));  // the MBR slot + 1
    }
    listed[n] = {number(text.substr(34, 13)), number(text.substr(48, 14)),
                 static_cast<unsigned>(std::stoul(text.substr(8, 2), nullptr, 16))};
  }
  ASSERT_EQ(listed.size(), expected.size()) << r.out;
  for (const auto& [n, part] : expected) {
    ASSERT_TRUE(listed.count(n)) << "partition " << n << " missing\n" << r.out;
    EXPECT_EQ(listed[n].start, part.start) << "partition " << n;
    EXPECT_EQ(listed[n].size, part.size) << "partition " << n;
    EXPECT_EQ(listed[n].type, part.type) << "partition " << n;
  }
  EXPECT_NE(r.out.find("Disk Signature:  0x5EED1234"), std::string::npos) << r.out;
}

}  // namespace
