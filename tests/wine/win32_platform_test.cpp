// Tests of the win32 backend, run on Windows or under Wine (.ci/windows.sh
// builds and runs them).  They use the real Windows calls on files, registry
// keys and the environment of the test process; nothing touches a disk device,
// the console's key input, the format engine, a message box or a shutdown.
#include "platform/win32/win32_api.h"
#include "platform/win32/win32_records.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <tuple>
#include <string>
#include <vector>

namespace dh::platform {
namespace {

using win32::DecodeDriveLayout;
using win32::DecodeDriveLayoutEx;
using win32::DecodeFormatCallback;
using win32::DecodeGeometry;
using win32::DecodeGeometryEx;
using win32::DecodePartitionInfo;

// Copies a record to an odd address, as a driver's buffer need not be aligned
// for the decoder.
template <typename T>
std::vector<uint8_t> Misaligned(const T& record, size_t total = sizeof(T)) {
  std::vector<uint8_t> bytes(total + 1, 0);
  std::memcpy(bytes.data() + 1, &record, sizeof(T));
  return bytes;
}

TEST(Win32Records, GeometryAndPartitionInfo) {
  DISK_GEOMETRY_EX record;
  std::memset(&record, 0, sizeof record);
  record.Geometry.Cylinders.QuadPart = 0x123456789LL;
  record.Geometry.MediaType = RemovableMedia;
  record.Geometry.TracksPerCylinder = 255;
  record.Geometry.SectorsPerTrack = 63;
  record.Geometry.BytesPerSector = 4096;
  record.DiskSize.QuadPart = 0x0000012345678000LL;
  const std::vector<uint8_t> bytes = Misaligned(record);

  DiskGeometry g;
  ASSERT_TRUE(DecodeGeometry(bytes.data() + 1, sizeof(DISK_GEOMETRY), &g));
  EXPECT_EQ(std::make_tuple(g.cylinders, g.mediaType, g.tracksPerCylinder, g.sectorsPerTrack, g.bytesPerSector),
            std::make_tuple(int64_t{0x123456789LL}, uint32_t{kMediaRemovable}, 255u, 63u, 4096u));

  DiskGeometry gx;
  uint64_t size = 0;
  ASSERT_TRUE(DecodeGeometryEx(bytes.data() + 1, sizeof record, &gx, &size));
  EXPECT_EQ(size, 0x0000012345678000ULL);
  EXPECT_EQ(gx.sectorsPerTrack, 63u);

  // Fewer bytes than the record: the query counts as failed.
  EXPECT_FALSE(DecodeGeometry(bytes.data() + 1, sizeof(DISK_GEOMETRY) - 1, &g));
  EXPECT_FALSE(DecodeGeometryEx(bytes.data() + 1, 31, &gx, &size));

  PARTITION_INFORMATION partition;
  std::memset(&partition, 0, sizeof partition);
  partition.StartingOffset.QuadPart = 32256;
  partition.PartitionLength.QuadPart = 0x7FFFFFFFFFFFLL;
  const std::vector<uint8_t> info = Misaligned(partition);
  uint64_t start = 0, length = 0;
  ASSERT_TRUE(DecodePartitionInfo(info.data() + 1, sizeof partition, &start, &length));
  EXPECT_EQ(start, 32256u);
  EXPECT_EQ(length, 0x7FFFFFFFFFFFULL);
  EXPECT_FALSE(DecodePartitionInfo(info.data() + 1, 15, &start, &length));
}

// A DRIVE_LAYOUT_INFORMATION_EX in the program's 1,344-byte buffer.
std::vector<uint8_t> LayoutEx(DWORD count, PARTITION_STYLE style, BYTE type, LONGLONG offset, LONGLONG length) {
  std::vector<uint8_t> buffer(win32::kLayoutBufferSize, 0);
  auto* layout = reinterpret_cast<DRIVE_LAYOUT_INFORMATION_EX*>(buffer.data());
  layout->PartitionStyle = style;
  layout->PartitionCount = count;
  layout->PartitionEntry[0].PartitionStyle = style;
  layout->PartitionEntry[0].StartingOffset.QuadPart = offset;
  layout->PartitionEntry[0].PartitionLength.QuadPart = length;
  if (style == PARTITION_STYLE_MBR) {
    layout->PartitionEntry[0].Mbr.PartitionType = type;
  } else {
    std::memset(&layout->PartitionEntry[0].Gpt.PartitionType, 0xAB, sizeof(GUID));
  }
  return buffer;
}

TEST(Win32Records, DriveLayoutExFirstEntry) {
  LayoutEntry e;
  std::vector<uint8_t> mbr = LayoutEx(4, PARTITION_STYLE_MBR, 0x07, 1048576, 8589934592LL);
  ASSERT_TRUE(DecodeDriveLayoutEx(mbr.data(), mbr.size(), &e));
  EXPECT_EQ(std::make_tuple(e.present, e.partitionStyle, e.partitionType, e.startingOffset, e.partitionLength),
            std::make_tuple(true, 0u, uint8_t{0x07}, uint64_t{1048576}, uint64_t{8589934592ULL}));

  // A GPT entry has no type byte: its GUID must not be read as one.
  std::vector<uint8_t> gpt = LayoutEx(1, PARTITION_STYLE_GPT, 0, 17408, 4096);
  ASSERT_TRUE(DecodeDriveLayoutEx(gpt.data(), gpt.size(), &e));
  EXPECT_EQ(e.partitionStyle, 1u);
  EXPECT_EQ(e.partitionType, 0);
  EXPECT_EQ(e.startingOffset, 17408u);

  // No entry: an empty first entry, and nothing read past the head.
  std::vector<uint8_t> empty = LayoutEx(0, PARTITION_STYLE_RAW, 0, 99, 99);
  ASSERT_TRUE(DecodeDriveLayoutEx(empty.data(), win32::kLayoutExFirstEntry, &e));
  EXPECT_FALSE(e.present);
  EXPECT_EQ(e.startingOffset, 0u);
  EXPECT_EQ(e.partitionLength, 0u);

  // An entry counted but not returned.
  EXPECT_FALSE(DecodeDriveLayoutEx(mbr.data(), win32::kLayoutExFirstEntry + 20, &e));
  EXPECT_FALSE(DecodeDriveLayoutEx(mbr.data(), 47, &e));
}

TEST(Win32Records, DriveLayoutFirstEntry) {
  std::vector<uint8_t> buffer(win32::kLayoutBufferSize, 0);
  auto* layout = reinterpret_cast<DRIVE_LAYOUT_INFORMATION*>(buffer.data());
  layout->PartitionCount = 4;
  layout->Signature = 0x12345678;
  layout->PartitionEntry[0].StartingOffset.QuadPart = 32256;
  layout->PartitionEntry[0].PartitionLength.QuadPart = 1000000000LL;
  layout->PartitionEntry[0].PartitionType = 0x0E;
  LayoutEntry e;
  ASSERT_TRUE(DecodeDriveLayout(buffer.data(), buffer.size(), &e));
  EXPECT_EQ(std::make_tuple(e.present, e.partitionStyle, e.partitionType, e.startingOffset, e.partitionLength),
            std::make_tuple(true, 0u, uint8_t{0x0E}, uint64_t{32256}, uint64_t{1000000000}));

  layout->PartitionCount = 0;
  ASSERT_TRUE(DecodeDriveLayout(buffer.data(), 8, &e));
  EXPECT_FALSE(e.present);
  EXPECT_EQ(e.partitionType, 0);
  EXPECT_FALSE(DecodeDriveLayout(buffer.data(), 7, &e));
}

TEST(Win32Records, FormatCallbackData) {
  DWORD percent = 42;
  EXPECT_EQ(DecodeFormatCallback(0, &percent).percent, 42u);

  BOOLEAN yes = TRUE, no = FALSE;
  EXPECT_TRUE(DecodeFormatCallback(11, &yes).success);
  EXPECT_FALSE(DecodeFormatCallback(11, &no).success);

  struct TextOutput {
    DWORD lines;
    PCHAR output;
  };
  char line[] = "Creating file system structures.\n";
  TextOutput text = {1, line};
  EXPECT_EQ(DecodeFormatCallback(14, &text).text, "Creating file system structures.\n");
  TextOutput none = {0, nullptr};
  EXPECT_EQ(DecodeFormatCallback(14, &none).text, "");

  // No data, or a command whose data the program does not read.
  const FormatCallbackData blank = DecodeFormatCallback(0, nullptr);
  EXPECT_EQ(blank.percent, 0u);
  EXPECT_FALSE(DecodeFormatCallback(11, nullptr).success);
  EXPECT_EQ(DecodeFormatCallback(6, &percent).percent, 0u);
}

// ---- the machine --------------------------------------------------------

class Win32Machine : public ::testing::Test {
 protected:
  void SetUp() override {
    machine_ = CreateNativeMachine();
    char temp[MAX_PATH + 1] = {};
    ASSERT_NE(GetTempPathA(sizeof temp, temp), 0u);
    folder_ = std::string(temp) + "diskhold-win32-" + std::to_string(GetCurrentProcessId());
    CreateDirectoryA(folder_.c_str(), nullptr);
  }
  void TearDown() override {
    for (const std::string& path : created_) DeleteFileA(path.c_str());
    RemoveDirectoryA(folder_.c_str());
  }
  std::string PathOf(const std::string& name) {
    created_.push_back(folder_ + "\\" + name);
    return created_.back();
  }
  void WriteAll(File& file, const std::string& bytes) {
    uint32_t done = 0;
    ASSERT_TRUE(file.Write(bytes.data(), static_cast<uint32_t>(bytes.size()), &done));
    ASSERT_EQ(done, bytes.size());
  }

  std::unique_ptr<Machine> machine_;
  std::string folder_;
  std::vector<std::string> created_;
};

TEST_F(Win32Machine, CreateWriteReadSeekAndSize) {
  const std::string path = PathOf("data.bin");
  {
    auto file = machine_->Open(path, OpenMode::CreateAlways);
    ASSERT_NE(file, nullptr);
    WriteAll(*file, std::string(1000, 'x'));
    EXPECT_TRUE(file->Flush());
  }
  {
    // CreateAlways truncates what was there.
    auto file = machine_->Open(path, OpenMode::CreateAlways);
    ASSERT_NE(file, nullptr);
    WriteAll(*file, "0123456789");
  }
  auto file = machine_->Open(path, OpenMode::ReadExisting);
  ASSERT_NE(file, nullptr);
  uint64_t size = 0;
  ASSERT_TRUE(file->Size(&size));
  EXPECT_EQ(size, 10u);

  char buffer[16] = {};
  uint32_t done = 0;
  ASSERT_TRUE(file->Seek(4));
  ASSERT_TRUE(file->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(done, 6u);  // a read crossing the end is short
  EXPECT_EQ(std::string(buffer, done), "456789");
  ASSERT_TRUE(file->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(done, 0u);  // at the end: success with nothing read
  ASSERT_TRUE(file->Seek(1u << 20));
  ASSERT_TRUE(file->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(done, 0u);

  // A read-only open refuses writes; the reason is kept.
  EXPECT_FALSE(file->Write("z", 1, &done));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
  // An offset past what the system can address is refused, not wrapped.
  EXPECT_FALSE(file->Seek(std::numeric_limits<uint64_t>::max()));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(file->Seek(uint64_t{1} << 63));

  // ReadWriteExisting keeps what is there.  The read-only handle shares
  // only reading, so it is closed first.
  file.reset();
  auto rw = machine_->Open(path, OpenMode::ReadWriteExisting);
  ASSERT_NE(rw, nullptr);
  ASSERT_TRUE(rw->Seek(2));
  WriteAll(*rw, "XY");
  ASSERT_TRUE(rw->Seek(0));
  ASSERT_TRUE(rw->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(std::string(buffer, done), "01XY456789");
}

TEST_F(Win32Machine, FailedOpensTellWhyAndFilesAreNoDisks) {
  EXPECT_EQ(machine_->Open(folder_ + "\\missing.bin", OpenMode::ReadExisting), nullptr);
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(machine_->Open(folder_ + "\\no\\such\\dir.bin", OpenMode::CreateAlways), nullptr);
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(machine_->Open(std::string("a\0b", 3), OpenMode::ReadExisting), nullptr);
  EXPECT_EQ(machine_->Open("\\\\.\\PhysicalDrive99", OpenMode::ProbeRead), nullptr);
  EXPECT_NE(machine_->LastError(), 0u);

  EXPECT_TRUE(machine_->PathExists(folder_));
  EXPECT_FALSE(machine_->PathExists(folder_ + "\\missing.bin"));

  // Plain files answer no disk query.
  const std::string path = PathOf("plain.bin");
  WriteAll(*machine_->Open(path, OpenMode::CreateAlways), std::string(512, '\0'));
  auto file = machine_->Open(path, OpenMode::ReadExisting);
  ASSERT_NE(file, nullptr);
  DiskGeometry g;
  uint64_t a = 0, b = 0;
  LayoutEntry e;
  EXPECT_FALSE(file->GetDriveGeometry(&g) || file->GetDriveGeometryEx(&g, &a) || file->GetPartitionInfo(&a, &b) ||
               file->GetDriveLayoutEx(&e) || file->GetDriveLayout(&e));
}

TEST_F(Win32Machine, FileOutlivesItsMachine) {
  const std::string path = PathOf("late.bin");
  WriteAll(*machine_->Open(path, OpenMode::CreateAlways), "late");
  auto file = machine_->Open(path, OpenMode::ReadExisting);
  ASSERT_NE(file, nullptr);
  machine_.reset();
  char buffer[4];
  uint32_t done = 0;
  EXPECT_TRUE(file->Read(buffer, 4, &done));
  EXPECT_FALSE(file->Write(buffer, 4, &done));
}

// A key of the test's own under HKEY_LOCAL_MACHINE, removed afterwards.
class Win32Registry : public Win32Machine {
 protected:
  static constexpr const char* kKey = "SOFTWARE\\DiskholdWin32Test";
  void SetUp() override {
    Win32Machine::SetUp();
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
      GTEST_SKIP() << "cannot create a test key under HKEY_LOCAL_MACHINE";
    }
    Set(key, "text", REG_SZ, "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0", 36);
    Set(key, "unterminated", REG_SZ, "ABCD", 4);
    const uint8_t record[12] = {0x78, 0x56, 0x34, 0x12, 0, 0, 0x10, 0, 0, 0, 0, 0};
    Set(key, "record", REG_BINARY, record, sizeof record);
    const DWORD count = 3;
    Set(key, "Count", REG_DWORD, &count, sizeof count);
    const std::string large(5000, 'L');
    Set(key, "large", REG_SZ, large.c_str(), static_cast<DWORD>(large.size() + 1));
    Set(key, "empty", REG_BINARY, nullptr, 0);
    RegCloseKey(key);
  }
  void TearDown() override {
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, kKey);
    Win32Machine::TearDown();
  }
  static void Set(HKEY key, const char* name, DWORD type, const void* data, DWORD size) {
    ASSERT_EQ(RegSetValueExA(key, name, 0, type, static_cast<const BYTE*>(data), size), ERROR_SUCCESS);
  }
};

TEST_F(Win32Registry, TextAndBinaryValues) {
  std::string text;
  ASSERT_TRUE(machine_->RegQueryString(kKey, "text", &text));
  EXPECT_EQ(text, "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0");
  ASSERT_TRUE(machine_->RegQueryString(kKey, "unterminated", &text));
  EXPECT_EQ(text, "ABCD");
  // Longer than the program's 4,096-byte buffer: not read at all.
  EXPECT_FALSE(machine_->RegQueryString(kKey, "large", &text));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_MORE_DATA));
  EXPECT_FALSE(machine_->RegQueryString(kKey, "Count", &text));  // a number is not a text
  EXPECT_FALSE(machine_->RegQueryString(kKey, "missing", &text));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(machine_->RegQueryString("SOFTWARE\\DiskholdNoSuchKey", "text", &text));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));

  std::vector<uint8_t> data;
  ASSERT_TRUE(machine_->RegQueryBinary(kKey, "record", &data));
  EXPECT_EQ(data, (std::vector<uint8_t>{0x78, 0x56, 0x34, 0x12, 0, 0, 0x10, 0, 0, 0, 0, 0}));
  ASSERT_TRUE(machine_->RegQueryBinary(kKey, "Count", &data));
  EXPECT_EQ(data, (std::vector<uint8_t>{3, 0, 0, 0}));
  ASSERT_TRUE(machine_->RegQueryBinary(kKey, "large", &data));
  EXPECT_EQ(data.size(), 5001u);
  ASSERT_TRUE(machine_->RegQueryBinary(kKey, "empty", &data));
  EXPECT_TRUE(data.empty());
  EXPECT_FALSE(machine_->RegQueryBinary(kKey, "missing", &data));
}

TEST_F(Win32Machine, MountManager) {
  const std::vector<std::string> roots = machine_->LogicalDriveStrings();
  ASSERT_FALSE(roots.empty());
  for (const std::string& root : roots) {
    ASSERT_EQ(root.size(), 3u) << root;
    EXPECT_EQ(root.substr(1), ":\\");
  }
  std::string volume;
  if (machine_->VolumeNameForMountPoint(roots.front(), &volume)) {
    EXPECT_EQ(volume.rfind("\\\\?\\Volume{", 0), 0u) << volume;
    EXPECT_EQ(volume.back(), '\\');
  }
  EXPECT_FALSE(machine_->VolumeNameForMountPoint("not a mount point", &volume));
  EXPECT_NE(machine_->LastError(), 0u);
}

TEST_F(Win32Machine, VersionAndRights) {
  OsVersion version;
  ASSERT_TRUE(machine_->GetVersionEx(&version));
  EXPECT_EQ(version.platformId, 2u);
  EXPECT_GE(version.majorVersion, 5u);
  EXPECT_EQ(machine_->GetVersion() & 0x80000000u, 0u);
  EXPECT_EQ(machine_->GetVersion() & 0xFFu, version.majorVersion);
  bool elevated = false;
  EXPECT_TRUE(machine_->QueryElevation(&elevated));
}

TEST_F(Win32Machine, PumpHandlesOnlyQueuedMessages) {
  MSG message;
  while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
  }
  machine_->PumpOneMessage();  // nothing queued: returns at once
  ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER + 7, 0, 0));
  ASSERT_TRUE(PostThreadMessageA(GetCurrentThreadId(), WM_USER + 8, 0, 0));
  machine_->PumpOneMessage();
  ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
  EXPECT_EQ(message.message, static_cast<UINT>(WM_USER + 8));
  EXPECT_FALSE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
}

// Standard input is the null device and standard output a pipe unless the
// script feeds the piped-input test: console calls do nothing, and at the end
// of input every read answers at once.
TEST_F(Win32Machine, ConsoleWithoutConsoleAndKeysAtEndOfInput) {
  if (std::getenv("DISKHOLD_WIN32_PIPED_INPUT") != nullptr) GTEST_SKIP();
  machine_->ClearScreen();
  machine_->SetCursorPosition(2, 8);
  machine_->SetCursorPosition(-1, 70000);
  EXPECT_EQ(machine_->ReadKey(), -1);
  EXPECT_EQ(machine_->ReadKey(), -1);
  std::string line = "old";
  EXPECT_FALSE(machine_->ReadLine(&line));
}

// Run with standard input "yn\nsecond line\r\nlast" (no final line end).
TEST_F(Win32Machine, KeysAndLinesFromPipedInput) {
  if (std::getenv("DISKHOLD_WIN32_PIPED_INPUT") == nullptr) GTEST_SKIP();
  EXPECT_EQ(machine_->ReadKey(), 'y');
  EXPECT_EQ(machine_->ReadKey(), 'n');
  std::string line;
  ASSERT_TRUE(machine_->ReadLine(&line));
  EXPECT_EQ(line, "");
  ASSERT_TRUE(machine_->ReadLine(&line));
  EXPECT_EQ(line, "second line");
  ASSERT_TRUE(machine_->ReadLine(&line));
  EXPECT_EQ(line, "last");
  EXPECT_FALSE(machine_->ReadLine(&line));
  EXPECT_EQ(machine_->ReadKey(), -1);
}

TEST_F(Win32Machine, LocaleItemsAndNumberFormat) {
  for (LocaleItem item : {LocaleItem::LeadingZero, LocaleItem::Grouping, LocaleItem::DecimalSep,
                          LocaleItem::ThousandSep, LocaleItem::NegativeNumber}) {
    std::string value;
    EXPECT_TRUE(machine_->GetLocaleInfo(item, &value));
    EXPECT_LE(value.size(), 8u);
  }
  NumberFormat us;
  std::string out;
  ASSERT_TRUE(machine_->GetNumberFormat("1022.000000", us, &out));
  EXPECT_EQ(out, "1,022.00");
  ASSERT_TRUE(machine_->GetNumberFormat("1234567.891", us, &out));
  EXPECT_EQ(out, "1,234,567.89");
  NumberFormat german = us;
  german.decimalSep = ",";
  german.thousandSep = ".";
  ASSERT_TRUE(machine_->GetNumberFormat("500107862016.000000", german, &out));
  EXPECT_EQ(out, "500.107.862.016,00");
  EXPECT_FALSE(machine_->GetNumberFormat("12a", us, &out));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
}

TEST_F(Win32Machine, NamesEnvironmentAndMessages) {
  const std::string name = machine_->ComputerName();
  EXPECT_FALSE(name.empty());
  EXPECT_LE(name.size(), 14u);

  ASSERT_TRUE(SetEnvironmentVariableA("DISKHOLD_TEST_VALUE", "C:"));
  std::string value;
  ASSERT_TRUE(machine_->GetEnv("DISKHOLD_TEST_VALUE", &value));
  EXPECT_EQ(value, "C:");
  const std::string longValue(5000, 'v');
  ASSERT_TRUE(SetEnvironmentVariableA("DISKHOLD_TEST_VALUE", longValue.c_str()));
  ASSERT_TRUE(machine_->GetEnv("DISKHOLD_TEST_VALUE", &value));
  EXPECT_EQ(value, longValue);
  ASSERT_TRUE(SetEnvironmentVariableA("DISKHOLD_TEST_VALUE", nullptr));
  SetLastError(ERROR_ACCESS_DENIED);  // an older failure must not leak in
  EXPECT_FALSE(machine_->GetEnv("DISKHOLD_TEST_VALUE", &value));
  EXPECT_EQ(machine_->LastError(), static_cast<uint32_t>(ERROR_ENVVAR_NOT_FOUND));

  std::string text;
  ASSERT_TRUE(machine_->SystemMessageText(ERROR_FILE_NOT_FOUND, &text));
  ASSERT_GE(text.size(), 3u);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
  EXPECT_FALSE(machine_->SystemMessageText(0x2DEADBEu, &text));
}

}  // namespace
}  // namespace dh::platform
