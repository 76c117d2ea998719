// Volume labels and IDs end to end: volumes made by mkfs.fat and mkntfs and
// a hand-built NTFS volume show their labels in the listing and their IDs
// through volumeid=Read, and a label selects its partition across disks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Bytes;
using e2e::Entry;
using e2e::Image;
using e2e::Machine;
using e2e::Mbr;
using e2e::PutLe;
using e2e::Result;

// Formats a file of `megabytes` with the tool and copies it to `lba` of
// the image.  False when the tool is missing or fails.
bool WriteMadeVolume(const Image& image, uint64_t lba, const std::string& tool, const std::string& options,
                     uint32_t megabytes) {
  if (!e2e::HaveTool(tool)) return false;
  const std::string file =
      ::testing::TempDir() + "diskhold_e2e_volume_" + std::to_string(::getpid()) + "_" + std::to_string(lba) + ".img";
  int status = -1;
  e2e::Shell("rm -f '" + file + "' && truncate -s " + std::to_string(megabytes) + "M '" + file + "' && " + tool + " " +
                 options + " '" + file + "' >/dev/null 2>&1 && dd if='" + file + "' of='" + image.path() +
                 "' bs=512 seek=" + std::to_string(lba) + " conv=notrunc,sparse status=none && rm -f '" + file + "'",
             &status);
  return status == 0;
}

// An NTFS volume of 1 KiB records whose $Volume record holds the label as a
// resident value; serial number 0x9ABCDEF0.
void WriteNtfsVolume(const Image& image, uint64_t lba, const std::string& label) {
  Bytes boot(512, 0);
  std::memcpy(&boot[3], "NTFS    ", 8);
  PutLe(boot, 11, 512, 2);
  boot[13] = 8;     // clusters of 4 KiB
  boot[48] = 4;     // MFT at cluster 4
  boot[64] = 0xF6;  // 1,024-byte file records
  PutLe(boot, 72, 0x9ABCDEF0, 4);
  boot[510] = 0x55;
  boot[511] = 0xAA;
  image.Write(lba, boot);

  Bytes record(1024, 0);
  std::memcpy(&record[0], "FILE", 4);
  PutLe(record, 20, 56, 2);
  const size_t valueLength = label.size() * 2;
  const size_t attrLength = (24 + valueLength + 7) / 8 * 8;
  PutLe(record, 56, 0x60, 4);
  PutLe(record, 60, attrLength, 4);
  PutLe(record, 56 + 16, valueLength, 4);
  PutLe(record, 56 + 20, 24, 2);
  for (size_t i = 0; i < label.size(); ++i) record[56 + 24 + 2 * i] = static_cast<uint8_t>(label[i]);
  PutLe(record, 56 + attrLength, 0xFFFFFFFF, 4);
  image.Write(lba + 4 * 8 + 3 * 2, record);
}

// The listing row of a partition: the line holding its start sector.
std::string RowWith(const std::string& out, const std::string& start) {
  const size_t at = out.find(" " + start + " ");
  if (at == std::string::npos) return "";
  const size_t begin = out.rfind('\n', at) + 1;
  return out.substr(begin, out.find('\n', at) - begin);
}

// Labels fill their column, cut or blank-filled to 11 characters; the
// volume ID is the serial number's low four bytes.
TEST(Volume, LabelsAndIdsOfMadeVolumes) {
  Machine m;
  Image& disk = m.AddDrive(0, 2048 + 4 * 32768);
  disk.Write(0, Mbr({Entry(0, 0x06, 2048, 32768), Entry(0, 0x0C, 34816, 32768), Entry(0, 0x07, 67584, 32768),
                     Entry(0, 0x07, 100352, 32768)}));
  if (!WriteMadeVolume(disk, 2048, "mkfs.fat", "-F 16 -n MYDATA -i 1234ABCD", 16) ||
      !WriteMadeVolume(disk, 34816, "mkfs.fat", "-F 32 -n ARCHIVE2024 -i 89ABCDEF", 16) ||
      !WriteMadeVolume(disk, 67584, "mkntfs", "-q -F -f -L 'Backup Disk'", 16)) {
    GTEST_SKIP() << "mkfs.fat or mkntfs is not available";
  }
  WriteNtfsVolume(disk, 100352, "Data");

  Result r = m.Run({"/list", "/text", "/silent"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const Bytes made = disk.Read(67584);
  char madeId[16];
  std::snprintf(madeId, sizeof madeId, "%02X%02X-f%02X%02X", made[75], made[74], made[73], made[72]);
  struct Case {
    const char* start;
    const char* label;
    std::string id;
  };
  const Case cases[] = {{"2,048", " MYDATA      ", "1234-fABCD"}, {"34,816", " ARCHIVE2024 ", "89AB-fCDEF"},
                        {"67,584", " Backup Disk ", madeId}, {"100,352", " Data        ", "9ABC-fDEF0"}};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_NE(RowWith(r.out, cases[i].start).find(cases[i].label), std::string::npos) << r.out;
    const Result id = m.Run({"/volumeid=Read", "/part=" + std::to_string(i + 1), "/silent"});
    EXPECT_EQ(id.out, cases[i].id) << i;
  }
}

// /vol= with a label finds the partition on the second disk whatever the
// label's letter case, and the command acts on that partition only.
TEST(Volume, LabelSelectsItsPartition) {
  Machine m;
  Image& first = m.AddDrive(0, 8192);
  first.Write(0, Mbr({Entry(0, 0x07, 2048, 4096)}));
  WriteNtfsVolume(first, 2048, "System");
  Image& second = m.AddDrive(1, 8192);
  second.Write(0, Mbr({Entry(0, 0x07, 2048, 2048), Entry(0, 0x07, 4096, 2048)}));
  WriteNtfsVolume(second, 2048, "Games");
  WriteNtfsVolume(second, 4096, "Archive");
  const std::string firstHash = first.Hash();

  Result r = m.Run({"/hide", "/vol=ARCHIVE", "/confirm", "/silent"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const Bytes mbr = second.Read(0);
  EXPECT_EQ(mbr[446 + 4], 0x07);
  EXPECT_EQ(mbr[446 + 16 + 4], 0x17);
  EXPECT_EQ(first.Hash(), firstHash);

  // A label that no volume carries selects nothing.
  Result none = m.Run({"/hide", "/vol=Nowhere", "/confirm", "/silent"});
  EXPECT_NE(none.status, 0) << none.out;
}

}  // namespace
