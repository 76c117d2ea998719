// The INI report, the info report and the boot menu against an in-memory
// machine: size texts against the C library's own rounding, which disk is
// current afterwards, a disk that fails to load, values read from the disk
// that would break a line, and the boot menu's answers and refusals.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "app/command_table.h"
#include "app/handlers.h"
#include "app/run_state.h"
#include "base/frame.h"
#include "base/sink.h"
#include "disk/disk_set.h"
#include "fake_machine.h"
#include "report/info.h"
#include "report/ini_report.h"

namespace dh {
namespace {

using test::FakeDrive;

void PutEntry(FakeDrive& d, int slot, uint8_t boot, uint8_t type, uint32_t start, uint32_t count) {
  uint8_t* e = d.Sector(0) + 446 + 16 * slot;
  e[0] = boot;
  e[4] = type;
  for (int i = 0; i < 4; ++i) {
    e[8 + i] = static_cast<uint8_t>(start >> (8 * i));
    e[12 + i] = static_cast<uint8_t>(count >> (8 * i));
  }
}

TEST(ScaledSizeText, RoundsTheExactValueHalfToEven) {
  struct Case {
    uint64_t bytes;
    int shift;
    const char* text;
  };
  const Case cases[] = {
      {500107862016ull, 20, "476940.02"},
      {500107862016ull, 30, "465.76"},
      {500107862016ull, 40, "0.45"},
      {0, 20, "0.00"},
      {(1ull << 20) / 8, 20, "0.12"},      // 0.125: a tie, to the even 0.12
      {(1ull << 20) * 3 / 8, 20, "0.38"},  // 0.375: a tie, to the even 0.38
      {(1ull << 20) - 1, 20, "1.00"},      // 0.999999...: carries into the units
      {UINT64_MAX, 20, "17592186044416.00"},
      {UINT64_MAX, 40, "16777216.00"},
  };
  for (const Case& c : cases) EXPECT_EQ(ScaledSizeText(c.bytes, c.shift), c.text) << c.bytes << " >> " << c.shift;
}

#if defined(__GLIBC__)
TEST(ScaledSizeText, AgreesWithLongDoublePrintf) {
  // glibc prints the exact binary value rounded half to even, which is what
  // a long double (64-bit mantissa) holds of any 64-bit count over 2^k.
  std::mt19937_64 random(15);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bytes = random() >> (random() % 64);
    for (int shift : {20, 30, 40}) {
      char expected[64];
      std::snprintf(expected, sizeof expected, "%.2Lf", static_cast<long double>(bytes) / (1ull << shift));
      ASSERT_EQ(ScaledSizeText(bytes, shift), expected) << bytes << " >> " << shift;
    }
  }
}
#endif

// ---- the INI report over a disk set -----------------------------------------

test::FakeMachine* g_machine = nullptr;

// A virtual disk file of the fake machine, its sectors at the file's start.
std::unique_ptr<VirtualDisk> OpenFakeVirtual(const std::string& path) {
  auto disk = test::ShiftedVirtualDisk(g_machine->Open(path, platform::OpenMode::ReadWriteExisting), 0, 4096);
  disk->descriptionText = "Virtual Disk";
  return disk;
}

class IniReportTest : public ::testing::Test {
 protected:
  IniReportTest() : host_(&machine_) {
    ResetRun();
    g_machine = &machine_;
    FakeDrive& d0 = machine_.AddDrive(0, 8192);
    PutEntry(d0, 0, 0x80, 0x07, 2048, 2048);
    d0.SetBootSignature();
    FakeDrive& d1 = machine_.AddDrive(1, 8192);
    PutEntry(d1, 0, 0x00, 0x0C, 63, 4000);
    d1.SetBootSignature();
  }
  ~IniReportTest() override { g_machine = nullptr; }

  std::unique_ptr<DiskSet> MakeDisks() {
    DiskDrivers drivers = test::TestDrivers();
    drivers.openVirtual = OpenFakeVirtual;
    return std::make_unique<DiskSet>(drivers, false);
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
};

TEST_F(IniReportTest, TheRequestedDiskIsCurrentAgainAfterwards) {
  auto disks = MakeDisks();
  for (int32_t requested : {0, 1}) {
    disks->SelectDisk(requested);
    StringSink out;
    IniReportRequest request;
    request.diskNumber = requested;
    WriteIniReport(*disks, request, out);
    EXPECT_EQ(disks->currentDisk, requested);
    EXPECT_NE(out.text.find("\r\n\r\n[Disk1.Partition1]"), std::string::npos);
    EXPECT_NE(out.text.find("\r\nDiskCount=2"), std::string::npos);
  }
}

TEST_F(IniReportTest, AVirtualDiskIsNotReportedButOpenedAgain) {
  FakeDrive& file = machine_.AddFile("disk.vmdk", std::vector<uint8_t>(4096 * 512, 0));
  PutEntry(file, 0, 0x80, 0x0B, 100, 200);
  file.SetBootSignature();
  auto disks = MakeDisks();
  disks->OpenVirtualDisk("disk.vmdk");
  ASSERT_TRUE(disks->isVirtual);
  StringSink out;
  IniReportRequest request;
  request.diskNumber = 999;
  request.diskFileName = "disk.vmdk";
  WriteIniReport(*disks, request, out);
  EXPECT_EQ(out.text.find("Type=0B"), std::string::npos) << out.text;
  EXPECT_EQ(out.text.find("[Disk2"), std::string::npos);
  EXPECT_TRUE(disks->isVirtual);
  EXPECT_EQ(disks->deviceName, "disk.vmdk");
  ASSERT_EQ(PartitionCount(*disks, kKindPrimary), 1);
  EXPECT_EQ(GetPartition(*disks, 1, kKindPrimary)->type, 0x0B);
}

TEST_F(IniReportTest, ADiskThatFailsToLoadIsReportedAndItsCodeKept) {
  // Drive 1 opens for counting, not for reading and writing (571).
  machine_.Find(test::DrivePath(1))->refusedModes.insert(platform::OpenMode::DiskReadWrite);
  auto disks = MakeDisks();
  StringSink out;
  WriteIniReport(*disks, IniReportRequest{}, out);
  EXPECT_NE(out.text.find("[Disk1]\r\nSize=0\r\n"), std::string::npos) << out.text;
  EXPECT_EQ(disks->firstError, kDiskAccessFailed);
  EXPECT_EQ(disks->currentDisk, 0);
}

TEST_F(IniReportTest, ValuesFromTheDiskStayOnTheirLine) {
  // A description with line ends would start a section of its own.
  machine_.registryStrings["SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum\n0"] = "IDE\\Disk\\1";
  machine_.registryStrings["SYSTEM\\CurrentControlSet\\Enum\\IDE\\Disk\\1\nFriendlyName"] = "Evil\r\n[Disk7]\r\nX=1";
  auto disks = MakeDisks();
  StringSink out;
  WriteIniReport(*disks, IniReportRequest{}, out);
  EXPECT_NE(out.text.find("\r\nDescription=Evil  [Disk7]  X=1\r\n"), std::string::npos) << out.text;
  EXPECT_EQ(out.text.find("\r\n[Disk7]"), std::string::npos);
}

// ---- info and the boot menu ----------------------------------------------------

TEST(BootMenuAnswer, OnlyTheFirstCharacterChoosesARow) {
  struct Case {
    std::string line;
    int32_t lastId;
    bool valid;
    int32_t number;
  };
  const Case cases[] = {
      {"3", 3, true, 3},
      {"1", 3, true, 1},
      {"4", 3, false, 4},
      {"0", 3, false, 0},
      {"", 3, false, 0},
      {"a", 3, false, 0},
      {" 2", 3, false, 0},
      {"2x7", 3, true, 2},
      {"35", 3, true, 35},  // the number itself is not compared with the rows
      {"1" + std::string(200, '9'), 3, true, INT32_MAX},
      // Only the buffer's 99 characters count: the 100th digit is not read.
      {std::string(98, '0') + "21", 3, false, 2},
  };
  for (const Case& c : cases) {
    const BootMenuChoice choice = ReadBootMenuAnswer(c.line, c.lastId);
    EXPECT_TRUE(choice.asked);
    EXPECT_EQ(choice.valid, c.valid) << c.line;
    EXPECT_EQ(choice.number, c.number) << c.line;
  }
}

class BootMenuTest : public ::testing::Test {
 protected:
  BootMenuTest() : host_(&machine_) { ResetRun(); }

  // Runs the boot menu the way the program does after the dispatcher.
  void RunMenu(DiskSet& disks, StringSink& out) {
    static const FrameChars frame = SelectFrameChars(3, 437);
    CommandContext context{Options(), State(), disks, out, frame, 437};
    RunBootMenuStep(context);
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
};

TEST_F(BootMenuTest, AnAnswerActivatesThroughTheMbrWriter) {
  FakeDrive& d = machine_.AddDrive(0, 8192);
  PutEntry(d, 0, 0x80, 0x07, 2048, 2048);
  PutEntry(d, 1, 0x00, 0x17, 4096, 2048);  // hidden: made visible as it is activated
  d.SetBootSignature();
  machine_.lines.push_back("2");
  DiskSet disks(test::TestDrivers(), false);
  StringSink out;
  RunMenu(disks, out);
  EXPECT_EQ(State().resultCode, kSuccess);
  EXPECT_EQ(State().completedStep, kCmdBootMenu);
  EXPECT_EQ(Options().valueText, "2");
  EXPECT_EQ(d.Sector(0)[446], 0x00);
  EXPECT_EQ(d.Sector(0)[462], 0x80);
  EXPECT_EQ(d.Sector(0)[466], 0x07);
  EXPECT_GE(d.flushCalls, 1);
}

TEST_F(BootMenuTest, ASuperfloppyIsRefusedBeforeTheMenu) {
  // A removable medium whose sector 0 is a FAT32 boot record: its bytes
  // 446..509 are boot code, not entries.
  FakeDrive& d = machine_.AddDrive(0, 8192, platform::kMediaRemovable);
  d.Sector(0)[0] = 0xEB;
  d.Sector(0)[1] = 0x58;
  std::memcpy(d.Sector(0) + 82, "FAT32", 5);
  PutEntry(d, 0, 0x00, 0x0C, 0, 8192);
  d.SetBootSignature();
  const std::vector<uint8_t> before = d.bytes;
  machine_.lines.push_back("1");
  DiskSet disks(test::TestDrivers(), false);
  StringSink out;
  RunMenu(disks, out);
  EXPECT_EQ(State().resultCode, kRemovableNoMbr);
  EXPECT_EQ(out.text, "");
  EXPECT_EQ(d.bytes, before);
  EXPECT_EQ(machine_.lines.size(), 1u);  // nothing was asked
}

TEST_F(BootMenuTest, AVirtualDiskShowsNoDriveLetters) {
  machine_.AddDrive(0, 8192);
  FakeDrive& file = machine_.AddFile("disk.vmdk", std::vector<uint8_t>(4096 * 512, 0));
  PutEntry(file, 0, 0x00, 0x07, 2048, 2048);
  file.SetBootSignature();
  g_machine = &machine_;
  DiskDrivers drivers = test::TestDrivers();
  drivers.openVirtual = OpenFakeVirtual;
  DiskSet disks(drivers, false);
  disks.OpenVirtualDisk("disk.vmdk");
  machine_.lines.push_back("1");
  StringSink out;
  RunMenu(disks, out);
  g_machine = nullptr;
  EXPECT_NE(out.text.find("\n  1  <Virtual>    NA 07-NTFS    1.0M   No      No            2,048"), std::string::npos)
      << out.text;
  EXPECT_EQ(State().completedStep, kCmdBootMenu);
  EXPECT_EQ(file.Sector(0)[446], 0x80);
}

TEST_F(BootMenuTest, InfoLeavesTheLastDiskCurrent) {
  machine_.AddDrive(0, 16065);
  machine_.AddDrive(1, 16065 * 2);
  DiskSet disks(test::TestDrivers(), false);
  StringSink out;
  ShowDiskInfo(disks, out);
  EXPECT_EQ(disks.currentDisk, 1);
  EXPECT_NE(out.text.find("\n Disk:       1\n"), std::string::npos) << out.text;
}

}  // namespace
}  // namespace dh
