// The Linux backend where no end-to-end run reaches it: which block devices
// are drives and in what order they are numbered (a wrong number is a write
// to the wrong disk), drive paths, error codes and locale texts.  Plain files
// and console input are exercised by every end-to-end run.
#ifdef __linux__

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/linux/linux_machine.h"
#include "platform/linux/linux_support.h"

namespace dh::platform::linux_native {
namespace {

namespace fs = std::filesystem;

TEST(LinuxPieces, ErrorsNamesPathsAndLocaleTexts) {
  const std::pair<int, uint32_t> errors[] = {{ENOENT, 2}, {EACCES, 5}, {EROFS, 19}, {EIO, 23}, {ENOSPC, 112},
                                             {EBUSY, 32}, {ENOMEDIUM, 21}, {EINVAL, 87}, {0, 31}};
  for (const auto& [error, code] : errors) EXPECT_EQ(WindowsErrorFromErrno(error), code) << error;

  for (const char* disk : {"sda", "sdaa", "vdb", "xvda", "nvme12n3", "mmcblk0", "loop7"}) {
    EXPECT_NE(FamilyOfBlockName(disk), DiskFamily::NotADisk) << disk;
  }
  for (const char* part : {"sda1", "nvme0n1p1", "nvme0c0n1", "mmcblk0p1", "mmcblk0boot0", "loop0p1", "sr0", "dm-0", ""}) {
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
  for (const char* file : {"disk.img", "/dev/sda", "\\\\?\\PhysicalDrive0"}) EXPECT_FALSE(ParsePhysicalDrivePath(file, &drive));

  std::vector<uint8_t> sector(512, 0);
  std::memcpy(&sector[82], "FAT32   ", 8);
  EXPECT_EQ(LayoutTypeFromBootSector(sector.data(), sector.size()), 0x0C);
  EXPECT_EQ(LayoutTypeFromBootSector(sector.data(), 84), 0x00);  // only as far as the sector goes
  const DiskIdentity id = IdentifyDisk({"loop2", "/sys/devices/virtual/block/loop2", "", "", "/i/a&b\\c d.img\n"}, 4);
  EXPECT_EQ(id.instancePath, "SCSI\\Disk&Ven_Linux&Prod_a_b_c_d.img\\4");  // nothing that breaks a key path
  EXPECT_EQ(CodePageFromCodeset("utf8"), 65001u);
  EXPECT_EQ(CodePageFromCodeset("ISO-8859-1"), 20127u);
  EXPECT_EQ(GroupingText(std::string("\3\2", 2)), "3;0");
  EXPECT_EQ(GroupingText(std::string(1, char{127})), "0");
}

TEST(LinuxDrives, DriveNumbersFollowTheSortedDisksOfSysfs) {
  const fs::path root = fs::temp_directory_path() / ("dh_linux_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
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

}  // namespace
}  // namespace dh::platform::linux_native

#endif  // __linux__
