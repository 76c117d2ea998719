// Volume labels and IDs end to end: volumes made by mkfs.fat, mkfs.exfat and
// mkntfs and a hand-built NTFS volume show their labels in the listing and
// their IDs through volumeid=Read, as blkid sees them; an encrypted volume
// shows none; and a label selects its partition across disks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
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

// What `blkid -p` says of one tag of a volume file: "" when it names none.
std::string Probe(const std::string& file, const char* tag) {
  std::string value = e2e::Shell(std::string("blkid -p -o value -s ") + tag + " '" + file + "' 2>/dev/null");
  if (!value.empty() && value.back() == '\n') value.pop_back();
  return value;
}

// The stand-in of a BitLocker volume, as far as blkid looks: the boot
// sector of Windows 7 and later (a FAT32 look-alike with "-FVE-FS-" and the
// BitLocker GUID) and the three metadata blocks it points at.
void WriteBitLockerVolume(const Image& volume) {
  Bytes boot(512, 0);
  const uint8_t jump[] = {0xEB, 0x58, 0x90};
  std::memcpy(&boot[0], jump, 3);
  std::memcpy(&boot[3], "-FVE-FS-", 8);
  PutLe(boot, 11, 512, 2);
  boot[13] = 8;
  std::memcpy(&boot[82], "FAT32   ", 8);
  const uint8_t guid[] = {0x3B, 0xD6, 0x67, 0x49, 0x29, 0x2E, 0xD8, 0x4A,
                          0x83, 0x99, 0xF6, 0xA3, 0x39, 0xE3, 0xD0, 0x01};
  std::memcpy(&boot[160], guid, sizeof guid);
  for (int i = 0; i < 3; ++i) PutLe(boot, 176 + 8 * i, (i + 1) * 0x10000, 8);
  boot[510] = 0x55;
  boot[511] = 0xAA;
  volume.Write(0, boot);
  for (int i = 0; i < 3; ++i) {
    Bytes block(512, 0);
    std::memcpy(&block[0], "-FVE-FS-", 8);
    PutLe(block, 8, 0x40, 2);
    PutLe(block, 10, 2, 2);
    volume.Write((i + 1) * 0x10000 / 512, block);
  }
}

// One INI section of a report, from its heading to the next.
std::string Section(const std::string& report, const std::string& name) {
  const size_t at = report.find("[" + name + "]");
  if (at == std::string::npos) return "";
  return report.substr(at, report.find("\r\n[", at) - at) + "\r\n";
}

// An exFAT volume (mkfs.exfat), a FAT16 volume whose label starts with the
// character 0xE5 (stored as 0x05) and an encrypted volume, on an MBR disk
// and on a GPT disk: the listing, volumeid=Read and the INI report show
// the label, the serial number and (GPT) the file system that blkid finds,
// and nothing for the encrypted volume, which blkid names BitLocker.
TEST(Volume, ExfatEscapedFatAndEncryptedVolumesAsBlkidSeesThem) {
  for (const char* tool : {"mkfs.exfat", "tune.exfat", "mkfs.fat", "blkid", "sgdisk"}) {
    if (!e2e::HaveTool(tool)) GTEST_SKIP() << tool << " is not installed";
  }
  constexpr uint64_t kSize = 32768;
  Machine m;
  struct Volume {
    const char* name;
    uint8_t mbrType;
    const char* kind;  // the GPT section's Type: the file system found
    std::string label, id;  // as blkid reads them
  };
  std::vector<Volume> volumes = {{"exfat", 0x07, "06", "", ""}, {"fat16", 0x06, "01", "", ""},
                                 {"bitlocker", 0x07, "00", "", ""}};
  Image& mbr = m.AddDrive(0, 2048 + 3 * kSize);
  Image& gpt = m.AddDrive(1, 2048 + 3 * kSize + 2048);
  e2e::ShellOk("sgdisk -n 1:2048:+16M -t 1:0700 -n 2:0:+16M -t 2:0700 -n 3:0:+16M -t 3:0700 '" + gpt.path() +
               "' >/dev/null");
  std::vector<Bytes> entries;
  for (size_t i = 0; i < volumes.size(); ++i) {
    Volume& v = volumes[i];
    const std::string file = m.PathOf(std::string(v.name) + ".vol");
    const Image volume(file, kSize);
    if (i == 0) {
      e2e::ShellOk("mkfs.exfat -L 'USB Stick' '" + file + "' >/dev/null && tune.exfat -I 0x5EC0ABCD '" + file +
                   "' >/dev/null");
    } else if (i == 1) {
      e2e::ShellOk("mkfs.fat -F 16 -n XABC -i 1234ABCD '" + file + "' >/dev/null");
      // mkfs.fat refuses the character itself; the escape is what systems
      // store for it.
      Bytes boot = volume.Read(0);
      const uint64_t root = (boot[14] | boot[15] << 8) + boot[16] * (boot[22] | boot[23] << 8);
      Bytes dir = volume.Read(root);
      ASSERT_EQ(std::string(dir.begin(), dir.begin() + 11), "XABC       ");
      dir[0] = 0x05;
      volume.Write(root, dir);
    } else {
      WriteBitLockerVolume(volume);
    }
    v.label = Probe(file, "LABEL");
    v.id = Probe(file, "UUID");
    const uint64_t start = 2048 + i * kSize;
    e2e::ShellOk("for d in '" + mbr.path() + "' '" + gpt.path() + "'; do dd if='" + file +
                 "' of=\"$d\" bs=512 seek=" + std::to_string(start) + " conv=notrunc,sparse status=none; done");
    entries.push_back(Entry(0, v.mbrType, static_cast<uint32_t>(start), kSize));
  }
  mbr.Write(0, Mbr(entries));
  // blkid's view, which the program must match.
  ASSERT_EQ(Probe(m.PathOf("exfat.vol"), "TYPE"), "exfat");
  ASSERT_EQ(Probe(m.PathOf("bitlocker.vol"), "TYPE"), "BitLocker");
  EXPECT_EQ(volumes[0].label, "USB Stick");
  EXPECT_EQ(volumes[0].id, "5EC0-ABCD");
  EXPECT_EQ(volumes[1].label, "\xE5" "ABC");
  EXPECT_EQ(volumes[2].label + volumes[2].id, "");

  const Result list = m.Run({"/list", "/disk=0", "/text", "/silent"});
  ASSERT_EQ(list.status, 0) << list.out << list.err;
  ASSERT_EQ(m.Run({"/writeini", "/Filename=r.ini"}).status, 0);
  const std::string ini = e2e::ReadFileText(m.PathOf("r.ini"));
  for (size_t i = 0; i < volumes.size(); ++i) {
    const Volume& v = volumes[i];
    const std::string n = std::to_string(i + 1);
    // The program writes "-f" between the halves that blkid joins with "-".
    std::string id = v.id;
    if (!id.empty()) id.insert(5, "f");
    std::string shown = v.label.empty() ? "<None>" : v.label;
    shown.resize(11, ' ');
    const char* const starts[] = {"2,048", "34,816", "67,584"};
    EXPECT_NE(RowWith(list.out, starts[i]).find(" " + shown), std::string::npos) << v.name << "\n" << list.out;
    EXPECT_EQ(m.Run({"/volumeid=Read", "/disk=0", "/part=" + n, "/silent"}).out, id) << v.name;
    const std::string onMbr = Section(ini, "Disk0.Partition" + n);
    EXPECT_NE(onMbr.find("\r\nVolumeID=" + id + "\r\n"), std::string::npos) << onMbr;
    if (v.label.empty()) {
      EXPECT_EQ(onMbr.find("\r\nVolLabel="), std::string::npos) << onMbr;
    } else {
      EXPECT_NE(onMbr.find("\r\nVolLabel=" + v.label + "\r\n"), std::string::npos) << onMbr;
    }
    const std::string onGpt = Section(ini, "Disk1.Partition" + n);
    EXPECT_NE(onGpt.find("\r\nType=" + std::string(v.kind) + "\r\n"), std::string::npos) << onGpt;
    EXPECT_NE(onGpt.find("\r\nVolumeID=" + id + "\r\n"), std::string::npos) << onGpt;
    EXPECT_NE(onGpt.find("\r\nVolumeName=" + v.label + "\r\n"), std::string::npos) << onGpt;
  }
  // The GPT listing names exFAT where blkid does.
  const Result gptList = m.Run({"/list", "/disk=1", "/text", "/silent"});
  EXPECT_NE(gptList.out.find(" exFAT "), std::string::npos) << gptList.out;
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
