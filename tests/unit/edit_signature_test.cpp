// Disk signature and status byte against in-memory drives: which bytes
// each write may change, when nothing may be written at all, and how a
// generated signature avoids the values it must not take.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/run_state.h"
#include "disk/disk_set.h"
#include "edit/signature.h"
#include "fake_machine.h"
#include "platform/platform.h"

namespace dh {
namespace {

using test::FakeDrive;
using Bytes = std::vector<uint8_t>;
using Sig = SignatureBytes;

TEST(SignatureText, PairsGoMostSignificantFirst) {
  const struct {
    const char* text;
    Sig bytes;
  } cases[] = {
      // A pair is read up to its first non-hexadecimal character; pairs
      // beyond the text are 00; characters beyond eight are not read.
      {"12345678", {0x78, 0x56, 0x34, 0x12}}, {"abcdef01", {0x01, 0xEF, 0xCD, 0xAB}},
      {"1G2H3I4J", {0x04, 0x03, 0x02, 0x01}}, {"G1xx00FF", {0xFF, 0x00, 0x00, 0x00}},
      {"+1-1 1 1", {0x00, 0x00, 0x00, 0x00}}, {"AB", {0x00, 0x00, 0x00, 0xAB}},
      {"1122334455", {0x44, 0x33, 0x22, 0x11}},
  };
  for (const auto& c : cases) EXPECT_EQ(SignatureFromText(c.text), c.bytes) << c.text;
}

class SignatureTest : public ::testing::Test {
 protected:
  SignatureTest() : host_(&machine_) { ResetRun(); }

  // A drive whose sector 0 is a byte pattern with a signature and,
  // optionally, 55 AA; the sectors after it hold a pattern too.
  FakeDrive& MakeDrive(int number, Sig signature, bool marker = true) {
    FakeDrive& d = machine_.AddDrive(number, 256);
    for (size_t i = 0; i < d.bytes.size(); ++i) d.bytes[i] = static_cast<uint8_t>(i * 13 + 5);
    std::memcpy(d.Sector(0) + 440, signature.data(), 4);
    // One empty-typed entry table: a valid, partitionless MBR.
    std::memset(d.Sector(0) + 446, 0, 64);
    if (marker) {
      d.SetBootSignature();
    } else {
      d.Sector(0)[511] = 0;
    }
    return d;
  }

  void Load(bool ignore = false) {
    disks_ = std::make_unique<DiskSet>(test::TestDrivers(), ignore);
    before_ = drive().bytes;
  }

  FakeDrive& drive(int number = 0) { return machine_.devices[test::DrivePath(number)]; }
  Sig SignatureOnDisk(int number = 0) {
    Sig s;
    std::memcpy(s.data(), drive(number).Sector(0) + 440, 4);
    return s;
  }
  // Every byte of the drive outside [first, first + count) is as it was.
  void ExpectOnlyChanged(size_t first, size_t count) {
    Bytes now = drive().bytes;
    std::copy(before_.begin() + first, before_.begin() + first + count, now.begin() + first);
    EXPECT_EQ(now, before_);
  }
  bool Unchanged() { return drive().bytes == before_; }
  void QueueRandom(std::initializer_list<Sig> draws) {
    for (const Sig& s : draws) machine_.randomBytes.insert(machine_.randomBytes.end(), s.begin(), s.end());
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
  Bytes before_;
};

TEST_F(SignatureTest, EachModeWritesOnlyTheFourSignatureBytesAndFlushes) {
  const struct {
    int32_t mode;
    const char* text;
    Sig expected;
  } cases[] = {
      {kSignatureZero, "", {0, 0, 0, 0}},
      {kSignatureWrite, "AC67AC67", {0x67, 0xAC, 0x67, 0xAC}},
      {kSignatureGenerate, "", {0x10, 0x20, 0x30, 0x40}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    machine_.devices.clear();
    MakeDrive(0, {1, 2, 3, 4});
    Load();
    QueueRandom({{0x10, 0x20, 0x30, 0x40}});
    EXPECT_EQ(kSuccess, SetDiskSignature(*disks_, c.mode, c.text));
    EXPECT_EQ(SignatureOnDisk(), c.expected);
    EXPECT_EQ(1, drive().writeCalls);
    EXPECT_EQ(1, drive().flushCalls);
    ExpectOnlyChanged(440, 4);
    EXPECT_EQ(0, std::memcmp(disks_->savedSignature, c.expected.data(), 4));
  }
}

TEST_F(SignatureTest, NothingIsWrittenWithoutMarkerForABadModeOrAnUnreadableSector) {
  const struct {
    const char* name;
    bool marker;
    bool unreadable;
    int32_t mode;
    ResultCode code;
  } cases[] = {
      {"zero without 55 AA", false, false, kSignatureZero, kNoMbrHere},
      {"generate without 55 AA", false, false, kSignatureGenerate, kNoMbrHere},
      {"mode 3", true, false, 3, kInvalidSignatureMode},
      {"unreadable", true, true, kSignatureZero, kReadFailed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    machine_.devices.clear();
    MakeDrive(0, {1, 2, 3, 4}, c.marker);
    Load();
    if (c.unreadable) drive().badSectors.insert(0);
    EXPECT_EQ(c.code, SetDiskSignature(*disks_, c.mode, "AC67AC67"));
    EXPECT_EQ(0, drive().writeCalls);
    EXPECT_TRUE(Unchanged());
  }
}

TEST_F(SignatureTest, UnderIgnoreAnUnreadableSectorIsStillNeverWritten) {
  // The image would be zeros: writing it would wipe the partition table.
  MakeDrive(0, {1, 2, 3, 4});
  Load(true);
  drive().badSectors.insert(0);
  EXPECT_EQ(kSuccess, SetDiskSignature(*disks_, kSignatureWrite, "AC67AC67"));
  EXPECT_EQ(kSuccess, WriteStatusByte(*disks_, 9));
  EXPECT_EQ(0, drive().writeCalls);
}

TEST_F(SignatureTest, GenerateSkipsZeroTheCurrentAndOtherDrivesSignatures) {
  MakeDrive(0, {1, 2, 3, 4});
  MakeDrive(1, {9, 9, 9, 9}, false);  // read with or without 55 AA
  MakeDrive(2, {7, 7, 7, 7});
  Load();
  QueueRandom({{0, 0, 0, 0}, {1, 2, 3, 4}, {9, 9, 9, 9}, {7, 7, 7, 7}, {0xAA, 0, 0, 0}});
  EXPECT_EQ(kSuccess, SetDiskSignature(*disks_, kSignatureGenerate, ""));
  EXPECT_EQ(SignatureOnDisk(), (Sig{0xAA, 0, 0, 0}));
  EXPECT_EQ(5, machine_.randomCalls);
  // The scan of the other drives wrote nothing there.
  EXPECT_EQ(0, drive(1).writeCalls);
  EXPECT_EQ(0, drive(2).writeCalls);
}

TEST_F(SignatureTest, StatusByteIsWrittenAloneAlsoWithoutMarker) {
  for (bool marker : {true, false}) {
    SCOPED_TRACE(marker);
    machine_.devices.clear();
    ResetRun();
    MakeDrive(0, {1, 2, 3, 4}, marker);
    Load();
    EXPECT_EQ(marker ? kSuccess : kNoMbrHere, WriteStatusByte(*disks_, 254));
    EXPECT_EQ(254, drive().Sector(0)[434]);
    EXPECT_EQ(1, drive().flushCalls);
    ExpectOnlyChanged(434, 1);
  }
  ResetRun();
  Load();
  drive().badSectors.insert(0);
  const int writes = drive().writeCalls;
  EXPECT_EQ(kReadFailed, WriteStatusByte(*disks_, 3));
  EXPECT_EQ(writes, drive().writeCalls);
}

}  // namespace
}  // namespace dh
