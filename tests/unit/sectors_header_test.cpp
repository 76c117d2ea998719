// The Diskhold Backup File header: its byte layout, the texts cut to their
// fields, what FillBackupHeader takes from a disk (a GPT disk with more
// entries than label slots included), and how readers tell header files.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "base/le.h"
#include "fake_machine.h"
#include "mbr/partition.h"
#include "disk/backup_file.h"

namespace dh {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(BackupHeaderLayout, FieldsLandAtTheirOffsetsAndReadBack) {
  BackupHeader h;
  h.kind = kBackupRange;
  h.mbrDisk = true;
  h.removable = true;
  h.diskSectors = 0x0102030405060708ull;
  h.partitionCount = 0x1234;
  h.diskModel = "A model name of more than thirty characters";
  h.diskCount = 7;
  h.computerName = "ACOMPUTERNAMEOF20CHR";
  h.firstSector = 0x1122334455667788ull;
  h.sectorCount = 4096;
  h.sourceDisk = 3;
  h.labels = {"DATA1", "C", "", "BOOTX"};
  h.sourcePartition = 2;
  h.sourceSlot = 1;
  h.sourceType = 0x0C;
  uint8_t out[512];
  std::memset(out, 0xEE, sizeof out);
  EncodeBackupHeader(h, out);

  // Every byte no field names is zero.
  Bytes expected(512, 0);
  auto put = [&](size_t at, const std::string& text) { std::copy(text.begin(), text.end(), expected.begin() + at); };
  put(0, std::string("DDdhk\x03\x00\x02\x00\x00\x04", 11));
  expected[43] = expected[44] = 1;
  StoreLe64(expected.data() + 45, h.diskSectors);
  StoreLe16(expected.data() + 53, 0x1234);
  put(57, "A model name of more than thir");  // 30 bytes, no terminator
  StoreLe16(expected.data() + 104, 7);
  put(106, "ACOMPUTERNAMEO");  // 14 bytes and a terminator
  StoreLe64(expected.data() + 122, h.firstSector);
  StoreLe64(expected.data() + 130, 4096);
  StoreLe16(expected.data() + 138, 3);
  // Four characters per 11-byte label slot.
  put(170, "DATA");
  put(181, "C");
  put(203, "BOOT");
  put(214, "\x02\x01\x0C");
  put(510, "DD");
  EXPECT_EQ(expected, Bytes(out, out + 512));

  const BackupHeader back = DecodeBackupHeader(out);
  EXPECT_EQ(3, back.version);
  EXPECT_EQ(512, back.sectorSize);
  EXPECT_EQ(kBackupRange, back.kind);
  EXPECT_EQ(h.diskSectors, back.diskSectors);
  EXPECT_EQ("A model name of more than thir", back.diskModel);
  EXPECT_EQ("ACOMPUTERNAMEO", back.computerName);
  EXPECT_EQ(h.firstSector, back.firstSector);
  EXPECT_EQ((std::array<std::string, 4>{"DATA", "C", "", "BOOT"}), back.labels);
  EXPECT_EQ(2, back.sourcePartition);
}

TEST(BackupHeaderLayout, UnterminatedTextsOfAForeignHeaderStayInTheirFields) {
  uint8_t in[512];
  std::memset(in, 'x', sizeof in);
  const BackupHeader h = DecodeBackupHeader(in);
  EXPECT_EQ(30u, h.diskModel.size());
  EXPECT_EQ(15u, h.computerName.size());
  EXPECT_EQ(4u, h.labels[2].size());
}

using BackupHeaderDiskTest = test::FakeDiskTest;

TEST_F(BackupHeaderDiskTest, GptEntriesBeyondTheFourthHaveNoSlotButMayBeTheSource) {
  std::vector<test::GptTestEntry> entries;
  for (uint64_t i = 0; i < 6; ++i) entries.push_back({test::kBasicDataType, 2048 + i * 1000, 2047 + (i + 1) * 1000});
  test::WriteGptDisk(machine.AddDrive(0, 20000), entries);
  Load();
  ASSERT_TRUE(disks->isGpt);
  ASSERT_EQ(6, PartitionCount(*disks, kKindPrimary));
  const char* labels[] = {"ONE", "TWO", "THREE", "FOUR", "FIVE", "SIXTH"};
  for (int32_t n = 1; n <= 6; ++n) GetPartition(*disks, n, kKindPrimary)->volumeLabel = labels[n - 1];

  uint8_t out[512];
  FillBackupHeader(*disks, out, kBackupVbr, 2048 + 5 * 1000, 7);
  const BackupHeader h = DecodeBackupHeader(out);
  EXPECT_FALSE(h.mbrDisk);
  EXPECT_EQ(6, h.partitionCount);
  EXPECT_EQ((std::array<std::string, 4>{"ONE", "TWO", "THRE", "FOUR"}), h.labels);
  EXPECT_EQ(6, h.sourcePartition);
  EXPECT_EQ(0, h.sourceSlot);
  // Nothing of the later entries lands anywhere else in the header.
  EXPECT_EQ(Bytes(510 - 217, 0), Bytes(out + 217, out + 510));
  EXPECT_EQ(0, std::memcmp(out + 510, "DD", 2));
}

TEST_F(BackupHeaderDiskTest, MbrSourceIsThePartitionStartingAtTheFirstSector) {
  MakeMbrDisk({{}, {0, 0x07, 2048, 2048}, {0, 0x0B, 4096, 2048}});
  Load();
  ASSERT_EQ(2, PartitionCount(*disks, kKindPrimary));

  uint8_t out[512];
  FillBackupHeader(*disks, out, kBackupVbr, 4096, 3);
  EXPECT_TRUE(DecodeBackupHeader(out).mbrDisk);
  EXPECT_EQ(2, LoadLe16(out + 53));
  EXPECT_EQ(Bytes({2, 2, 0x0B}), Bytes(out + 214, out + 217));  // the second partition sits in slot 2
  FillBackupHeader(*disks, out, kBackupMbr, 0, 1);
  EXPECT_EQ(Bytes(3, 0), Bytes(out + 214, out + 217));
}

TEST_F(BackupHeaderDiskTest, ReadersTakeOnlyAWholeSectorBeginningWithDD) {
  Bytes header(512, 0);
  header[0] = header[1] = 'D';
  header[10] = 6;
  machine.AddFile("full.bin", header);
  machine.AddFile("short.bin", Bytes(header.begin(), header.end() - 1));
  Bytes other = header;
  other[1] = 'X';
  machine.AddFile("other.bin", other);
  uint8_t buffer[512];
  EXPECT_EQ(6, ReadBackupKind("full.bin", buffer));
  for (const char* name : {"short.bin", "other.bin", "missing.bin"}) EXPECT_EQ(0, ReadBackupKind(name, buffer)) << name;
  EXPECT_EQ(512u, GetFileSizeByName("full.bin"));
  EXPECT_EQ(0u, GetFileSizeByName("missing.bin"));

  // A device that hands over a few bytes per read still gives the header.
  machine.Find("full.bin")->readLimit = 100;
  EXPECT_EQ(6, ReadBackupKind("full.bin", buffer));
}

}  // namespace
}  // namespace dh
