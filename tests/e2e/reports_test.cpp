// The INI report, the info report and the boot menu end to end: INI files
// compared byte for byte with expected files written from the report's
// key table, info blocks line by line, and the boot menu answered through
// standard input with the bytes of sector 0 checked afterwards.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::ExpectGolden;
using e2e::Image;
using e2e::Machine;
using e2e::Mbr;
using e2e::Result;

using Bytes = std::vector<uint8_t>;

// An MBR entry with the CHS fields a 255-head, 63-sector geometry gives
// its first and last sector.
Bytes ChsEntry(uint8_t boot, uint8_t type, uint32_t start, uint32_t count) {
  Bytes e = e2e::Entry(boot, type, start, count);
  auto chs = [&](uint32_t lba, size_t at) {
    const uint32_t c = lba / (255 * 63);
    e[at] = static_cast<uint8_t>((lba / 63) % 255);
    e[at + 1] = static_cast<uint8_t>(lba % 63 + 1 + ((c >> 2) & 0xC0));
    e[at + 2] = static_cast<uint8_t>(c & 0xFF);
  };
  chs(start, 1);
  chs(start + count - 1, 5);
  return e;
}

// An EBR: one logical entry (relative start) and the link to the next EBR.
Bytes Ebr(const Bytes& logical, const Bytes& link) {
  Bytes s = Mbr({logical, link}, 0);
  s[0] = s[1] = 0;
  return s;
}

// A FAT32 boot sector with a serial number and a root directory that holds
// a volume label.
void WriteFat32Volume(const Image& image, uint64_t lba, const std::string& label, uint32_t serial) {
  Bytes boot(512, 0);
  boot[12] = 0x02;  // 512 bytes per sector
  boot[13] = 1;     // sectors per cluster
  boot[14] = 32;    // reserved sectors
  boot[16] = 2;     // FATs
  boot[36] = 8;     // sectors per FAT (32-bit field)
  boot[44] = 2;     // root cluster
  for (int i = 0; i < 4; ++i) boot[67 + i] = static_cast<uint8_t>(serial >> (8 * i));
  std::copy_n("FAT32", 5, boot.begin() + 82);
  boot[510] = 0x55;
  boot[511] = 0xAA;
  image.Write(lba, boot);
  Bytes root(512, 0);
  std::string name = label;
  name.resize(11, ' ');
  std::copy(name.begin(), name.end(), root.begin());
  root[11] = 0x08;
  image.Write(lba + 32 + 2 * 8, root);
}

std::string Sh(const std::string& command) {
  int status = 0;
  std::string out = e2e::Shell(command + " 2>&1", &status);
  EXPECT_EQ(status, 0) << command << "\n" << out;
  return out;
}

// ---- writeini --------------------------------------------------------------

TEST(IniReport, ThePartsExampleDisk) {
  Machine m;
  // 500,107,862,016 bytes, sparse.
  Image& disk = m.AddDrive(0, 976773168,
                           {{"instance", "IDE\\DiskWDC_WD5000AAKS-00V1A0\\5&2a4f5&0&0.0.0"},
                            {"friendlyname", "WDC WD5000AAKS-00V1A0 ATA Device"}});
  // Signature bytes 67 AC 05 00; no active partition; a volume without label.
  disk.Write(0, Mbr({ChsEntry(0, 0x07, 2048, 2048)}, 0x0005AC67));
  const Result r = m.Run({"/writeini", "/Filename=report.ini"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find(" MBR information was successfully written to report.ini \n"), std::string::npos) << r.out;
  ExpectGolden("ini_part_example.ini", e2e::ReadFileText(m.PathOf("report.ini")));
}

// Labels and drive letters, a GPT of twelve known entries around one of a
// type the program does not know, a removable disk, an active logical
// partition in twelfth place, and eleven disks in all.
TEST(IniReport, AMachineOfElevenDisks) {
  if (!e2e::HaveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
  Machine m;
  Image& mbr = m.AddDrive(0, 32768,
                          {{"instance", "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0"},
                           {"friendlyname", "ST3500418AS ATA Device"}});
  mbr.Write(0, Mbr({ChsEntry(0x80, 0x0C, 2048, 8192), ChsEntry(0, 0x17, 10240, 4096), ChsEntry(0, 0x0C, 14336, 16384)},
                   0x1F2E3D4C));
  WriteFat32Volume(mbr, 2048, "SYSTEM", 0x5A17C0DE);
  WriteFat32Volume(mbr, 14336, "DATA", 0x1234ABCD);
  m.AddText("\n[volume C]\ndrive = 0\noffset = 1048576\n\n[volume D]\ndrive = 0\noffset = 7340032\n");

  Image& gpt = m.AddDrive(1, 65536, {{"instance", "SCSI\\Disk&Ven_QEMU&Prod_HARDDISK\\4&1c0&0&000200"},
                                     {"friendlyname", "QEMU HARDDISK SCSI Disk Device"}});
  std::string layout = "sgdisk -U 11223344-5566-7788-99AA-BBCCDDEEFF00";
  const char* types[] = {"EF00", "0C01", "C001", "0700", "0700", "0700", "0700",
                         "0700", "0700", "0700", "0700", "8E00", "8200"};
  for (int i = 0; i < 13; ++i) {
    layout += " -n " + std::to_string(i + 1) + ":" + std::to_string(2048 + 2048 * i) + ":+1M -t " +
              std::to_string(i + 1) + ":" + types[i];
  }
  // Hidden (bit 62) on the fourth entry, read-only (bit 60) on the fifth.
  Sh(layout + " -A 4:set:62 -A 5:set:60 '" + gpt.path() + "'");
  WriteFat32Volume(gpt, 2048 + 2048 * 3, "GPTVOL", 0x0BADF00D);

  Image& stick = m.AddDrive(2, 16384, {{"media", "removable"},
                                       {"instance", "USBSTOR\\Disk&Ven_SanDisk&Prod_Cruzer\\4C530001&0"},
                                       {"friendlyname", "SanDisk Cruzer USB Device"}});
  stick.Write(0, Mbr({ChsEntry(0, 0x06, 63, 16321)}, 0xC0FFEE00));

  // A primary, then an extended area with ten logicals; the tenth is
  // flagged active, twelfth among all partitions.
  Image& chain = m.AddDrive(3, 32768);
  chain.Write(0, Mbr({ChsEntry(0, 0x07, 2048, 1024), ChsEntry(0, 0x05, 4096, 20480)}, 0x00000001));
  for (uint32_t i = 0; i < 10; ++i) {
    const uint32_t ebr = 4096 + 2048 * i;
    const Bytes link = i < 9 ? e2e::Entry(0, 0x05, 2048 * (i + 1), 2048) : Bytes(16, 0);
    chain.Write(ebr, Ebr(e2e::Entry(i == 9 ? 0x80 : 0, 0x07, 63, 1024), link));
  }
  for (int n = 4; n <= 10; ++n) m.AddDrive(n, 64);

  const Result r = m.Run({"/writeini", "/Filename=machine.ini.out", "/disk=3"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  ExpectGolden("ini_machine.ini", e2e::ReadFileText(m.PathOf("machine.ini.out")));
}

TEST(IniReport, AnUnwritableDestinationAndAReplacedFile) {
  Machine m;
  m.AddDrive(0, 4096).Write(0, Mbr({ChsEntry(0, 0x07, 2048, 2048)}));
  const std::string target = m.PathOf("no-such-folder/report.ini");
  const Result unwritable = m.Run({"/writeini", "/Filename=" + target, "/result"});
  EXPECT_NE(unwritable.out.find(" Error 104: Unable to write MBR information to file " + target + ".\n"),
            std::string::npos)
      << unwritable.out;
  EXPECT_EQ(e2e::ResultOf(unwritable), 104);

  // A file that exists is replaced, not appended to.
  e2e::WriteFileText(m.PathOf("old.ini"), std::string(100000, '#'));
  EXPECT_EQ(m.Run({"/writeini", "/Filename=old.ini"}).status, 0);
  const std::string text = e2e::ReadFileText(m.PathOf("old.ini"));
  EXPECT_EQ(text.find('#'), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 11), "\r\nSectEnd=1");  // no line end after the last key
}

// ---- info ------------------------------------------------------------------

TEST(Info, TwoDisksTwoBlocks) {
  Machine m;
  m.AddDrive(0, 16065 * 4).Write(0, Mbr({ChsEntry(0, 0x07, 63, 1000)}));
  m.AddDrive(1, 2097152, {{"heads", "16"}, {"sectors", "32"}});
  const Result r = m.Run({"/info", "/result"});
  const std::string expected =
      "\n Disk:       0\n Bios Ext:   None\n Host Bus:   Not Supported\n Interface:  Not Supported"
      "\n CHS:        4 255 63     Sectors: 64260   Size: 31.38MB\n"
      "\n Disk:       1\n Bios Ext:   None\n Host Bus:   Not Supported\n Interface:  Not Supported"
      "\n CHS:        4096 16 32     Sectors: 2097152   Size: 1.00GB\n";
  EXPECT_NE(r.out.find(expected + "\n\n Result: 0\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.status, 0);
}

// ---- bootmenu --------------------------------------------------------------

class BootMenu : public ::testing::Test {
 protected:
  // Primaries of types 07, 0F and 0C: ids 1 and 3 are shown.
  void SetUp() override {
    disk = &m.AddDrive(0, 65536, {{"instance", "IDE\\DiskMaxtor_6Y080L0\\5&1&0&0.0.0"},
                                  {"friendlyname", "Maxtor 6Y080L0 ATA Device"}});
    disk->Write(0, Mbr({ChsEntry(0x80, 0x07, 2048, 8192), ChsEntry(0, 0x0F, 10240, 20480),
                        ChsEntry(0, 0x0C, 30720, 16384)}));
    WriteFat32Volume(*disk, 30720, "DATA", 1);
    before = disk->Read(0, 65536);
  }

  // Sector 0 after the run; everything else must be as before.
  Bytes Sector0After() {
    const Bytes now = disk->Read(0, 65536);
    EXPECT_TRUE(std::equal(now.begin() + 512, now.end(), before.begin() + 512)) << "a sector other than 0 changed";
    EXPECT_TRUE(std::equal(now.begin(), now.begin() + 446, before.begin())) << "the boot code changed";
    EXPECT_TRUE(std::equal(now.begin() + 510, now.begin() + 512, before.begin() + 510));
    return Bytes(now.begin(), now.begin() + 512);
  }

  Machine m;
  Image* disk = nullptr;
  Bytes before;
};

const char kMenu[] =
    "\n Disk: 0   Size: 32.00MB  Name: Maxtor 6Y080L0\n"
    "\n ID  Volume Label DL Type/Name  Size  Active  Hidden  Start Sector"
    "\n --  ------------ -- ---------  ----  ------  ------  ------------"
    "\n  1  <None>          07-NTFS    4.0M   Yes     No            2,048"
    "\n  3  DATA            0C-FAT32X  8.0M   No      No           30,720"
    "\n\n Select the partition id to set active: ";

TEST_F(BootMenu, AnswerThreeActivatesTheThirdPrimary) {
  const Result r = m.Run({"/bootmenu"}, "3\n");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find(std::string(kMenu) + " \n Partition 3 successfully set to active \n"), std::string::npos)
      << r.out;
  const Bytes s = Sector0After();
  EXPECT_EQ(s[446], 0x00);
  EXPECT_EQ(s[446 + 16], 0x00);
  EXPECT_EQ(s[446 + 32], 0x80);
}

TEST_F(BootMenu, AnswerTwoActivatesTheSkippedExtendedSlot) {
  // Only the first character is tested against the last id shown.
  const Result r = m.Run({"/bootmenu"}, "2\n");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find(" Partition 2 successfully set to active"), std::string::npos) << r.out;
  const Bytes s = Sector0After();
  EXPECT_EQ(s[446], 0x00);
  EXPECT_EQ(s[446 + 16], 0x80);
}

TEST_F(BootMenu, AnswersThatNameNoRowChangeNothing) {
  for (const std::string input : {"\n", "a\n", "0\n", "4\n", "", " 3\n"}) {
    const Result r = m.Run({"/bootmenu"}, input);
    EXPECT_EQ(r.status, 101) << "input \"" << input << "\"\n" << r.out;
    EXPECT_NE(r.out.find(std::string(kMenu) + "\n Error 101: Invalid partition ID specified\n"), std::string::npos)
        << r.out;
    EXPECT_EQ(Sector0After(), Bytes(before.begin(), before.begin() + 512));
  }
}

TEST_F(BootMenu, ALongAnswerIsReadWholeAndOnlyItsStartUsed) {
  // The rest of the long line is not taken as a later answer either.
  const Result r = m.Run({"/bootmenu", "/result"}, "3" + std::string(5000, 'x') + "\n2\n");
  EXPECT_EQ(e2e::ResultOf(r), 0) << r.out;
  EXPECT_EQ(Sector0After()[446 + 32], 0x80);
}

TEST(BootMenuEdges, AnExtendedOnlyDiskAsksNothing) {
  Machine m;
  Image& disk = m.AddDrive(0, 8192);
  disk.Write(0, Mbr({ChsEntry(0, 0x0F, 2048, 4096)}));
  const std::string hash = disk.Hash();
  const Result r = m.Run({"/bootmenu", "/result"}, "1\n");
  EXPECT_NE(r.out.find("\n --  ------------ -- ---------  ----  ------  ------  ------------\n Result: 0\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("Select"), std::string::npos);
  EXPECT_EQ(disk.Hash(), hash);
}

TEST(BootMenuEdges, AGptDiskIsRefused) {
  if (!e2e::HaveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
  Machine m;
  Image& disk = m.AddDrive(0, 65536);
  Sh("sgdisk -n 1:2048:+1M -t 1:0700 -n 2:0:+1M -t 2:0700 '" + disk.path() + "'");
  const std::string hash = disk.Hash();
  const Result r = m.Run({"/bootmenu", "/result"}, "1\n");
  EXPECT_NE(r.out.find(" Error 131: Unable to perform GPT operations on Non-GPT Disks\n"), std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("Select"), std::string::npos);
  EXPECT_EQ(e2e::ResultOf(r), 131);
  EXPECT_EQ(disk.Hash(), hash);
}

}  // namespace
