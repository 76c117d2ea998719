// VMware disk files on an in-memory machine: the descriptor's keys and their
// block rules, the four types, sizes and adapters, the sparse layout (zero
// reads, grain allocation in both tables), and hostile descriptors, headers
// and tables that must be refused, or opened read-only, without a write.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>
#include <string>
#include <vector>

#include "app/run_state.h"
#include "base/le.h"
#include "disk/sector_device.h"
#include "fake_machine.h"
#include "vdisk/vmdk.h"
#include "vdisk/vmdk_descriptor.h"
#include "vdisk/vmdk_extent.h"

namespace dh {
namespace {

// Writes at a sector of a device and flushes, as a disk write does.
bool WriteAt(dh::DeviceHandle& device, uint64_t lba, const uint8_t* data, uint32_t bytes) {
  return dh::WriteFull(device, lba * 512, data, bytes) && device.Flush();
}

using Bytes = std::vector<uint8_t>;
using namespace vmdk;

Bytes Block(const std::string& text) {
  Bytes block(kBlockSize + 1, 0);
  std::memcpy(block.data(), text.data(), std::min(text.size(), kBlockSize));
  return block;
}

std::string Descriptor(const std::string& type, const std::string& extents, const std::string& adapter = "ide",
                       bool geometry = true) {
  std::string text = "# Disk DescriptorFile\nversion=1\ncreateType=\"" + type + "\"\n" + extents;
  if (geometry) text += "ddb.geometry.cylinders = \"4\"\nddb.geometry.heads = \"16\"\nddb.geometry.sectors = \"63\"\n";
  if (!adapter.empty()) text += "ddb.adapterType = \"" + adapter + "\"\n";
  return text;
}

// A hosted sparse extent as VMware lays it out: header, descriptor,
// redundant directory and tables, directory and tables, then grains.
struct Sparse {
  uint64_t capacity = 4096, grainSize = 128, overhead = 128, rgd = 21, gd = 26;
  uint32_t gtes = 512, flags = 3;

  uint64_t Tables() const { return (capacity / grainSize + gtes - 1) / gtes; }
  uint64_t GtSectors() const { return (gtes * 4 + 511) / 512; }
  uint64_t GtOf(uint64_t dir, uint64_t t) const { return dir + (Tables() * 4 + 511) / 512 + t * GtSectors(); }

  Bytes Build(const std::string& descriptor) const {
    Bytes b(overhead * 512, 0);
    std::memcpy(b.data(), "KDMV", 4);
    StoreLe32(&b[kHdrVersion], 1);
    StoreLe32(&b[kHdrFlags], flags);
    StoreLe64(&b[kHdrCapacity], capacity);
    StoreLe64(&b[kHdrGrainSize], grainSize);
    StoreLe64(&b[kHdrDescriptorOffset], descriptor.empty() ? 0 : 1);
    StoreLe64(&b[kHdrDescriptorSize], descriptor.empty() ? 0 : 20);
    StoreLe32(&b[kHdrGtesPerGt], gtes);
    StoreLe64(&b[kHdrRgdOffset], rgd);
    StoreLe64(&b[kHdrGdOffset], gd);
    StoreLe64(&b[kHdrOverhead], overhead);
    std::memcpy(&b[512], descriptor.data(), descriptor.size());
    for (uint64_t t = 0; t < Tables(); ++t) {
      StoreLe32(&b[rgd * 512 + t * 4], static_cast<uint32_t>(GtOf(rgd, t)));
      StoreLe32(&b[gd * 512 + t * 4], static_cast<uint32_t>(GtOf(gd, t)));
    }
    return b;
  }
  uint32_t Gte(const Bytes& b, uint64_t dir, uint64_t grain) const {
    return LoadLe32(&b[GtOf(dir, grain / gtes) * 512 + grain % gtes * 4]);
  }
  void SetGte(Bytes& b, uint64_t grain, uint32_t value) const {
    for (uint64_t dir : {rgd, gd}) StoreLe32(&b[GtOf(dir, grain / gtes) * 512 + grain % gtes * 4], value);
  }
};

const std::string kSparseDescriptor = Descriptor("monolithicSparse", "RW 4096 SPARSE \"disk.vmdk\"\n", "lsilogic");

class VmdkTest : public ::testing::Test {
 protected:
  VmdkTest() { ResetRun(); }

  std::unique_ptr<VmdkDisk> Open(const std::string& path) { return OpenVmdk(path, machine_); }
  test::FakeDrive& File(const std::string& path, Bytes bytes) { return machine_.AddFile(path, std::move(bytes)); }
  test::FakeDrive& Text(const std::string& path, const std::string& text) {
    return File(path, Bytes(text.begin(), text.end()));
  }
  // A monolithicSparse disk whose grain 0 holds an MBR at the overhead.
  test::FakeDrive& SparseDisk(const Sparse& s = Sparse()) {
    Bytes b = s.Build(kSparseDescriptor);
    b.resize((s.overhead + s.grainSize) * 512);
    s.SetGte(b, 0, static_cast<uint32_t>(s.overhead));
    b[s.overhead * 512] = 0x33;
    b[s.overhead * 512 + 510] = 0x55;
    b[s.overhead * 512 + 511] = 0xAA;
    return File("disk.vmdk", b);
  }

  test::FakeMachine machine_;
};

TEST(VmdkKeys, NumbersAndQuotedValuesFollowTheBlockRules) {
  const Bytes b = Block(std::string("a = \"-4\" a = \"17\" k=\"") + std::string(50, 'x') + "\" k=\"" +
                        std::string(51, 'y') + "\" q=\"" + std::string(51, 'z') + "\" q=\"ok\"" +
                        std::string("\0\0zero = \"9\"", 12));
  EXPECT_EQ(FindKeyNumber(b.data(), kBlockSize, "a = "), 17);  // the negative one is passed over
  EXPECT_EQ(FindKeyNumber(b.data(), kBlockSize, "zero = "), 9);  // zero bytes do not end the search
  EXPECT_EQ(FindKeyNumber(b.data(), kBlockSize, "missing = "), -1);
  std::string v;
  ASSERT_TRUE(FindQuotedValue(b.data(), kBlockSize, "k=\"", &v));
  EXPECT_EQ(v, std::string(50, 'x'));  // 50 characters still close
  ASSERT_TRUE(FindQuotedValue(b.data(), kBlockSize, "q=\"", &v));
  EXPECT_EQ(v, "ok");  // 51 do not: the search goes on
  // A key at the very end of the block reads nothing beyond it.
  Bytes end(kBlockSize + 1, 'k');
  EXPECT_FALSE(FindQuotedValue(end.data(), kBlockSize, "kk", &v));
  EXPECT_EQ(FindKeyNumber(end.data(), kBlockSize, "kk"), 0);
}

TEST(VmdkKeys, TypesAndAdapters) {
  const std::tuple<const char*, int32_t, const char*> types[] = {
      {"monolithicFlat", 1, "VMware Pre-allocated Flat Disk File"},
      {"twoGbMaxExtentFlat", 2, "VMware Pre-allocated 2GB Flat Disk File"},
      {"monolithicSparse", 3, "VMware Standard Disk File"},
      {"twoGbMaxExtentSparse", 4, "VMware 2GB Standard Disk File"},
      {"monolithic", 1, "VMware Pre-allocated Flat Disk File"},
      {"streamOptimized", 0, "Unknown Virtual Disk File"}};
  for (const auto& [createType, type, description] : types) {
    EXPECT_EQ(DiskTypeOf(createType), type) << createType;
    EXPECT_STREQ(DescriptionOfType(type), description) << createType;
  }
  for (const auto& [adapter, text] :
       {std::pair{"lsilogic", "SCSI"}, {"buslogic", "SCSI"}, {"ide", "IDE"}, {"pvscsi", "UNKNOWN"}}) {
    EXPECT_STREQ(AdapterTextOf(adapter), text) << adapter;
  }
}

TEST_F(VmdkTest, FlatDescriptorOpensItsDataFileBesideItWithEitherSeparator) {
  for (const std::string dir : {"C:\\vm\\", "/vm/"}) {
    File(dir + "disk-flat.vmdk", Bytes(4096 * 512, 0)).SetBootSignature();
    Text(dir + "disk.vmdk", Descriptor("monolithicFlat", "RW 4096 FLAT \"disk-flat.vmdk\" 0\n", "pvscsi"));
    auto disk = Open(dir + "disk.vmdk");
    ASSERT_EQ(disk->errorCode, kSuccess) << dir;
    EXPECT_TRUE(disk->opened && disk->mbrValid);
    EXPECT_EQ(disk->dataPath, dir + "disk-flat.vmdk");
    EXPECT_EQ(disk->cylinders * disk->heads * disk->sectorsPerTrack, 4 * 16 * 63);
  }
}

TEST_F(VmdkTest, RefusedFilesEndWithTheirCodeAndWriteNothing) {
  File("data.vmdk", Bytes(4096 * 512, 0));
  const struct {
    std::string text;
    ResultCode code;
  } cases[] = {
      {"this is no disk descriptor", kVmdkNotVmware2},
      {Descriptor("custom", "RW 4096 FLAT \"data.vmdk\" 0\n"), kVmdkUnknownType},
      {Descriptor("monolithicFlat", "RW 4096 FLAT \"missing.vmdk\" 0\n"), kVmdkOpenFailed},
      {"# Disk DescriptorFile\nRW 4096 FLAT \"data.vmdk\" 0\n", kVmdkOpenFailed},  // no createType
      {Descriptor("monolithicFlat", "RW 4096 FLAT \"" + std::string(51, 'n') + "\" 0\n"), kVmdkOpenFailed},
      {Descriptor("monolithicFlat", "RW 99999999999999999999 FLAT \"data.vmdk\" 0\n"), kVmdkUnknownType},
      {Descriptor("monolithicFlat", "RW 9223372036854775807 FLAT \"data.vmdk\" 0\nRW 5 FLAT \"data.vmdk\" 0\n"),
       kVmdkUnknownType},
      {Descriptor("monolithicFlat", "RW 4097 FLAT \"data.vmdk\" 0\n"), kVmdkUnknownType},  // beyond the file
      {Descriptor("monolithicFlat", "RW 4096 FLAT \"data.vmdk\" 0\nRW 8 VMFSSPARSE \"data.vmdk\"\n"),
       kVmdkUnknownType},
      {Descriptor("monolithicFlat", "RW 4096 FLAT \"data.vmdk\" 0 junk\n"), kVmdkUnknownType},
      {Descriptor("monolithicSparse", "RW 4096 SPARSE \"data.vmdk\"\n"), kVmdkUnknownType},  // no header
      {Descriptor("monolithicFlat", "RW 4096 FLAT \"d.vmdk\" 0\n"), kVmdkUnknownType},  // itself
      // Two runs over the same sectors: a write would show at both places.
      {Descriptor("monolithicFlat", "RW 8 FLAT \"data.vmdk\" 0\nRW 8 FLAT \"data.vmdk\" 4\n"), kVmdkUnknownType},
  };
  for (const auto& c : cases) {
    Text("d.vmdk", c.text);
    auto disk = Open("d.vmdk");
    EXPECT_EQ(disk->errorCode, c.code) << c.text;
    EXPECT_FALSE(disk->device.IsOpen()) << c.text;
  }
  for (auto& [path, file] : machine_.devices) EXPECT_EQ(file.writeCalls, 0) << path;
}

TEST_F(VmdkTest, AWriteIntoAGrainWithoutStorageAppendsItAndPointsBothTablesAtIt) {
  const Sparse s;
  test::FakeDrive& file = SparseDisk(s);
  auto disk = Open("disk.vmdk");
  ASSERT_EQ(disk->errorCode, kSuccess);
  EXPECT_EQ(disk->dataStartSector, 128u);
  EXPECT_EQ(disk->sector0Image[0], 0x33);  // grain 0 at the overhead: byte 65536 of the file
  EXPECT_EQ(disk->interfaceText, "SCSI");
  Bytes sector(512, 0xCC);
  ASSERT_TRUE(disk->device.ReadAt(200, sector.data(), 512));  // grain 1: no storage
  EXPECT_EQ(sector, Bytes(512, 0));
  const size_t before = file.bytes.size();
  // Zeros into a grain without storage change nothing.
  ASSERT_TRUE(WriteAt(disk->device, 300, Bytes(1024, 0).data(), 1024));
  EXPECT_EQ(file.bytes.size(), before);
  // Data straddling grains 2 and 3 allocates both, grain-aligned at the end.
  Bytes data(1024, 0x5A);
  ASSERT_TRUE(WriteAt(disk->device, 3 * 128 - 1, data.data(), 1024));
  EXPECT_EQ(file.bytes.size(), before + 2 * 128 * 512);
  for (uint64_t dir : {s.rgd, s.gd}) {
    EXPECT_EQ(s.Gte(file.bytes, dir, 2), 256u);
    EXPECT_EQ(s.Gte(file.bytes, dir, 3), 384u);
  }
  // The tables point at a new grain only after the grain is on the medium.
  file.flushFails = true;
  EXPECT_FALSE(WriteAt(disk->device, 5 * 128, data.data(), 512));
  EXPECT_EQ(s.Gte(file.bytes, s.gd, 5), 0u);
  file.flushFails = false;
  Bytes back(1536, 1);
  ASSERT_TRUE(disk->device.ReadAt(3 * 128 - 2, back.data(), 1536));
  EXPECT_EQ(Bytes(back.begin(), back.begin() + 512), Bytes(512, 0));
  EXPECT_EQ(Bytes(back.begin() + 512, back.end()), data);
}

TEST_F(VmdkTest, HostileSparseHeadersAndTablesAreRefusedWithoutAWrite) {
  const Sparse s;
  auto header = [](size_t at, uint64_t value, int width) {
    return [=](Bytes& b) { width == 8 ? StoreLe64(&b[at], value) : StoreLe32(&b[at], static_cast<uint32_t>(value)); };
  };
  const struct {
    const char* what;
    std::function<void(Bytes&)> damage;
  } cases[] = {
      {"grain size 0", header(kHdrGrainSize, 0, 8)},
      {"grain size 96", header(kHdrGrainSize, 96, 8)},
      {"version 4", header(kHdrVersion, 4, 4)},
      {"compressed", header(kHdrFlags, 3 | kFlagCompressedGrains, 4)},
      {"no table entries", header(kHdrGtesPerGt, 0, 4)},
      {"huge capacity", header(kHdrCapacity, UINT64_MAX, 8)},
      {"directory beyond the file", header(kHdrGdOffset, 1u << 30, 8)},
      {"directory on the header", header(kHdrGdOffset, 0, 8)},
      {"overhead beyond the file", header(kHdrOverhead, 1u << 20, 8)},
      {"descriptor beyond the metadata", header(kHdrDescriptorSize, UINT64_MAX, 8)},
      {"table on the directory", [&](Bytes& b) { StoreLe32(&b[s.gd * 512], static_cast<uint32_t>(s.gd)); }},
      {"table beyond the file", [&](Bytes& b) { StoreLe32(&b[s.gd * 512], 0xFFFFFFF0u); }},
  };
  for (const auto& c : cases) {
    Bytes b = s.Build(kSparseDescriptor);
    b.resize((s.overhead + s.grainSize) * 512);
    c.damage(b);
    test::FakeDrive& file = File("disk.vmdk", b);
    file.writeCalls = 0;
    auto disk = Open("disk.vmdk");
    EXPECT_EQ(disk->errorCode, kVmdkUnknownType) << c.what;
    EXPECT_FALSE(disk->device.IsOpen()) << c.what;
    EXPECT_EQ(file.writeCalls, 0) << c.what;
    EXPECT_EQ(file.bytes, b) << c.what;
  }
}

// Grain tables that could make one write land in two places, or in the
// metadata: the disk opens for reading (grain 0, the MBR, still reads) and
// its device refuses every write before touching the file.
TEST_F(VmdkTest, DamagedGrainTablesOpenForReadingOnly) {
  const Sparse s;
  const uint32_t grain0 = static_cast<uint32_t>(s.overhead);
  const struct {
    const char* what;
    std::function<void(Bytes&)> damage;
    const char* problem;
    bool grain5Unreadable = false;  // its entry leads outside the grains: a read fails, never shows other bytes
  } cases[] = {
      {"entry in the header", [&](Bytes& b) { s.SetGte(b, 5, 1); }, "grain 5 points at sector 1, inside the metadata",
       true},
      {"entry in the tables", [&](Bytes& b) { s.SetGte(b, 5, 27); }, "grain 5 points at sector 27, inside the", true},
      {"entry beyond the file", [&](Bytes& b) { s.SetGte(b, 5, 100000); }, "sector 100000, past the file's end", true},
      {"entry at the file's end", [&](Bytes& b) { s.SetGte(b, 5, 640); }, "sector 640, past the file's end", true},
      {"unaligned grains one sector over", [&](Bytes& b) { s.SetGte(b, 7, 258), s.SetGte(b, 9, 385); },
       "grains 7 and 9 (table 0 entry 7 at sector 258, table 0 entry 9 at sector 385) overlap"},
      {"two entries, one grain", [&](Bytes& b) { s.SetGte(b, 9, grain0); },
       "grains 0 and 9 (table 0 entry 0, table 0 entry 9) both point at sector 128"},
      {"grains that overlap", [&](Bytes& b) { s.SetGte(b, 9, grain0 + 2); },
       "grains 0 and 9 (table 0 entry 0 at sector 128, table 0 entry 9 at sector 130) overlap"},
      {"redundant copy differs", [&](Bytes& b) { StoreLe32(&b[s.GtOf(s.rgd, 0) * 512], 0); },
       "grain 0 points at sector 128, its redundant copy at sector 0"},
  };
  for (const auto& c : cases) {
    Bytes b = s.Build(kSparseDescriptor);
    b.resize((s.overhead + 4 * s.grainSize) * 512);
    s.SetGte(b, 0, grain0);
    b[grain0 * 512 + 510] = 0x55;
    b[grain0 * 512 + 511] = 0xAA;
    c.damage(b);
    test::FakeDrive& file = File("disk.vmdk", b);
    file.writeCalls = 0;
    testing::internal::CaptureStderr();
    auto disk = Open("disk.vmdk");
    const std::string warning = testing::internal::GetCapturedStderr();
    EXPECT_EQ(disk->errorCode, kSuccess) << c.what;
    EXPECT_TRUE(disk->mbrValid) << c.what;
    EXPECT_NE(warning.find(c.problem), std::string::npos) << c.what << ": " << warning;
    ASSERT_TRUE(disk->device.IsOpen()) << c.what;
    EXPECT_TRUE(disk->device.WritesRefused()) << c.what;
    uint32_t done = 0;
    EXPECT_FALSE(disk->device.WriteSome(0, b.data(), 512, &done)) << c.what;
    EXPECT_EQ(file.writeCalls, 0) << c.what;
    EXPECT_EQ(file.bytes, b) << c.what;
    Bytes sector(512);
    EXPECT_EQ(c.grain5Unreadable, !disk->device.ReadAt(5 * 128, sector.data(), 512)) << c.what;
  }
}

TEST_F(VmdkTest, ExtentsOfEveryKindMapInOrderAndOnlyReadWriteOnesTakeWrites) {
  Sparse s;
  s.capacity = 256;
  File("s.vmdk", s.Build(""));
  File("f.vmdk", Bytes(300 * 512, 0x11));
  Text("d.vmdk",
       Descriptor("twoGbMaxExtentSparse",
                  "RW 100 FLAT \"f.vmdk\" 200\nRW 256 SPARSE \"s.vmdk\"\nRW 50 ZERO\nRDONLY 10 FLAT \"f.vmdk\" 0\n"));
  auto disk = Open("d.vmdk");
  ASSERT_EQ(disk->errorCode, kSuccess);
  EXPECT_EQ(disk->dataStartSector, s.overhead);  // from the first data file's header
  Bytes all(416 * 512, 0xEE);
  ASSERT_TRUE(disk->device.ReadAt(0, all.data(), static_cast<uint32_t>(all.size())));
  EXPECT_EQ(Bytes(all.begin(), all.begin() + 100 * 512), Bytes(100 * 512, 0x11));
  EXPECT_EQ(Bytes(all.begin() + 100 * 512, all.begin() + 406 * 512), Bytes(306 * 512, 0));
  EXPECT_EQ(Bytes(all.begin() + 406 * 512, all.end()), Bytes(10 * 512, 0x11));

  // A write that reaches the zero or read-only extent is refused whole.
  const Bytes data(2 * 512, 0x77);
  const Bytes flatBefore = machine_.Find("f.vmdk")->bytes;
  EXPECT_FALSE(WriteAt(disk->device, 355, data.data(), 1024));
  EXPECT_FALSE(WriteAt(disk->device, 405, data.data(), 1024));
  EXPECT_FALSE(WriteAt(disk->device, 416, data.data(), 512));
  EXPECT_EQ(machine_.Find("f.vmdk")->bytes, flatBefore);
  // Bulk transfers skip what reads as zeros: grains without storage and
  // ZERO extents.
  using Run = std::pair<uint64_t, uint64_t>;
  auto next = [&](uint64_t sector) {
    uint64_t start = 0, end = 0;
    return disk->device.NextData(sector * 512, &start, &end) ? Run{start / 512, end / 512} : Run{0, 0};
  };
  EXPECT_EQ(next(0), Run(0, 100));
  EXPECT_EQ(next(100), Run(406, 416));
  EXPECT_EQ(next(416), Run(0, 0));
  // One that spans the flat and the sparse extent lands in both.
  ASSERT_TRUE(WriteAt(disk->device, 99, data.data(), 1024));
  EXPECT_EQ(machine_.Find("f.vmdk")->bytes[299 * 512], 0x77);
  EXPECT_EQ(s.Gte(machine_.Find("s.vmdk")->bytes, s.gd, 0), s.overhead);
  EXPECT_EQ(next(150), Run(150, 228));  // grain 0 of the sparse extent
}

}  // namespace
}  // namespace dh
