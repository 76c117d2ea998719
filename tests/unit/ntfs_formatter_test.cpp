// mkntfs as the Linux backend runs it: its arguments, and the partition node
// found in a sysfs tree of the test's own (the wrong node would format the
// wrong partition).  Whole runs and their progress are end to end
// (e2e/format_test).
#ifdef __linux__

#include "platform/linux/ntfs_formatter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/linux/sysfs.h"

namespace dh::platform::linux_native {
namespace {

namespace fs = std::filesystem;

class NtfsFormatterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("dh_mkntfs_" + std::to_string(::getpid()) + "_" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  void WriteFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

  fs::path dir_;
};

TEST_F(NtfsFormatterTest, ArgumentsForAFileAndForADevice) {
  NtfsFormatJob job;
  job.path = "/tmp/stage.img";
  job.hiddenSectors = 2048;
  job.sectorCount = 65536;
  job.heads = 255;
  job.sectorsPerTrack = 63;
  job.label = "MYLABEL";
  EXPECT_EQ(MkntfsArguments("mkntfs", job, true),
            (std::vector<std::string>{"mkntfs", "--quick", "--label", "MYLABEL", "--partition-start", "2048", "--heads",
                                      "255", "--sectors-per-track", "63", "--force", "--sector-size", "512",
                                      "/tmp/stage.img", "65536"}));
  // A device tells its own size; a geometry no boot sector holds is left out.
  job.path = "/dev/sdb1";
  job.heads = 256;
  EXPECT_EQ(MkntfsArguments("mkntfs", job, false),
            (std::vector<std::string>{"mkntfs", "--quick", "--label", "MYLABEL", "--partition-start", "2048",
                                      "/dev/sdb1"}));
  job.path = "-rf";
  EXPECT_EQ(MkntfsArguments("mkntfs", job, false).back(), "./-rf");
}

TEST_F(NtfsFormatterTest, ThePartitionNodeComesFromSysfs) {
  const fs::path sys = dir_ / "sys";
  WriteFile(sys / "block/sdb/size", "131072\n");
  for (auto [name, start, size] : {std::tuple{"sdb1", "2048", "65536"}, std::tuple{"sdb2", "67584", "40960"}}) {
    WriteFile(sys / "block/sdb" / name / "partition", "1\n");
    WriteFile(sys / "block/sdb" / name / "start", std::string(start) + "\n");
    WriteFile(sys / "block/sdb" / name / "size", std::string(size) + "\n");
  }
  WriteFile(sys / "block/sdb/queue/start", "2048\n");  // not a partition
  EXPECT_EQ(FindPartitionName(sys.string(), "sdb", 67584, 40960), "sdb2");
  EXPECT_EQ(FindPartitionName(sys.string(), "sdb", 2048, 65536), "sdb1");
  EXPECT_EQ(FindPartitionName(sys.string(), "sdb", 2048, 65535), "");  // the size must match too
  EXPECT_EQ(FindPartitionName(sys.string(), "sdc", 2048, 65536), "");
}

}  // namespace
}  // namespace dh::platform::linux_native

#endif  // __linux__
