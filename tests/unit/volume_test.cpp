// Volume boot record inspection: file system detection, FAT, exFAT and NTFS
// labels on hand-built volumes, hostile boot sectors, MFT records and exFAT
// cluster chains, the volume ID text and the error box.  Volumes made by
// mkfs.fat, mkfs.exfat and mkntfs are read end to end (e2e/volume_test).
#include "disk/volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/le.h"
#include "fake_machine.h"

namespace dh {
namespace {

constexpr uint64_t kDiskSectors = 16384;
constexpr uint64_t kVolumeLba = 2048;

void PutText(uint8_t* p, const char* text) { std::memcpy(p, text, std::strlen(text)); }

// ---- detection and the ID text, on plain buffers ---------------------------

TEST(DetectFileSystem, RecognisesEachSignatureInOrder) {
  struct Case {
    size_t offset;
    const char* text;
    FileSystemKind kind;
    const char* name;
  };
  const Case cases[] = {
      {3, "NTFS", kFsNtfs, "NTFS"},         {54, "FAT16", kFsFat16, "FAT16"},
      {82, "FAT32", kFsFat32, "FAT32"},     {1032, "HFSJ", kFsHfsJournaled, "HFS-J"},
      {1032, "10.0", kFsHfsExtended, "HFSEX"},  {3, "EXFAT   ", kFsExfat, "exFAT"},
  };
  for (const Case& c : cases) {
    uint8_t sectors[kVolumeProbeBytes] = {};
    PutText(sectors + c.offset, c.text);
    std::string name = "old";
    EXPECT_EQ(DetectFileSystem(sectors, &name), c.kind) << c.text;
    EXPECT_EQ(name, c.name);
  }

  // NTFS wins over a FAT16 text further on.
  uint8_t both[kVolumeProbeBytes] = {};
  PutText(both + 3, "NTFS");
  PutText(both + 54, "FAT16");
  std::string name;
  EXPECT_EQ(DetectFileSystem(both, &name), kFsNtfs);
  EXPECT_EQ(name, "NTFS");

  // Other volumes leave the name alone; FAT12 is not listed as a file system.
  uint8_t sectors[kVolumeProbeBytes] = {};
  PutText(sectors + 54, "FAT12   ");
  PutText(sectors + 1032, "H+");
  name = "keep";
  EXPECT_EQ(DetectFileSystem(sectors, &name), kFsNone);
  EXPECT_EQ(name, "keep");
  EXPECT_EQ(DetectFileSystem(sectors, nullptr), kFsNone);
  // A shorter buffer is never read past its end: the HFS signature at 1032
  // lies outside 1,030 bytes.
  PutText(sectors + 1032, "HFSJ");
  EXPECT_EQ(DetectFileSystem(sectors, 1030, &name), kFsNone);
  EXPECT_EQ(DetectFileSystem(sectors, 1036, &name), kFsHfsJournaled);
}

TEST(DetectFileSystem, BitLockerHoldsNoFileSystem) {
  // The boot sector of an encrypted volume names FAT32 where FAT32 does.
  uint8_t sectors[kVolumeProbeBytes] = {0xEB, 0x58, 0x90};
  PutText(sectors + 3, "-FVE-FS-");
  PutText(sectors + 82, "FAT32   ");
  std::string name = "keep";
  EXPECT_EQ(DetectFileSystem(sectors, &name), kFsNone);
  EXPECT_EQ(name, "keep");
  EXPECT_TRUE(IsBitLockerBootSector(sectors, sizeof sectors));
  // Only as far as the buffer goes.
  EXPECT_FALSE(IsBitLockerBootSector(sectors, 10));
  // "EXFAT" followed by other bytes than blanks is no exFAT name.
  PutText(sectors + 3, "EXFAT\0\0\0");
  EXPECT_EQ(DetectFileSystem(sectors, &name), kFsFat32);
}

TEST(VolumeId, FormatsTheSerialHighPairFirst) {
  const uint8_t serial[4] = {0xCD, 0xAB, 0x34, 0x12};
  EXPECT_EQ(FormatVolumeId(serial), "1234-fABCD");
  const uint8_t small[4] = {0x0A, 0x00, 0xF0, 0x01};
  EXPECT_EQ(FormatVolumeId(small), "01F0-f000A");
}

// ---- volumes on a fake drive ---------------------------------------------------

std::vector<uint8_t> Utf16(const std::u16string& text) {
  std::vector<uint8_t> bytes(text.size() * 2);
  for (size_t i = 0; i < text.size(); ++i) StoreLe16(bytes.data() + 2 * i, text[i]);
  return bytes;
}

// An attribute with a resident value.
std::vector<uint8_t> ResidentAttr(uint32_t type, const std::vector<uint8_t>& value) {
  std::vector<uint8_t> a(24 + ((value.size() + 7) & ~size_t{7}), 0);
  StoreLe32(a.data() + 0, type);
  StoreLe32(a.data() + 4, static_cast<uint32_t>(a.size()));
  a[8] = 0;
  StoreLe32(a.data() + 16, static_cast<uint32_t>(value.size()));
  StoreLe16(a.data() + 20, 24);
  std::copy(value.begin(), value.end(), a.begin() + 24);
  return a;
}

// An attribute whose value lies in clusters named by a run list.
std::vector<uint8_t> NonResidentAttr(uint32_t type, const std::vector<uint8_t>& runs, uint64_t allocated,
                                     uint64_t dataSize, uint64_t lastVcn = 0) {
  std::vector<uint8_t> a(64 + ((runs.size() + 8) & ~size_t{7}), 0);
  StoreLe32(a.data() + 0, type);
  StoreLe32(a.data() + 4, static_cast<uint32_t>(a.size()));
  a[8] = 1;
  StoreLe64(a.data() + 24, lastVcn);
  StoreLe16(a.data() + 32, 64);
  StoreLe64(a.data() + 40, allocated);
  StoreLe64(a.data() + 48, dataSize);
  std::copy(runs.begin(), runs.end(), a.begin() + 64);
  return a;
}

class VolumeTest : public test::FakeDiskTest {
 protected:
  // The tests read through the device of a set that loaded nothing.
  void SetUp() override { OpenUnloaded(kDiskSectors); }

  uint8_t* At(uint64_t byteOffset) { return drive->bytes.data() + byteOffset; }

  // A FAT boot sector; the root directory then starts at
  // lba + reserved + fats x sectorsPerFat.
  uint8_t* PutFatBoot(uint64_t lba, FileSystemKind kind, uint8_t sectorsPerCluster = 4, uint16_t reserved = 4,
                      uint8_t fats = 2, uint32_t sectorsPerFat = 16) {
    uint8_t* b = drive->Sector(lba);
    StoreLe16(b + vbr::kFatBytesPerSector, 512);
    b[vbr::kFatSectorsPerCluster] = sectorsPerCluster;
    StoreLe16(b + vbr::kFatReservedSectors, reserved);
    b[vbr::kFatCount] = fats;
    if (kind == kFsFat16) {
      StoreLe16(b + vbr::kFat16SectorsPerFat, static_cast<uint16_t>(sectorsPerFat));
      PutText(b + vbr::kFat16TypeText, "FAT16   ");
    } else {
      StoreLe32(b + vbr::kFat32SectorsPerFat, sectorsPerFat);
      StoreLe32(b + vbr::kFat32RootCluster, 2);
      PutText(b + vbr::kFat32TypeText, "FAT32   ");
    }
    b[510] = 0x55;
    b[511] = 0xAA;
    return b;
  }

  void PutDirEntry(uint64_t dirLba, size_t index, const char* name11, uint8_t attributes) {
    uint8_t* e = At(dirLba * 512 + index * vbr::kDirEntrySize);
    std::memcpy(e, name11, vbr::kDirNameSize);
    e[vbr::kDirAttributes] = attributes;
  }

  std::string Label(FileSystemKind kind, uint64_t lba = kVolumeLba) { return ReadVolumeLabel(kind, *disks, lba); }

  // An NTFS boot sector: 512-byte sectors, `sectorsPerCluster`, the MFT at
  // cluster `mftCluster`, records of 1 KiB (0xF6) unless said otherwise.
  uint8_t* PutNtfsBoot(uint64_t lba, uint8_t sectorsPerCluster = 8, uint64_t mftCluster = 4,
                       uint32_t recordCode = 0xF6) {
    uint8_t* b = drive->Sector(lba);
    PutText(b + vbr::kNtfsOemId, "NTFS    ");
    StoreLe16(b + vbr::kNtfsBytesPerSector, 512);
    b[vbr::kNtfsSectorsPerCluster] = sectorsPerCluster;
    StoreLe64(b + vbr::kNtfsMftCluster, mftCluster);
    StoreLe32(b + vbr::kNtfsClustersPerRecord, recordCode);
    b[510] = 0x55;
    b[511] = 0xAA;
    return b;
  }

  // Writes an MFT record "FILE" with the attributes in order and an end
  // marker at byte offset `where` of the drive.
  void PutRecord(uint64_t where, const std::vector<std::vector<uint8_t>>& attributes, size_t size = 1024) {
    uint8_t* r = At(where);
    std::memset(r, 0, size);
    PutText(r, "FILE");
    size_t offset = 56;
    StoreLe16(r + vbr::kRecordFirstAttribute, static_cast<uint16_t>(offset));
    for (const auto& a : attributes) {
      std::memcpy(r + offset, a.data(), a.size());
      offset += a.size();
    }
    StoreLe32(r + offset, 0xFFFFFFFF);
  }

  // Byte offset of MFT record 3 for the default boot sector at kVolumeLba.
  static uint64_t VolumeRecord(uint64_t clusterBytes = 4096, uint64_t mftCluster = 4, uint64_t recordBytes = 1024) {
    return kVolumeLba * 512 + mftCluster * clusterBytes + 3 * recordBytes;
  }

  std::vector<uint8_t> StandardInfo() { return ResidentAttr(0x10, std::vector<uint8_t>(48, 0x11)); }

  // An exFAT boot sector: clusters of 2^clusterShift 512-byte sectors, the
  // FAT at sector 8, the cluster heap at sector 16, the root at cluster 4.
  uint8_t* PutExfatBoot(uint64_t lba, uint8_t clusterShift = 1, uint32_t clusterCount = 100) {
    uint8_t* b = drive->Sector(lba);
    b[0] = 0xEB;
    b[1] = 0x76;
    b[2] = 0x90;
    PutText(b + vbr::kExfatName, "EXFAT   ");
    StoreLe32(b + vbr::kExfatFatOffset, 8);
    StoreLe32(b + vbr::kExfatClusterHeapOffset, 16);
    StoreLe32(b + vbr::kExfatClusterCount, clusterCount);
    StoreLe32(b + vbr::kExfatRootCluster, 4);
    b[vbr::kExfatBytesPerSectorShift] = 9;
    b[vbr::kExfatSectorsPerClusterShift] = clusterShift;
    b[510] = 0x55;
    b[511] = 0xAA;
    return b;
  }
  // The FAT entry of a cluster of the default exFAT volume at kVolumeLba.
  void PutExfatNext(uint32_t cluster, uint32_t next) { StoreLe32(At((kVolumeLba + 8) * 512 + 4 * cluster), next); }
  // The 32-byte entry `index` of a cluster (of two sectors) of that volume.
  uint8_t* ExfatEntry(uint32_t cluster, size_t index) {
    return At((kVolumeLba + 16 + (cluster - 2) * 2) * 512 + 32 * index);
  }
  void PutExfatLabel(uint32_t cluster, size_t index, const std::u16string& text, uint8_t length) {
    uint8_t* e = ExfatEntry(cluster, index);
    e[0] = vbr::kExfatVolumeLabel;
    e[1] = length;
    const std::vector<uint8_t> bytes = Utf16(text);
    std::memcpy(e + 2, bytes.data(), std::min<size_t>(bytes.size(), 30));
  }
  // Entries in use that are no label (allocation bitmap), from `first` to
  // the end of the cluster.
  void FillExfatCluster(uint32_t cluster, size_t first = 0) {
    for (size_t i = first; i < 32; ++i) ExfatEntry(cluster, i)[0] = 0x81;
  }
};

// ---- FAT ------------------------------------------------------------------------

TEST_F(VolumeTest, FatLabelsFromTheFirstRootCluster) {
  // FAT16: root at 2048 + 4 + 2 x 16.
  PutFatBoot(kVolumeLba, kFsFat16);
  const uint64_t root = kVolumeLba + 36;
  PutDirEntry(root, 0, "README  TXT", 0x20);
  PutDirEntry(root, 1, "Ab\x01" "CDEFGHIJ", 0x0F);  // a long-name piece is no label
  PutDirEntry(root, 2, "SYSTEM     ", 0x08);
  EXPECT_EQ(Label(kFsFat16), "SYSTEM");

  // The attribute byte must be exactly 0x08: an archived label is a file.
  PutDirEntry(root, 2, "SYSTEM     ", 0x28);
  EXPECT_EQ(Label(kFsFat16), "");

  // The walk covers the whole first cluster (4 sectors) and nothing after.
  PutDirEntry(root, 4 * 16 - 1, "LASTSLOT   ", 0x08);
  EXPECT_EQ(Label(kFsFat16), "LASTSLOT");
  PutDirEntry(root, 4 * 16 - 1, "\0\0\0\0\0\0\0\0\0\0\0", 0);
  PutDirEntry(root, 4 * 16, "NEXTCLUS   ", 0x08);
  EXPECT_EQ(Label(kFsFat16), "");
}

TEST_F(VolumeTest, FatLabelSpacesAndOldEntries) {
  PutFatBoot(kVolumeLba, kFsFat32, 1, 32, 2, 8);
  const uint64_t root = kVolumeLba + 32 + 16;
  PutDirEntry(root, 0, "           ", 0x08);  // all spaces: the walk goes on
  PutDirEntry(root, 1, "\xE5OLDNAME   ", 0x08);  // a label replaced earlier
  PutDirEntry(root, 2, "  DATA     ", 0x08);
  PutDirEntry(root, 3, "LATER      ", 0x08);
  EXPECT_EQ(Label(kFsFat32), "DATA");
  // Four letters and seven spaces.
  PutDirEntry(root, 2, "WORK       ", 0x08);
  EXPECT_EQ(Label(kFsFat32), "WORK");
  // A zero byte ends the name.
  PutDirEntry(root, 2, "AB\0CD      ", 0x08);
  EXPECT_EQ(Label(kFsFat32), "AB");
  // A first byte 0x05 stands for 0xE5, which would mark the entry deleted.
  PutDirEntry(root, 2, "\x05" "BC\x05      ", 0x08);
  EXPECT_EQ(Label(kFsFat32), "\xE5" "BC\x05");
  // Not a label kind: nothing is read.
  EXPECT_EQ(Label(kFsHfsJournaled), "");
  EXPECT_EQ(Label(kFsNone), "");
}

TEST_F(VolumeTest, Fat32RootClusterAndLargeSectors) {
  // A FAT32 root directory at cluster 5: three clusters of 2 sectors past
  // the data area.
  uint8_t* boot = PutFatBoot(kVolumeLba, kFsFat32, 2, 32, 2, 8);
  StoreLe32(boot + vbr::kFat32RootCluster, 5);
  PutDirEntry(kVolumeLba + 48, 0, "WRONG      ", 0x08);
  PutDirEntry(kVolumeLba + 48 + 6, 0, "MOVED      ", 0x08);
  EXPECT_EQ(Label(kFsFat32), "MOVED");

  // 4,096-byte logical sectors: positions count in eight 512-byte sectors.
  boot = PutFatBoot(8192, kFsFat16, 1, 1, 2, 2);
  StoreLe16(boot + vbr::kFatBytesPerSector, 4096);
  PutDirEntry(8192 + 5 * 8, 100, "BIGSECTOR  ", 0x08);
  EXPECT_EQ(Label(kFsFat16, 8192), "BIGSECTOR");
  // A zero sector size is taken as 512.
  StoreLe16(boot + vbr::kFatBytesPerSector, 0);
  PutDirEntry(8192 + 5, 0, "SMALLSECTOR", 0x08);
  EXPECT_EQ(Label(kFsFat16, 8192), "SMALLSECTOR");
}

TEST_F(VolumeTest, HostileFatBootSectors) {
  uint8_t* boot = PutFatBoot(kVolumeLba, kFsFat32, 0, 32, 2, 8);
  PutDirEntry(kVolumeLba + 48, 0, "LABEL      ", 0x08);
  EXPECT_EQ(Label(kFsFat32), "");  // no cluster to read

  // A FAT so large that the root lies beyond the disk; a root cluster
  // number at the very top; the largest cluster: all just fail or read.
  boot[vbr::kFatSectorsPerCluster] = 255;
  StoreLe32(boot + vbr::kFat32SectorsPerFat, 0xFFFFFFFF);
  boot[vbr::kFatCount] = 255;
  EXPECT_EQ(Label(kFsFat32), "");
  StoreLe32(boot + vbr::kFat32SectorsPerFat, 8);
  StoreLe32(boot + vbr::kFat32RootCluster, 0xFFFFFFFF);
  EXPECT_EQ(Label(kFsFat32), "");
  // A volume at the highest LBA does not wrap around to the disk's start.
  EXPECT_EQ(Label(kFsFat32, UINT64_MAX - 10), "");

  // Unreadable boot sector or root directory.
  StoreLe32(boot + vbr::kFat32RootCluster, 2);
  boot[vbr::kFatSectorsPerCluster] = 1;
  boot[vbr::kFatCount] = 2;
  EXPECT_EQ(Label(kFsFat32), "LABEL");
  drive->badSectors.insert(kVolumeLba + 48);
  EXPECT_EQ(Label(kFsFat32), "");
  drive->badSectors = {kVolumeLba};
  EXPECT_EQ(Label(kFsFat32), "");
}

// ---- exFAT ----------------------------------------------------------------------

TEST_F(VolumeTest, ExfatLabelAlongTheRootChain) {
  PutExfatBoot(kVolumeLba);
  FillExfatCluster(4, 0);
  PutExfatLabel(4, 2, u"USB Stick", 9);
  PutExfatNext(4, 0xFFFFFFFF);
  EXPECT_EQ(Label(kFsExfat), "USB Stick");

  // A removed label (0x03) is passed over; the label lies two links on.
  ExfatEntry(4, 2)[0] = 0x03;
  PutExfatNext(4, 9);
  FillExfatCluster(9);
  PutExfatNext(9, 6);
  PutExfatLabel(6, 0, u"Third \u00c4\u20ac and more", 15);
  PutExfatNext(6, 0xFFFFFFFF);
  // Eleven characters at most; non-ASCII shows as '?', as NTFS names do.
  EXPECT_EQ(Label(kFsExfat), "Third ?? an");
  // The count says how many characters there are.
  ExfatEntry(6, 0)[1] = 3;
  EXPECT_EQ(Label(kFsExfat), "Thi");

  // The end of the directory, before the label, ends the search.
  ExfatEntry(9, 31)[0] = 0x00;
  EXPECT_EQ(Label(kFsExfat), "");
}

TEST_F(VolumeTest, HostileExfatVolumes) {
  uint8_t* boot = PutExfatBoot(kVolumeLba);
  FillExfatCluster(4);
  PutExfatLabel(5, 0, u"FOUND", 5);
  PutExfatNext(4, 5);
  ASSERT_EQ(Label(kFsExfat), "FOUND");
  // Labels where clusters 1 and 102 would lie: outside the heap of 100.
  PutExfatLabel(102, 0, u"OUTSIDE", 7);
  uint8_t* beforeHeap = At((kVolumeLba + 14) * 512);
  std::memcpy(beforeHeap, ExfatEntry(102, 0), 32);

  // A chain that loops onto itself ends after a bounded walk.
  PutExfatNext(4, 4);
  EXPECT_EQ(Label(kFsExfat), "");
  // Links and a root outside the heap are not followed.
  for (uint32_t cluster : {1u, 102u}) {
    PutExfatNext(4, cluster);
    EXPECT_EQ(Label(kFsExfat), "") << cluster;
    StoreLe32(boot + vbr::kExfatRootCluster, cluster);
    EXPECT_EQ(Label(kFsExfat), "") << cluster;
    StoreLe32(boot + vbr::kExfatRootCluster, 4);
  }
  PutExfatNext(4, 5);

  // 4,096-byte sectors, one per cluster: the FAT, the heap and the root
  // lie eight times further in.
  boot[vbr::kExfatBytesPerSectorShift] = 12;
  boot[vbr::kExfatSectorsPerClusterShift] = 0;
  StoreLe32(At((kVolumeLba + 64) * 512 + 4 * 4), 0xFFFFFFFF);
  std::memcpy(At((kVolumeLba + 128 + 2 * 8) * 512), ExfatEntry(5, 0), 32);
  EXPECT_EQ(Label(kFsExfat), "FOUND");
  // Clusters above 32 MiB are no exFAT clusters (and 2^255 no number).
  boot[vbr::kExfatSectorsPerClusterShift] = 0xFF;
  EXPECT_EQ(Label(kFsExfat), "");

  // Unreadable FAT or directory, a volume at the top of the address space.
  boot[vbr::kExfatBytesPerSectorShift] = 9;
  boot[vbr::kExfatSectorsPerClusterShift] = 1;
  drive->badSectors.insert(kVolumeLba + 8);
  EXPECT_EQ(Label(kFsExfat), "");
  drive->badSectors = {kVolumeLba + 16 + 3 * 2};
  EXPECT_EQ(Label(kFsExfat), "");
  EXPECT_EQ(Label(kFsExfat, UINT64_MAX - 10), "");
}

// ---- NTFS -----------------------------------------------------------------------

TEST_F(VolumeTest, NtfsResidentNameAndRecordSizes) {
  PutNtfsBoot(kVolumeLba);
  PutRecord(VolumeRecord(), {StandardInfo(), ResidentAttr(0x30, Utf16(u"$Volume")),
                             ResidentAttr(0x60, Utf16(u"Backup Disk")), ResidentAttr(0x70, {0, 0, 3, 1})});
  EXPECT_EQ(Label(kFsNtfs), "Backup Disk");
  EXPECT_EQ(ReadNtfsLabel(disks->device, kVolumeLba), "Backup Disk");

  // 0x02 at byte 64 (two clusters) also means 1,024-byte records.
  uint8_t* boot = drive->Sector(kVolumeLba);
  StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0x02);
  EXPECT_EQ(Label(kFsNtfs), "Backup Disk");

  // 0xF4: 4,096-byte records, so record 3 lies 12 KiB into the MFT.
  StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0xF4);
  PutRecord(VolumeRecord(4096, 4, 4096), {ResidentAttr(0x60, Utf16(u"Big Records"))}, 4096);
  EXPECT_EQ(Label(kFsNtfs), "Big Records");

  // Sectors per cluster 0xFC: 2^4 sectors, clusters of 8 KiB, as large
  // cluster volumes write it.  0x81 would be 2^127: no usable cluster.
  boot[vbr::kNtfsSectorsPerCluster] = 0xFC;
  PutRecord(VolumeRecord(8192, 4, 4096), {ResidentAttr(0x60, Utf16(u"Large Clusters"))}, 4096);
  EXPECT_EQ(Label(kFsNtfs), "Large Clusters");
  boot[vbr::kNtfsSectorsPerCluster] = 0x81;
  EXPECT_EQ(Label(kFsNtfs), "");
  boot[vbr::kNtfsSectorsPerCluster] = 8;

  // No volume name attribute: no label.
  PutRecord(VolumeRecord(4096, 4, 4096), {StandardInfo(), ResidentAttr(0x70, {0, 0, 3, 1})}, 4096);
  EXPECT_EQ(Label(kFsNtfs), "");
  // An empty name.
  PutRecord(VolumeRecord(4096, 4, 4096), {ResidentAttr(0x60, {})}, 4096);
  EXPECT_EQ(Label(kFsNtfs), "");
}

TEST_F(VolumeTest, NtfsNonAsciiCharactersBecomeQuestionMarks) {
  PutNtfsBoot(kVolumeLba);
  PutRecord(VolumeRecord(), {ResidentAttr(0x60, Utf16(u"Daten \u00e4\u20ac \U0001F4BE!"))});
  EXPECT_EQ(Label(kFsNtfs), "Daten ?? ?!");
  // A zero character ends the name.
  PutRecord(VolumeRecord(), {ResidentAttr(0x60, Utf16(std::u16string(u"AB\0CD", 5)))});
  EXPECT_EQ(Label(kFsNtfs), "AB");
}

TEST_F(VolumeTest, NtfsNonResidentNameFromItsRunList) {
  // Clusters of 512 bytes; the name spreads over cluster 40 and cluster 30
  // (the second run's offset is -10, relative to the first).
  PutNtfsBoot(kVolumeLba, 1, 16);
  const std::vector<uint8_t> name = Utf16(std::u16string(256, u'x') + u"-tail");
  ASSERT_GT(name.size(), 512u);
  std::memcpy(At((kVolumeLba + 40) * 512), name.data(), 512);
  std::memcpy(At((kVolumeLba + 30) * 512), name.data() + 512, name.size() - 512);
  const std::vector<uint8_t> runs = {0x11, 0x01, 40, 0x11, 0x01, 0xF6, 0x00};
  PutRecord(VolumeRecord(512, 16), {StandardInfo(), NonResidentAttr(0x60, runs, 1024, name.size())});
  EXPECT_EQ(Label(kFsNtfs), (std::string(127, 'x')));  // the label field holds 127 characters

  const std::vector<uint8_t> shortName = Utf16(u"Far Away");
  std::memcpy(At((kVolumeLba + 40) * 512), shortName.data(), shortName.size());
  // Allocated size 0: the buffer size comes from the virtual clusters.
  PutRecord(VolumeRecord(512, 16), {NonResidentAttr(0x60, {0x11, 0x01, 40, 0}, 0, shortName.size(), 511)});
  EXPECT_EQ(Label(kFsNtfs), "Far Away");
  // A sparse run reads as zeros, and so ends the name at once.
  PutRecord(VolumeRecord(512, 16), {NonResidentAttr(0x60, {0x01, 0x01, 0x11, 0x01, 40, 0}, 1024, 16)});
  EXPECT_EQ(Label(kFsNtfs), "");
}

TEST_F(VolumeTest, NtfsUpdateSequenceIsUndone) {
  // A name that crosses the end of the record's first 512 bytes, where the
  // update sequence number stands on disk.
  PutNtfsBoot(kVolumeLba);
  const uint64_t where = VolumeRecord();
  PutRecord(where, {ResidentAttr(0x10, std::vector<uint8_t>(400, 0)), ResidentAttr(0x60, Utf16(u"Crossing The Line"))});
  uint8_t* r = At(where);
  StoreLe16(r + vbr::kRecordUpdateSequenceOffset, 48);
  StoreLe16(r + vbr::kRecordUpdateSequenceCount, 3);
  StoreLe16(r + 48, 0x0007);
  std::memcpy(r + 50, r + 510, 2);
  std::memcpy(r + 52, r + 1022, 2);
  StoreLe16(r + 510, 0x0007);
  StoreLe16(r + 1022, 0x0007);
  EXPECT_EQ(Label(kFsNtfs), "Crossing The Line");

  // A sequence that does not check out leaves the record as read.
  StoreLe16(r + 1022, 0x0008);
  EXPECT_NE(Label(kFsNtfs), "Crossing The Line");
}

TEST_F(VolumeTest, HostileNtfsBootSectorsAndRecords) {
  uint8_t* boot = PutNtfsBoot(kVolumeLba);
  const uint64_t where = VolumeRecord();
  PutRecord(where, {StandardInfo(), ResidentAttr(0x60, Utf16(u"Fine"))});
  ASSERT_EQ(Label(kFsNtfs), "Fine");

  // An attribute of length 0 ends the walk before the name.
  StoreLe32(At(where + 56 + 4), 0);
  EXPECT_EQ(Label(kFsNtfs), "");
  // An attribute longer than what is left of the record.
  StoreLe32(At(where + 56 + 4), 0x7FFFFFF0);
  EXPECT_EQ(Label(kFsNtfs), "");
  // A first attribute past the record's end.
  PutRecord(where, {ResidentAttr(0x60, Utf16(u"Fine"))});
  StoreLe16(At(where + vbr::kRecordFirstAttribute), 0xFFFF);
  EXPECT_EQ(Label(kFsNtfs), "");
  // A value that claims more bytes than its attribute holds.
  PutRecord(where, {ResidentAttr(0x60, Utf16(u"Fine"))});
  StoreLe32(At(where + 56 + 16), 0xFFFFFFF0);
  EXPECT_EQ(Label(kFsNtfs), "");
  // A record without "FILE".
  PutRecord(where, {ResidentAttr(0x60, Utf16(u"Fine"))});
  PutText(At(where), "BAAD");
  EXPECT_EQ(Label(kFsNtfs), "");
  PutRecord(where, {ResidentAttr(0x60, Utf16(u"Fine"))});
  ASSERT_EQ(Label(kFsNtfs), "Fine");

  // Record sizes of 2^31 and of 1 byte; no allocation, no label.
  StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0xE1);
  EXPECT_EQ(Label(kFsNtfs), "");
  StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0xE0);
  EXPECT_EQ(Label(kFsNtfs), "");
  StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0xF6);
  // An MFT whose position overflows 64 bits, or lies beyond the disk.
  StoreLe64(boot + vbr::kNtfsMftCluster, UINT64_MAX / 2);
  EXPECT_EQ(Label(kFsNtfs), "");
  StoreLe64(boot + vbr::kNtfsMftCluster, 1u << 20);
  EXPECT_EQ(Label(kFsNtfs), "");
  // Sector size 0: clusters of 0 bytes put record 3 at 3 KiB.
  StoreLe64(boot + vbr::kNtfsMftCluster, 4);
  StoreLe16(boot + vbr::kNtfsBytesPerSector, 0);
  EXPECT_EQ(Label(kFsNtfs), "");
  PutRecord(kVolumeLba * 512 + 3 * 1024, {ResidentAttr(0x60, Utf16(u"Zero"))});
  EXPECT_EQ(Label(kFsNtfs), "Zero");
  EXPECT_TRUE(machine.messageBoxes.empty());
  // Not NTFS after all.
  PutText(boot + 3, "MSWIN");
  EXPECT_EQ(Label(kFsNtfs), "");
}

TEST_F(VolumeTest, HostileNtfsRunLists) {
  PutNtfsBoot(kVolumeLba, 1, 16);
  const uint64_t where = VolumeRecord(512, 16);
  const std::vector<uint8_t> name = Utf16(u"Runs");
  std::memcpy(At((kVolumeLba + 40) * 512), name.data(), name.size());
  auto labelWith = [&](const std::vector<uint8_t>& runs, uint64_t allocated, uint64_t dataSize) {
    PutRecord(where, {NonResidentAttr(0x60, runs, allocated, dataSize)});
    return Label(kFsNtfs);
  };
  ASSERT_EQ(labelWith({0x11, 0x01, 40, 0}, 512, name.size()), "Runs");

  // Runs beyond the disk, before the volume, or past 64 bits.
  EXPECT_EQ(labelWith({0x41, 0x01, 0x00, 0x00, 0x00, 0x40, 0}, 512, 8), "");
  EXPECT_EQ(labelWith({0x11, 0x01, 0x80, 0}, 512, 8), "");
  EXPECT_EQ(labelWith({0x81, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x7F, 0}, 512, 8), "");
  // Field sizes above 8 bytes, or a run list running off the attribute.
  EXPECT_EQ(labelWith({0x19, 0x01, 40, 0}, 512, 8), "");
  EXPECT_EQ(labelWith({0x91, 0x01, 40, 0}, 512, 8), "");
  EXPECT_EQ(labelWith({0x88, 0x01}, 512, 8), "");
  // Huge run lengths and sizes read only what the bounded buffer holds.
  EXPECT_EQ(labelWith({0x18, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 40, 0}, 1u << 31, name.size()), "Runs");
  EXPECT_EQ(labelWith({0x11, 0x01, 40, 0}, UINT64_MAX, UINT64_MAX), "Runs");
  // Allocated size 0 and one virtual cluster: a one-byte buffer, no character.
  EXPECT_EQ(labelWith({0x11, 0x01, 40, 0}, 0, UINT64_MAX), "");
  // A non-resident header cut short by its length.
  PutRecord(where, {NonResidentAttr(0x60, {0x11, 0x01, 40, 0}, 512, 8)});
  StoreLe32(At(where + 56 + 4), 40);
  EXPECT_EQ(Label(kFsNtfs), "");
  // An unreadable cluster.
  drive->badSectors.insert(kVolumeLba + 40);
  EXPECT_EQ(labelWith({0x11, 0x01, 40, 0}, 512, name.size()), "");
}

// ---- the error box --------------------------------------------------------------

TEST_F(VolumeTest, ErrorBoxShowsTheLastSystemError) {
  machine.lastError = 0;
  EXPECT_EQ(ShowLastErrorBox(), 0u);
  EXPECT_TRUE(machine.messageBoxes.empty());

  machine.lastError = 131;
  machine.messages[131] = "An attempt was made to move the file pointer before the beginning of the file.\r\n";
  EXPECT_EQ(ShowLastErrorBox(), 131u);
  ASSERT_EQ(machine.messageBoxes.size(), 1u);
  EXPECT_EQ(machine.messageBoxes[0],
            "131: An attempt was made to move the file pointer before the beginning of the file.\r\n");

  machine.lastError = 4242;  // no system text
  EXPECT_EQ(ShowLastErrorBox(), 4242u);
  EXPECT_EQ(machine.messageBoxes.back(), "4242: ");
}

// ---- whole disks: labels at load, the volume ID ---------------------------------

class LoadedDiskTest : public VolumeTest {
 protected:
  // Loads the drive as disk 0 of a new set.
  void LoadDisk() {
    drive->SetBootSignature();
    drive->Sector(0)[0] = 0x33;
    drive->Sector(0)[1] = 0xC0;
    Load();
    ASSERT_EQ(disks->diskCount, 1);
  }
  std::string LabelOf(int32_t n) {
    PartitionRecord* r = GetPartition(*disks, n, kKindPrimary);
    return r ? r->volumeLabel : "<none>";
  }
};

TEST_F(LoadedDiskTest, LabelsAndVolumeIdsOfEachPartition) {
  const test::MbrEntry entries[] = {{0, 0x06, 2048, 2048}, {0, 0x0C, 4096, 2048}, {0, 0x07, 6144, 2048}, {0, 0x0B, 8192, 2048}};
  for (size_t slot = 0; slot < 4; ++slot) test::PutMbrEntry(drive->Sector(0), 446 + 16 * slot, entries[slot]);

  uint8_t* fat16 = PutFatBoot(2048, kFsFat16);
  StoreLe32(fat16 + vbr::kFat16Serial, 0x1234ABCD);
  PutDirEntry(2048 + 36, 0, "FAT16 VOL  ", 0x08);
  uint8_t* fat32 = PutFatBoot(4096, kFsFat32, 1, 32, 2, 8);
  StoreLe32(fat32 + vbr::kFat32Serial, 0x0BADF00D);
  PutDirEntry(4096 + 48, 0, "WORK       ", 0x08);
  StoreLe64(PutNtfsBoot(6144) + vbr::kNtfsSerial, 0x1122334455667788ULL);
  PutRecord(6144 * 512 + 4 * 4096 + 3 * 1024, {ResidentAttr(0x60, Utf16(u"System"))});
  // Partition 4 is typed FAT32 but holds no boot sector.
  LoadDisk();

  EXPECT_EQ(LabelOf(1), "FAT16 VOL");
  EXPECT_EQ(LabelOf(2), "WORK");
  EXPECT_EQ(LabelOf(3), "System");
  EXPECT_EQ(LabelOf(4), "");

  EXPECT_EQ(VolumeIdText(*disks, 1), "1234-fABCD");
  EXPECT_EQ(VolumeIdText(*disks, 2), "0BAD-fF00D");
  EXPECT_EQ(VolumeIdText(*disks, 3), "5566-f7788");  // low four bytes only
  EXPECT_EQ(VolumeIdText(*disks, 4), "");
  EXPECT_EQ(VolumeIdText(*disks, 5), "");
  EXPECT_EQ(VolumeIdText(*disks, 0), "");

  // Unreadable boot sectors give no ID and no label.
  drive->badSectors.insert(4096);
  EXPECT_EQ(VolumeIdText(*disks, 2), "");
  LoadDisk();
  EXPECT_EQ(LabelOf(1), "FAT16 VOL");
  EXPECT_EQ(LabelOf(2), "");
}

TEST_F(LoadedDiskTest, ExfatAndBitLockerVolumes) {
  const test::MbrEntry entries[] = {{0, 0x07, 2048, 2048}, {0, 0x07, 4096, 2048}};
  for (size_t slot = 0; slot < 2; ++slot) test::PutMbrEntry(drive->Sector(0), 446 + 16 * slot, entries[slot]);
  StoreLe32(PutExfatBoot(2048) + vbr::kExfatSerial, 0x5EC0ABCD);
  FillExfatCluster(4);
  PutExfatLabel(5, 0, u"Camera", 6);
  PutExfatNext(4, 5);
  // An encrypted volume whose boot sector looks like FAT32, with a label
  // entry where FAT32's root directory would be.
  uint8_t* locked = PutFatBoot(4096, kFsFat32, 1, 32, 2, 8);
  PutText(locked + 3, "-FVE-FS-");
  PutDirEntry(4096 + 48, 0, "NOT A LABEL", 0x08);
  LoadDisk();

  EXPECT_EQ(LabelOf(1), "Camera");
  EXPECT_EQ(VolumeIdText(*disks, 1), "5EC0-fABCD");
  EXPECT_EQ(LabelOf(2), "");
  EXPECT_EQ(VolumeIdText(*disks, 2), "");
  EXPECT_FALSE(ReadVolumeEncrypted(*disks, 2048));
  EXPECT_TRUE(ReadVolumeEncrypted(*disks, 4096));
}

}  // namespace
}  // namespace dh
