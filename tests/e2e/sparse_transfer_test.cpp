// Whole-disk transfers over images with holes: every road that skips holes
// or zeroes by punching must give the bytes a plain copy gives, leave holes
// where zeros were, and still fail on bad sectors where they are.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Args = std::vector<std::string>;
using e2e::ResultOf;

constexpr uint64_t kSectors = 65536;  // 32 MiB

// Data runs at places that straddle chunks (2048 sectors) and file blocks
// (8 sectors), and one sector of zeros amid data; the rest stays a hole.
struct Run {
  uint64_t lba, count;
};
const std::vector<Run> kRuns = {{0, 1}, {2047, 2}, {5000, 3}, {9000, 4100}, {30001, 1}, {65535, 1}};

// Sector 0 is an MBR with one partition: commands refuse a disk without.
Bytes Data(uint64_t lba, uint64_t count) {
  if (lba == 0) return e2e::Mbr({e2e::Entry(0, 0x07, 2048, kSectors - 2048)});
  Bytes b(count * 512);
  for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>((lba * 512 + i) * 31 / 7 + 1);
  return b;
}

// The whole disk as it must read.
Bytes Expected() {
  Bytes all(kSectors * 512, 0);
  for (const Run& r : kRuns) {
    const Bytes d = Data(r.lba, r.count);
    std::copy(d.begin(), d.end(), all.begin() + static_cast<std::ptrdiff_t>(r.lba * 512));
  }
  // A zero sector inside a data run.
  std::fill_n(all.begin() + 10000 * 512, 512, 0);
  return all;
}

void FillSparse(const e2e::Image& image) {
  for (const Run& r : kRuns) image.Write(r.lba, Data(r.lba, r.count));
  image.Write(10000, Bytes(512, 0));
}

uint64_t AllocatedBytes(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return UINT64_MAX;
  return static_cast<uint64_t>(st.st_blocks) * 512;
}

Bytes ReadAll(const std::string& path) {
  const std::string text = e2e::ReadFileText(path);
  return Bytes(text.begin(), text.end());
}

// How many extents of the file share their blocks with another file.
int SharedExtents(const std::string& path) {
  const std::string out = e2e::Shell("filefrag -v '" + path + "' 2>/dev/null");
  int shared = 0;
  for (size_t at = out.find("shared"); at != std::string::npos; at = out.find("shared", at + 1)) ++shared;
  return shared;
}

// The folders the transfers run in: the temporary folder, and, when the
// environment names one, a folder on a file system whose files can share
// blocks (XFS, Btrfs), where whole chunks are cloned instead of copied.
std::vector<std::string> Folders() {
  std::vector<std::string> folders = {"/tmp"};
  if (const char* reflink = std::getenv("DISKHOLD_REFLINK_DIR"); reflink != nullptr && *reflink != '\0') {
    folders.push_back(reflink);
  }
  return folders;
}

bool SharesBlocks(const std::string& folder) { return folder != "/tmp"; }

class SparseTransferTest : public ::testing::TestWithParam<std::string> {
 protected:
  SparseTransferTest() : machine_(GetParam()) {}
  e2e::Result Run(Args args) {
    args.push_back("/confirm");
    args.push_back("/result");
    return machine_.Run(args);
  }
  e2e::Machine machine_;
};

INSTANTIATE_TEST_SUITE_P(Folders, SparseTransferTest, ::testing::ValuesIn(Folders()),
                         [](const auto& info) { return info.index == 0 ? std::string("Tmp") : std::string("Reflink"); });

TEST_P(SparseTransferTest, SaveRestoreAndWipeGiveThePlainBytesAndLeaveHoles) {
  e2e::Image& source = machine_.AddDrive(0, kSectors);
  FillSparse(source);
  e2e::Image& blank = machine_.AddDrive(1, kSectors);
  e2e::Image& used = machine_.AddDrive(2, kSectors);
  used.Write(0, Bytes(kSectors * 512, 0xE5));
  used.Write(0, Data(0, 1));
  const Bytes expected = Expected();

  for (const bool header : {true, false}) {
    const std::string name = header ? "disk.bin" : "raw.bin";
    Args args = {"/save=disk", "/filename=" + name};
    if (!header) args.push_back("/nohdr");
    ASSERT_EQ(0, ResultOf(Run(args)));
    const Bytes file = ReadAll(machine_.PathOf(name));
    const size_t skip = header ? 512 : 0;
    ASSERT_EQ(expected.size() + skip, file.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), file.begin() + static_cast<std::ptrdiff_t>(skip)));
    EXPECT_LT(AllocatedBytes(machine_.PathOf(name)), file.size() / 2) << name << " has no holes";
    // Without a header the file's blocks line up with the disk's and are
    // shared; a header shifts them off the block boundaries.
    if (SharesBlocks(GetParam())) {
      EXPECT_EQ(!header, SharedExtents(machine_.PathOf(name)) > 0) << name;
    }
  }

  // Onto a blank image (holes stay holes) and onto one full of data (zeros
  // must land wherever the file has them).
  for (const char* disk : {"/disk=1", "/disk=2"}) {
    ASSERT_EQ(0, ResultOf(Run({"/restore=disk", disk, "/filename=disk.bin"}))) << disk;
  }
  EXPECT_EQ(expected, blank.Read(0, kSectors));
  EXPECT_EQ(expected, used.Read(0, kSectors));
  EXPECT_LT(AllocatedBytes(blank.path()), kSectors * 512 / 2);
  if (SharesBlocks(GetParam())) {
    // A raw file restores by sharing its blocks, on the blank disk and on
    // the used one alike; writing the disk afterwards leaves the file as it is.
    const Bytes raw = ReadAll(machine_.PathOf("raw.bin"));
    for (const char* disk : {"/disk=1", "/disk=2"}) {
      ASSERT_EQ(0, ResultOf(Run({"/restore=disk", disk, "/nohdr", "/filename=raw.bin"}))) << disk;
    }
    EXPECT_EQ(expected, blank.Read(0, kSectors));
    EXPECT_EQ(expected, used.Read(0, kSectors));
    EXPECT_GT(SharedExtents(used.path()), 0);
    ASSERT_EQ(0, ResultOf(Run({"/wipe=disk", "/disk=1"})));
    EXPECT_EQ(raw, ReadAll(machine_.PathOf("raw.bin")));
  }

  // A range that starts and ends inside file blocks, then the whole disk.
  ASSERT_EQ(0, ResultOf(Run({"/wipe=range", "/disk=2", "/range=2047-9003"})));
  Bytes wiped = expected;
  std::fill_n(wiped.begin() + 2047 * 512, (9003 - 2047 + 1) * 512, 0);
  EXPECT_EQ(wiped, used.Read(0, kSectors));
  ASSERT_EQ(0, ResultOf(Run({"/wipe=disk", "/disk=2"})));
  EXPECT_EQ(Bytes(kSectors * 512, 0), used.Read(0, kSectors));
}

TEST_P(SparseTransferTest, BadSectorsInHolesStillFailWhereTheyAre) {
  // Both bad sectors lie in holes, in chunks of zeros.
  e2e::Image& source = machine_.AddDrive(0, kSectors, {{"badsectors", "20000"}});
  FillSparse(source);
  e2e::Image& target = machine_.AddDrive(1, kSectors, {{"badsectors", "20000"}});
  const Bytes expected = Expected();

  // The chunked save stops at the chunk holding the bad sector (508), with
  // everything before it in the file.
  EXPECT_EQ(508, ResultOf(Run({"/save=disk", "/nohdr", "/filename=part.bin"})));
  const Bytes part = ReadAll(machine_.PathOf("part.bin"));
  ASSERT_EQ(18432u * 512, part.size());
  EXPECT_TRUE(std::equal(part.begin(), part.end(), expected.begin()));

  // A restore whose zeros cover the bad sector fails there (505): that
  // chunk keeps its old bytes, every other one gets the file's.
  target.Write(0, Bytes(kSectors * 512, 0x11));
  target.Write(0, Data(0, 1));
  e2e::WriteFileText(machine_.PathOf("full.bin"), std::string(expected.begin(), expected.end()));
  EXPECT_EQ(505, ResultOf(Run({"/restore=disk", "/disk=1", "/filename=full.bin"})));
  Bytes after = expected;
  std::fill_n(after.begin() + 18432 * 512, 2048 * 512, 0x11);
  EXPECT_EQ(after, target.Read(0, kSectors));

  // The wipe goes sector by sector around it: 505, all others zeroed.
  target.Write(0, Bytes(kSectors * 512, 0x11));
  target.Write(0, Data(0, 1));
  EXPECT_EQ(505, ResultOf(Run({"/wipe=disk", "/disk=1"})));
  Bytes wiped(kSectors * 512, 0);
  std::fill_n(wiped.begin() + 20000 * 512, 512, 0x11);
  EXPECT_EQ(wiped, target.Read(0, kSectors));
}

}  // namespace
