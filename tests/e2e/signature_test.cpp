// End-to-end tests of signature=, status, status= and volumeid=: their
// texts and exit values, the bytes of the images afterwards (each write may
// touch only its own field of sector 0), and volume IDs of volumes made by
// mkfs.fat and mkntfs, checked against what blkid reads there.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Entry;
using e2e::Has;
using e2e::Image;
using e2e::Machine;
using e2e::Result;
using e2e::ResultOf;
using Args = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kDiskSectors = 4096;

// Sector 0 with boot code, status byte and padding that are not zeros, one
// NTFS entry, signature 12345678 and, optionally, 55 AA.
Bytes Sector0(bool marker = true) {
  Bytes s = e2e::Mbr({Entry(0x80, 0x07, 2048, 2048)}, 0x12345678);
  for (size_t i = 2; i < 440; ++i) s[i] = static_cast<uint8_t>(i * 13 + 5);
  s[444] = 0x5A;
  s[445] = 0xA5;
  if (!marker) s[511] = 0;
  return s;
}

// A disk of a pattern with the given sector 0.
Image& PatternDisk(Machine& m, int number, const Bytes& sector0) {
  Image& d = m.AddDrive(number, kDiskSectors);
  Bytes fill(16 * 512);
  for (size_t i = 0; i < fill.size(); ++i) fill[i] = static_cast<uint8_t>(i * 7 + 1);
  d.Write(1, fill);
  d.Write(kDiskSectors - 16, fill);
  d.Write(0, sector0);
  return d;
}

Bytes AllOf(const Image& image) { return image.Read(0, image.sectors()); }

// The offsets at which two images differ.
std::set<size_t> Changed(const Bytes& before, const Bytes& after) {
  std::set<size_t> out;
  for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
    if (before[i] != after[i]) out.insert(i);
  }
  return out;
}

uint32_t SignatureOf(const Image& image) {
  const Bytes s = image.Read(0);
  return s[440] | s[441] << 8 | s[442] << 16 | static_cast<uint32_t>(s[443]) << 24;
}

const std::set<size_t> kSignatureBytes = {440, 441, 442, 443};
const std::set<size_t> kStatusByte = {434};
const std::set<size_t> kNothing = {};

TEST(Signature, WriteThenReadRoundTripsAC67AC67) {
  Machine m;
  Image& d = PatternDisk(m, 0, Sector0());
  Result w = m.Run({"/signature=Write", "/Value=AC67AC67"});
  ASSERT_EQ(w.status, 0) << w.out << w.err;
  EXPECT_TRUE(Has(w, "\n Disk signature was successfully updated \n")) << w.out;
  const Bytes s = d.Read(0);
  EXPECT_EQ(Bytes(s.begin() + 440, s.begin() + 444), Bytes({0x67, 0xAC, 0x67, 0xAC}));

  Result r = m.Run({"/signature=read"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(Has(r, "\n Disk 0 signature: 0xAC67AC67  \n")) << r.out;
  Result silent = m.Run({"/signature=READ", "/silent"});
  EXPECT_EQ(silent.out, "AC67AC67");
  // The list shows the new signature too.
  EXPECT_TRUE(Has(m.Run({"/list"}), "Disk Signature:  0xAC67AC67"));
}

// The disks of the table below.  An MBR without 55 AA has no partitions,
// so partition 1 does not exist there; a protective MBR that lost its
// 55 AA still leads to the GPT and its partitions, and that is where the
// commands meet a sector 0 without the marker.
enum DiskKind { kMbr, kMbrNoMarker, kGptNoMarker };

// Makes the disk (sgdisk partitions the GPT one; the caller checks that it
// is there).
void MakeDisk(Machine& m, DiskKind kind) {
  if (kind != kGptNoMarker) {
    Bytes sector0 = Sector0(kind == kMbr);
    sector0[434] = 0x5E;
    PatternDisk(m, 0, sector0);
    return;
  }
  // sgdisk takes a second a run: its disk is made once and copied.
  static const Bytes gpt = [] {
    Machine scratch;
    const Image& image = scratch.AddDrive(0, kDiskSectors);
    int status = -1;
    const std::string out = e2e::Shell("sgdisk -n 1:2048:3071 -t 1:0700 '" + image.path() + "' 2>&1", &status);
    EXPECT_EQ(status, 0) << out;
    return image.Read(0, kDiskSectors);
  }();
  Image& d = m.AddDrive(0, kDiskSectors);
  d.Write(0, gpt);
  Bytes sector0 = d.Read(0);
  sector0[434] = 0x5E;
  // A signature that zeroing would change.
  sector0[440] = 0x78;
  sector0[441] = 0x56;
  sector0[442] = 0x34;
  sector0[443] = 0x12;
  sector0[510] = 0;
  sector0[511] = 0;
  d.Write(0, sector0);
}

// Each command writes only its own field of sector 0, and only where the
// rules let it; the rest of the disk stays as it was.
TEST(Signature, EachCommandTouchesOnlyItsOwnBytes) {
  const struct {
    const char* name;
    DiskKind disk;
    Args args;
    int result;
    std::set<size_t> changed;
    const char* text;
  } cases[] = {
      {"write", kMbr, {"/signature=Write", "/Value=AC67AC67"}, 0, kSignatureBytes, ""},
      {"zero", kMbr, {"/signature=Zero"}, 0, kSignatureBytes, "\n Disk signature was successfully Zeroed out \n"},
      {"generate", kMbr, {"/signature=generate"}, 0, kSignatureBytes,
       "\n Disk signature was successfully generated \n"},
      {"read", kMbr, {"/signature=Read"}, 0, kNothing, " Disk 0 signature: 0x12345678  \n"},
      {"status=", kMbr, {"/status=7", "/confirm"}, 0, kStatusByte, "\n Status written successfully \n"},
      {"status", kMbr, {"/status"}, 0x5E, kNothing, " Status read successfully as 94  \n"},
      {"volumeid", kMbr, {"/volumeid=Read"}, 0, kNothing, " Disk 0 Part 1 VolumeID:   \n"},
      {"zero without 55 AA", kGptNoMarker, {"/signature=Zero"}, 510, kNothing,
       " Error 510: Unable to locate a valid MBR at this location\n\n"},
      {"write without 55 AA", kGptNoMarker, {"/signature=Write", "/Value=AC67AC67"}, 510, kNothing, ""},
      {"generate without 55 AA", kGptNoMarker, {"/signature=Generate"}, 510, kNothing, ""},
      {"read without 55 AA", kGptNoMarker, {"/signature=Read"}, 510, kNothing, ""},
      {"status=7 without 55 AA", kGptNoMarker, {"/status=7", "/confirm"}, 510, kStatusByte,
       " Error 510: Unable to locate a valid MBR at this location\n\n"},
      {"status without 55 AA", kGptNoMarker, {"/status"}, -510, kNothing, ""},
      // No partition is needed, but an MBR is.
      {"signature of an MBR without 55 AA", kMbrNoMarker, {"/signature=Zero"}, 510, kNothing,
       " Error 510: Unable to locate a valid MBR at this location\n\n"},
      {"status=255", kMbr, {"/status=255", "/confirm"}, 116, kNothing,
       " Error 116: Status must be between 0 and 254\n"},
      {"status=-1", kMbr, {"/status=-1", "/confirm"}, 117, kNothing, " Error 117: Invalid Parameter: /status=-1\n"},
      {"declined", kMbr, {"/status=5"}, 129, kNothing,
       "\n Preparing to write a new status flag, are you sure? (Y/N): n\n\n"},
      {"short value", kMbr, {"/signature=Write", "/Value=AC67"}, 119, kNothing,
       " Error 119: /Value must include an 8 character hex string, eg. AC67AC67\n"},
      {"no value", kMbr, {"/signature=Write"}, 120, kNothing,
       " Error 120: Invalid or missing option required with /Signature\n"},
      {"other word", kMbr, {"/signature=Flip"}, 120, kNothing, ""},
      {"no /Signature=", kMbr, {"/signature:Zero"}, 0, kNothing, ""},
      {"volumeid=Write", kMbr, {"/volumeid=Write"}, 124, kNothing,
       " Error 124: Invalid or missing option required with /VolumeID\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.disk == kGptNoMarker && !e2e::HaveTool("sgdisk")) {
      std::printf("skipped without sgdisk: %s\n", c.name);
      continue;
    }
    Machine m;
    MakeDisk(m, c.disk);
    const Image& d = m.drive(0);
    const Bytes before = AllOf(d);
    Args args = c.args;
    args.push_back("/result");
    // Commands without a question must not read the "n".
    Result r = m.Run(args, "n");
    EXPECT_EQ(ResultOf(r), c.result) << r.out << r.err;
    EXPECT_EQ(r.status, c.result & 0xFF);
    const std::set<size_t> changed = Changed(before, AllOf(d));
    if (std::string(c.name) == "generate") {
      // New random bytes may repeat an old byte here and there: only the
      // signature's own bytes change, and some of them do.
      EXPECT_FALSE(changed.empty());
      for (size_t at : changed) EXPECT_TRUE(c.changed.count(at) != 0) << at;
    } else {
      EXPECT_EQ(changed, c.changed);
    }
    if (c.changed == kStatusByte) {
      EXPECT_EQ(d.Read(0)[434], 7);
    }
    EXPECT_TRUE(Has(r, c.text)) << r.out;
  }
}

TEST(Status, WrittenValueIsTheExitValueOfStatus) {
  Machine m;
  Image& d = PatternDisk(m, 0, Sector0());
  ASSERT_EQ(m.Run({"/status=254", "/confirm"}).status, 0);
  EXPECT_EQ(d.Read(0)[434], 254);
  Result r = m.Run({"/status", "/result"});
  EXPECT_EQ(ResultOf(r), 254);
  EXPECT_EQ(r.status, 254);
  EXPECT_TRUE(Has(r, " Status read successfully as 254  \n")) << r.out;

  ASSERT_EQ(m.Run({"/status=0", "/confirm"}).status, 0);
  Result zero = m.Run({"/status", "/result", "/silent"});
  EXPECT_EQ(zero.status, 0);
  EXPECT_EQ(zero.out, " Status read successfully as 0  \n\n0\n");
}

TEST(Status, UnreadableSectorZeroExitsWithTheNegatedCode) {
  Machine m;
  PatternDisk(m, 0, Sector0());
  m.AddDrive(1, kDiskSectors, {{"badsectors", "0"}});
  Result r = m.Run({"/status", "/disk=1", "/result"});
  EXPECT_EQ(ResultOf(r), -506) << r.out;
  EXPECT_EQ(r.status, (-506) & 0xFF);
}

// Two clones of one disk get signatures of their own, also when both runs
// fall into the same second.
TEST(Signature, GenerateGivesClonesDifferentNonZeroSignatures) {
  Machine m;
  Image& a = PatternDisk(m, 0, Sector0());
  Image& b = PatternDisk(m, 1, Sector0());
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(m.Run({"/signature=Generate", "/disk=0"}).status, 0);
    ASSERT_EQ(m.Run({"/signature=Generate", "/disk=1"}).status, 0);
    const uint32_t first = SignatureOf(a);
    const uint32_t second = SignatureOf(b);
    EXPECT_NE(first, 0u);
    EXPECT_NE(second, 0u);
    EXPECT_NE(first, second);
    EXPECT_NE(first, 0x12345678u);
  }
}

// ---- volume IDs --------------------------------------------------------------

// Formats a file with the command (the file's path is appended) and copies
// it to `lba` of the image.  False when the tool is missing or fails.
bool WriteMadeVolume(const Image& image, uint64_t lba, const std::string& tool, const std::string& options,
                     uint32_t megabytes) {
  if (!e2e::HaveTool(tool)) return false;
  const std::string file = ::testing::TempDir() + "diskhold_e2e_volid_" + std::to_string(::getpid()) + "_" +
                           std::to_string(lba) + ".img";
  int status = -1;
  e2e::Shell("rm -f '" + file + "' && truncate -s " + std::to_string(megabytes) + "M '" + file + "' && " + tool +
                 " " + options + " '" + file + "' >/dev/null 2>&1 && dd if='" + file + "' of='" + image.path() +
                 "' bs=512 seek=" + std::to_string(lba) + " conv=notrunc,sparse status=none",
             &status);
  e2e::Shell("rm -f '" + file + "'");
  return status == 0;
}

// The UUID blkid reads at `lba` of the image, its hexadecimal digits only.
std::string BlkidDigits(const Image& image, uint64_t lba) {
  const std::string out = e2e::Shell("blkid -p -o export -O " + std::to_string(lba * 512) + " '" + image.path() +
                                     "' | sed -n 's/^UUID=//p'");
  std::string digits;
  for (char c : out) {
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += static_cast<char>(std::toupper(c));
  }
  return digits;
}

TEST(VolumeId, AgreesWithBlkidOnMadeVolumes) {
  if (!e2e::HaveTool("blkid")) GTEST_SKIP() << "blkid is not available";
  constexpr uint32_t kPart = 65536;  // 32 MiB
  Machine m;
  Image& d = m.AddDrive(0, 2048 + 4 * kPart);
  d.Write(0, e2e::Mbr({Entry(0, 0x06, 2048, kPart), Entry(0, 0x0C, 2048 + kPart, kPart),
                       Entry(0, 0x07, 2048 + 2 * kPart, kPart), Entry(0, 0x0B, 2048 + 3 * kPart, kPart)}));
  if (!WriteMadeVolume(d, 2048, "mkfs.fat", "-F 16 -i 1A2B3C4D", 32) ||
      !WriteMadeVolume(d, 2048 + kPart, "mkfs.fat", "-F 32 -i 00C0FFEE", 32)) {
    GTEST_SKIP() << "mkfs.fat is not available";
  }
  if (!WriteMadeVolume(d, 2048 + 2 * kPart, "mkntfs", "-F -Q -q -p " + std::to_string(2048 + 2 * kPart), 32)) {
    GTEST_SKIP() << "mkntfs is not available";
  }
  // Partition 4 is typed FAT32 but holds the pattern of no file system.
  Bytes junk(512);
  for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<uint8_t>(i * 31 + 7);
  d.Write(2048 + 3 * kPart, junk);

  const struct {
    int part;
    const char* expected;  // null: whatever blkid reads
  } cases[] = {{1, "1A2B-f3C4D"}, {2, "00C0-fFFEE"}, {3, nullptr}, {4, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.part);
    const std::string part = "/part=" + std::to_string(c.part);
    Result r = m.Run({"/volumeid=Read", part});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    Result silent = m.Run({"/volumeid=read", part, "/silent"});
    const std::string id = silent.out;
    EXPECT_TRUE(Has(r, " Disk 0 Part " + std::to_string(c.part) + " VolumeID: " + id + "  \n")) << r.out;
    if (c.expected != nullptr) {
      EXPECT_EQ(id, c.expected);
    }
    const uint64_t lba = 2048 + static_cast<uint64_t>(c.part - 1) * kPart;
    const std::string blkid = BlkidDigits(d, lba);
    if (id.empty()) {
      EXPECT_EQ(blkid, "");
      continue;
    }
    // "%02X%02X-f%02X%02X": the four serial bytes, high first; of NTFS's
    // eight bytes only the low four, the last eight digits of blkid's UUID.
    ASSERT_EQ(id.size(), 10u);
    ASSERT_EQ(id.substr(4, 2), "-f");
    ASSERT_GE(blkid.size(), 8u);
    EXPECT_EQ(id.substr(0, 4) + id.substr(6, 4), blkid.substr(blkid.size() - 8));
  }
}

}  // namespace
