// The Linux backend where no end-to-end run reaches it: which block devices
// are drives and in what order they are numbered (a wrong number is a write
// to the wrong disk), and mkntfs's arguments and the partition node it is
// run on.  The rest of the backend is exercised end to end.
#ifdef __linux__

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/linux/linux_machine.h"
#include "platform/linux/linux_support.h"
#include "platform/linux/ntfs_formatter.h"
#include "platform/linux/sysfs.h"

namespace dh::platform::linux_native {
namespace {

namespace fs = std::filesystem;

TEST(LinuxDrives, WholeDisksTheirOrderAndDrivePaths) {
  for (const char* disk : {"sda", "sdaa", "vdb", "xvda", "nvme12n3", "mmcblk0", "loop7"}) {
    EXPECT_NE(FamilyOfBlockName(disk), DiskFamily::NotADisk) << disk;
  }
  for (const char* part :
       {"sda1", "nvme0n1p1", "nvme0c0n1", "mmcblk0p1", "mmcblk0boot0", "loop0p1", "sr0", "dm-0", ""}) {
    EXPECT_EQ(FamilyOfBlockName(part), DiskFamily::NotADisk) << part;
  }
  // Families first, then the kernel's natural order; loops only with a file behind them.
  const std::vector<std::string> names = {"loop10", "nvme1n1", "sdaa", "loop2", "sda1", "vda", "mmcblk1",
                                          "sdb",    "nvme0n1", "loop3", "sr0",  "sdz",  "sda"};
  EXPECT_EQ(OrderWholeDisks(names, [](const std::string& loop) { return loop != "loop3"; }),
            (std::vector<std::string>{"sda", "sdb", "sdz", "sdaa", "vda", "nvme0n1", "nvme1n1", "mmcblk1", "loop2",
                                      "loop10"}));
  EXPECT_EQ(OrderWholeDisks({"loop0", "sdb"}, nullptr), std::vector<std::string>{"sdb"});

  DrivePath drive;
  ASSERT_TRUE(ParsePhysicalDrivePath("\\\\.\\physicaldrive17", &drive));
  EXPECT_TRUE(drive.valid && drive.number == 17u);
  for (const char* bad : {"\\\\.\\PhysicalDrive", "\\\\.\\PhysicalDrive01", "\\\\.\\PhysicalDrive-1",
                          "\\\\.\\PhysicalDrive1234567890"}) {
    EXPECT_TRUE(ParsePhysicalDrivePath(bad, &drive)) << bad;
    EXPECT_FALSE(drive.valid) << bad;
  }
  for (const char* file : {"disk.img", "/dev/sda", "\\\\?\\PhysicalDrive0"})
    EXPECT_FALSE(ParsePhysicalDrivePath(file, &drive));
}

TEST(LinuxDrives, DriveNumbersFollowTheSortedDisksOfSysfs) {
  const fs::path root =
      fs::temp_directory_path() / ("dh_linux_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
  fs::remove_all(root);
  auto write = [](const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  };
  for (const auto& [name, backing] : {std::pair{"sdb", ""}, {"nvme0n1", ""}, {"loop0", nullptr}, {"sda", ""},
                                      {"loop4", "/srv/test disk.img\n"}}) {
    const fs::path real = root / "sys/devices/x" / name;
    fs::create_directories(real);
    if (backing != nullptr && *backing != '\0') write(real / "loop/backing_file", backing);
    fs::create_directories(root / "sys/block");
    fs::create_symlink(real, root / "sys/block" / name);
    write(root / "dev" / name, std::string("node ") + name);
  }
  fs::create_directories(root / "sys/block/sda/sda1");
  auto machine = CreateLinuxMachine({(root / "sys").string(), (root / "dev").string()});
  auto read = [&](const std::string& path) {
    auto file = machine->Open(path, OpenMode::ProbeRead);
    char buffer[32] = {};
    uint32_t done = 0;
    return file && file->Read(buffer, sizeof buffer, &done) ? std::string(buffer, done) : "<failed>";
  };
  EXPECT_EQ(read("\\\\.\\PhysicalDrive0"), "node sda");
  EXPECT_EQ(read("\\\\.\\PHYSICALDRIVE1"), "node sdb");
  EXPECT_EQ(read("\\\\.\\PhysicalDrive2"), "node nvme0n1");
  EXPECT_EQ(read("\\\\.\\PhysicalDrive3"), "node loop4");  // loop0 has no file behind it
  EXPECT_EQ(read("\\\\.\\PhysicalDrive4"), "<failed>");
  EXPECT_EQ(machine->LastError(), 2u);
  std::string instance;
  ASSERT_TRUE(machine->RegQueryString("SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum", "3", &instance));
  EXPECT_EQ(instance, "SCSI\\Disk&Ven_Linux&Prod_test_disk.img\\3");
  fs::remove_all(root);
}



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
