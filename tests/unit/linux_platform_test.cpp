// The Linux backend: device naming and ordering, error translation, plain
// files through the File interface, the registry synthesized from a small
// sysfs tree of the test's own, and console input at end of input.  Nothing
// here needs root or touches a real device.
#ifdef __linux__

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
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

// A fresh folder per test, removed afterwards.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "dh_linux_XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    char* made = ::mkdtemp(buffer.data());
    if (made != nullptr) path_ = made;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void WriteText(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ---- pure pieces ------------------------------------------------------------

TEST(LinuxErrors, ErrnoBecomesTheWindowsCode) {
  const std::pair<int, uint32_t> cases[] = {{ENOENT, 2},  {ENOTDIR, 3},  {EACCES, 5},    {EPERM, 5},   {EISDIR, 5},
                                            {EBADF, 5},   {EROFS, 19},   {EIO, 23},      {ENOSPC, 112}, {EBUSY, 32},
                                            {ENOMEDIUM, 21}, {EINVAL, 87}, {EHOSTDOWN, 31}, {0, 31}};
  for (const auto& [error, code] : cases) EXPECT_EQ(WindowsErrorFromErrno(error), code) << error;
}

TEST(LinuxDrives, OnlyWholeDisksAreDrives) {
  for (const char* name : {"sda", "sdaa", "vdb", "hdc", "xvda", "nvme0n1", "nvme12n3", "mmcblk0", "loop7"}) {
    EXPECT_NE(FamilyOfBlockName(name), DiskFamily::NotADisk) << name;
  }
  for (const char* name : {"sda1", "sd", "nvme0n1p1", "nvme0c0n1", "nvme0", "nvmen1", "mmcblk0p1", "mmcblk0boot0",
                           "mmcblk0rpmb", "loop", "loop0p1", "sr0", "dm-0", "md127", "zram0", "ram0", "", "sdA"}) {
    EXPECT_EQ(FamilyOfBlockName(name), DiskFamily::NotADisk) << name;
  }
}

TEST(LinuxDrives, OrderGroupsFamiliesThenNaturalOrder) {
  std::vector<std::string> names = {"loop10", "mmcblk0boot1", "nvme1n1", "sdaa", "loop2",  "sda1",  "vda",
                                    "mmcblk1", "xvdb",        "hda",     "sdb",  "nvme0n1", "loop3", "sr0",
                                    "mmcblk0", "sdz",         "loop1",   "sda",  "dm-0",    "nvme0n1p2"};
  auto backed = [](const std::string& loop) { return loop != "loop3" && loop != "loop1"; };
  std::vector<std::string> expected = {"sda",     "sdb",     "sdz",     "sdaa",    "vda",   "hda",   "xvdb",
                                       "nvme0n1", "nvme1n1", "mmcblk0", "mmcblk1", "loop2", "loop10"};
  EXPECT_EQ(OrderWholeDisks(names, backed), expected);
  // Without a way to tell, no loop device counts.
  std::vector<std::string> noLoops = OrderWholeDisks({"loop0", "sdb"}, nullptr);
  EXPECT_EQ(noLoops, std::vector<std::string>{"sdb"});
}

TEST(LinuxDrives, PhysicalDrivePaths) {
  DrivePath drive;
  ASSERT_TRUE(ParsePhysicalDrivePath("\\\\.\\physicaldrive17", &drive));
  EXPECT_TRUE(drive.valid);
  EXPECT_EQ(drive.number, 17u);
  // Drive paths that name no drive number: open fails, they are no files.
  for (const char* bad : {"\\\\.\\PhysicalDrive", "\\\\.\\PhysicalDrive01", "\\\\.\\PhysicalDrive-1",
                          "\\\\.\\PhysicalDrive1x", "\\\\.\\PhysicalDrive1234567890"}) {
    drive.valid = true;
    EXPECT_TRUE(ParsePhysicalDrivePath(bad, &drive)) << bad;
    EXPECT_FALSE(drive.valid) << bad;
  }
  for (const char* file : {"disk.img", "/dev/sda", "\\\\.\\PhysicalDisk0", "\\\\?\\PhysicalDrive0", ""}) {
    EXPECT_FALSE(ParsePhysicalDrivePath(file, &drive)) << file;
  }
}

TEST(LinuxDrives, LayoutTypeFromTheFileSystemName) {
  const std::tuple<size_t, const char*, uint8_t> cases[] = {
      {0, "", 0x00}, {3, "NTFS    ", 0x07}, {82, "FAT32   ", 0x0C}, {54, "FAT16   ", 0x06}, {54, "FAT12   ", 0x06}};
  std::vector<uint8_t> sector(512, 0);
  for (const auto& [offset, name, type] : cases) {
    std::fill(sector.begin(), sector.end(), 0);
    std::memcpy(&sector[offset], name, std::strlen(name));
    EXPECT_EQ(LayoutTypeFromBootSector(sector.data(), sector.size()), type) << name;
  }
  // A short first sector is only looked at as far as it goes.
  EXPECT_EQ(LayoutTypeFromBootSector(sector.data(), 58), 0x00);
  EXPECT_EQ(LayoutTypeFromBootSector(nullptr, 0), 0x00);
}

TEST(LinuxIdentity, OddNamesAreMadeHarmless) {
  // Texts that would break the key path are made harmless.
  DiskFacts odd{"loop2", "/sys/devices/virtual/block/loop2", "", "", "/srv/images/a&b\\c d.img\n"};
  DiskIdentity id = IdentifyDisk(odd, 4);
  EXPECT_EQ(id.bus, "SCSI");
  EXPECT_EQ(id.instancePath, "SCSI\\Disk&Ven_Linux&Prod_a_b_c_d.img\\4");
  EXPECT_EQ(id.friendlyName, "a&b\\c d.img SCSI Disk Device");
}

TEST(LinuxLocaleText, CodePageGroupingAndComputerName) {
  for (const char* utf8 : {"UTF-8", "utf8"}) EXPECT_EQ(CodePageFromCodeset(utf8), 65001u);
  for (const char* other : {"ANSI_X3.4-1968", "ISO-8859-1", ""}) EXPECT_EQ(CodePageFromCodeset(other), 20127u);

  EXPECT_EQ(GroupingText(std::string("\3\2", 2)), "3;0");
  for (const std::string& none : {std::string(), std::string(1, '\0'), std::string(1, char{127}), std::string(1, char(-1))}) {
    EXPECT_EQ(GroupingText(none), "0");
  }

}

// ---- plain files ------------------------------------------------------------

class LinuxFiles : public ::testing::Test {
 protected:
  LinuxFiles() : machine_(CreateLinuxMachine({dir_ / "sys", dir_ / "dev"})) {}
  TempDir dir_;
  std::unique_ptr<Machine> machine_;
};

TEST_F(LinuxFiles, OpenModesAndWhatIsNoFile) {
  const std::string path = dir_ / "image.bin";
  EXPECT_FALSE(machine_->PathExists(path));
  for (OpenMode mode : {OpenMode::ReadExisting, OpenMode::ReadWriteExisting}) {
    EXPECT_EQ(machine_->Open(path, mode), nullptr);
    EXPECT_EQ(machine_->LastError(), 2u);
  }
  EXPECT_EQ(machine_->Open(dir_ / "missing/image.bin", OpenMode::CreateAlways), nullptr);
  EXPECT_EQ(machine_->LastError(), 2u);

  WriteText(path, "old contents that are longer");
  uint32_t done = 7;
  char c = 0;
  EXPECT_FALSE(machine_->Open(path, OpenMode::CreateAlways)->Read(&c, 1, &done));    // written only
  ASSERT_TRUE(machine_->Open(path, OpenMode::CreateAlways)->Write("new", 3, &done));  // truncated on open
  EXPECT_FALSE(machine_->Open(path, OpenMode::ReadExisting)->Write("x", 1, &done));  // read only
  EXPECT_EQ(machine_->LastError(), 5u);
  EXPECT_EQ(done, 0u);
  {
    auto file = machine_->Open(path, OpenMode::ReadWriteExisting);  // keeps what is there
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(file->Seek(1));
    EXPECT_TRUE(file->Write("EW", 2, &done));
    EXPECT_TRUE(file->Flush());
  }
  EXPECT_EQ(ReadText(path), "nEW");

  // A folder is no file; neither is a FIFO, whose open must not wait.
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& [name, mode] : {std::pair{dir_.path(), OpenMode::ReadExisting}, {dir_.path(), OpenMode::CreateAlways},
                                   {fifo, OpenMode::ProbeRead}}) {
    EXPECT_EQ(machine_->Open(name, mode), nullptr) << name;
    EXPECT_EQ(machine_->LastError(), 5u);
  }
}

TEST_F(LinuxFiles, TransfersHolesEndsAndHugeOffsets) {
  const std::string path = dir_ / "data.bin";
  {
    auto file = machine_->Open(path, OpenMode::CreateAlways);
    ASSERT_NE(file, nullptr);
    uint32_t done = 0;
    ASSERT_TRUE(file->Write("AB", 2, &done));
    ASSERT_TRUE(file->Write("C", 1, &done));  // right behind
    // Writing beyond the end leaves a hole and grows the file.
    ASSERT_TRUE(file->Seek(4096));
    ASSERT_TRUE(file->Write("Z", 1, &done));
    uint64_t size = 0;
    ASSERT_TRUE(file->Size(&size));
    EXPECT_EQ(size, 4097u);
  }
  auto file = machine_->Open(path, OpenMode::ReadExisting);
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> got(512, 0xEE);
  uint32_t done = 0;
  ASSERT_TRUE(file->Read(got.data(), 4, &done));
  EXPECT_EQ(std::string(got.begin(), got.begin() + 4), std::string("ABC\0", 4));
  // A read that reaches the end is short, then empty, and never an error.
  ASSERT_TRUE(file->Seek(4000));
  ASSERT_TRUE(file->Read(got.data(), 512, &done));
  EXPECT_EQ(done, 97u);
  EXPECT_EQ(got[96], 'Z');
  EXPECT_EQ(got[0], 0);  // the hole reads as zeros
  for (uint64_t at : {uint64_t{4097}, uint64_t{1} << 40}) {
    ASSERT_TRUE(file->Seek(at));
    ASSERT_TRUE(file->Read(got.data(), 512, &done));
    EXPECT_EQ(done, 0u);
  }
  // Positions past what a signed offset holds are refused, not wrapped.
  EXPECT_FALSE(file->Seek(uint64_t{1} << 63));
  EXPECT_EQ(machine_->LastError(), 131u);
  EXPECT_FALSE(file->Seek(UINT64_MAX));

}

// ---- drives and registry over a sysfs tree of the test's own -----------------

class LinuxFakeSysfs : public ::testing::Test {
 protected:
  void SetUp() override {
    // Disks hang under /sys/devices; /sys/block links to them.
    AddDisk("sda", "pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0", "ATA     \n", "WDC WD10EZEX  \n");
    AddDisk("sdb", "pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host4/target4:0:0/4:0:0:0", "SanDisk \n",
            "Cruzer Blade\n");
    AddDisk("nvme0n1", "pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0", "", "Samsung SSD 970\n");
    AddDisk("loop0", "virtual", "", "", "");
    AddDisk("loop4", "virtual", "", "", "/srv/images/test disk.img\n");
    fs::create_directories(dir_ / "sys/block/sr0");
    fs::create_directories(dir_ / "sys/block/sda/sda1");
    for (const char* node : {"sda", "sdb", "nvme0n1", "loop0", "loop4"}) {
      WriteText(dir_ / (std::string("dev/") + node), std::string("node ") + node);
    }
    machine_ = CreateLinuxMachine({dir_ / "sys", dir_ / "dev"});
  }

  void AddDisk(const std::string& name, const std::string& parent, const std::string& vendor,
               const std::string& model, const char* backingFile = nullptr) {
    std::string real = dir_ / ("sys/devices/" + parent + "/block/" + name);
    fs::create_directories(real);
    if (!vendor.empty()) WriteText(real + "/device/vendor", vendor);
    if (!model.empty()) WriteText(real + "/device/model", model);
    if (backingFile != nullptr) WriteText(real + "/loop/backing_file", backingFile);
    fs::create_directories(dir_ / "sys/block");
    fs::create_symlink(real, dir_ / ("sys/block/" + name));
  }

  std::string Read(std::unique_ptr<File> file) {
    char buffer[64] = {};
    uint32_t done = 0;
    if (!file || !file->Read(buffer, sizeof(buffer), &done)) return "<failed>";
    return std::string(buffer, done);
  }

  TempDir dir_;
  std::unique_ptr<Machine> machine_;
};

TEST_F(LinuxFakeSysfs, DriveNumbersFollowTheSortedDisks) {
  EXPECT_EQ(Read(machine_->Open("\\\\.\\PhysicalDrive0", OpenMode::ProbeRead)), "node sda");
  EXPECT_EQ(Read(machine_->Open("\\\\.\\PHYSICALDRIVE1", OpenMode::ProbeRead)), "node sdb");
  EXPECT_EQ(Read(machine_->Open("\\\\.\\physicaldrive2", OpenMode::DiskReadWrite)), "node nvme0n1");
  // loop0 has no file behind it and is skipped.
  EXPECT_EQ(Read(machine_->Open("\\\\.\\PhysicalDrive3", OpenMode::ProbeRead)), "node loop4");
  EXPECT_EQ(machine_->Open("\\\\.\\PhysicalDrive4", OpenMode::ProbeRead), nullptr);
  EXPECT_EQ(machine_->LastError(), 2u);
  EXPECT_EQ(machine_->Open("\\\\.\\PhysicalDrive03", OpenMode::ProbeRead), nullptr);
  EXPECT_TRUE(machine_->PathExists("\\\\.\\PhysicalDrive3"));
  EXPECT_FALSE(machine_->PathExists("\\\\.\\PhysicalDrive4"));
}

TEST_F(LinuxFakeSysfs, RegistryDescribesEachDisk) {
  const std::string kEnum = "SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum";
  std::string instance;
  ASSERT_TRUE(machine_->RegQueryString(kEnum, "0", &instance));
  EXPECT_EQ(instance, "IDE\\Disk&Ven_ATA&Prod_WDC_WD10EZEX\\0");
  std::string text;
  ASSERT_TRUE(machine_->RegQueryString("SYSTEM\\CurrentControlSet\\Enum\\" + instance, "FriendlyName", &text));
  EXPECT_EQ(text, "WDC WD10EZEX ATA Device");
  ASSERT_TRUE(machine_->RegQueryString(kEnum, "1", &instance));
  EXPECT_EQ(instance, "USB\\Disk&Ven_SanDisk&Prod_Cruzer_Blade\\1");

  ASSERT_TRUE(machine_->RegQueryString(kEnum, "2", &instance));
  EXPECT_EQ(instance, "SCSI\\Disk&Ven_NVMe&Prod_Samsung_SSD_970\\2");
  ASSERT_TRUE(machine_->RegQueryString(kEnum, "3", &instance));
  EXPECT_EQ(instance, "SCSI\\Disk&Ven_Linux&Prod_test_disk.img\\3");

  text = "unchanged";
  EXPECT_FALSE(machine_->RegQueryString(kEnum, "4", &text));
  EXPECT_FALSE(machine_->RegQueryString(kEnum, "01", &text));
  EXPECT_FALSE(machine_->RegQueryString(kEnum, "", &text));
  EXPECT_FALSE(machine_->RegQueryString("SYSTEM\\CurrentControlSet\\Enum\\USB\\Nothing\\9", "DeviceDesc", &text));
  EXPECT_EQ(text, "unchanged");
}

// ---- machine services -------------------------------------------------------

// Standard input replaced by a pipe holding `input`, closed at its end.
class StdinFromText {
 public:
  explicit StdinFromText(const std::string& input) {
    saved_ = ::dup(STDIN_FILENO);
    int fds[2];
    if (::pipe(fds) != 0) return;
    ssize_t written = ::write(fds[1], input.data(), input.size());
    (void)written;
    ::close(fds[1]);
    ::dup2(fds[0], STDIN_FILENO);
    ::close(fds[0]);
  }
  ~StdinFromText() {
    ::dup2(saved_, STDIN_FILENO);
    ::close(saved_);
  }

 private:
  int saved_ = -1;
};

TEST(LinuxMachineServices, KeysAndLinesEndAtEndOfInput) {
  auto machine = CreateLinuxMachine({});
  StdinFromText input("y\nfirst line\r\nlast");
  EXPECT_EQ(machine->ReadKey(), 'y');
  std::string line = "x";
  ASSERT_TRUE(machine->ReadLine(&line));
  EXPECT_EQ(line, "");  // the rest of the line the key was on
  ASSERT_TRUE(machine->ReadLine(&line));
  EXPECT_EQ(line, "first line");
  ASSERT_TRUE(machine->ReadLine(&line));
  EXPECT_EQ(line, "last");
  EXPECT_FALSE(machine->ReadLine(&line));
  EXPECT_EQ(machine->ReadKey(), -1);
  EXPECT_EQ(machine->ReadKey(), -1);
}

}  // namespace
}  // namespace dh::platform::linux_native

#endif  // __linux__
