// Volume boot records: file system detection, and FAT, exFAT and NTFS labels
// on hand-built volumes, with a table per file system of the damage a hostile
// volume may carry (every case must end in a label or none, never a read out
// of bounds, a loop or a message box).  Volumes made by mkfs.fat, mkfs.exfat
// and mkntfs, an encrypted one, and the labels and IDs a disk load picks up
// are checked end to end (e2e/volume_test).
#include "disk/volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/le.h"
#include "fake_machine.h"

namespace dh {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kVolumeLba = 2048;
constexpr uint64_t kTop = UINT64_MAX - 10;  // a volume at the top of the address space

void PutText(uint8_t* p, const char* text) { std::memcpy(p, text, std::strlen(text)); }

TEST(VolumeBootRecord, DetectionAndIdText) {
  const std::tuple<size_t, std::string, FileSystemKind, const char*> cases[] = {
      {3, "NTFS", kFsNtfs, "NTFS"},          {54, "FAT16", kFsFat16, "FAT16"},   {82, "FAT32", kFsFat32, "FAT32"},
      {1032, "HFSJ", kFsHfsJournaled, "HFS-J"}, {1032, "10.0", kFsHfsExtended, "HFSEX"},
      {3, "EXFAT   ", kFsExfat, "exFAT"},
      {54, "FAT12   ", kFsNone, "keep"},                    // FAT12 is not listed as a file system
      {3, std::string("EXFAT\0\0\0", 8), kFsNone, "keep"},  // no blanks after the name
  };
  for (const auto& [offset, text, kind, name] : cases) {
    uint8_t sectors[kVolumeProbeBytes] = {};
    std::memcpy(sectors + offset, text.data(), text.size());
    std::string found = "keep";
    EXPECT_EQ(DetectFileSystem(sectors, &found), kind) << text;
    EXPECT_EQ(found, name);
  }
  // A shorter buffer is never read past its end.
  uint8_t sectors[kVolumeProbeBytes] = {0xCD, 0xAB, 0x34, 0x12};
  PutText(sectors + 1032, "HFSJ");
  EXPECT_EQ(DetectFileSystem(sectors, 1030, nullptr), kFsNone);
  EXPECT_EQ(DetectFileSystem(sectors, 1036, nullptr), kFsHfsJournaled);
  EXPECT_EQ(FormatVolumeId(sectors), "1234-fABCD");
}

Bytes Utf16(const std::u16string& text) {
  Bytes bytes(text.size() * 2);
  for (size_t i = 0; i < text.size(); ++i) StoreLe16(bytes.data() + 2 * i, text[i]);
  return bytes;
}

// An NTFS attribute with a resident value.
Bytes ResidentAttr(uint32_t type, const Bytes& value) {
  Bytes a(24 + ((value.size() + 7) & ~size_t{7}), 0);
  StoreLe32(a.data(), type);
  StoreLe32(a.data() + 4, static_cast<uint32_t>(a.size()));
  StoreLe32(a.data() + 16, static_cast<uint32_t>(value.size()));
  StoreLe16(a.data() + 20, 24);
  std::copy(value.begin(), value.end(), a.begin() + 24);
  return a;
}

// An NTFS attribute whose value lies in clusters named by a run list.
Bytes NonResidentAttr(uint32_t type, const Bytes& runs, uint64_t allocated, uint64_t dataSize, uint64_t lastVcn = 0) {
  Bytes a(64 + ((runs.size() + 8) & ~size_t{7}), 0);
  StoreLe32(a.data(), type);
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
  void SetUp() override { OpenUnloaded(16384); }

  struct Case {
    const char* what;
    std::function<void()> damage;
    std::string label;
    uint64_t lba = kVolumeLba;
  };
  // Each case starts from a zeroed drive on which `build` made a volume.
  void ExpectLabels(FileSystemKind kind, const std::function<void()>& build, const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      std::fill(drive->bytes.begin(), drive->bytes.end(), 0);
      drive->badSectors.clear();
      build();
      c.damage();
      EXPECT_EQ(ReadVolumeLabel(kind, *disks, c.lba), c.label) << c.what;
    }
    EXPECT_TRUE(machine.messageBoxes.empty());
  }

  uint8_t* At(uint64_t byteOffset) { return drive->bytes.data() + byteOffset; }

  // A FAT boot sector; the root directory starts at
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
    drive->SetBootSignature(lba);
    return b;
  }
  void PutDirEntry(uint64_t dirLba, size_t index, const char* name11, uint8_t attributes) {
    uint8_t* e = At(dirLba * 512 + index * vbr::kDirEntrySize);
    std::memcpy(e, name11, vbr::kDirNameSize);
    e[vbr::kDirAttributes] = attributes;
  }

  // An NTFS boot sector: 512-byte sectors, the MFT at cluster `mftCluster`,
  // records of 1 KiB (0xF6) unless said otherwise.
  uint8_t* PutNtfsBoot(uint64_t lba, uint8_t sectorsPerCluster = 8, uint64_t mftCluster = 4) {
    uint8_t* b = drive->Sector(lba);
    PutText(b + vbr::kNtfsOemId, "NTFS    ");
    StoreLe16(b + vbr::kNtfsBytesPerSector, 512);
    b[vbr::kNtfsSectorsPerCluster] = sectorsPerCluster;
    StoreLe64(b + vbr::kNtfsMftCluster, mftCluster);
    StoreLe32(b + vbr::kNtfsClustersPerRecord, 0xF6);
    drive->SetBootSignature(lba);
    return b;
  }
  // An MFT record "FILE" with the attributes in order and an end marker.
  void PutRecord(uint64_t where, const std::vector<Bytes>& attributes, size_t size = 1024) {
    uint8_t* r = At(where);
    std::memset(r, 0, size);
    PutText(r, "FILE");
    size_t offset = 56;
    StoreLe16(r + vbr::kRecordFirstAttribute, static_cast<uint16_t>(offset));
    for (const Bytes& a : attributes) {
      std::memcpy(r + offset, a.data(), a.size());
      offset += a.size();
    }
    StoreLe32(r + offset, 0xFFFFFFFF);
  }
  // Byte offset of MFT record 3 (the volume's) of a boot sector at kVolumeLba.
  static uint64_t VolumeRecord(uint64_t clusterBytes = 4096, uint64_t mftCluster = 4, uint64_t recordBytes = 1024) {
    return kVolumeLba * 512 + mftCluster * clusterBytes + 3 * recordBytes;
  }

  // An exFAT boot sector: clusters of 2^clusterShift sectors, the FAT at
  // sector 8, the heap of 100 clusters at sector 16, the root at cluster 4.
  uint8_t* PutExfatBoot(uint64_t lba) {
    uint8_t* b = drive->Sector(lba);
    PutText(b + vbr::kExfatName, "EXFAT   ");
    StoreLe32(b + vbr::kExfatFatOffset, 8);
    StoreLe32(b + vbr::kExfatClusterHeapOffset, 16);
    StoreLe32(b + vbr::kExfatClusterCount, 100);
    StoreLe32(b + vbr::kExfatRootCluster, 4);
    b[vbr::kExfatBytesPerSectorShift] = 9;
    b[vbr::kExfatSectorsPerClusterShift] = 1;
    drive->SetBootSignature(lba);
    return b;
  }
  // The FAT entry of a cluster, and entry `index` of a cluster, of that volume.
  void PutExfatNext(uint32_t cluster, uint32_t next) { StoreLe32(At((kVolumeLba + 8) * 512 + 4 * cluster), next); }
  uint8_t* ExfatEntry(uint32_t cluster, size_t index) {
    return At((kVolumeLba + 16 + (cluster - 2) * 2) * 512 + 32 * index);
  }
  void PutExfatLabel(uint32_t cluster, size_t index, const std::u16string& text, uint8_t length) {
    uint8_t* e = ExfatEntry(cluster, index);
    e[0] = vbr::kExfatVolumeLabel;
    e[1] = length;
    const Bytes bytes = Utf16(text);
    std::memcpy(e + 2, bytes.data(), std::min<size_t>(bytes.size(), 30));
  }
  // Entries in use that are no label (allocation bitmap), from `first` on.
  void FillExfatCluster(uint32_t cluster, size_t first = 0) {
    for (size_t i = first; i < 32; ++i) ExfatEntry(cluster, i)[0] = 0x81;
  }
};

TEST_F(VolumeTest, FatLabels) {
  // FAT32: one sector per cluster, the root at 2048 + 32 + 2 x 8.
  const uint64_t root = kVolumeLba + 48;
  uint8_t* boot = nullptr;
  auto label = [&](const char* name, uint8_t attributes = 0x08, size_t index = 2) {
    return [=, this] { PutDirEntry(root, index, name, attributes); };
  };
  ExpectLabels(kFsFat32,
               [&] {
                 boot = PutFatBoot(kVolumeLba, kFsFat32, 1, 32, 2, 8);
                 PutDirEntry(root, 0, "README  TXT", 0x20);
                 PutDirEntry(root, 1, "Ab\x01" "CDEFGHIJ", 0x0F);  // a long-name piece
                 PutDirEntry(root, 3, "LATER      ", 0x08);
               },
               {{"the first label", [] {}, "LATER"},
                {"blanks around the name", label("  WORK     "), "WORK"},
                {"an archived label is a file", label("SYSTEM     ", 0x28), "LATER"},
                {"all blanks: the walk goes on", label("           "), "LATER"},
                {"a label replaced earlier", label("\xE5OLDNAME   "), "LATER"},
                {"a zero byte ends the name", label("AB\0CD      "), "AB"},
                {"0x05 stands for 0xE5", label("\x05" "BC\x05      "), "\xE5" "BC\x05"},
                // The walk covers the whole first cluster and nothing after it.
                {"the last slot of the cluster", [&] {
                   PutDirEntry(root, 3, "           ", 0);
                   PutDirEntry(root, 15, "LAST       ", 8);
                 }, "LAST"},
                {"the next cluster", [&] {
                   PutDirEntry(root, 3, "           ", 0);
                   PutDirEntry(root, 16, "NEXT       ", 8);
                 }, ""},
                {"root at cluster 5", [&] {
                   StoreLe32(boot + vbr::kFat32RootCluster, 5);
                   PutDirEntry(root + 3, 0, "MOVED      ", 8);
                 }, "MOVED"},
                {"4,096-byte sectors", [&] {
                   StoreLe16(boot + vbr::kFatBytesPerSector, 4096);
                   PutDirEntry(kVolumeLba + 48 * 8, 100, "BIG        ", 8);
                 }, "BIG"},
                // Hostile boot sectors and unreadable sectors.
                {"no sectors per cluster", [&] { boot[vbr::kFatSectorsPerCluster] = 0; }, ""},
                {"root beyond the disk", [&] {
                   boot[vbr::kFatSectorsPerCluster] = boot[vbr::kFatCount] = 255;
                   StoreLe32(boot + vbr::kFat32SectorsPerFat, 0xFFFFFFFF);
                 }, ""},
                {"root cluster at the top", [&] { StoreLe32(boot + vbr::kFat32RootCluster, 0xFFFFFFFF); }, ""},
                {"volume at the top", [] {}, "", kTop},
                {"unreadable root", [&] { drive->badSectors = {root}; }, ""},
                {"unreadable boot sector", [&] { drive->badSectors = {kVolumeLba}; }, ""}});

  // FAT16: the root after the FATs, four sectors per cluster; a zero sector
  // size is taken as 512.
  ExpectLabels(kFsFat16, [&] { boot = PutFatBoot(kVolumeLba, kFsFat16); },
               {{"in the first cluster", [&] { PutDirEntry(kVolumeLba + 36, 63, "SYSTEM     ", 8); }, "SYSTEM"},
                {"zero sector size", [&] {
                   StoreLe16(boot + vbr::kFatBytesPerSector, 0);
                   PutDirEntry(kVolumeLba + 36, 0, "SMALL      ", 8);
                 }, "SMALL"}});
  EXPECT_EQ(ReadVolumeLabel(kFsHfsJournaled, *disks, kVolumeLba), "");  // not a label kind
}

TEST_F(VolumeTest, ExfatLabels) {
  uint8_t* boot = nullptr;
  auto put = [&](uint64_t byte, uint32_t cluster) { std::memcpy(At(byte), ExfatEntry(cluster, 0), 32); };
  // The root (cluster 4) is full; the label is at the start of cluster 5.
  ExpectLabels(kFsExfat,
               [&] {
                 boot = PutExfatBoot(kVolumeLba);
                 FillExfatCluster(4);
                 PutExfatLabel(5, 0, u"FOUND", 5);
                 PutExfatNext(4, 5);
                 // Labels where clusters 1 and 102 would lie, outside the heap.
                 PutExfatLabel(102, 0, u"OUTSIDE", 7);
                 put((kVolumeLba + 14) * 512, 102);
               },
               {{"along the chain", [] {}, "FOUND"},
                {"the count says how many characters", [&] { ExfatEntry(5, 0)[1] = 3; }, "FOU"},
                {"a removed label, the label two links on", [&] {
                   ExfatEntry(5, 0)[0] = 0x03;
                   FillExfatCluster(5, 1);
                   PutExfatNext(5, 9);
                   PutExfatLabel(9, 0, u"Third \u00c4\u20ac and more", 15);  // eleven characters, '?' for non-ASCII
                 }, "Third ?? an"},
                {"the end of the directory comes first", [&] { ExfatEntry(4, 31)[0] = 0; }, ""},
                {"4,096-byte sectors", [&] {
                   boot[vbr::kExfatBytesPerSectorShift] = 12;
                   boot[vbr::kExfatSectorsPerClusterShift] = 0;
                   StoreLe32(At((kVolumeLba + 64) * 512 + 4 * 4), 0xFFFFFFFF);
                   put((kVolumeLba + 128 + 2 * 8) * 512, 5);
                 }, "FOUND"},
                {"a chain that loops", [&] { PutExfatNext(4, 4); }, ""},
                {"a link below the heap", [&] { PutExfatNext(4, 1); }, ""},
                {"a link beyond the heap", [&] { PutExfatNext(4, 102); }, ""},
                {"a root below the heap", [&] { StoreLe32(boot + vbr::kExfatRootCluster, 1); }, ""},
                {"clusters of 2^255 sectors", [&] { boot[vbr::kExfatSectorsPerClusterShift] = 0xFF; }, ""},
                {"unreadable FAT", [&] { drive->badSectors = {kVolumeLba + 8}; }, ""},
                {"unreadable directory", [&] { drive->badSectors = {kVolumeLba + 16 + 3 * 2}; }, ""},
                {"volume at the top", [] {}, "", kTop}});
}

TEST_F(VolumeTest, NtfsLabels) {
  uint8_t* boot = nullptr;
  const uint64_t where = VolumeRecord();
  auto name = [](const std::u16string& text) { return ResidentAttr(0x60, Utf16(text)); };
  auto records = [&](std::vector<Bytes> attributes, uint64_t at = VolumeRecord(), size_t size = 1024) {
    return [=, this] { PutRecord(at, attributes, size); };
  };
  const Bytes info = ResidentAttr(0x10, Bytes(48, 0x11));
  // Every volume starts with the record {information, name "Fine"}; the
  // name attribute's value length lies at byte 144 of the record.
  ExpectLabels(kFsNtfs,
               [&] {
                 boot = PutNtfsBoot(kVolumeLba);
                 PutRecord(where, {info, name(u"Fine")});
               },
               {{"resident name", [] {}, "Fine"},
                {"among other attributes", records({info, ResidentAttr(0x30, Utf16(u"$Volume")), name(u"Backup Disk")}),
                 "Backup Disk"},
                {"non-ASCII", records({name(u"Daten \u00e4\u20ac \U0001F4BE!")}), "Daten ?? ?!"},
                {"a zero character ends the name", records({name(std::u16string(u"AB\0CD", 5))}), "AB"},
                {"no name attribute", records({info, ResidentAttr(0x70, {0, 0, 3, 1})}), ""},
                {"0x02: two clusters, 1 KiB", [&] { StoreLe32(boot + vbr::kNtfsClustersPerRecord, 2); }, "Fine"},
                {"0xF4: 4 KiB records", [&] {
                   StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0xF4);
                   PutRecord(VolumeRecord(4096, 4, 4096), {name(u"Big Records")}, 4096);
                 }, "Big Records"},
                {"0xFC sectors per cluster: 2^4", [&] {
                   boot[vbr::kNtfsSectorsPerCluster] = 0xFC;
                   PutRecord(VolumeRecord(8192), {name(u"Large Clusters")});
                 }, "Large Clusters"},
                {"sector size 0: record 3 at 3 KiB", [&] {
                   StoreLe16(boot + vbr::kNtfsBytesPerSector, 0);
                   PutRecord(kVolumeLba * 512 + 3 * 1024, {name(u"Zero")});
                 }, "Zero"},
                // Hostile boot sectors and records.
                {"0x81 sectors per cluster: 2^127", [&] { boot[vbr::kNtfsSectorsPerCluster] = 0x81; }, ""},
                {"records of 2^31 bytes", [&] { StoreLe32(boot + vbr::kNtfsClustersPerRecord, 0xE1); }, ""},
                {"MFT past 64 bits", [&] { StoreLe64(boot + vbr::kNtfsMftCluster, UINT64_MAX / 2); }, ""},
                {"MFT beyond the disk", [&] { StoreLe64(boot + vbr::kNtfsMftCluster, 1u << 20); }, ""},
                {"not NTFS after all", [&] { PutText(boot + 3, "MSWIN"); }, ""},
                {"attribute of length 0", [&] { StoreLe32(At(where + 60), 0); }, ""},
                {"attribute past the record", [&] { StoreLe32(At(where + 60), 0x7FFFFFF0); }, ""},
                {"first attribute past the record",
                 [&] { StoreLe16(At(where + vbr::kRecordFirstAttribute), 0xFFFF); }, ""},
                {"value longer than its attribute", [&] { StoreLe32(At(where + 144), 0xFFFFFFF0); }, ""},
                {"no FILE", [&] { PutText(At(where), "BAAD"); }, ""}});

  // The update sequence: the last two bytes of each 512 are stored in the
  // record's header; a sequence that does not check out leaves the record as read.
  PutNtfsBoot(kVolumeLba);
  PutRecord(where, {ResidentAttr(0x10, Bytes(400, 0)), name(u"Crossing The Line")});
  uint8_t* r = At(where);
  StoreLe16(r + vbr::kRecordUpdateSequenceOffset, 48);
  StoreLe16(r + vbr::kRecordUpdateSequenceCount, 3);
  StoreLe16(r + 48, 0x0007);
  std::memcpy(r + 50, r + 510, 2);
  std::memcpy(r + 52, r + 1022, 2);
  StoreLe16(r + 510, 0x0007);
  StoreLe16(r + 1022, 0x0007);
  EXPECT_EQ(ReadNtfsLabel(machine, disks->device, kVolumeLba), "Crossing The Line");
  StoreLe16(r + 1022, 0x0008);
  EXPECT_NE(ReadNtfsLabel(machine, disks->device, kVolumeLba), "Crossing The Line");
}

TEST_F(VolumeTest, NtfsNonResidentNames) {
  // Clusters of 512 bytes, the MFT at cluster 16; the name lies in cluster 40.
  const uint64_t where = VolumeRecord(512, 16);
  const Bytes runs = {0x11, 0x01, 40, 0};
  auto attr = [&](const Bytes& r, uint64_t allocated, uint64_t size, uint64_t lastVcn = 0) {
    return [=, this] { PutRecord(where, {NonResidentAttr(0x60, r, allocated, size, lastVcn)}); };
  };
  const Bytes longName = Utf16(std::u16string(256, u'x') + u"-tail");
  ExpectLabels(kFsNtfs,
               [&] {
                 PutNtfsBoot(kVolumeLba, 1, 16);
                 const Bytes text = Utf16(u"Runs");
                 std::memcpy(At((kVolumeLba + 40) * 512), text.data(), text.size());
               },
               {{"one run", attr(runs, 512, 8), "Runs"},
                {"two runs, the second 10 clusters back: 127 characters", [&] {
                   std::memcpy(At((kVolumeLba + 40) * 512), longName.data(), 512);
                   std::memcpy(At((kVolumeLba + 30) * 512), longName.data() + 512, longName.size() - 512);
                   PutRecord(where, {NonResidentAttr(0x60, {0x11, 1, 40, 0x11, 1, 0xF6, 0}, 1024, longName.size())});
                 }, std::string(127, 'x')},
                {"allocated 0: sized by the virtual clusters", attr(runs, 0, 8, 511), "Runs"},
                {"a sparse run reads as zeros", attr({0x01, 0x01, 0x11, 0x01, 40, 0}, 1024, 16), ""},
                {"huge run length: the bounded buffer",
                 attr({0x18, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 40, 0}, 1u << 31, 8), "Runs"},
                {"allocated 0, one virtual cluster: no character", attr(runs, 0, UINT64_MAX), ""},
                // Hostile run lists.
                {"a run beyond the disk", attr({0x41, 0x01, 0x00, 0x00, 0x00, 0x40, 0}, 512, 8), ""},
                {"a run before the volume", attr({0x11, 0x01, 0x80, 0}, 512, 8), ""},
                {"a run past 64 bits", attr({0x81, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x7F, 0}, 512, 8), ""},
                {"a length field above 8 bytes", attr({0x19, 0x01, 40, 0}, 512, 8), ""},
                {"a run list off the attribute", attr({0x88, 0x01}, 512, 8), ""},
                {"a header cut short", [&] { attr(runs, 512, 8)(); StoreLe32(At(where + 60), 40); }, ""},
                {"an unreadable cluster", [&] { attr(runs, 512, 8)(); drive->badSectors = {kVolumeLba + 40}; }, ""}});
}

}  // namespace
}  // namespace dh
