// Disk loading and the dispatcher's checks end to end: disk kinds, drive
// numbering with gaps, drives that cannot be opened or read, `ignore`, and
// the partition and all-disks rules.  Every command here only reads, so
// every image must be unchanged afterwards.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Entry;
using e2e::Mbr;

std::string KindOf(const std::string& listing) {
  const std::string key = "MBR/GPT:         ";
  size_t at = listing.find(key);
  if (at == std::string::npos) return "?";
  size_t end = listing.find(' ', at + key.size());
  std::string kind = listing.substr(at + key.size(), end - at - key.size());
  if (kind == "MBR" && listing.compare(end, 5, " (HP)") == 0) kind += " (HP)";
  return kind;
}

// The value printed by /result: the last line of the output.
int PrintedResult(const std::string& out) {
  size_t end = out.find_last_not_of('\n');
  size_t start = out.find_last_of('\n', end);
  std::string line = out.substr(start + 1, end - start);
  if (line.rfind(" Result: ", 0) == 0) line = line.substr(9);
  return std::stoi(line);
}

class Disks : public ::testing::Test {
 protected:
  // Runs a command that must not change any image.
  e2e::Result ReadOnly(const std::vector<std::string>& args, const std::string& input = "") {
    std::vector<std::string> before;
    for (int n : numbers) before.push_back(m.drive(n).Hash());
    e2e::Result r = m.Run(args, input);
    for (size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ(m.drive(numbers[i]).Hash(), before[i]) << "drive " << numbers[i];
    return r;
  }
  e2e::Image& Add(int n, uint64_t sectors, const std::map<std::string, std::string>& keys = {}) {
    numbers.push_back(n);
    return m.AddDrive(n, sectors, keys);
  }
  e2e::Machine m;
  std::vector<int> numbers;
};

TEST_F(Disks, KindsFromTheFirstBytesOfSectorZero) {
  Add(0, 4096);  // all zeros
  std::vector<uint8_t> noCode = Mbr({Entry(0, 0x07, 63, 1000)});
  noCode[0] = 0xFA;
  noCode[1] = 0x31;
  Add(1, 4096).Write(0, noCode);
  std::vector<uint8_t> hp = Mbr({Entry(0, 0x07, 63, 1000)});
  hp[1] = 0xFF;
  Add(2, 4096).Write(0, hp);
  std::vector<uint8_t> gpt = Mbr({Entry(0, 0xEE, 1, 4095)});
  gpt[510] = 0;
  gpt[511] = 0;
  Add(3, 4096).Write(0, gpt);

  e2e::Result r = ReadOnly({"/list", "/disk=0"});
  EXPECT_EQ(KindOf(r.out), "None");
  EXPECT_NE(r.out.find("No partitions found on this disk"), std::string::npos);
  r = ReadOnly({"/list", "/disk=1"});
  EXPECT_EQ(KindOf(r.out), "MBR");
  EXPECT_NE(r.out.find(" 1   1  07-NTFS "), std::string::npos) << r.out;
  r = ReadOnly({"/list", "/disk=2"});
  EXPECT_EQ(KindOf(r.out), "MBR (HP)");
  r = ReadOnly({"/list", "/disk=3"});
  EXPECT_EQ(KindOf(r.out), "GPT");
}

TEST_F(Disks, SuperfloppyTakesItsPartitionFromTheDriveLayout) {
  std::vector<uint8_t> vbr(512, 0);
  vbr[0] = 0xEB;
  vbr[1] = 0x58;
  vbr[2] = 0x90;
  std::string fat32 = "FAT32   ";
  std::copy(fat32.begin(), fat32.end(), vbr.begin() + 82);
  vbr[510] = 0x55;
  vbr[511] = 0xAA;
  Add(0, 8192, {{"media", "removable"}}).Write(0, vbr);
  e2e::Result r = ReadOnly({"/list", "/partcount", "/silent", "/result"});
  EXPECT_EQ(r.out, "\n1\n");
  r = ReadOnly({"/list"});
  EXPECT_EQ(KindOf(r.out), "SuperFloppy");
  EXPECT_NE(r.out.find(" 1   1  0C-FAT32X 4.0M  No   No               0          8,192"), std::string::npos) << r.out;
}

TEST_F(Disks, DriveNumbersWithGaps) {
  Add(0, 2048).Write(0, Mbr({Entry(0, 0x07, 63, 100)}));
  Add(2, 2048).Write(0, Mbr({Entry(0, 0x0C, 63, 200), Entry(0, 0x07, 300, 300)}));
  e2e::Result r = ReadOnly({"/diskcount", "/silent"});
  EXPECT_EQ(r.status, 2);
  // Disk index 1 is drive 2.
  r = ReadOnly({"/partcount", "/disk=1", "/silent"});
  EXPECT_EQ(r.status, 2);
  r = ReadOnly({"/list", "/disk=2", "/result"});
  EXPECT_NE(r.out.find(" Error 511: Invalid Disk selected\n"), std::string::npos) << r.out;
  EXPECT_EQ(PrintedResult(r.out), 511);
}

TEST_F(Disks, NoDriveAtAllIs515) {
  e2e::Result r = m.Run({"/list", "/result"});
  EXPECT_NE(r.out.find(" Error 515: No Disk Identified or Insufficient User Privileges\n"), std::string::npos) << r.out;
  EXPECT_EQ(PrintedResult(r.out), 515);
}

TEST_F(Disks, ReadOnlyDriveIs571AndBadSectorZeroIs506) {
  Add(0, 2048, {{"readonly", "yes"}}).Write(0, Mbr({Entry(0, 0x07, 63, 100)}));
  Add(1, 2048, {{"badsectors", "0"}}).Write(0, Mbr({Entry(0, 0x07, 63, 100)}));
  e2e::Result r = ReadOnly({"/list", "/result"});
  EXPECT_NE(r.out.find(" Error 571: Unable to access the specifed disk\n"), std::string::npos) << r.out;
  EXPECT_EQ(PrintedResult(r.out), 571);
  EXPECT_EQ(r.status, 571 & 0xFF);

  // A drive whose sector 0 cannot be read loads as an empty disk of kind None.
  r = ReadOnly({"/partcount", "/disk=1", "/result"});
  EXPECT_NE(r.out.find(" Error 571: "), std::string::npos) << r.out;  // disk 0 was loaded first
  r = ReadOnly({"/list", "/disk=1", "/ignore", "/result"});
  EXPECT_EQ(KindOf(r.out), "None");
  EXPECT_EQ(PrintedResult(r.out), 0);
}

TEST_F(Disks, BadSectorZeroOnTheFirstDisk) {
  Add(0, 2048, {{"badsectors", "0-0"}});
  e2e::Result r = ReadOnly({"/list", "/result"});
  EXPECT_NE(r.out.find(" Error 506: Unable to read the specified sector from the selected disk\n"), std::string::npos)
      << r.out;
  EXPECT_EQ(PrintedResult(r.out), 506);
  // With ignore nothing is recorded and the listing runs.
  r = ReadOnly({"/list", "/ignore", "/result"});
  EXPECT_EQ(KindOf(r.out), "None");
  EXPECT_EQ(PrintedResult(r.out), 0);
}

class Dispatch : public Disks {
 protected:
  void SetUp() override {
    // Two primaries, the second extended with three logical partitions.
    std::vector<uint8_t> mbr = Mbr({Entry(0, 0x07, 63, 1000), Entry(0, 0x0F, 2048, 6144)});
    e2e::Image& d0 = Add(0, 16384);
    d0.Write(0, mbr);
    for (uint32_t i = 0; i < 3; ++i) {
      std::vector<uint8_t> ebr(512, 0);
      std::vector<uint8_t> logical = Entry(0, 0x07, 63, 1000);
      std::copy(logical.begin(), logical.end(), ebr.begin() + 446);
      if (i < 2) {
        std::vector<uint8_t> link = Entry(0, 0x05, (i + 1) * 2048, 2048);
        std::copy(link.begin(), link.end(), ebr.begin() + 462);
      }
      ebr[510] = 0x55;
      ebr[511] = 0xAA;
      d0.Write(2048 + i * 2048, ebr);
    }
    Add(1, 4096).Write(0, Mbr({Entry(0, 0x0B, 63, 2000)}));
  }
};

TEST_F(Dispatch, AllDisksAndAllPartitionsRules) {
  EXPECT_EQ(PrintedResult(ReadOnly({"/tablist", "/disk=*", "/result"}).out), 128);
  EXPECT_NE(ReadOnly({"/tablist", "/disk=*"}).out.find(" Error 128: All Disks command not allowed with this operation\n"),
            std::string::npos);
  // The partition check comes first: part=* alone is a partition the
  // command does not take.
  EXPECT_EQ(PrintedResult(ReadOnly({"/active", "/part=*", "/confirm", "/result"}).out), 106);
  EXPECT_EQ(PrintedResult(ReadOnly({"/active", "/disk=*", "/part=*", "/confirm", "/result"}).out), 127);
  EXPECT_EQ(PrintedResult(ReadOnly({"/sort", "/disk=*", "/confirm", "/result"}).out), 128);
  EXPECT_EQ(PrintedResult(ReadOnly({"/del", "/disk=*", "/part=1", "/confirm", "/result"}).out), 113);
}

TEST_F(Dispatch, PartitionNumbersAreCheckedPerCommand) {
  // list takes any partition number; hide does not.
  e2e::Result r = ReadOnly({"/list", "/part=7", "/result"});
  EXPECT_EQ(PrintedResult(r.out), 0);
  EXPECT_EQ(PrintedResult(ReadOnly({"/hide", "/part=7", "/confirm", "/result"}).out), 106);
  EXPECT_EQ(PrintedResult(ReadOnly({"/hide", "/part=0", "/confirm", "/result"}).out), 106);
  // Logical partitions count for the check but are never deleted.
  EXPECT_EQ(PrintedResult(ReadOnly({"/del", "/part=5", "/confirm", "/result"}).out), 106);
}

TEST_F(Dispatch, ListOfEveryDiskAndOfOne) {
  e2e::Result all = ReadOnly({"/list", "/disk=*"});
  EXPECT_NE(all.out.find("Disk: 0 "), std::string::npos);
  EXPECT_NE(all.out.find("Disk: 1 "), std::string::npos);
  EXPECT_EQ(ReadOnly({"/list"}).out, all.out);
  e2e::Result one = ReadOnly({"/list", "/disk=1"});
  EXPECT_EQ(one.out.find("Disk: 0 "), std::string::npos);
  EXPECT_NE(one.out.find("Disk: 1 "), std::string::npos);
}

TEST_F(Dispatch, NamedArgumentsNeedTheirEqualsSign) {
  // signature:Read is accepted by the parser but names no /Signature
  // argument, so nothing happens.
  e2e::Result r = ReadOnly({"/signature:Read", "/result"});
  EXPECT_EQ(PrintedResult(r.out), 0);
}

TEST_F(Dispatch, SelectorsThatFindNothing) {
  EXPECT_EQ(PrintedResult(ReadOnly({"/hide", "/part=boot", "/confirm", "/result"}).out), 145);
  EXPECT_EQ(PrintedResult(ReadOnly({"/hide", "/part=system", "/confirm", "/result"}).out), 144);
  EXPECT_EQ(PrintedResult(ReadOnly({"/hide", "/part=diag", "/confirm", "/result"}).out), 146);
  e2e::Result r = ReadOnly({"/hide", "/vol=NOPE", "/confirm", "/result"});
  EXPECT_NE(r.out.find(" Error 147: Unable to locate the specifed partition: 'NOPE' \n"), std::string::npos) << r.out;
}

TEST_F(Dispatch, ConfirmationIsAskedOnceAndEndOfInputDeclines) {
  e2e::Result r = ReadOnly({"/del", "/part=1", "/result"});
  EXPECT_NE(r.out.find("\n Preparing to delete partition 1 on disk 0, are you sure? (Y/N): \n\n"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find(" Error 129: User cancelled process\n"), std::string::npos);
  r = ReadOnly({"/del", "/part=1", "/result"}, "n");
  EXPECT_NE(r.out.find("(Y/N): n\n\n"), std::string::npos) << r.out;
  EXPECT_EQ(PrintedResult(r.out), 129);
  r = ReadOnly({"/del", "/part=1", "/result"}, "\n");
  EXPECT_EQ(PrintedResult(r.out), 129);
  // A command without a question reads no key.
  r = ReadOnly({"/list", "/result"}, "n");
  EXPECT_EQ(r.out.find("Preparing"), std::string::npos);
}

}  // namespace
