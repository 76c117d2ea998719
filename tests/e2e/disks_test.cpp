// Disk loading and the dispatcher's checks end to end: disk kinds, drive
// numbering with gaps, drives that cannot be opened or read, `ignore`, and
// the partition and all-disks rules.  Every command here only reads, so
// every image must be unchanged afterwards; outputs and exit values are
// compared with golden/disks_*.txt.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "harness.h"

namespace {

using e2e::Args;
using e2e::Bytes;
using e2e::Entry;
using e2e::Mbr;

// The transcript of the runs, each with its own input; no image changes.
std::string ReadOnly(const e2e::Machine& m, const std::vector<std::pair<Args, std::string>>& runs) {
  const std::string before = m.Hashes();
  std::string t;
  for (const auto& [args, input] : runs) t += e2e::Shown(args, m.Run(args, input));
  EXPECT_EQ(before, m.Hashes());
  return t;
}

TEST(Disks, KindsFromTheFirstBytesOfSectorZero) {
  e2e::Machine m;
  m.AddDrive(0, 4096);  // all zeros
  Bytes noCode = Mbr({Entry(0, 0x07, 63, 1000)});
  noCode[0] = 0xFA;
  noCode[1] = 0x31;
  m.AddDrive(1, 4096).Write(0, noCode);
  Bytes hp = Mbr({Entry(0, 0x07, 63, 1000)});
  hp[1] = 0xFF;
  m.AddDrive(2, 4096).Write(0, hp);
  Bytes gpt = Mbr({Entry(0, 0xEE, 1, 4095)});
  gpt[510] = gpt[511] = 0;
  m.AddDrive(3, 4096).Write(0, gpt);
  e2e::ExpectGolden("disks_kinds.txt", ReadOnly(m, {{{"/list", "/text", "/silent"}, ""}}));
}

TEST(Disks, SuperfloppyTakesItsPartitionFromTheDriveLayout) {
  e2e::Machine m;
  Bytes vbr(512, 0);
  vbr[0] = 0xEB;
  vbr[1] = 0x58;
  vbr[2] = 0x90;
  std::copy_n("FAT32   ", 8, vbr.begin() + 82);
  vbr[510] = 0x55;
  vbr[511] = 0xAA;
  m.AddDrive(0, 8192, {{"media", "removable"}}).Write(0, vbr);
  e2e::ExpectGolden("disks_superfloppy.txt",
                    ReadOnly(m, {{{"/list", "/partcount", "/silent", "/result"}, ""}, {{"/list", "/text"}, ""}}));
}

// Drive numbers with gaps, no drive at all, a read-only drive, and drives
// whose sector 0 cannot be read (they load as empty disks of kind None).
TEST(Disks, MissingUnreadableAndReadOnlyDrives) {
  const Bytes mbr = Mbr({Entry(0, 0x07, 63, 100)});
  e2e::Machine gaps;
  gaps.AddDrive(0, 2048).Write(0, mbr);
  gaps.AddDrive(2, 2048).Write(0, Mbr({Entry(0, 0x0C, 63, 200), Entry(0, 0x07, 300, 300)}));
  std::string t = ReadOnly(gaps, {{{"/diskcount", "/silent"}, ""},
                                  {{"/partcount", "/disk=1", "/silent"}, ""},  // disk index 1 is drive 2
                                  {{"/list", "/disk=2", "/result"}, ""}});
  t += ReadOnly(e2e::Machine(), {{{"/list", "/result"}, ""}});

  e2e::Machine locked;
  locked.AddDrive(0, 2048, {{"readonly", "yes"}}).Write(0, mbr);
  locked.AddDrive(1, 2048, {{"badsectors", "0"}}).Write(0, mbr);
  t += ReadOnly(locked, {{{"/list", "/result"}, ""},
                         {{"/partcount", "/disk=1", "/result"}, ""},  // disk 0 was loaded first
                         {{"/list", "/disk=1", "/ignore", "/text", "/result"}, ""}});

  e2e::Machine bad;
  bad.AddDrive(0, 2048, {{"badsectors", "0-0"}});
  t += ReadOnly(bad, {{{"/list", "/result"}, ""}, {{"/list", "/ignore", "/text", "/result"}, ""}});
  e2e::ExpectGolden("disks_failures.txt", t);
}

TEST(Disks, DispatcherRules) {
  // Two primaries, the second extended with three logical partitions.
  e2e::Machine m;
  e2e::Image& d0 = m.AddDrive(0, 16384);
  d0.Write(0, Mbr({Entry(0, 0x07, 63, 1000), Entry(0, 0x0F, 2048, 6144)}));
  for (uint32_t i = 0; i < 3; ++i) {
    d0.Write(2048 + i * 2048, e2e::Ebr(Entry(0, 0x07, 63, 1000), i < 2 ? Entry(0, 0x05, (i + 1) * 2048, 2048) : Bytes()));
  }
  m.AddDrive(1, 4096).Write(0, Mbr({Entry(0, 0x0B, 63, 2000)}));

  std::vector<std::pair<Args, std::string>> runs;
  for (const Args& args : std::vector<Args>{
           {"/tablist", "/disk=*", "/result"},
           // The partition check comes first: part=* alone is a partition
           // the command does not take.
           {"/active", "/part=*", "/confirm", "/result"}, {"/active", "/disk=*", "/part=*", "/confirm", "/result"},
           {"/sort", "/disk=*", "/confirm", "/result"}, {"/del", "/disk=*", "/part=1", "/confirm", "/result"},
           // list takes any partition number; hide does not.  Logical
           // partitions count for the check but are never deleted.
           {"/list", "/part=7", "/text", "/silent", "/result"}, {"/hide", "/part=7", "/confirm", "/result"},
           {"/hide", "/part=0", "/confirm", "/result"}, {"/del", "/part=5", "/confirm", "/result"},
           // signature:Read is accepted by the parser but names no
           // /Signature argument, so nothing happens.
           {"/signature:Read", "/result"},
           // Selectors that find nothing.
           {"/hide", "/part=boot", "/confirm", "/result"}, {"/hide", "/part=system", "/confirm", "/result"},
           {"/hide", "/part=diag", "/confirm", "/result"}, {"/hide", "/vol=NOPE", "/confirm", "/result"},
           // The question is asked once; the end of input declines.
           {"/del", "/part=1", "/result"}}) {
    runs.push_back({args, ""});
  }
  for (const char* input : {"n", "\n"}) runs.push_back({{"/del", "/part=1", "/result"}, input});
  runs.push_back({{"/diskcount", "/result"}, "n"});  // no question: no key read
  e2e::ExpectGolden("disks_dispatch.txt", ReadOnly(m, runs));

  const e2e::Result all = m.Run({"/list", "/disk=*"});
  EXPECT_TRUE(e2e::Has(all, "Disk: 0 ") && e2e::Has(all, "Disk: 1 ")) << all.out;
  EXPECT_EQ(m.Run({"/list"}).out, all.out);
  const e2e::Result one = m.Run({"/list", "/disk=1"});
  EXPECT_FALSE(e2e::Has(one, "Disk: 0 "));
  EXPECT_TRUE(e2e::Has(one, "Disk: 1 "));
}

}  // namespace
