// Sector maintenance end to end: save=, restore=, show=, wipe=, copy and
// compare on simulated machines whose sectors carry their own numbers, so
// that every byte of a backup file and of an image afterwards can be
// checked; the displays of show= are compared with golden/sectors_*.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using Bytes = std::vector<uint8_t>;
using e2e::Entry;

constexpr uint64_t kDiskSectors = 16384;

std::string GoldenPath(const std::string& name) {
  const std::string here = __FILE__;
  const size_t slash = here.rfind('/');
  return (slash == std::string::npos ? std::string(".") : here.substr(0, slash)) + "/golden/" + name;
}

void ExpectGolden(const std::string& name, const std::string& actual) {
  const std::string expected = e2e::ReadFileText(GoldenPath(name));
  ASSERT_FALSE(expected.empty()) << "missing golden file " << GoldenPath(name);
  if (expected == actual) return;
  const std::string saved = ::testing::TempDir() + name + ".actual";
  e2e::WriteFileText(saved, actual);
  ADD_FAILURE() << "output differs from " << name << "; actual output saved in " << saved;
}

// The whole value of the "/result" line, which ends the output.
int ResultOf(const e2e::Result& r) {
  const size_t at = r.out.rfind("Result:");
  if (at == std::string::npos) return -99999;
  return std::atoi(r.out.c_str() + at + 7);
}

bool Has(const e2e::Result& r, const std::string& text) { return r.out.find(text) != std::string::npos; }

// Sector `lba` of the test disks: its number in the first eight bytes, a
// pattern of that number after it.
Bytes Pattern(uint64_t lba, uint8_t salt = 0) {
  Bytes s(512);
  for (size_t i = 0; i < 512; ++i) s[i] = static_cast<uint8_t>(lba * 7 + i * 13 + salt);
  for (int i = 0; i < 8; ++i) s[static_cast<size_t>(i)] = static_cast<uint8_t>(lba >> (8 * i));
  return s;
}

Bytes Patterns(uint64_t first, uint64_t count, uint8_t salt = 0) {
  Bytes all;
  for (uint64_t i = 0; i < count; ++i) {
    Bytes s = Pattern(first + i, salt);
    all.insert(all.end(), s.begin(), s.end());
  }
  return all;
}

Bytes Zeros(uint64_t sectors) { return Bytes(sectors * 512, 0); }

Bytes Slice(const Bytes& bytes, size_t from, size_t count) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(from + count));
}

Bytes Concat(const Bytes& a, const Bytes& b) {
  Bytes all = a;
  all.insert(all.end(), b.begin(), b.end());
  return all;
}

Bytes ReadBytes(const std::string& path) {
  const std::string text = e2e::ReadFileText(path);
  return Bytes(text.begin(), text.end());
}

void WriteBytes(const std::string& path, const Bytes& bytes) {
  e2e::WriteFileText(path, std::string(bytes.begin(), bytes.end()));
}

// The MBR of the test disks: NTFS from 2048, FAT32 from 6144, a Linux
// partition (no saved boot record) from 10240.
Bytes TestMbr() {
  return e2e::Mbr({Entry(0x80, 0x07, 2048, 4096), Entry(0, 0x0C, 6144, 4096), Entry(0, 0x83, 10240, 2048)},
                  0xCAFEF00D);
}

class SectorsTest : public ::testing::Test {
 protected:
  SectorsTest() { machine_.Set("computername", "VERYLONGCOMPUTERNAME"); }

  // A disk whose sectors hold their patterns, with the test MBR, an NTFS
  // boot sector at 2048 and a FAT32 one at 6144.
  e2e::Image& AddDisk(int number, std::map<std::string, std::string> keys = {}, uint64_t sectors = kDiskSectors) {
    e2e::Image& image = machine_.AddDrive(number, sectors, keys);
    Fill(image);
    return image;
  }

  static void Fill(const e2e::Image& image) { image.Write(0, FullImage(image.sectors())); }

  // Patterns, the test MBR, and two boot sectors that name their file
  // systems and nothing else (no label to find, no MFT to follow).
  static Bytes FullImage(uint64_t sectors) {
    Bytes all = Patterns(0, sectors);
    const Bytes mbr = TestMbr();
    std::copy(mbr.begin(), mbr.end(), all.begin());
    Bytes ntfs = Zeros(1);
    std::copy_n("NTFS    ", 8, ntfs.begin() + 3);
    ntfs[510] = 0x55;
    ntfs[511] = 0xAA;
    std::copy(ntfs.begin(), ntfs.end(), all.begin() + 2048 * 512);
    Bytes fat = Zeros(1);
    std::copy_n("FAT32   ", 8, fat.begin() + 82);
    std::copy(fat.begin(), fat.end(), all.begin() + 6144 * 512);
    return all;
  }

  e2e::Result Run(std::vector<std::string> args, const std::string& input = "") {
    args.push_back("/result");
    return machine_.Run(args, input);
  }

  std::string File(const std::string& name) const { return machine_.PathOf(name); }

  e2e::Machine machine_;
};

// ---- save= ------------------------------------------------------------

TEST_F(SectorsTest, SaveMbrAndTrack0WithAndWithoutHeader) {
  e2e::Image& disk = AddDisk(0);
  const Bytes track0 = disk.Read(0, 63);
  struct Case {
    const char* area;
    bool raw;
    size_t sectors;
  };
  for (const Case& c : {Case{"mbr", false, 1}, Case{"mbr", true, 1}, Case{"track0", false, 63},
                        Case{"track0", true, 63}}) {
    std::vector<std::string> args = {std::string("/save=") + c.area, "/filename=out.bin"};
    if (c.raw) args.push_back("/nohdr");
    e2e::Result r = Run(args);
    SCOPED_TRACE(std::string(c.area) + (c.raw ? " nohdr" : ""));
    EXPECT_EQ(0, ResultOf(r)) << r.out;
    EXPECT_TRUE(Has(r, std::string(" The ") + (c.sectors == 1 ? "MBR" : "track 0") +
                           " was successfully saved to out.bin\n"))
        << r.out;
    const Bytes file = ReadBytes(File("out.bin"));
    const size_t header = c.raw ? 0 : 512;
    ASSERT_EQ(header + c.sectors * 512, file.size());  // 512 / 1,024 and 32,256 / 32,768 bytes
    EXPECT_EQ(Slice(track0, 0, c.sectors * 512), Slice(file, header, c.sectors * 512));
    if (!c.raw) {
      EXPECT_EQ(c.sectors == 1 ? 1 : 2, file[10]);
    }
  }
  EXPECT_EQ(track0, disk.Read(0, 63));
}

TEST_F(SectorsTest, FileNamesLongerThanAnArgumentValue) {
  AddDisk(0);
  const std::string folder = std::string(120, 'a') + "/" + std::string(120, 'b');
  e2e::Shell("mkdir -p '" + File(folder) + "'");
  const std::string name = folder + "/" + std::string(60, 'c') + ".bin";  // 306 characters
  e2e::Result r = Run({"/save=mbr", "/filename=" + name, "/nohdr"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The MBR was successfully saved to " + name + "\n")) << r.out;
  EXPECT_EQ(TestMbr(), ReadBytes(File(name)));
  r = Run({"/compare", "/source=0", "/target=" + name});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
}

TEST_F(SectorsTest, HeaderFieldsByteForByte) {
  const std::map<std::string, std::string> registry = {
      {"instance", "IDE\\DiskWDC\\5&2a4f5&0&0.0.0"},
      {"friendlyname", "WDC WD5000AAKX-00ERMA0 WD Blue 500GB ATA Device"}};
  AddDisk(0);
  std::map<std::string, std::string> second = registry;
  second["media"] = "removable";
  AddDisk(1, second, 20000);

  e2e::Result r = Run({"/save=vbr", "/disk=1", "/part=2", "/filename=vbr.bin"});
  ASSERT_EQ(0, ResultOf(r)) << r.out;
  const Bytes file = ReadBytes(File("vbr.bin"));
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
  h[214] = 2;          // source partition, slot and type
  h[215] = 1;
  h[216] = 0x0C;
  put(510, "DD");
  EXPECT_EQ(h, Slice(file, 0, 512));
  EXPECT_EQ(Patterns(6145, 2), Slice(file, 1024, 1024));

  // A save that starts at no partition names none; disk 0 is fixed.
  r = Run({"/save=range", "/range=100-1", "/filename=range.bin"});
  ASSERT_EQ(0, ResultOf(r)) << r.out;
  const Bytes range = ReadBytes(File("range.bin"));
  ASSERT_EQ(1024u, range.size());
  EXPECT_EQ(0, range[44]);
  EXPECT_EQ(Bytes(3, 0), Slice(range, 214, 3));
  EXPECT_EQ(Pattern(100), Slice(range, 512, 512));
}

TEST_F(SectorsTest, SaveVbrBySectorCountOfTheType) {
  AddDisk(0);
  e2e::Result r = Run({"/save=vbr", "/part=1", "/filename=ntfs.bin"});
  EXPECT_TRUE(Has(r, " The volume boot record was successfully saved to ntfs.bin\n")) << r.out;
  Bytes file = ReadBytes(File("ntfs.bin"));
  ASSERT_EQ(512u + 7 * 512, file.size());
  EXPECT_EQ(Pattern(2049), Slice(file, 1024, 512));

  r = Run({"/save=vbr", "/part=2", "/filename=fat.bin", "/nohdr"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_EQ(Patterns(6145, 2), Slice(ReadBytes(File("fat.bin")), 512, 1024));

  r = Run({"/save=vbr", "/part=3", "/filename=linux.bin"});
  EXPECT_EQ(149, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 149: Unsupported partition boot record for\n")) << r.out;
  EXPECT_TRUE(ReadBytes(File("linux.bin")).empty());

  r = Run({"/save=vbr", "/part=4", "/filename=none.bin"});
  EXPECT_EQ(106, ResultOf(r));
  r = Run({"/save=vbr", "/part=1"});
  EXPECT_EQ(133, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 133: Invalid or missing filename\n")) << r.out;
}

TEST_F(SectorsTest, SaveRangeCountsSectorsFromItsStart) {
  AddDisk(0);
  e2e::Result r = Run({"/save=range", "/range=2048-4096", "/filename=r.bin"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The specified sector range was successfully saved to r.bin\n")) << r.out;
  Bytes file = ReadBytes(File("r.bin"));
  ASSERT_EQ(512u + 4096 * 512, file.size());
  EXPECT_EQ(Patterns(2049, 4095), Slice(file, 1024, 4095 * 512));  // sectors 2048..6143
  EXPECT_EQ(4, file[10]);

  // Exactly one and two chunks.
  for (const char* range : {"/range=0-2048", "/range=3-4096"}) {
    r = Run({"/save=range", range, "/filename=c.bin", "/nohdr"});
    EXPECT_EQ(0, ResultOf(r)) << range << r.out;
    const uint64_t count = std::string(range) == "/range=0-2048" ? 2048 : 4096;
    EXPECT_EQ(count * 512, ReadBytes(File("c.bin")).size()) << range;
  }

  for (const char* bad : {"/range=100", "/range=5-0", "/range=-5"}) {
    r = Run({"/save=range", bad, "/filename=bad.bin"});
    EXPECT_EQ(111, ResultOf(r)) << bad;
    EXPECT_TRUE(Has(r, " Error 111: Missing or incomplete Range specified for the operation\n")) << r.out;
  }
  EXPECT_EQ(111, ResultOf(Run({"/save=range", "/filename=bad.bin"})));
}

TEST_F(SectorsTest, ProgressScreenOnlyAbove13000Sectors) {
  AddDisk(0);
  e2e::Result quiet = Run({"/save=range", "/range=0-13000", "/filename=q.bin"});
  EXPECT_EQ(0, ResultOf(quiet));
  EXPECT_FALSE(Has(quiet, "please wait")) << quiet.out;
  EXPECT_FALSE(Has(quiet, "Mar 15, 2011")) << quiet.out;

  e2e::Result shown = Run({"/save=range", "/range=0-13001", "/filename=p.bin"});
  EXPECT_EQ(0, ResultOf(shown));
  // Without a console the cursor stays put, so the texts follow each other.
  EXPECT_TRUE(Has(shown,
                  "\n Diskhold - Version 3.0.83 for Windows          Mar 15, 2011\n"
                  "  Partition table and boot record utility - (c) 2026 The Diskhold developers\n"
                  "Saving sectors to file, please wait...1% complete15% complete31% complete47% complete"
                  "63% complete78% complete100% complete\n The specified sector range was successfully saved"))
      << shown.out;
  EXPECT_EQ((1 + 13001u) * 512, ReadBytes(File("p.bin")).size());
}

TEST_F(SectorsTest, SaveDiskThenRestoreIntoABlankImageGivesTheSameImage) {
  e2e::Image& source = AddDisk(0);
  e2e::Image& blank = machine_.AddDrive(1, kDiskSectors);
  e2e::Result r = Run({"/save=disk", "/filename=disk.bin"});
  ASSERT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The disk was successfully saved to disk.bin\n")) << r.out;
  EXPECT_EQ((1 + kDiskSectors) * 512, ReadBytes(File("disk.bin")).size());

  r = Run({"/restore=disk", "/disk=1", "/filename=disk.bin"}, "y");
  ASSERT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, "Preparing to restore the specified sector, are you sure? (Y/N): y\n\n")) << r.out;
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
  WriteBytes(File("nosig.bin"), unsigned512);
  e2e::Result r = Run({"/restore=mbr", "/filename=nosig.bin", "/confirm"});
  EXPECT_EQ(561, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 561: File does not contain a valid MBR. Use /Ignore to force write.\n\n")) << r.out;
  EXPECT_EQ(before, disk.Hash());

  r = Run({"/restore=mbr", "/filename=nosig.bin", "/confirm", "/ignore"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_EQ(unsigned512, disk.Read(0));
  disk.Write(0, TestMbr());

  Bytes twoRaw = Concat(TestMbr(), Pattern(1, 9));
  WriteBytes(File("raw1024.bin"), twoRaw);
  r = Run({"/restore=mbr", "/filename=raw1024.bin", "/confirm"});
  EXPECT_EQ(560, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 560: File size does not match requested command\n")) << r.out;
  EXPECT_EQ(before, disk.Hash());

  // A header file may carry one sector more than asked for.
  ASSERT_EQ(0, ResultOf(Run({"/save=mbr", "/filename=h.bin"})));
  Bytes header = Slice(ReadBytes(File("h.bin")), 0, 512);
  header[130] = 2;
  Bytes mbr = TestMbr();
  mbr[0x1B8] = 0x77;  // another signature
  WriteBytes(File("two.bin"), Concat(Concat(header, mbr), Pattern(1, 9)));
  r = Run({"/restore=mbr", "/filename=two.bin", "/confirm"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The MBR was successfully restored from two.bin\n")) << r.out;
  EXPECT_EQ(Concat(mbr, Pattern(1, 9)), disk.Read(0, 2));
  EXPECT_EQ(Pattern(2), disk.Read(2));

  EXPECT_EQ(564, ResultOf(Run({"/restore=mbr", "/filename=missing.bin", "/confirm"})));
  EXPECT_EQ(133, ResultOf(Run({"/restore=mbr", "/confirm"})));
}

TEST_F(SectorsTest, RestoreDiskFromA3MiBRawFileWritesItsSectors) {
  e2e::Image& disk = AddDisk(0);
  Bytes data = Patterns(0, 6144, 0x5A);
  const Bytes mbr = TestMbr();
  std::copy(mbr.begin(), mbr.end(), data.begin());
  WriteBytes(File("three.bin"), data);
  e2e::Result r = Run({"/restore=disk", "/filename=three.bin", "/confirm"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, "\n Sector Count: 6144 \n")) << r.out;
  EXPECT_EQ(data, disk.Read(0, 6144));
  EXPECT_EQ(Slice(FullImage(kDiskSectors), 6144 * 512, 10 * 512), disk.Read(6144, 10));
}

TEST_F(SectorsTest, RestoreToASectorNumber) {
  e2e::Image& disk = AddDisk(0);
  WriteBytes(File("one.bin"), Pattern(63, 0x33));
  e2e::Result r = Run({"/restore=63", "/filename=one.bin"}, "Y");
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The specified sector range was successfully restored from one.bin\n")) << r.out;
  EXPECT_EQ(Pattern(63, 0x33), disk.Read(63));
  EXPECT_EQ(Pattern(62), disk.Read(62));
  EXPECT_EQ(Pattern(64), disk.Read(64));

  // Declined: nothing is written.
  WriteBytes(File("one.bin"), Pattern(63, 0x44));
  r = Run({"/restore=63", "/filename=one.bin"}, "n");
  EXPECT_EQ(129, ResultOf(r));
  EXPECT_EQ(Pattern(63, 0x33), disk.Read(63));
}

TEST_F(SectorsTest, RestoreVbrNeedsASavedBootRecordAndAPartition) {
  e2e::Image& disk = AddDisk(0);
  ASSERT_EQ(0, ResultOf(Run({"/save=vbr", "/part=2", "/filename=fat.bin"})));
  const Bytes saved = disk.Read(6144, 3);
  disk.Write(6144, Zeros(3));
  e2e::Result r = Run({"/restore=vbr", "/part=2", "/filename=fat.bin", "/confirm"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The volume boot record was successfully restored from fat.bin\n")) << r.out;
  EXPECT_EQ(saved, disk.Read(6144, 3));
  EXPECT_EQ(Pattern(6147), disk.Read(6147));

  const std::string before = disk.Hash();
  ASSERT_EQ(0, ResultOf(Run({"/save=vbr", "/part=2", "/filename=raw.bin", "/nohdr"})));
  ASSERT_EQ(0, ResultOf(Run({"/save=mbr", "/filename=mbr.bin"})));
  struct Case {
    std::vector<std::string> args;
    int code;
    const char* line;
  };
  for (const Case& c : {
           Case{{"/restore=vbr", "/part=2", "/filename=raw.bin"}, 150,
                " Error 150: Specified file does not appear to be a valid Diskholder file.\n"},
           Case{{"/restore=vbr", "/part=2", "/filename=mbr.bin"}, 150, nullptr},
           Case{{"/restore=vbr", "/filename=fat.bin"}, 118, " Error 118: Missing or Incomplete Parameter: /Part\n"},
           Case{{"/restore=vbr", "/part=9", "/filename=fat.bin"}, 106, " Error 106: Invalid Partition specified.\n"},
           Case{{"/restore=vbr", "/part=2", "/filename=gone.bin"}, 134,
                " Error 134: Unable to locate the specified file\n"},
       }) {
    std::vector<std::string> args = c.args;
    args.push_back("/confirm");
    r = Run(args);
    EXPECT_EQ(c.code, ResultOf(r)) << args[1] << " " << args.back();
    if (c.line) {
      EXPECT_TRUE(Has(r, c.line)) << r.out;
    }
  }
  EXPECT_EQ(before, disk.Hash());
}

// ---- show= ------------------------------------------------------------

TEST_F(SectorsTest, ShowHeaderFilesOfEveryKind) {
  AddDisk(0, {{"instance", "IDE\\DiskWDC\\1"}, {"friendlyname", "WDC WD5000 ATA Device"}});
  ASSERT_EQ(0, ResultOf(Run({"/save=mbr", "/filename=mbr.bin"})));
  ASSERT_EQ(0, ResultOf(Run({"/save=track0", "/filename=track0.bin"})));
  ASSERT_EQ(0, ResultOf(Run({"/save=range", "/range=2048-5", "/filename=range.bin"})));
  ASSERT_EQ(0, ResultOf(Run({"/save=vbr", "/part=1", "/filename=vbr.bin"})));
  ASSERT_EQ(0, ResultOf(Run({"/save=disk", "/filename=disk.bin"})));
  // A GPT save and a kind no save writes, made from the MBR file's header.
  Bytes mbrFile = ReadBytes(File("mbr.bin"));
  Bytes gpt = mbrFile;
  gpt[10] = 3;
  WriteBytes(File("gpt.bin"), gpt);
  Bytes odd = mbrFile;
  odd[10] = 9;
  odd[5] = 7;
  WriteBytes(File("odd.bin"), odd);

  std::string out;
  for (const char* name : {"mbr.bin", "track0.bin", "gpt.bin", "range.bin", "vbr.bin", "disk.bin", "odd.bin"}) {
    e2e::Result r = Run({"/show=file", std::string("/filename=") + name});
    EXPECT_EQ(0, ResultOf(r)) << name;
    out += r.out;
  }
  ExpectGolden("sectors_show_header_files.txt", out);
}

TEST_F(SectorsTest, ShowRawFilesBySize) {
  AddDisk(0);
  Bytes mbr = TestMbr();
  WriteBytes(File("mbr.raw"), mbr);
  Bytes boot = Zeros(1);
  boot[0] = 0xEB;
  boot[1] = 0x58;
  boot[510] = 0x55;
  boot[511] = 0xAA;
  WriteBytes(File("boot.raw"), boot);
  Bytes floppy = Zeros(1);
  std::copy_n("FAT32", 5, floppy.begin() + 3);
  WriteBytes(File("floppy.raw"), floppy);
  Bytes other = Zeros(1);
  other[0] = 0xFA;
  WriteBytes(File("other.raw"), other);
  WriteBytes(File("track0.raw"), Concat(mbr, Patterns(1, 62)));
  WriteBytes(File("unsigned_track0.raw"), Patterns(0, 63));
  WriteBytes(File("two.raw"), Concat(mbr, Pattern(1)));
  WriteBytes(File("a_file_name_of_thirty_one_chars"), mbr);  // 31 characters
  // A raw file that begins with "DD" passes for a header file.
  Bytes dd = Zeros(2);
  dd[0] = 'D';
  dd[1] = 'D';
  dd[10] = 1;
  WriteBytes(File("dd.raw"), dd);

  std::string out;
  for (const char* name : {"mbr.raw", "boot.raw", "floppy.raw", "other.raw", "track0.raw", "unsigned_track0.raw",
                           "two.raw", "a_file_name_of_thirty_one_chars", "dd.raw"}) {
    e2e::Result r = Run({"/show=file", std::string("/filename=") + name});
    out += r.out;
  }
  ExpectGolden("sectors_show_raw_files.txt", out);
}

TEST_F(SectorsTest, ShowRefusals) {
  AddDisk(0);
  std::string out;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"/show=file"}, {"/show=file", "/filename=gone.bin"}, {"/show=sector"},
        {"/show=bogus"}, {"/show=sector", "/sector=1"}, {"/show=hidden"}}) {
    e2e::Result r = Run(args);
    out += r.out;
  }
  ExpectGolden("sectors_show_refusals.txt", out);
}

TEST_F(SectorsTest, ShowSectorAndHiddenSector) {
  e2e::Image& disk = AddDisk(0);
  disk.Write(9, e2e::Mbr({Entry(0, 0x06, 63, 1000)}));
  std::string out;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"/show=sector", "/sector=0"}, {"/show=Hidden"}}) {
    e2e::Result r = Run(args);
    EXPECT_EQ(0, ResultOf(r)) << r.out;
    out += r.out;
  }
  ExpectGolden("sectors_show_sector.txt", out);
}

// ---- wipe=, copy, compare ------------------------------------------------

TEST_F(SectorsTest, WipeClearsExactlyItsArea) {
  e2e::Image& disk = AddDisk(0);
  struct Case {
    std::vector<std::string> args;
    uint64_t first, last;  // last < first: nothing
    const char* message;
  };
  for (const Case& c : {
           Case{{"/wipe=mbr"}, 0, 0, " MBR successfully cleared \n"},
           Case{{"/wipe=TRACK0"}, 0, 62, " Track 0 successfully cleared \n"},
           Case{{"/wipe=range", "/range=100-100"}, 100, 100, " Specified sectors successfully cleared \n"},
           Case{{"/wipe=range", "/range=100-99"}, 1, 0, " Specified sectors successfully cleared \n"},
           Case{{"/wipe=range", "/range=2000-6000"}, 2000, 6000, " Specified sectors successfully cleared \n"},
       }) {
    Fill(disk);
    std::vector<std::string> args = c.args;
    args.push_back("/confirm");
    e2e::Result r = Run(args);
    SCOPED_TRACE(c.args.back());
    EXPECT_EQ(0, ResultOf(r));
    EXPECT_TRUE(Has(r, c.message)) << r.out;
    const Bytes after = disk.Read(0, kDiskSectors);
    Bytes expected = FullImage(kDiskSectors);
    if (c.last >= c.first) std::fill_n(expected.begin() + c.first * 512, (c.last - c.first + 1) * 512, 0);
    EXPECT_EQ(expected, after);
  }

  Fill(disk);
  e2e::Result r = Run({"/wipe=disk"}, "y");
  EXPECT_TRUE(Has(r, "Preparing to wipe the entire disk, are you sure? (Y/N): y\n\n")) << r.out;
  EXPECT_TRUE(Has(r, " Disk successfully cleared \n")) << r.out;
  EXPECT_EQ(Zeros(kDiskSectors), disk.Read(0, kDiskSectors));

  Fill(disk);
  EXPECT_EQ(111, ResultOf(Run({"/wipe=range", "/confirm"})));
  EXPECT_EQ(111, ResultOf(Run({"/wipe=range", "/range=100", "/confirm"})));
  EXPECT_EQ(131, ResultOf(Run({"/wipe=gpt", "/confirm"})));
  EXPECT_EQ(129, ResultOf(Run({"/wipe=mbr"}, "n")));
  EXPECT_EQ(TestMbr(), disk.Read(0));
}

TEST_F(SectorsTest, BadSectorsFailTheirAreaAndNothingBeyondIsTouched) {
  e2e::Image& disk = AddDisk(0, {{"badsectors", "10,3000,16380"}});
  e2e::Result r = Run({"/save=track0", "/filename=t.bin"});
  EXPECT_EQ(506, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 506: Unable to read the specified sector from the selected disk\n\n")) << r.out;
  // The unreadable sector is left out; the others follow each other.
  Bytes file = ReadBytes(File("t.bin"));
  ASSERT_EQ(512u + 62 * 512, file.size());
  EXPECT_EQ(Pattern(11), Slice(file, 512 + 10 * 512, 512));

  r = Run({"/save=range", "/range=2048-4096", "/filename=r.bin"});
  EXPECT_EQ(508, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 508: An error ocurred reading the backup file\n\n")) << r.out;

  // Past the end of the disk the save fails as well.
  r = Run({"/save=range", "/range=16381-100", "/filename=end.bin", "/nohdr"});
  EXPECT_EQ(508, ResultOf(r));

  const std::string image = disk.Hash();
  r = Run({"/wipe=range", "/range=2990-3010", "/confirm"});
  EXPECT_EQ(505, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 505: Unable to save the specified sectors to the selected disk\n\n")) << r.out;
  EXPECT_EQ(Zeros(10), disk.Read(2990, 10));
  EXPECT_EQ(Pattern(3000), disk.Read(3000));
  EXPECT_EQ(Zeros(10), disk.Read(3001, 10));
  EXPECT_EQ(Pattern(2989), disk.Read(2989));
  EXPECT_EQ(Pattern(3011), disk.Read(3011));
  EXPECT_NE(image, disk.Hash());

  // The last sectors of the disk, one of them bad, and sectors beyond it.
  r = Run({"/wipe=range", "/range=16377-16390", "/confirm"});
  EXPECT_EQ(505, ResultOf(r));
  EXPECT_EQ(Zeros(3), disk.Read(16377, 3));
  EXPECT_EQ(Pattern(16380), disk.Read(16380));
  EXPECT_EQ(Zeros(3), disk.Read(16381, 3));
  EXPECT_EQ(Pattern(16376), disk.Read(16376));
  EXPECT_EQ(kDiskSectors * 512, disk.Read(0, kDiskSectors + 10).size());
}

TEST_F(SectorsTest, CopyOneSectorToAnother) {
  e2e::Image& disk = AddDisk(0, {{"badsectors", "4000"}});
  e2e::Result r = Run({"/copy", "/source=2050", "/target=100"}, "y");
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, "Preparing to copy the selected sectors, are you sure? (Y/N): y\n\n")) << r.out;
  EXPECT_TRUE(Has(r, " Sector was successfully copied \n")) << r.out;
  EXPECT_EQ(Pattern(2050), disk.Read(100));
  EXPECT_EQ(Pattern(2050), disk.Read(2050));

  const std::string before = disk.Hash();
  r = Run({"/copy", "/source=4000", "/target=101", "/confirm"});
  EXPECT_EQ(506, ResultOf(r));
  EXPECT_EQ(before, disk.Hash());
  EXPECT_EQ(122, ResultOf(Run({"/copy", "/target=101", "/confirm"})));
  EXPECT_EQ(109, ResultOf(Run({"/copy", "/source=5", "/confirm"})));
  // A target that is not a number is refused, not read as sector 0.
  r = Run({"/copy", "/source=5", "/target=mbr", "/confirm"});
  EXPECT_EQ(109, ResultOf(r));
  EXPECT_TRUE(Has(r, " Error 109: Missing or invalid /Target=x command\n")) << r.out;
  EXPECT_EQ(before, disk.Hash());
}

TEST_F(SectorsTest, CompareSectorsAndFiles) {
  AddDisk(0, {{"badsectors", "4000"}});
  ASSERT_EQ(0, ResultOf(Run({"/save=track0", "/filename=t.bin"})));
  WriteBytes(File("mbr.raw"), TestMbr());
  WriteBytes(File("other.raw"), Pattern(1));
  struct Case {
    const char* source;
    const char* target;
    int code;
    const char* line;
  };
  for (const Case& c : {
           // The header is never compared, only the first data sector.
           Case{"/source=0", "/target=t.bin", 0, " The specified items compared successfully\n"},
           Case{"/source=t.bin", "/target=mbr.raw", 0, nullptr},
           Case{"/source=mbr.raw", "/target=other.raw", 153, " Error 153: The specified items do not match.\n"},
           Case{"/source=0", "/target=1", 153, nullptr},
           Case{"/source=gone.bin", "/target=0", 151, " Error 151: Unable to open file gone.bin\n"},
           Case{"/source=0", "/target=gone.bin", 152, " Error 152: Unable to open file gone.bin\n"},
       }) {
    e2e::Result r = Run({"/compare", c.source, c.target});
    EXPECT_EQ(c.code, ResultOf(r)) << c.source << " " << c.target << r.out;
    if (c.line) {
      EXPECT_TRUE(Has(r, c.line)) << r.out;
    }
  }
  EXPECT_EQ(122, ResultOf(Run({"/compare", "/target=1"})));
  EXPECT_EQ(109, ResultOf(Run({"/compare", "/source=1"})));

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

  e2e::Result r = Run({"/save=gpt", "/filename=gpt.bin"});
  ASSERT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " The GPT was successfully saved to gpt.bin\n")) << r.out;
  Bytes file = ReadBytes(File("gpt.bin"));
  ASSERT_EQ(512u + 34 * 512, file.size());  // 128 entries: 34 sectors
  EXPECT_EQ(area, Slice(file, 512, 34 * 512));
  EXPECT_EQ(3, file[10]);
  EXPECT_EQ(0, file[43]);

  // A GPT entry has no type byte: the file system found there decides.
  disk.Write(2048, Slice(FullImage(kDiskSectors), 2048 * 512, 512));
  r = Run({"/save=vbr", "/part=1", "/filename=vbr.bin"});
  ASSERT_EQ(0, ResultOf(r)) << r.out;
  file = ReadBytes(File("vbr.bin"));
  ASSERT_EQ(512u + 7 * 512, file.size());
  EXPECT_EQ(disk.Read(2048, 7), Slice(file, 512, 7 * 512));
  EXPECT_EQ(1, file[214]);

  // The entries are lost; the restore brings them back.
  disk.Write(2, Zeros(1));
  r = Run({"/restore=gpt", "/filename=gpt.bin"}, "y");
  EXPECT_TRUE(Has(r, "Preparing to restore the GPT, are you sure? (Y/N): y\n\n")) << r.out;
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_EQ(area, disk.Read(0, 34));

  r = Run({"/wipe=gpt", "/confirm"});
  EXPECT_EQ(0, ResultOf(r)) << r.out;
  EXPECT_TRUE(Has(r, " Specified sectors successfully cleared \n")) << r.out;
  EXPECT_EQ(Zeros(34), disk.Read(0, 34));  // up to the first usable sector
  EXPECT_EQ(Pattern(34), disk.Read(34));

  e2e::Image& mbrDisk = AddDisk(1);
  const std::string before = mbrDisk.Hash();
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"/save=gpt", "/disk=1", "/filename=x.bin"},
        {"/restore=gpt", "/disk=1", "/filename=gpt.bin", "/confirm"}, {"/wipe=gpt", "/disk=1", "/confirm"}}) {
    r = Run(args);
    EXPECT_EQ(131, ResultOf(r)) << args[0];
    EXPECT_TRUE(Has(r, " Error 131: Unable to perform GPT operations on Non-GPT Disks\n")) << r.out;
  }
  EXPECT_EQ(before, mbrDisk.Hash());
}

}  // namespace
