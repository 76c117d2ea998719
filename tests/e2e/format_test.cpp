// The format command end to end on simulated machines: mkntfs formats the
// partition, the system's own tools (blkid, ntfsinfo, ntfsfix) judge the
// volume, and every byte outside the partition is compared with what was
// there before.  Missing and failing engines, and partitions that must not
// be written, change nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Entry;
using e2e::Has;
using e2e::Image;
using e2e::Machine;
using e2e::Mbr;
using e2e::Result;

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kDiskSectors = 131072;  // 64 MiB
constexpr uint32_t kStart = 2048;
constexpr uint32_t kCount = 65536;  // 32 MiB, room for mkntfs's smallest volume and more

// A pattern that no formatter writes, so that any change shows.
Bytes Pattern(uint64_t sectors, uint8_t seed) {
  Bytes b(sectors * 512);
  for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>(seed + i * 131 + (i >> 9));
  return b;
}

class Format : public ::testing::Test {
 protected:
  void SetUp() override {
    disk = &m.AddDrive(0, kDiskSectors);
    // Old bytes everywhere: the boot code area, the gap, the partition
    // itself and the one after it.
    disk->Write(1, Pattern(kDiskSectors - 1, 7));
    Bytes mbr = Mbr({Entry(0x80, 0x07, kStart, kCount), Entry(0, 0x0C, kStart + kCount, 40960)});
    disk->Write(0, mbr);
  }

  // The image outside [first, first + count) is as `before` held it.
  void ExpectUnchangedOutside(const Bytes& before, uint64_t first, uint64_t count) {
    const Bytes after = disk->Read(0, kDiskSectors);
    ASSERT_EQ(after.size(), before.size());
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + first * 512, before.begin()))
        << "bytes before the partition changed";
    EXPECT_TRUE(std::equal(after.begin() + (first + count) * 512, after.end(), before.begin() + (first + count) * 512))
        << "bytes after the partition changed";
  }

  // The partition's bytes in a file of their own, for the outside tools.
  std::string ExtractPartition() {
    const std::string path = m.PathOf("partition.img");
    e2e::WriteFileText(path, "");
    const Bytes bytes = disk->Read(kStart, kCount);
    e2e::WriteFileText(path, std::string(bytes.begin(), bytes.end()));
    return path;
  }

  Machine m;
  Image* disk = nullptr;
};

TEST_F(Format, MkntfsFormatsExactlyThePartition) {
  for (const char* tool : {"mkntfs", "blkid", "ntfsinfo", "ntfsfix"}) {
    if (!e2e::HaveTool(tool)) GTEST_SKIP() << tool << " is not installed";
  }
  const Bytes before = disk->Read(0, kDiskSectors);
  const Result r = m.Run({"/format", "/part=1"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(Has(r, "0 percent completed.\r")) << r.out;
  EXPECT_TRUE(Has(r, "100 percent completed.\r\n")) << r.out;
  EXPECT_FALSE(Has(r, "Unable to complete format")) << r.out;

  ExpectUnchangedOutside(before, kStart, kCount);
  EXPECT_NE(disk->Read(kStart, kCount), Bytes(before.begin() + kStart * 512, before.begin() + (kStart + kCount) * 512));

  // The listing reads the new label from the volume.
  const Result list = m.Run({"/list", "/text", "/silent"});
  EXPECT_TRUE(Has(list, "07-NTFS    32M  Yes  No           2,048         65,536    MYLABEL")) << list.out;

  const std::string part = ExtractPartition();
  int status = -1;
  const std::string probe = e2e::Shell("blkid -p -o export '" + part + "'", &status);
  EXPECT_EQ(status, 0) << probe;
  EXPECT_NE(probe.find("TYPE=ntfs\n"), std::string::npos) << probe;
  EXPECT_NE(probe.find("LABEL=MYLABEL\n"), std::string::npos) << probe;
  const std::string info = e2e::Shell("ntfsinfo -m '" + part + "' 2>&1", &status);
  EXPECT_EQ(status, 0) << info;
  EXPECT_NE(info.find("Volume Name: MYLABEL"), std::string::npos) << info;
  const std::string check = e2e::Shell("ntfsfix -n '" + part + "' 2>&1", &status);
  EXPECT_EQ(status, 0) << check;
  EXPECT_NE(check.find("was processed successfully"), std::string::npos) << check;

  // The boot sector counts the sectors before the volume as hidden.
  const Bytes boot = disk->Read(kStart);
  EXPECT_EQ(boot[28] | boot[29] << 8 | boot[30] << 16 | boot[31] << 24, static_cast<int>(kStart));
}

TEST_F(Format, WithoutMkntfsTheEngineIsMissing) {
  const std::string hash = disk->Hash();
  int status = -1;
  const std::string out = e2e::Shell("cd '" + m.dir() + "' && PATH=/nonexistent DISKHOLD_MACHINE='" +
                                         m.WriteMachineFile() + "' " + e2e::DiskholdCommand() +
                                         " /format /part=1 /result 2>&1",
                                     &status);
  EXPECT_NE(out.find("\"Format Error!\": Error: Unable to locate Windows disk format utility"), std::string::npos)
      << out;
  // The outcome of a format is shown, never recorded.
  EXPECT_NE(out.find(" Result: 0"), std::string::npos) << out;
  EXPECT_EQ(disk->Hash(), hash);
}

TEST_F(Format, PartitionsThatMustNotBeWrittenAreRefused) {
  if (!e2e::HaveTool("mkntfs")) GTEST_SKIP() << "mkntfs is not installed";
  struct Case {
    const char* what;
    Bytes entry;
    bool engineRuns;  // refused by mkntfs itself rather than before it runs
  };
  const std::vector<Case> cases = {
      {"inside another partition", Entry(0, 0x07, kStart + 4096, 32768), false},
      {"beyond the end of the disk", Entry(0, 0x07, kStart + kCount + 40960, 131072), false},
      {"holding sector 0", Entry(0, 0x07, 0, 65536), false},
      {"too small for a volume", Entry(0, 0x07, kStart + kCount + 40960, 16), true},
  };
  for (const Case& c : cases) {
    disk->Write(0, Mbr({Entry(0x80, 0x07, kStart, kCount), c.entry}));
    const std::string hash = disk->Hash();
    const Result r = m.Run({"/format", "/part=2", "/result"});
    EXPECT_TRUE(Has(r, "Unable to complete format.\n\n")) << c.what << "\n" << r.out << r.err;
    EXPECT_EQ(e2e::ResultOf(r), 0) << c.what;
    EXPECT_EQ(r.err.find("mkntfs failed") != std::string::npos, c.engineRuns) << c.what << "\n" << r.err;
    EXPECT_EQ(disk->Hash(), hash) << c.what;
  }
}

TEST_F(Format, FaultEnginesOfTheMachineFile) {
  const std::string hash = disk->Hash();
  m.Set("formatengine", "noentry");
  Result r = m.Run({"/format", "/part=1"});
  EXPECT_NE(r.err.find("\"Format Error!\": Unable to instantiate format functionality"), std::string::npos) << r.err;

  m.Set("formatengine", "fail");
  r = m.Run({"/format", "/part=1"});
  EXPECT_TRUE(Has(r, "Unable to complete format.\n\n")) << r.out;

  EXPECT_EQ(disk->Hash(), hash);
}

// A BitLocker volume is formatted only after a question that says it is
// encrypted; /confirm answers it as it answers every other question, and
// other volumes are formatted without one.
TEST_F(Format, EncryptedVolumeAsksFirst) {
  Bytes boot = disk->Read(kStart);
  std::copy_n("-FVE-FS-", 8, boot.begin() + 3);
  std::copy_n("FAT32   ", 8, boot.begin() + 82);
  disk->Write(kStart, boot);
  // The engine that only tells what it would format.
  m.Set("formatengine", "ok");
  const std::string hash = disk->Hash();
  const std::string question =
      "\n Preparing to format the encrypted (BitLocker) volume of partition 1 on disk 0, are you sure? (Y/N): ";
  const std::string requested = "diskhold: format requested";
  struct Case {
    std::vector<std::string> args;
    std::string input;
    bool asked;
    bool formats;
  };
  const Case cases[] = {
      {{"/format", "/part=1"}, "n", true, false},
      {{"/format", "/part=1"}, "y", true, true},
      {{"/format", "/part=1", "/confirm"}, "", false, true},
      {{"/format", "/part=2"}, "", false, true},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = c.args;
    args.push_back("/result");
    const Result r = m.Run(args, c.input);
    const std::string what = args[1] + " " + c.input;
    EXPECT_EQ(Has(r, question + c.input + "\n\n"), c.asked) << what << "\n" << r.out;
    EXPECT_EQ(Has(r, "Preparing"), c.asked) << what << "\n" << r.out;
    EXPECT_EQ(r.err.find(requested) != std::string::npos, c.formats) << what << "\n" << r.err;
    EXPECT_EQ(e2e::ResultOf(r), c.formats ? 0 : 129) << what << "\n" << r.out;
  }
  // The same disk as a VMware disk file named on the command line has no
  // disk number.
  if (!e2e::HaveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed";
  e2e::ShellOk("qemu-img convert -f raw -O vmdk '" + disk->path() + "' '" + m.PathOf("copy.vmdk") + "'");
  const Result file = m.Run({"/format", "/disk=copy.vmdk", "/part=1"}, "n");
  EXPECT_TRUE(Has(file, " Preparing to format the encrypted (BitLocker) volume of virtual disk partition 1, are you "
                        "sure? (Y/N): n\n"))
      << file.out;
  EXPECT_EQ(disk->Hash(), hash);
}

TEST_F(Format, RefusedWhereThereIsNoPrimaryToFormat) {
  const std::string hash = disk->Hash();
  // A third partition number names no primary of this disk.
  Result r = m.Run({"/format", "/part=3", "/result"});
  EXPECT_EQ(e2e::ResultOf(r), 106) << r.out;

  if (e2e::HaveTool("sgdisk")) {
    Image& gpt = m.AddDrive(1, 65536);
    int status = -1;
    e2e::Shell("sgdisk -n 1:2048:+4M -t 1:0700 '" + gpt.path() + "' >/dev/null 2>&1", &status);
    ASSERT_EQ(status, 0);
    const std::string gptHash = gpt.Hash();
    r = m.Run({"/format", "/disk=1", "/part=1", "/result"});
    EXPECT_EQ(e2e::ResultOf(r), 131) << r.out;
    EXPECT_EQ(gpt.Hash(), gptHash);
  }
  EXPECT_EQ(disk->Hash(), hash);
}

}  // namespace
