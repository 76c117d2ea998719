// Sector maintenance end to end: save=, restore=, show=, wipe=, copy and
// compare on simulated machines whose sectors carry their own numbers, so
// that every byte of a backup file and of an image afterwards can be
// checked; the displays of show= are compared with golden/sectors_*.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Args;
using e2e::Bytes;
using e2e::Concat;
using e2e::Entry;
using e2e::ExpectGolden;
using e2e::Has;
using e2e::ResultOf;

constexpr uint64_t kDiskSectors = 16384;

// Sectors `first`.. of the test disks: the sector's number in the first
// eight bytes, a pattern of that number after it.
Bytes Pattern(uint64_t first, uint8_t salt = 0, uint64_t count = 1) {
  Bytes all(count * 512);
  for (uint64_t k = 0; k < count; ++k) {
    uint8_t* s = all.data() + k * 512;
    for (size_t i = 0; i < 512; ++i) s[i] = static_cast<uint8_t>((first + k) * 7 + i * 13 + salt);
    for (int i = 0; i < 8; ++i) s[i] = static_cast<uint8_t>((first + k) >> (8 * i));
  }
  return all;
}
Bytes Patterns(uint64_t first, uint64_t count) { return Pattern(first, 0, count); }

Bytes Zeros(uint64_t sectors) { return Bytes(sectors * 512, 0); }

Bytes Slice(const Bytes& bytes, size_t from, size_t count) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(from + count));
}

// The MBR of the test disks: NTFS from 2048, FAT32 from 6144, a Linux
// partition (no saved boot record) from 10240.
Bytes TestMbr() {
  return e2e::Mbr({Entry(0x80, 0x07, 2048, 4096), Entry(0, 0x0C, 6144, 4096), Entry(0, 0x83, 10240, 2048)},
                  0xCAFEF00D);
}

// Patterns, the test MBR, and two boot sectors that name their file
// systems and nothing else (no label to find, no MFT to follow).
Bytes FullImage(uint64_t sectors) {
  Bytes all = Patterns(0, sectors);
  const Bytes mbr = TestMbr();
  std::copy(mbr.begin(), mbr.end(), all.begin());
  std::fill_n(all.begin() + 2048 * 512, 512, 0);
  std::copy_n("NTFS    ", 8, all.begin() + 2048 * 512 + 3);
  all[2048 * 512 + 510] = 0x55;
  all[2048 * 512 + 511] = 0xAA;
  std::fill_n(all.begin() + 6144 * 512, 512, 0);
  std::copy_n("FAT32   ", 8, all.begin() + 6144 * 512 + 82);
  return all;
}

class SectorsTest : public ::testing::Test {
 protected:
  SectorsTest() { machine_.Set("computername", "VERYLONGCOMPUTERNAME"); }

  e2e::Image& AddDisk(int number, std::map<std::string, std::string> keys = {}, uint64_t sectors = kDiskSectors) {
    e2e::Image& image = machine_.AddDrive(number, sectors, keys);
    Fill(image);
    return image;
  }

  static void Fill(const e2e::Image& image) { image.Write(0, FullImage(image.sectors())); }

  e2e::Result Run(Args args) {
    args.push_back("/result");
    return machine_.Run(args);
  }
  e2e::Result Expect(int code, const Args& args, const std::string& text = "", const std::string& input = "") {
    return e2e::Expect(machine_, code, args, text, input);
  }

  std::string File(const std::string& name) const { return machine_.PathOf(name); }
  Bytes ReadFile(const std::string& name) const {
    const std::string text = e2e::ReadFileText(File(name));
    return Bytes(text.begin(), text.end());
  }
  void WriteFile(const std::string& name, const Bytes& bytes) const {
    e2e::WriteFileText(File(name), std::string(bytes.begin(), bytes.end()));
  }

  e2e::Machine machine_;
};

// ---- save= ------------------------------------------------------------

TEST_F(SectorsTest, SaveMbrAndTrack0WithAndWithoutHeader) {
  e2e::Image& disk = AddDisk(0);
  const Bytes track0 = disk.Read(0, 63);
  for (const char* area : {"mbr", "track0"}) {
    for (bool raw : {false, true}) {
      SCOPED_TRACE(std::string(area) + (raw ? " nohdr" : ""));
      const size_t sectors = area == std::string("mbr") ? 1 : 63;
      Args args = {std::string("/save=") + area, "/filename=out.bin"};
      if (raw) args.push_back("/nohdr");
      Expect(0, args, std::string(" The ") + (sectors == 1 ? "MBR" : "track 0") + " was successfully saved to out.bin\n");
      const Bytes file = ReadFile("out.bin");
      const size_t header = raw ? 0 : 512;
      ASSERT_EQ(header + sectors * 512, file.size());
      EXPECT_EQ(Slice(track0, 0, sectors * 512), Slice(file, header, sectors * 512));
      if (!raw) {
        EXPECT_EQ(sectors == 1 ? 1 : 2, file[10]);
      }
    }
  }
  EXPECT_EQ(track0, disk.Read(0, 63));
}

TEST_F(SectorsTest, FileNamesLongerThanAnArgumentValue) {
  AddDisk(0);
  const std::string folder = std::string(120, 'a') + "/" + std::string(120, 'b');
  e2e::Shell("mkdir -p '" + File(folder) + "'");
  const std::string name = folder + "/" + std::string(60, 'c') + ".bin";  // 306 characters
  Expect(0, {"/save=mbr", "/filename=" + name, "/nohdr"}, " The MBR was successfully saved to " + name + "\n");
  EXPECT_EQ(TestMbr(), ReadFile(name));
  Expect(0, {"/compare", "/source=0", "/target=" + name});
}

TEST_F(SectorsTest, HeaderFieldsByteForByte) {
  AddDisk(0);
  AddDisk(1,
          {{"instance", "IDE\\DiskWDC\\5&2a4f5&0&0.0.0"},
           {"friendlyname", "WDC WD5000AAKX-00ERMA0 WD Blue 500GB ATA Device"},
           {"media", "removable"}},
          20000);
  ASSERT_EQ(0, ResultOf(Run({"/save=vbr", "/disk=1", "/part=2", "/filename=vbr.bin"})));
  const Bytes file = ReadFile("vbr.bin");
  ASSERT_EQ(512u + 3 * 512, file.size());

  Bytes h(512, 0);
  auto put = [&](size_t at, const std::string& text) { std::copy(text.begin(), text.end(), h.begin() + at); };
  auto le = [&](size_t at, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) h[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
  };
  put(0, "DDdhk");
  h[5] = 3;            // format version
  le(6, 512, 2);       // sector size
  h[10] = 5;           // volume boot record
  h[43] = 1;           // an MBR disk
  h[44] = 1;           // removable
  le(45, 20000, 8);    // disk sectors
  le(53, 3, 2);        // primary partitions
  put(57, "WDC WD5000AAKX-00ERMA0 WD Blue");  // 30 characters, no terminator
  le(104, 2, 2);       // disks in this run
  put(106, "VERYLONGCOMPUT");                 // 14 characters and a terminator
  le(122, 6144, 8);    // first sector
  le(130, 3, 8);       // sector count
  le(138, 1, 2);       // source disk
  le(214, 0x0C0102, 3);  // source partition, slot and type
  put(510, "DD");
  EXPECT_EQ(h, Slice(file, 0, 512));
  EXPECT_EQ(Patterns(6145, 2), Slice(file, 1024, 1024));

  // A save that starts at no partition names none; disk 0 is fixed.
  ASSERT_EQ(0, ResultOf(Run({"/save=range", "/range=100-1", "/filename=range.bin"})));
  const Bytes range = ReadFile("range.bin");
  ASSERT_EQ(1024u, range.size());
  EXPECT_EQ(0, range[44]);
  EXPECT_EQ(Bytes(3, 0), Slice(range, 214, 3));
  EXPECT_EQ(Pattern(100), Slice(range, 512, 512));
}

TEST_F(SectorsTest, SaveVbrBySectorCountOfTheType) {
  AddDisk(0);
  Expect(0, {"/save=vbr", "/part=1", "/filename=ntfs.bin"},
         " The volume boot record was successfully saved to ntfs.bin\n");
  const Bytes file = ReadFile("ntfs.bin");
  ASSERT_EQ(512u + 7 * 512, file.size());
  EXPECT_EQ(Pattern(2049), Slice(file, 1024, 512));

  Expect(0, {"/save=vbr", "/part=2", "/filename=fat.bin", "/nohdr"});
  EXPECT_EQ(Patterns(6145, 2), Slice(ReadFile("fat.bin"), 512, 1024));

  Expect(149, {"/save=vbr", "/part=3", "/filename=linux.bin"}, " Error 149: Unsupported partition boot record for\n");
  EXPECT_TRUE(ReadFile("linux.bin").empty());
  Expect(106, {"/save=vbr", "/part=4", "/filename=none.bin"});
  Expect(133, {"/save=vbr", "/part=1"}, " Error 133: Invalid or missing filename\n");
}

TEST_F(SectorsTest, SaveRangeCountsSectorsFromItsStart) {
  AddDisk(0);
  Expect(0, {"/save=range", "/range=2048-4096", "/filename=r.bin"},
         " The specified sector range was successfully saved to r.bin\n");
  const Bytes file = ReadFile("r.bin");
  ASSERT_EQ(512u + 4096 * 512, file.size());
  EXPECT_EQ(Patterns(2049, 4095), Slice(file, 1024, 4095 * 512));  // sectors 2048..6143
  EXPECT_EQ(4, file[10]);

  // Exactly one and two chunks.
  const std::pair<const char*, uint64_t> chunks[] = {{"/range=0-2048", 2048}, {"/range=3-4096", 4096}};
  for (const auto& [range, count] : chunks) {
    Expect(0, {"/save=range", range, "/filename=c.bin", "/nohdr"});
    EXPECT_EQ(count * 512, ReadFile("c.bin").size()) << range;
  }
  for (const char* bad : {"/range=100", "/range=5-0", "/range=-5"}) {
    Expect(111, {"/save=range", bad, "/filename=bad.bin"},
           " Error 111: Missing or incomplete Range specified for the operation\n");
  }
  Expect(111, {"/save=range", "/filename=bad.bin"});
}

TEST_F(SectorsTest, ProgressScreenOnlyAbove13000Sectors) {
  AddDisk(0);
  e2e::Result quiet = Expect(0, {"/save=range", "/range=0-13000", "/filename=q.bin"});
  EXPECT_FALSE(Has(quiet, "please wait")) << quiet.out;
  EXPECT_FALSE(Has(quiet, "Mar 15, 2011")) << quiet.out;
  // Without a console the cursor stays put, so the texts follow each other.
  Expect(0, {"/save=range", "/range=0-13001", "/filename=p.bin"},
         "\n Diskhold - Version 3.0.83 for Windows          Mar 15, 2011\n"
         "  Partition table and boot record utility - (c) 2026 The Diskhold developers\n"
         "Saving sectors to file, please wait...1% complete15% complete31% complete47% complete"
         "63% complete78% complete100% complete\n The specified sector range was successfully saved");
  EXPECT_EQ((1 + 13001u) * 512, ReadFile("p.bin").size());
}

TEST_F(SectorsTest, SaveDiskThenRestoreIntoABlankImageGivesTheSameImage) {
  e2e::Image& source = AddDisk(0);
  e2e::Image& blank = machine_.AddDrive(1, kDiskSectors);
  Expect(0, {"/save=disk", "/filename=disk.bin"}, " The disk was successfully saved to disk.bin\n");
  EXPECT_EQ((1 + kDiskSectors) * 512, ReadFile("disk.bin").size());
  e2e::Result r = Expect(0, {"/restore=disk", "/disk=1", "/filename=disk.bin"},
                         "Preparing to restore the specified sector, are you sure? (Y/N): y\n\n", "y");
  EXPECT_TRUE(Has(r, "\n Sector Count: 16384 \n")) << r.out;
  EXPECT_TRUE(Has(r, " The disk was successfully restored from disk.bin\n")) << r.out;
  EXPECT_EQ(source.Hash(), blank.Hash());
}

// ---- restore= ---------------------------------------------------------

TEST_F(SectorsTest, RestoreMbrChecksSizeAndSignature) {
  e2e::Image& disk = AddDisk(0);
  const std::string before = disk.Hash();
  Bytes unsigned512 = Pattern(0, 9);
  unsigned512[511] = 0;
  WriteFile("nosig.bin", unsigned512);
  Expect(561, {"/restore=mbr", "/filename=nosig.bin", "/confirm"},
         " Error 561: File does not contain a valid MBR. Use /Ignore to force write.\n\n");
  EXPECT_EQ(before, disk.Hash());
  Expect(0, {"/restore=mbr", "/filename=nosig.bin", "/confirm", "/ignore"});
  EXPECT_EQ(unsigned512, disk.Read(0));
  disk.Write(0, TestMbr());

  WriteFile("raw1024.bin", Concat({TestMbr(), Pattern(1, 9)}));
  Expect(560, {"/restore=mbr", "/filename=raw1024.bin", "/confirm"},
         " Error 560: File size does not match requested command\n");
  EXPECT_EQ(before, disk.Hash());

  // A header file that carries one sector more than the MBR is refused:
  // its second sector would land on sector 1 (a GPT's header).
  ASSERT_EQ(0, ResultOf(Run({"/save=mbr", "/filename=h.bin"})));
  Bytes header = Slice(ReadFile("h.bin"), 0, 512);
  header[130] = 2;
  Bytes mbr = TestMbr();
  mbr[0x1B8] = 0x77;  // another signature
  WriteFile("two.bin", Concat({header, mbr, Pattern(1, 9)}));
  const std::string unchanged = disk.Hash();
  Expect(560, {"/restore=mbr", "/filename=two.bin", "/confirm"});
  EXPECT_EQ(unchanged, disk.Hash());

  Expect(564, {"/restore=mbr", "/filename=missing.bin", "/confirm"});
  Expect(133, {"/restore=mbr", "/confirm"});
}

TEST_F(SectorsTest, RestoreDiskFromA3MiBRawFileWritesItsSectors) {
  e2e::Image& disk = AddDisk(0);
  Bytes data = Pattern(0, 0x5A, 6144);
  const Bytes mbr = TestMbr();
  std::copy(mbr.begin(), mbr.end(), data.begin());
  WriteFile("three.bin", data);
  Expect(0, {"/restore=disk", "/filename=three.bin", "/confirm"}, "\n Sector Count: 6144 \n");
  EXPECT_EQ(data, disk.Read(0, 6144));
  EXPECT_EQ(Slice(FullImage(kDiskSectors), 6144 * 512, 10 * 512), disk.Read(6144, 10));
}

TEST_F(SectorsTest, RestoreToASectorNumber) {
  e2e::Image& disk = AddDisk(0);
  WriteFile("one.bin", Pattern(63, 0x33));
  Expect(0, {"/restore=63", "/filename=one.bin"},
         " The specified sector range was successfully restored from one.bin\n", "Y");
  EXPECT_EQ(Concat({Pattern(62), Pattern(63, 0x33), Pattern(64)}), disk.Read(62, 3));
  // Declined: nothing is written.
  WriteFile("one.bin", Pattern(63, 0x44));
  Expect(129, {"/restore=63", "/filename=one.bin"}, "", "n");
  EXPECT_EQ(Pattern(63, 0x33), disk.Read(63));
}

TEST_F(SectorsTest, RestoreVbrNeedsASavedBootRecordAndAPartition) {
  e2e::Image& disk = AddDisk(0);
  ASSERT_EQ(0, ResultOf(Run({"/save=vbr", "/part=2", "/filename=fat.bin"})));
  const Bytes saved = disk.Read(6144, 3);
  disk.Write(6144, Zeros(3));
  Expect(0, {"/restore=vbr", "/part=2", "/filename=fat.bin", "/confirm"},
         " The volume boot record was successfully restored from fat.bin\n");
  EXPECT_EQ(saved, disk.Read(6144, 3));
  EXPECT_EQ(Pattern(6147), disk.Read(6147));

  const std::string before = disk.Hash();
  ASSERT_EQ(0, ResultOf(Run({"/save=vbr", "/part=2", "/filename=raw.bin", "/nohdr"})));
  ASSERT_EQ(0, ResultOf(Run({"/save=mbr", "/filename=mbr.bin"})));
  Expect(150, {"/restore=vbr", "/part=2", "/filename=raw.bin", "/confirm"},
         " Error 150: Specified file does not appear to be a valid Diskholder file.\n");
  Expect(150, {"/restore=vbr", "/part=2", "/filename=mbr.bin", "/confirm"});
  Expect(118, {"/restore=vbr", "/filename=fat.bin", "/confirm"}, " Error 118: Missing or Incomplete Parameter: /Part\n");
  Expect(106, {"/restore=vbr", "/part=9", "/filename=fat.bin", "/confirm"}, " Error 106: Invalid Partition specified.\n");
  Expect(134, {"/restore=vbr", "/part=2", "/filename=gone.bin", "/confirm"},
         " Error 134: Unable to locate the specified file\n");
  EXPECT_EQ(before, disk.Hash());
}

// ---- show= ------------------------------------------------------------

TEST_F(SectorsTest, ShowHeaderFilesOfEveryKind) {
  AddDisk(0, {{"instance", "IDE\\DiskWDC\\1"}, {"friendlyname", "WDC WD5000 ATA Device"}});
  for (const Args& save : {Args{"/save=mbr", "/filename=mbr.bin"}, Args{"/save=track0", "/filename=track0.bin"},
                           Args{"/save=range", "/range=2048-5", "/filename=range.bin"},
                           Args{"/save=vbr", "/part=1", "/filename=vbr.bin"},
                           Args{"/save=disk", "/filename=disk.bin"}}) {
    ASSERT_EQ(0, ResultOf(Run(save))) << save[0];
  }
  // A GPT save and a kind no save writes, made from the MBR file's header.
  Bytes header = ReadFile("mbr.bin");
  header[10] = 3;
  WriteFile("gpt.bin", header);
  header[10] = 9;
  header[5] = 7;
  WriteFile("odd.bin", header);

  std::string out;
  for (const char* name : {"mbr.bin", "track0.bin", "gpt.bin", "range.bin", "vbr.bin", "disk.bin", "odd.bin"}) {
    out += Expect(0, {"/show=file", std::string("/filename=") + name}).out;
  }
  ExpectGolden("sectors_show_header_files.txt", out);
}

TEST_F(SectorsTest, ShowRawFilesBySize) {
  AddDisk(0);
  const Bytes mbr = TestMbr();
  Bytes boot = Zeros(1), floppy = Zeros(1), other = Zeros(1), dd = Zeros(2);
  boot[0] = 0xEB, boot[1] = 0x58, boot[510] = 0x55, boot[511] = 0xAA;
  std::copy_n("FAT32", 5, floppy.begin() + 3);
  other[0] = 0xFA;
  dd[0] = 'D', dd[1] = 'D', dd[10] = 1;  // passes for a header file
  const std::pair<const char*, Bytes> files[] = {
      {"mbr.raw", mbr},
      {"boot.raw", boot},
      {"floppy.raw", floppy},
      {"other.raw", other},
      {"track0.raw", Concat({mbr, Patterns(1, 62)})},
      {"unsigned_track0.raw", Patterns(0, 63)},
      {"two.raw", Concat({mbr, Pattern(1)})},
      {"a_file_name_of_thirty_one_chars", mbr},  // 31 characters
      {"dd.raw", dd},
  };
  std::string out;
  for (const auto& [name, bytes] : files) {
    WriteFile(name, bytes);
    out += Run({"/show=file", std::string("/filename=") + name}).out;
  }
  ExpectGolden("sectors_show_raw_files.txt", out);
}

TEST_F(SectorsTest, ShowSectorsAndRefusals) {
  e2e::Image& disk = AddDisk(0);
  std::string out;
  for (const Args& args : {Args{"/show=file"}, Args{"/show=file", "/filename=gone.bin"}, Args{"/show=sector"},
                           Args{"/show=bogus"}, Args{"/show=sector", "/sector=1"}, Args{"/show=hidden"}}) {
    out += Run(args).out;
  }
  ExpectGolden("sectors_show_refusals.txt", out);

  disk.Write(9, e2e::Mbr({Entry(0, 0x06, 63, 1000)}));
  out.clear();
  for (const Args& args : {Args{"/show=sector", "/sector=0"}, Args{"/show=Hidden"}}) out += Expect(0, args).out;
  ExpectGolden("sectors_show_sector.txt", out);
}

// ---- wipe=, copy, compare ------------------------------------------------

TEST_F(SectorsTest, WipeClearsExactlyItsArea) {
  e2e::Image& disk = AddDisk(0);
  struct Case {
    Args args;
    uint64_t first, last;  // last < first: nothing
    const char* message;
  };
  const char* const kRange = " Specified sectors successfully cleared \n";
  for (const Case& c : {
           Case{{"/wipe=mbr"}, 0, 0, " MBR successfully cleared \n"},
           Case{{"/wipe=TRACK0"}, 0, 62, " Track 0 successfully cleared \n"},
           Case{{"/wipe=range", "/range=100-100"}, 100, 100, kRange},
           Case{{"/wipe=range", "/range=100-99"}, 1, 0, kRange},
           Case{{"/wipe=range", "/range=2000-6000"}, 2000, 6000, kRange},
       }) {
    Fill(disk);
    Args args = c.args;
    args.push_back("/confirm");
    Expect(0, args, c.message);
    Bytes expected = FullImage(kDiskSectors);
    if (c.last >= c.first) std::fill_n(expected.begin() + c.first * 512, (c.last - c.first + 1) * 512, 0);
    EXPECT_EQ(expected, disk.Read(0, kDiskSectors)) << c.args.back();
  }

  Fill(disk);
  e2e::Result r = Expect(0, {"/wipe=disk"}, "Preparing to wipe the entire disk, are you sure? (Y/N): y\n\n", "y");
  EXPECT_TRUE(Has(r, " Disk successfully cleared \n")) << r.out;
  EXPECT_EQ(Zeros(kDiskSectors), disk.Read(0, kDiskSectors));

  Fill(disk);
  Expect(111, {"/wipe=range", "/confirm"});
  Expect(111, {"/wipe=range", "/range=100", "/confirm"});
  Expect(131, {"/wipe=gpt", "/confirm"});
  Expect(129, {"/wipe=mbr"}, "", "n");
  EXPECT_EQ(TestMbr(), disk.Read(0));
}

TEST_F(SectorsTest, BadSectorsFailTheirAreaAndNothingBeyondIsTouched) {
  e2e::Image& disk = AddDisk(0, {{"badsectors", "10,3000,16380"}});
  Expect(506, {"/save=track0", "/filename=t.bin"},
         " Error 506: Unable to read the specified sector from the selected disk\n\n");
  // The unreadable sector is left out; the others follow each other.
  const Bytes file = ReadFile("t.bin");
  ASSERT_EQ(512u + 62 * 512, file.size());
  EXPECT_EQ(Pattern(11), Slice(file, 512 + 10 * 512, 512));

  Expect(508, {"/save=range", "/range=2048-4096", "/filename=r.bin"},
         " Error 508: An error ocurred reading the backup file\n\n");
  // Past the end of the disk the save fails as well.
  Expect(508, {"/save=range", "/range=16381-100", "/filename=end.bin", "/nohdr"});

  Expect(505, {"/wipe=range", "/range=2990-3010", "/confirm"},
         " Error 505: Unable to save the specified sectors to the selected disk\n\n");
  EXPECT_EQ(Concat({Pattern(2989), Zeros(10), Pattern(3000), Zeros(10), Pattern(3011)}),
            disk.Read(2989, 23));

  // The last sectors of the disk, one of them bad, and sectors beyond it.
  Expect(505, {"/wipe=range", "/range=16377-16390", "/confirm"});
  EXPECT_EQ(Concat({Pattern(16376), Zeros(3), Pattern(16380), Zeros(3)}), disk.Read(16376, 8));
  EXPECT_EQ(kDiskSectors * 512, disk.Read(0, kDiskSectors + 10).size());
}

TEST_F(SectorsTest, CopyOneSectorToAnother) {
  e2e::Image& disk = AddDisk(0, {{"badsectors", "4000"}});
  e2e::Result r = Expect(0, {"/copy", "/source=2050", "/target=100"},
                         "Preparing to copy the selected sectors, are you sure? (Y/N): y\n\n", "y");
  EXPECT_TRUE(Has(r, " Sector was successfully copied \n")) << r.out;
  EXPECT_EQ(Pattern(2050), disk.Read(100));
  EXPECT_EQ(Pattern(2050), disk.Read(2050));

  const std::string before = disk.Hash();
  Expect(506, {"/copy", "/source=4000", "/target=101", "/confirm"});
  Expect(122, {"/copy", "/target=101", "/confirm"});
  Expect(109, {"/copy", "/source=5", "/confirm"});
  // A target that is not a number is refused, not read as sector 0.
  Expect(109, {"/copy", "/source=5", "/target=mbr", "/confirm"}, " Error 109: Missing or invalid /Target=x command\n");
  EXPECT_EQ(before, disk.Hash());
}

TEST_F(SectorsTest, CompareSectorsAndFiles) {
  AddDisk(0, {{"badsectors", "4000"}});
  ASSERT_EQ(0, ResultOf(Run({"/save=track0", "/filename=t.bin"})));
  WriteFile("mbr.raw", TestMbr());
  WriteFile("other.raw", Pattern(1));
  // The header is never compared, only the first data sector.
  Expect(0, {"/compare", "/source=0", "/target=t.bin"}, " The specified items compared successfully\n");
  Expect(0, {"/compare", "/source=t.bin", "/target=mbr.raw"});
  Expect(153, {"/compare", "/source=mbr.raw", "/target=other.raw"}, " Error 153: The specified items do not match.\n");
  Expect(153, {"/compare", "/source=0", "/target=1"});
  Expect(151, {"/compare", "/source=gone.bin", "/target=0"}, " Error 151: Unable to open file gone.bin\n");
  Expect(152, {"/compare", "/source=0", "/target=gone.bin"}, " Error 152: Unable to open file gone.bin\n");
  Expect(122, {"/compare", "/target=1"});
  Expect(109, {"/compare", "/source=1"});

  // An unreadable sector ends the run as an exception does, without a
  // result line; the exit value tells the failure (506, low 8 bits).
  e2e::Result r = Run({"/compare", "/source=4000", "/target=t.bin"});
  EXPECT_TRUE(r.out.size() >= 27 && r.out.substr(r.out.size() - 27) == "Error 99: Exception thrown\n") << r.out;
  EXPECT_FALSE(Has(r, "Result:"));
  EXPECT_EQ(506 & 0xFF, r.status);
}

// ---- GPT areas ----------------------------------------------------------

TEST_F(SectorsTest, GptAreasOnGptAndMbrDisks) {
  if (!e2e::HaveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
  e2e::Image& disk = machine_.AddDrive(0, kDiskSectors);
  disk.Write(0, Patterns(0, kDiskSectors));
  int status = 0;
  e2e::Shell("sgdisk -o -n 1:2048:4095 -t 1:0700 '" + disk.path() + "' >/dev/null 2>&1", &status);
  ASSERT_EQ(0, status);
  const Bytes area = disk.Read(0, 34);

  Expect(0, {"/save=gpt", "/filename=gpt.bin"}, " The GPT was successfully saved to gpt.bin\n");
  Bytes file = ReadFile("gpt.bin");
  ASSERT_EQ(512u + 34 * 512, file.size());  // 128 entries: 34 sectors
  EXPECT_EQ(area, Slice(file, 512, 34 * 512));
  EXPECT_EQ(3, file[10]);
  EXPECT_EQ(0, file[43]);

  // A GPT entry has no type byte: the file system found there decides.
  disk.Write(2048, Slice(FullImage(kDiskSectors), 2048 * 512, 512));
  Expect(0, {"/save=vbr", "/part=1", "/filename=vbr.bin"});
  file = ReadFile("vbr.bin");
  ASSERT_EQ(512u + 7 * 512, file.size());
  EXPECT_EQ(disk.Read(2048, 7), Slice(file, 512, 7 * 512));
  EXPECT_EQ(1, file[214]);

  // The entries are lost; the restore brings them back.
  disk.Write(2, Zeros(1));
  Expect(0, {"/restore=gpt", "/filename=gpt.bin"}, "Preparing to restore the GPT, are you sure? (Y/N): y\n\n", "y");
  EXPECT_EQ(area, disk.Read(0, 34));

  Expect(0, {"/wipe=gpt", "/confirm"}, " Specified sectors successfully cleared \n");
  EXPECT_EQ(Concat({Zeros(34), Pattern(34)}), disk.Read(0, 35));  // up to the first usable sector

  e2e::Image& mbrDisk = AddDisk(1);
  const std::string before = mbrDisk.Hash();
  for (const Args& args : {Args{"/save=gpt", "/disk=1", "/filename=x.bin"},
                           Args{"/restore=gpt", "/disk=1", "/filename=gpt.bin", "/confirm"},
                           Args{"/wipe=gpt", "/disk=1", "/confirm"}}) {
    Expect(131, args, " Error 131: Unable to perform GPT operations on Non-GPT Disks\n");
  }
  EXPECT_EQ(before, mbrDisk.Hash());
}

}  // namespace

namespace {

// Commands whose work is the whole disk or sector 0 run on a disk with a
// table but no partition, and on a blank disk, without the default
// partition 1 getting in their way; a partition number given explicitly is
// still checked, and so is the partition of a boot-record backup.
TEST(WholeDiskCommands, RunOnDisksWithoutPartitions) {
  for (bool blank : {false, true}) {
    e2e::Machine m;
    e2e::Image& disk = m.AddDrive(0, 4096);
    // A table without partitions, as sfdisk writes it where it is there.
    if (!blank && e2e::HaveTool("sfdisk")) e2e::ShellOk("echo 'label: dos' | sfdisk -q '" + disk.path() + "'");
    if (!blank && !e2e::HaveTool("sfdisk")) disk.Write(0, e2e::Mbr({}, 0x11223344));
    const std::vector<Args> works = {
        {"/signature=Read"}, {"/status"}, {"/save=mbr", "/filename=m.dhb"}, {"/save=track0", "/filename=t.dhb"},
        {"/save=disk", "/filename=d.dhb"}, {"/save=range", "/range=0-8", "/filename=r.dhb"},
        {"/show=sector", "/sector=0"}, {"/info"}, {"/writeini", "/filename=w.ini"},
        {"/copy", "/source=1", "/target=2", "/confirm"}, {"/compare", "/source=1", "/target=2"},
        {"/wipe=range", "/range=100-110", "/confirm"}, {"/status=0", "/confirm"}, {"/repair=pt"},
        {"/restore=disk", "/filename=d.dhb", "/confirm"}};
    for (Args args : works) {
      // What lives in an MBR needs one.
      const bool needsMbr = args[0] == "/signature=Read" || args[0] == "/status" || args[0] == "/status=0";
      if (blank && needsMbr) continue;
      args.push_back("/result");
      const e2e::Result r = m.Run(args);
      // show=sector of a sector without 55 AA answers as it always does.
      const int expected = blank && args[0] == "/show=sector" ? 510 : 0;
      EXPECT_EQ(ResultOf(r), expected) << (blank ? "blank: " : "empty table: ") << args[0] << "\n" << r.out;
    }
    EXPECT_EQ(ResultOf(m.Run({"/save=mbr", "/part=2", "/filename=x.dhb", "/result"})), 106);
    EXPECT_EQ(ResultOf(m.Run({"/save=vbr", "/filename=x.dhb", "/result"})), 106);
  }
}

}  // namespace
