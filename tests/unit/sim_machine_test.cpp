// The simulated machine on real image files in a temporary folder: drive
// mapping, access rights, bad sectors and the image's end, device queries,
// registry and mount-manager answers, with the Windows error codes the
// end-to-end runs cannot see.
#include "platform/sim/sim_machine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace dh::platform::sim {
namespace {

namespace fs = std::filesystem;

std::string Drive(int n) { return "\\\\.\\PhysicalDrive" + std::to_string(n); }

// Reads into a buffer pre-filled with 0xEE, so bytes not delivered show.
struct Transfer {
  bool ok = false;
  uint32_t done = 0;
  std::vector<uint8_t> data;
};
Transfer ReadAt(File& f, uint64_t offset, uint32_t bytes) {
  Transfer t;
  t.data.assign(bytes, 0xEE);
  t.ok = f.Seek(offset) && f.Read(t.data.data(), bytes, &t.done);
  return t;
}
bool WriteAt(File& f, uint64_t offset, const std::vector<uint8_t>& data) {
  uint32_t done = 0;
  return f.Seek(offset) && f.Write(data.data(), static_cast<uint32_t>(data.size()), &done) && done == data.size();
}

class SimMachineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    dir_ = fs::temp_directory_path() / ("diskhold_sim_" + std::to_string(stamp) + "_" + std::to_string(counter++));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    machine_.reset();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }
  // An image of `sectors` sectors, each filled with its LBA's low byte.
  void MakeImage(const std::string& name, uint64_t sectors) {
    std::ofstream out(Path(name), std::ios::binary);
    for (uint64_t lba = 0; lba < sectors; ++lba) out << std::string(512, static_cast<char>(lba & 0xFF));
  }
  void Poke(const std::string& name, uint64_t offset, const std::string& bytes) {
    std::fstream f(Path(name), std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(offset));
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  std::string FileText(const std::string& name) const {
    std::stringstream s;
    s << std::ifstream(Path(name), std::ios::binary).rdbuf();
    return s.str();
  }
  uint8_t ImageByte(const std::string& name, size_t offset) const {
    return static_cast<uint8_t>(FileText(name).at(offset));
  }
  std::unique_ptr<Machine> TryLoad(const std::string& text, std::string* error) {
    std::ofstream(Path("machine.ini"), std::ios::binary) << text;
    return LoadSimulatedMachine(Path("machine.ini"), CreateNativeMachine(), error);
  }
  Machine& Load(const std::string& text) {
    std::string error;
    machine_ = TryLoad(text, &error);
    if (!machine_) throw std::runtime_error(error);
    return *machine_;
  }
  std::string LoadError(const std::string& text) {
    std::string error;
    EXPECT_EQ(TryLoad(text, &error), nullptr);
    return error;
  }

  fs::path dir_;
  std::unique_ptr<Machine> machine_;
};

TEST_F(SimMachineTest, LoadFailuresSayWhy) {
  std::string error;
  EXPECT_EQ(LoadSimulatedMachine(Path("nothing.ini"), CreateNativeMachine(), &error), nullptr);
  EXPECT_EQ(error, "cannot read the machine file " + Path("nothing.ini") + ": The system cannot find the file specified.");
  // Images that no drive can stand on are refused with the file and line of
  // their key: a missing file, a folder, and files shorter than one sector.
  fs::create_directory(Path("folder.img"));
  std::ofstream(Path("short.img"), std::ios::binary) << std::string(511, 'x');
  const std::pair<const char*, const char*> refused[] = {
      {"missing.img", "cannot be opened: The system cannot find the file specified."},
      {"folder.img", "is a folder, not an image file"},
      {"short.img", "holds 511 bytes, less than one sector of 512"},
  };
  for (const auto& [image, why] : refused) {
    error = LoadError(std::string("[machine]\n\n[drive 0]\nimage = ") + image + "\n");
    EXPECT_EQ(error.rfind(Path("machine.ini") + ", line 4: the image of [drive 0] " + Path(image) + " ", 0), 0u)
        << error;
    EXPECT_NE(error.find(why), std::string::npos) << error;
  }
  MakeImage("one.img", 1);  // one whole sector is enough
  Load("[drive 0]\nimage = one.img\n");
  for (const char* key : {"growlimit = lots", "failwriteafter = -1"}) {
    EXPECT_NE(LoadError(std::string("[drive 0]\nimage = one.img\n") + key + "\n").find(", line 3:"),
              std::string::npos) << key;
  }
}

TEST_F(SimMachineTest, DrivesMapByNumberAndReadOnlyDrivesOnlyRead) {
  MakeImage("d0.img", 8);
  MakeImage("d2.img", 16);
  Poke("d2.img", 0, "TWO");
  Machine& m = Load("[drive 2]\nimage = d2.img\n[drive 0]\nimage = d0.img\nreadonly = yes\n");
  for (const char* absent : {"\\\\.\\PhysicalDrive1", "\\\\.\\PhysicalDrive02", "\\\\.\\PhysicalDrive",
                             "\\\\.\\PhysicalDrive2x", "\\\\.\\C:"}) {
    EXPECT_EQ(m.Open(absent, OpenMode::ProbeRead), nullptr) << absent;
    EXPECT_EQ(m.LastError(), 2u);
    EXPECT_FALSE(m.PathExists(absent)) << absent;
  }
  std::unique_ptr<File> two = m.Open("\\\\.\\physicaldrive2", OpenMode::DiskReadWrite);
  ASSERT_NE(two, nullptr);
  uint64_t size = 0;
  ASSERT_TRUE(two->Size(&size));
  EXPECT_EQ(size, 16u * 512);
  const Transfer head = ReadAt(*two, 0, 3);
  EXPECT_EQ(std::string(head.data.begin(), head.data.end()), "TWO");

  // Drive 0 is read-only: no open for writing (creating over a drive would
  // truncate it), and a handle opened for reading refuses writes.
  for (OpenMode mode : {OpenMode::DiskReadWrite, OpenMode::ReadWriteExisting, OpenMode::CreateAlways}) {
    EXPECT_EQ(m.Open(Drive(0), mode), nullptr);
    EXPECT_EQ(m.LastError(), 5u);
  }
  std::unique_ptr<File> probe = m.Open(Drive(0), OpenMode::ProbeRead);
  ASSERT_NE(probe, nullptr);
  EXPECT_EQ(ReadAt(*probe, 512, 512).data[0], 1);
  EXPECT_FALSE(WriteAt(*probe, 0, std::vector<uint8_t>(512, 0x77)));
  EXPECT_EQ(m.LastError(), 5u);
  EXPECT_EQ(ImageByte("d0.img", 0), 0);
  EXPECT_EQ(fs::file_size(Path("d0.img")), 8u * 512);
}

TEST_F(SimMachineTest, BadSectorsFailReadsAndWritesThatTouchThem) {
  MakeImage("d.img", 200);
  Machine& m = Load("[drive 0]\nimage = d.img\nbadsectors = 100-120, 150\n");
  std::unique_ptr<File> f = m.Open(Drive(0), OpenMode::DiskReadWrite);
  ASSERT_NE(f, nullptr);
  const struct {
    uint64_t offset;
    uint32_t bytes;
    bool good;
  } cases[] = {
      {99 * 512, 512, true},       {100 * 512, 512, false},     {120 * 512, 512, false},
      {121 * 512, 512, true},      {100 * 512 - 1, 2, false},   {99 * 512 + 511, 1, true},
      {121 * 512, 29 * 512, true}, {121 * 512, 29 * 512 + 1, false},
  };
  for (const auto& c : cases) {
    const Transfer t = ReadAt(*f, c.offset, c.bytes);
    EXPECT_EQ(t.ok, c.good) << "read at " << c.offset << " +" << c.bytes;
    EXPECT_EQ(c.good ? c.bytes : 23u, c.good ? t.done : m.LastError());
  }
  const std::string before = FileText("d.img");
  EXPECT_FALSE(WriteAt(*f, 99 * 512, std::vector<uint8_t>(1024, 0x55)));
  EXPECT_EQ(m.LastError(), 23u);
  EXPECT_EQ(FileText("d.img"), before);  // a refused write changes nothing
}

TEST_F(SimMachineTest, HalfWayWritesAndTheTransferTrace) {
  MakeImage("d.img", 40);
  Machine& m = Load("[machine]\ntracelog = trace.txt\n[drive 3]\nimage = d.img\nfailwriteafter = 2\n");
  std::unique_ptr<File> f = m.Open(Drive(3), OpenMode::DiskReadWrite);
  ASSERT_NE(f, nullptr);
  // Two sectors go through; three move two and fail.
  EXPECT_TRUE(WriteAt(*f, 10 * 512, std::vector<uint8_t>(1024, 0x55)));
  uint32_t done = 0;
  const std::vector<uint8_t> three(3 * 512, 0x66);
  ASSERT_TRUE(f->Seek(20 * 512));
  EXPECT_FALSE(f->Write(three.data(), 3 * 512, &done));
  EXPECT_EQ(done, 2u * 512);
  EXPECT_EQ(m.LastError(), 29u);
  EXPECT_EQ(ImageByte("d.img", 21 * 512), 0x66);
  EXPECT_EQ(ImageByte("d.img", 22 * 512), 22);
  EXPECT_FALSE(f->ZeroRange(0, 3 * 512));  // the caller then writes
  EXPECT_TRUE(ReadAt(*f, 513, 10).ok);     // partial sectors count whole
  EXPECT_EQ(FileText("trace.txt"),
            "3 write 10 2 2 ok\n3 write 20 3 2 fail\n3 zero 0 3 0 fail\n3 read 1 1 1 ok\n");
}

TEST_F(SimMachineTest, TheImageEndIsTheDiskEnd) {
  MakeImage("d.img", 10);
  Machine& m = Load("[drive 0]\nimage = d.img\ngrowlimit = 0\n");
  std::unique_ptr<File> f = m.Open(Drive(0), OpenMode::DiskReadWrite);
  ASSERT_NE(f, nullptr);
  EXPECT_FALSE(ReadAt(*f, 10 * 512, 512).ok);
  EXPECT_EQ(m.LastError(), 27u);
  EXPECT_FALSE(ReadAt(*f, 1ull << 62, 512).ok);
  const Transfer tail = ReadAt(*f, 9 * 512, 1024);
  EXPECT_TRUE(tail.ok);
  EXPECT_EQ(tail.done, 512u);  // short, not failed
  EXPECT_EQ(tail.data[512], 0xEE);
  EXPECT_FALSE(WriteAt(*f, 9 * 512, std::vector<uint8_t>(1024, 1)));
  EXPECT_EQ(m.LastError(), 27u);
  EXPECT_FALSE(WriteAt(*f, 0xFFFFFFFFFFFFFE00ull, std::vector<uint8_t>(1024, 1)));
  EXPECT_EQ(ImageByte("d.img", 9 * 512), 9);
  EXPECT_TRUE(WriteAt(*f, 9 * 512, std::vector<uint8_t>(512, 0xAB)));
  EXPECT_EQ(ImageByte("d.img", 9 * 512 + 511), 0xAB);
  EXPECT_EQ(fs::file_size(Path("d.img")), 10u * 512);
}

TEST_F(SimMachineTest, GeometryLayoutAndAbsentMedia) {
  MakeImage("fixed.img", 255 * 63 * 3 + 100);
  MakeImage("stick.img", 64);
  MakeImage("card.img", 8);
  Machine& m = Load(
      "[drive 0]\nimage = fixed.img\n"
      "[drive 1]\nimage = stick.img\nmedia = removable\nheads = 2\nsectors = 16\ncylinders = 7\n"
      "layout = 0e,512,0x1000\n"
      "[drive 2]\nimage = card.img\nmedia = absent\n");
  std::unique_ptr<File> fixed = m.Open(Drive(0), OpenMode::DiskReadWrite);
  ASSERT_NE(fixed, nullptr);
  DiskGeometry g;
  uint64_t diskSize = 0;
  ASSERT_TRUE(fixed->GetDriveGeometryEx(&g, &diskSize));
  EXPECT_EQ(std::make_tuple(g.mediaType, g.tracksPerCylinder, g.sectorsPerTrack, g.cylinders),
            std::make_tuple(uint32_t{kMediaFixed}, 255u, 63u, int64_t{3}));  // cylinders from the size
  EXPECT_EQ(diskSize, (255u * 63 * 3 + 100) * 512);
  // The derived layout follows the current sector 0 without moving the handle.
  LayoutEntry layout;
  ASSERT_TRUE(WriteAt(*fixed, 82, {'F', 'A', 'T', '3', '2'}));
  ASSERT_TRUE(fixed->Seek(3 * 512));
  ASSERT_TRUE(fixed->GetDriveLayoutEx(&layout));
  EXPECT_EQ(std::make_tuple(layout.present, layout.partitionType, layout.startingOffset, layout.partitionLength),
            std::make_tuple(true, uint8_t{0x0C}, uint64_t{0}, diskSize));
  uint8_t byte = 0;
  uint32_t done = 0;
  ASSERT_TRUE(fixed->Read(&byte, 1, &done));
  EXPECT_EQ(byte, 3);

  std::unique_ptr<File> stick = m.Open(Drive(1), OpenMode::ProbeRead);
  ASSERT_NE(stick, nullptr);
  ASSERT_TRUE(stick->GetDriveGeometry(&g));
  EXPECT_EQ(std::make_tuple(g.mediaType, g.tracksPerCylinder, g.sectorsPerTrack, g.cylinders),
            std::make_tuple(uint32_t{kMediaRemovable}, 2u, 16u, int64_t{7}));
  ASSERT_TRUE(stick->GetDriveLayoutEx(&layout));
  EXPECT_EQ(std::make_tuple(layout.present, layout.partitionType, layout.startingOffset, layout.partitionLength),
            std::make_tuple(true, uint8_t{0x0E}, uint64_t{512}, uint64_t{0x1000}));

  // No medium: the open works, everything after it is "not ready".
  std::unique_ptr<File> card = m.Open(Drive(2), OpenMode::DiskReadWrite);
  ASSERT_NE(card, nullptr);
  EXPECT_FALSE(card->GetDriveGeometry(&g));
  EXPECT_EQ(m.LastError(), 21u);
  EXPECT_FALSE(ReadAt(*card, 0, 512).ok);
  EXPECT_EQ(m.LastError(), 21u);
  EXPECT_FALSE(WriteAt(*card, 0, std::vector<uint8_t>(512, 1)));
}

TEST_F(SimMachineTest, RegistryAndMountedVolumes) {
  for (const char* image : {"a.img", "b.img", "c.img"}) MakeImage(image, 4);
  Poke("a.img", 440, std::string("\x78\x56\x34\x12", 4));
  Machine& m = Load(
      "[drive 5]\nimage = c.img\ninstance = USBSTOR\\Disk&Ven_X\\0001\nparentidprefix = 7&2a3b&0\n"
      "[drive 0]\nimage = a.img\ninstance = IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0\n"
      "friendlyname = ST3500418AS  ATA Device\ndevicedesc = Disk drive\n"
      "[drive 3]\nimage = b.img\n"
      "[volume D]\ndrive = 0\noffset = 1048576\nguid = 6a1c1c4e-0b2a-11e1-8e4c-806e6f6e6963\n"
      "[volume C]\ndrive = 0\noffset = 32256\n"
      "[volume F]\ndevice = \\??\\STORAGE#RM\n");
  const std::string diskEnum = "SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum";
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(m.RegQueryBinary(diskEnum, "Count", &bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{3, 0, 0, 0}));
  std::string text;
  EXPECT_FALSE(m.RegQueryString(diskEnum, "Count", &text));  // a REG_DWORD
  ASSERT_TRUE(m.RegQueryString("system\\currentcontrolset\\services\\disk\\enum", "2", &text));
  EXPECT_EQ(text, "USBSTOR\\Disk&Ven_X\\0001");
  for (const char* none : {"1", "3", "00"}) EXPECT_FALSE(m.RegQueryString(diskEnum, none, &text)) << none;
  const std::string ide = "SYSTEM\\CurrentControlSet\\Enum\\ide\\diskst3500418as\\5&2A4F5&0&0.0.0";
  ASSERT_TRUE(m.RegQueryString(ide, "FriendlyName", &text));
  EXPECT_EQ(text, "ST3500418AS  ATA Device");
  ASSERT_TRUE(m.RegQueryBinary(ide, "DeviceDesc", &bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{'D', 'i', 's', 'k', ' ', 'd', 'r', 'i', 'v', 'e', 0}));
  EXPECT_FALSE(m.RegQueryString(ide, "ParentIDPrefix", &text));
  ASSERT_TRUE(m.RegQueryString("SYSTEM\\CurrentControlSet\\Enum\\USBSTOR\\Disk&Ven_X\\0001", "ParentIDPrefix", &text));
  EXPECT_EQ(text, "7&2a3b&0");

  EXPECT_EQ(m.LogicalDriveStrings(), (std::vector<std::string>{"C:\\", "D:\\", "F:\\"}));
  ASSERT_TRUE(m.VolumeNameForMountPoint("c:\\", &text));
  EXPECT_EQ(text, "\\\\?\\Volume{00000000-0000-0000-0000-000000000043}\\");
  EXPECT_FALSE(m.VolumeNameForMountPoint("C:", &text));
  const std::string key = "SYSTEM\\MountedDevices";
  std::vector<uint8_t> record;
  ASSERT_TRUE(m.RegQueryBinary(key, "\\??\\Volume{6a1c1c4e-0b2a-11e1-8e4c-806e6f6e6963}", &record));
  EXPECT_EQ(record, (std::vector<uint8_t>{0x78, 0x56, 0x34, 0x12, 0, 0, 0x10, 0, 0, 0, 0, 0}));
  ASSERT_TRUE(m.RegQueryBinary(key, "\\DosDevices\\D:", &bytes));
  EXPECT_EQ(bytes, record);
  // The signature is read when asked, so a new one written by the run shows.
  Poke("a.img", 440, std::string("\xAA\xBB\xCC\xDD", 4));
  ASSERT_TRUE(m.RegQueryBinary(key, "\\??\\Volume{00000000-0000-0000-0000-000000000043}", &record));
  EXPECT_EQ(record, (std::vector<uint8_t>{0xAA, 0xBB, 0xCC, 0xDD, 0x00, 0x7E, 0, 0, 0, 0, 0, 0}));
  // A device record is the path in UTF-16LE.
  ASSERT_TRUE(m.RegQueryBinary(key, "\\DosDevices\\F:", &record));
  std::vector<uint8_t> utf16;
  for (char c : std::string("\\??\\STORAGE#RM")) utf16.insert(utf16.end(), {uint8_t(c), 0});
  EXPECT_EQ(record, utf16);
}

TEST_F(SimMachineTest, VersionRightsLocaleShutdownAndFormatEngine) {
  Machine& m = Load(
      "[machine]\nversion = 5.1\nelevated = no\ncodepage = 850\nsystemdrive = C:\ndecimal = \",\"\n"
      "thousands = .\nshutdownlog = shutdown.log\nformatengine = fail\n[environment]\nWINDIR = C:\\Windows\n");
  EXPECT_EQ(m.GetVersion(), 5u | (1u << 8) | (7601u << 16));
  bool elevated = true;
  ASSERT_TRUE(m.QueryElevation(&elevated));
  EXPECT_FALSE(elevated);
  EXPECT_EQ(m.ConsoleOutputCodePage(), 850u);
  std::string value;
  ASSERT_TRUE(m.GetEnv("windir", &value));
  EXPECT_EQ(value, "C:\\Windows");
  EXPECT_FALSE(m.GetEnv("PATH", &value));  // never the host's
  const NumberFormat f{.decimalSep = ",", .thousandSep = "."};
  ASSERT_TRUE(m.GetNumberFormat("465.761459", f, &value));
  EXPECT_EQ(value, "465,76");
  EXPECT_FALSE(m.GetNumberFormat("4x", f, &value));
  EXPECT_EQ(m.LastError(), 87u);
  EXPECT_TRUE(m.ExitWindows(5));
  EXPECT_EQ(FileText("shutdown.log"), "shutdown flags=5\n");
  std::vector<std::tuple<int, uint32_t, bool>> calls;
  const FormatCallback record = [&](int command, uint32_t, const FormatCallbackData& data) {
    calls.emplace_back(command, data.percent, data.success);
    return true;
  };
  ASSERT_TRUE(m.FormatEx(u"", 0x0C, u"NTFS", u"MYLABEL", false, 0, record, {}));
  EXPECT_EQ(calls, (decltype(calls){{11, 0, false}}));

  MakeImage("d.img", 8);
  const std::string before = FileText("d.img");
  calls.clear();
  Machine& ok = Load("[machine]\nformatengine = ok\n[drive 0]\nimage = d.img\n");
  ASSERT_TRUE(ok.FormatEx(u"\\\\?\\Volume{x}\\", 0x0C, u"NTFS", u"MYLABEL", false, 0, record, {}));
  EXPECT_EQ(calls, (decltype(calls){{0, 0, false}, {0, 25, false}, {0, 50, false}, {0, 75, false},
                                    {0, 100, false}, {11, 0, true}}));
  EXPECT_EQ(FileText("d.img"), before);  // nothing is really formatted
  EXPECT_EQ(Load("[machine]\nformatengine = noentry\n").LoadFormatEngine(), FormatEngineState::EntryMissing);
  EXPECT_FALSE(Load("[machine]\nshutdownprivilege = no\nelevated = unknown\n").EnableShutdownPrivilege());
  EXPECT_EQ(machine_->LastError(), 1300u);
  EXPECT_FALSE(machine_->QueryElevation(&elevated));
  EXPECT_EQ(Load("").ComputerName(), "DISKHOLD-SIM");
}

}  // namespace
}  // namespace dh::platform::sim
