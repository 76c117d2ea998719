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
#include "disk/le.h"
#include "fake_machine.h"
#include "gpt_test_image.h"
#include "mbr/partition.h"
#include "sectors/backup_header.h"

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

  EXPECT_EQ(0, std::memcmp(out, "DDdhk\x03\x00\x02\x00\x00\x04", 11));
  EXPECT_EQ(1, out[43]);
  EXPECT_EQ(1, out[44]);
  EXPECT_EQ(0x0102030405060708ull, LoadLe64(out + 45));
  EXPECT_EQ(0x1234, LoadLe16(out + 53));
  // The model fills its 30 bytes without a terminator; the name keeps one.
  EXPECT_EQ(0, std::memcmp(out + 57, "A model name of more than thir", 30));
  EXPECT_EQ(0, out[87]);
  EXPECT_EQ(7, LoadLe16(out + 104));
  EXPECT_EQ(0, std::memcmp(out + 106, "ACOMPUTERNAMEO\0", 15));
  EXPECT_EQ(0x1122334455667788ull, LoadLe64(out + 122));
  EXPECT_EQ(4096u, LoadLe64(out + 130));
  EXPECT_EQ(3, LoadLe16(out + 138));
  // Four characters per slot; the other seven bytes stay zero.
  const uint8_t slots[44] = {'D', 'A', 'T', 'A', 0, 0, 0, 0, 0, 0, 0, 'C', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                             0,   0,   0,   0,   0, 0, 0, 0, 0, 0, 0, 'B', 'O', 'O', 'T', 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(out + 170, slots, sizeof slots));
  EXPECT_EQ(2, out[214]);
  EXPECT_EQ(1, out[215]);
  EXPECT_EQ(0x0C, out[216]);
  EXPECT_EQ('D', out[510]);
  EXPECT_EQ('D', out[511]);
  // Every byte no field names is zero.
  for (size_t i : {8u, 9u, 11u, 42u, 55u, 56u, 88u, 103u, 121u, 140u, 169u, 217u, 300u, 509u}) {
    EXPECT_EQ(0, out[i]) << "byte " << i;
  }

  const BackupHeader back = DecodeBackupHeader(out);
  EXPECT_EQ(3, back.version);
  EXPECT_EQ(512, back.sectorSize);
  EXPECT_EQ(kBackupRange, back.kind);
  EXPECT_EQ(h.diskSectors, back.diskSectors);
  EXPECT_EQ("A model name of more than thir", back.diskModel);
  EXPECT_EQ("ACOMPUTERNAMEO", back.computerName);
  EXPECT_EQ(h.firstSector, back.firstSector);
  EXPECT_EQ(h.sectorCount, back.sectorCount);
  EXPECT_EQ("DATA", back.labels[0]);
  EXPECT_EQ("BOOT", back.labels[3]);
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

class BackupHeaderDiskTest : public ::testing::Test {
 protected:
  BackupHeaderDiskTest() : host_(&machine_) {
    ResetRun();
    Arguments().Clear();
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
};

TEST_F(BackupHeaderDiskTest, GptEntriesBeyondTheFourthHaveNoSlotButMayBeTheSource) {
  test::FakeDrive& drive = machine_.AddDrive(0, 20000, platform::kMediaRemovable);
  std::vector<test::GptTestEntry> entries;
  for (uint64_t i = 0; i < 6; ++i) entries.push_back({test::kBasicDataType, 2048 + i * 1000, 2047 + (i + 1) * 1000});
  test::WriteGptDisk(drive, entries);
  machine_.computerName = "NAS";
  DiskSet disks(false);
  ASSERT_TRUE(disks.isGpt);
  ASSERT_EQ(6, PartitionCount(disks, kKindPrimary));
  const char* labels[] = {"ONE", "TWO", "THREE", "FOUR", "FIVE", "SIXTH"};
  for (int32_t n = 1; n <= 6; ++n) GetPartition(disks, n, kKindPrimary)->volumeLabel = labels[n - 1];

  uint8_t out[512];
  FillBackupHeader(disks, out, kBackupVbr, 2048 + 5 * 1000, 7);
  const BackupHeader h = DecodeBackupHeader(out);
  EXPECT_FALSE(h.mbrDisk);
  EXPECT_TRUE(h.removable);
  EXPECT_EQ(20000u, h.diskSectors);
  EXPECT_EQ(6, h.partitionCount);
  EXPECT_EQ("NAS", h.computerName);
  EXPECT_EQ((std::array<std::string, 4>{"ONE", "TWO", "THRE", "FOUR"}), h.labels);
  EXPECT_EQ(6, h.sourcePartition);
  EXPECT_EQ(0, h.sourceSlot);
  // Nothing of the later entries lands anywhere else in the header.
  for (size_t i = 217; i < 510; ++i) ASSERT_EQ(0, out[i]) << "byte " << i;
  EXPECT_EQ(0, std::memcmp(out + 510, "DD", 2));
}

TEST_F(BackupHeaderDiskTest, MbrSourceIsThePartitionStartingAtTheFirstSector) {
  test::FakeDrive& drive = machine_.AddDrive(0, 8192);
  uint8_t* s = drive.Sector(0);
  s[0] = 0x33;
  s[1] = 0xC0;
  const uint8_t types[] = {0x07, 0x0B};
  for (int i = 0; i < 2; ++i) {
    uint8_t* e = s + 446 + 16 * (i + 1);  // slots 1 and 2
    e[4] = types[i];
    StoreLe32(e + 8, 2048u + 2048u * static_cast<uint32_t>(i));
    StoreLe32(e + 12, 2048);
  }
  drive.SetBootSignature();
  DiskSet disks(false);
  ASSERT_EQ(2, PartitionCount(disks, kKindPrimary));

  uint8_t out[512];
  FillBackupHeader(disks, out, kBackupVbr, 4096, 3);
  EXPECT_TRUE(DecodeBackupHeader(out).mbrDisk);
  EXPECT_EQ(2, out[214]);
  EXPECT_EQ(2, out[215]);  // the second partition sits in slot 2
  EXPECT_EQ(0x0B, out[216]);
  EXPECT_EQ(2, LoadLe16(out + 53));

  FillBackupHeader(disks, out, kBackupMbr, 0, 1);
  EXPECT_EQ(0, out[214]);
  EXPECT_EQ(0, out[215]);
  EXPECT_EQ(0, out[216]);
}

TEST_F(BackupHeaderDiskTest, ReadersTakeOnlyAWholeSectorBeginningWithDD) {
  Bytes header(512, 0);
  header[0] = 'D';
  header[1] = 'D';
  header[10] = 6;
  machine_.AddFile("full.bin", header);
  machine_.AddFile("short.bin", Bytes(header.begin(), header.end() - 1));
  Bytes other = header;
  other[1] = 'X';
  machine_.AddFile("other.bin", other);
  uint8_t buffer[512];
  EXPECT_EQ(6, ReadBackupKind("full.bin", buffer));
  EXPECT_EQ(0, ReadBackupKind("short.bin", buffer));
  EXPECT_EQ(0, ReadBackupKind("other.bin", buffer));
  EXPECT_EQ(0, ReadBackupKind("missing.bin", buffer));
  EXPECT_EQ(512u, GetFileSizeByName("full.bin"));
  EXPECT_EQ(0u, GetFileSizeByName("missing.bin"));

  // A device that hands over a few bytes per read still gives the header.
  machine_.Find("full.bin")->readLimit = 100;
  EXPECT_EQ(6, ReadBackupKind("full.bin", buffer));
}

}  // namespace
}  // namespace dh
