// No command writes where it does not point: damaged or hostile GPT headers
// and backup files that claim more than their area make a command refuse
// (or keep to its own area), and no byte of any partition ever changes.
// The partitions of each image are filled with a known byte and checked
// after every case.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kDisk = 32768;
// The partitions: 2048..4095 (NTFS), 4096..8191 (Linux), 8192..16383 (NTFS).
const std::vector<std::pair<uint64_t, uint64_t>> kParts = {{2048, 2048}, {4096, 4096}, {8192, 8192}};

uint32_t Crc32(const uint8_t* p, size_t n) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    crc ^= p[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void Put64(Bytes& b, size_t at, uint64_t v) {
  for (int i = 0; i < 8; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (8 * i));
}
void Put32(Bytes& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (8 * i));
}
void Seal(Bytes& header) {
  Put32(header, 16, 0);
  Put32(header, 16, Crc32(header.data(), 92));
}

class WritePlanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!e2e::HaveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
  }

  // A fresh GPT disk made by sgdisk, partitions filled with 0xC3.
  e2e::Image& GptDisk(e2e::Machine& m, const std::map<std::string, std::string>& keys = {}) {
    e2e::Image& disk = m.AddDrive(0, kDisk, keys);
    int status = 0;
    e2e::Shell("sgdisk -n 1:2048:4095 -t 1:0700 -n 2:4096:8191 -t 2:8300 -n 3:8192:16383 -t 3:0700 '" +
                   disk.path() + "' >/dev/null 2>&1",
               &status);
    EXPECT_EQ(0, status);
    for (const auto& [first, count] : kParts) disk.Write(first, Bytes(count * 512, 0xC3));
    return disk;
  }

  static void ExpectPartitionsUntouched(const e2e::Image& disk, const std::string& what) {
    for (const auto& [first, count] : kParts) {
      EXPECT_EQ(Bytes(count * 512, 0xC3), disk.Read(first, count)) << what << ": partition at " << first;
    }
  }

  // Changes the primary header with `edit`; `seal` recomputes its CRC.
  static void EditHeader(e2e::Image& disk, const std::function<void(Bytes&)>& edit, bool seal) {
    Bytes header = disk.Read(1);
    edit(header);
    if (seal) Seal(header);
    disk.Write(1, header);
  }
};

TEST_F(WritePlanTest, GptEditsAndWipesKeepToTheirAreasWhateverTheHeaderSays) {
  struct Case {
    const char* what;
    std::vector<std::string> args;
    std::function<void(Bytes&)> edit;
    bool seal;
    int code;
    bool unchanged;  // nothing at all may change
  };
  const std::vector<Case> cases = {
      {"del, alternate LBA inside a partition", {"/del", "/part=1"},
       [](Bytes& h) { Put64(h, 32, 10000); }, true, 0, false},
      {"del, header CRC wrong", {"/del", "/part=1"}, [](Bytes& h) { Put64(h, 32, 10000); }, false, 200, true},
      {"del, last usable LBA at the disk's end", {"/del", "/part=1"},
       [](Bytes& h) { Put64(h, 48, kDisk - 2); }, true, 202, true},
      {"del all, alternate LBA inside a partition", {"/del", "/part=*"},
       [](Bytes& h) { Put64(h, 32, 9000); }, true, 0, false},
      {"wipe, first usable LBA beyond the partitions", {"/wipe=gpt"},
       [](Bytes& h) { Put64(h, 40, 30000); }, true, 0, false},
      {"wipe, first usable LBA beyond the partitions, no entries", {"/wipe=gpt"},
       [](Bytes& h) {
         Put64(h, 40, 30000);
         Put32(h, 80, 0);
         Put32(h, 88, Crc32(nullptr, 0));
       },
       true, 0, false},
      {"wipe, array CRC wrong", {"/wipe=gpt"},
       [](Bytes& h) {
         Put64(h, 40, 30000);
         Put32(h, 88, 1);
       },
       true, 0, false},
  };
  for (const Case& c : cases) {
    e2e::Machine machine;
    e2e::Image& disk = GptDisk(machine);
    EditHeader(disk, c.edit, c.seal);
    const std::string before = disk.Hash();
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"/confirm", "/result"});
    e2e::Result r = machine.Run(args);
    EXPECT_EQ(c.code, e2e::ResultOf(r)) << c.what << "\n" << r.out;
    ExpectPartitionsUntouched(disk, c.what);
    if (c.unchanged) {
      EXPECT_EQ(before, disk.Hash()) << c.what;
    }
  }
}

TEST_F(WritePlanTest, AWipeOfAGptWhoseArrayCannotBeReadStaysInTheHeadersArea) {
  e2e::Machine machine;
  e2e::Image& disk = GptDisk(machine, {{"badsectors", "3"}});
  EditHeader(disk, [](Bytes& h) { Put64(h, 40, 30000); }, true);
  e2e::Result r = machine.Run({"/wipe=gpt", "/confirm", "/result"});
  EXPECT_EQ(505, e2e::ResultOf(r)) << r.out;  // the bad sector itself
  ExpectPartitionsUntouched(disk, "unreadable array");
  EXPECT_EQ(Bytes(512, 0), disk.Read(33));
  EXPECT_EQ(Bytes(512, 0), disk.Read(0));
}

TEST_F(WritePlanTest, RestoresWriteAtMostTheirAreaAndRefuseFilesThatHoldMore) {
  e2e::Machine machine;
  e2e::Image& disk = GptDisk(machine);
  // An MBR disk beside it, its NTFS partition starting at sector 63 right
  // behind track 0.
  e2e::Image& mbrDisk = machine.AddDrive(1, 8192);
  mbrDisk.Write(0, e2e::Mbr({e2e::Entry(0, 0x07, 63, 4000)}));
  Bytes boot(4000 * 512, 0xC3);
  std::memcpy(boot.data() + 3, "NTFS", 4);
  mbrDisk.Write(63, boot);
  ASSERT_EQ(0, e2e::ResultOf(machine.Run({"/save=gpt", "/filename=gpt.dhk", "/result"})));
  ASSERT_EQ(0, e2e::ResultOf(machine.Run({"/save=track0", "/disk=1", "/filename=t0.dhk", "/result"})));
  ASSERT_EQ(0, e2e::ResultOf(machine.Run({"/save=vbr", "/disk=1", "/part=1", "/filename=vbr.dhk", "/result"})));

  // Each file claims (and holds) more sectors than its area.
  auto Grow = [&](const std::string& name, uint64_t count) {
    std::string text = e2e::ReadFileText(machine.PathOf(name));
    Bytes bytes(text.begin(), text.end());
    Put64(bytes, 130, count);
    bytes.resize(512 + count * 512, 0xAB);
    e2e::WriteFileText(machine.PathOf(name), std::string(bytes.begin(), bytes.end()));
  };
  Grow("gpt.dhk", 2100);
  Grow("t0.dhk", 64);
  Grow("vbr.dhk", 8);
  const std::string before = disk.Hash();
  const std::string mbrBefore = mbrDisk.Hash();
  const struct {
    std::vector<std::string> args;
    int code;
  } cases[] = {
      {{"/restore=gpt", "/filename=gpt.dhk"}, 560},
      {{"/restore=track0", "/disk=1", "/filename=t0.dhk"}, 560},
      {{"/restore=vbr", "/disk=1", "/part=1", "/filename=vbr.dhk"}, 560},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"/confirm", "/result"});
    e2e::Result r = machine.Run(args);
    EXPECT_EQ(c.code, e2e::ResultOf(r)) << args[0] << "\n" << r.out;
    EXPECT_TRUE(e2e::Has(r, " Error 560: File size does not match requested command\n")) << r.out;
  }
  EXPECT_EQ(before, disk.Hash());
  EXPECT_EQ(mbrBefore, mbrDisk.Hash());
  ExpectPartitionsUntouched(disk, "restores");
}

TEST_F(WritePlanTest, ASavedGptGoesBackOntoAWipedDiskWithItsBackup) {
  e2e::Machine machine;
  e2e::Image& disk = GptDisk(machine);
  const Bytes area = disk.Read(0, 34);
  const Bytes backup = disk.Read(kDisk - 33, 33);
  ASSERT_EQ(0, e2e::ResultOf(machine.Run({"/save=gpt", "/filename=gpt.dhk", "/result"})));
  ASSERT_EQ(0, e2e::ResultOf(machine.Run({"/wipe=gpt", "/confirm", "/result"})));
  disk.Write(kDisk - 33, Bytes(33 * 512, 0));
  EXPECT_EQ(Bytes(34 * 512, 0), disk.Read(0, 34));

  e2e::Result r = machine.Run({"/restore=gpt", "/filename=gpt.dhk", "/confirm", "/result"});
  EXPECT_EQ(0, e2e::ResultOf(r)) << r.out;
  EXPECT_EQ(area, disk.Read(0, 34));
  EXPECT_EQ(backup, disk.Read(kDisk - 33, 33));
  ExpectPartitionsUntouched(disk, "restore onto a wiped disk");
  int status = 0;
  const std::string report = e2e::Shell("sgdisk -v '" + disk.path() + "' 2>&1", &status);
  EXPECT_NE(std::string::npos, report.find("No problems found")) << report;

  // A disk with an MBR partition table still refuses it.
  disk.Write(0, e2e::Mbr({e2e::Entry(0, 0x07, 2048, 2048)}));
  const std::string before = disk.Hash();
  EXPECT_EQ(131, e2e::ResultOf(machine.Run({"/restore=gpt", "/filename=gpt.dhk", "/confirm", "/result"})));
  EXPECT_EQ(before, disk.Hash());
}

}  // namespace
