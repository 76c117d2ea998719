// Tests of the win32 backend, run on Windows or under Wine (.ci/windows.sh
// builds and runs them): the decoders of the records the system hands back,
// and the file and device paths once each with the real Windows calls.
// The rest of the backend is compared with the Linux build command by
// command (tests/wine/commands.txt).
#include "platform/win32/win32_api.h"
#include "platform/win32/win32_records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <string>
#include <vector>

namespace dh::platform {
namespace {

using namespace win32;

// Copies a record to an odd address, as a driver's buffer need not be aligned
// for the decoder.
template <typename T>
std::vector<uint8_t> Misaligned(const T& record, size_t total = sizeof(T)) {
  std::vector<uint8_t> bytes(total + 1, 0);
  std::memcpy(bytes.data() + 1, &record, sizeof(T));
  return bytes;
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

TEST(Win32Records, GeometryPartitionLayoutsAndFormatCallbacks) {
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
  uint64_t size = 0;
  ASSERT_TRUE(DecodeGeometryEx(bytes.data() + 1, sizeof record, &g, &size));
  EXPECT_EQ(
      std::make_tuple(g.cylinders, g.mediaType, g.tracksPerCylinder, g.sectorsPerTrack, g.bytesPerSector, size),
      std::make_tuple(int64_t{0x123456789LL}, uint32_t{kMediaRemovable}, 255u, 63u, 4096u, uint64_t{0x12345678000ULL}));
  ASSERT_TRUE(DecodeGeometry(bytes.data() + 1, sizeof(DISK_GEOMETRY), &g));
  EXPECT_FALSE(DecodeGeometry(bytes.data() + 1, sizeof(DISK_GEOMETRY) - 1, &g));  // fewer bytes: failed
  PARTITION_INFORMATION partition;
  std::memset(&partition, 0, sizeof partition);
  partition.StartingOffset.QuadPart = 32256;
  partition.PartitionLength.QuadPart = 0x7FFFFFFFFFFFLL;
  const std::vector<uint8_t> info = Misaligned(partition);
  uint64_t start = 0, length = 0;
  ASSERT_TRUE(DecodePartitionInfo(info.data() + 1, sizeof partition, &start, &length));
  EXPECT_EQ(std::make_pair(start, length), std::make_pair(uint64_t{32256}, uint64_t{0x7FFFFFFFFFFFULL}));
  EXPECT_FALSE(DecodePartitionInfo(info.data() + 1, 15, &start, &length));

  LayoutEntry e;
  std::vector<uint8_t> mbr = LayoutEx(4, PARTITION_STYLE_MBR, 0x07, 1048576, 8589934592LL);
  ASSERT_TRUE(DecodeDriveLayoutEx(mbr.data(), mbr.size(), &e));
  EXPECT_EQ(std::make_tuple(e.present, e.partitionStyle, e.partitionType, e.startingOffset, e.partitionLength),
            std::make_tuple(true, 0u, uint8_t{0x07}, uint64_t{1048576}, uint64_t{8589934592ULL}));
  // A GPT entry has no type byte: its GUID must not be read as one.
  std::vector<uint8_t> gpt = LayoutEx(1, PARTITION_STYLE_GPT, 0, 17408, 4096);
  ASSERT_TRUE(DecodeDriveLayoutEx(gpt.data(), gpt.size(), &e));
  EXPECT_EQ(std::make_tuple(e.partitionStyle, e.partitionType), std::make_tuple(1u, uint8_t{0}));
  // An entry counted but not returned.
  EXPECT_FALSE(DecodeDriveLayoutEx(mbr.data(), win32::kLayoutExFirstEntry + 20, &e));
  std::vector<uint8_t> old(win32::kLayoutBufferSize, 0);
  auto* layout = reinterpret_cast<DRIVE_LAYOUT_INFORMATION*>(old.data());
  layout->PartitionCount = 4;
  layout->PartitionEntry[0].StartingOffset.QuadPart = 32256;
  layout->PartitionEntry[0].PartitionLength.QuadPart = 1000000000LL;
  layout->PartitionEntry[0].PartitionType = 0x0E;
  ASSERT_TRUE(DecodeDriveLayout(old.data(), old.size(), &e));
  EXPECT_EQ(std::make_tuple(e.present, e.partitionType, e.startingOffset, e.partitionLength),
            std::make_tuple(true, uint8_t{0x0E}, uint64_t{32256}, uint64_t{1000000000}));
  EXPECT_FALSE(DecodeDriveLayout(old.data(), 7, &e));

  DWORD percent = 42;
  BOOLEAN yes = TRUE;
  char line[] = "Creating file system structures.\n";
  struct {
    DWORD lines;
    PCHAR output;
  } text = {1, line};
  EXPECT_EQ(DecodeFormatCallback(0, &percent).percent, 42u);
  EXPECT_TRUE(DecodeFormatCallback(11, &yes).success);
  EXPECT_EQ(DecodeFormatCallback(14, &text).text, line);
  EXPECT_FALSE(DecodeFormatCallback(11, nullptr).success);  // no data
}

// A file in the temporary folder: created, truncated, read short at its
// end, refused writes and seeks, and no disk queries; a drive that is not
// there.
TEST(Win32Machine, FilesAndDevices) {
  std::unique_ptr<Machine> machine = CreateNativeMachine();
  char temp[MAX_PATH + 1] = {};
  ASSERT_NE(GetTempPathA(sizeof temp, temp), 0u);
  const std::string path = std::string(temp) + "diskhold-win32-" + std::to_string(GetCurrentProcessId()) + ".bin";
  uint32_t done = 0;
  for (const char* contents : {"a longer first content", "0123456789"}) {
    auto file = machine->Open(path, OpenMode::CreateAlways);
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(file->Write(contents, static_cast<uint32_t>(std::strlen(contents)), &done));
    EXPECT_TRUE(file->Flush());
  }
  auto file = machine->Open(path, OpenMode::ReadExisting);
  ASSERT_NE(file, nullptr);
  uint64_t size = 0;
  ASSERT_TRUE(file->Size(&size));
  EXPECT_EQ(size, 10u);
  char buffer[16] = {};
  ASSERT_TRUE(file->Seek(4));
  ASSERT_TRUE(file->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(std::string(buffer, done), "456789");  // short across the end
  ASSERT_TRUE(file->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(done, 0u);  // at the end: success with nothing read
  EXPECT_FALSE(file->Write("z", 1, &done));
  EXPECT_EQ(machine->LastError(), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
  DiskGeometry g;
  uint64_t a = 0, b = 0;
  LayoutEntry e;
  EXPECT_FALSE(file->GetDriveGeometry(&g) || file->GetDriveGeometryEx(&g, &a) || file->GetPartitionInfo(&a, &b) ||
               file->GetDriveLayoutEx(&e) || file->GetDriveLayout(&e));
  file.reset();
  auto rw = machine->Open(path, OpenMode::ReadWriteExisting);  // keeps what is there
  ASSERT_NE(rw, nullptr);
  ASSERT_TRUE(rw->Seek(2) && rw->Write("XY", 2, &done) && rw->Seek(0) && rw->Read(buffer, sizeof buffer, &done));
  EXPECT_EQ(std::string(buffer, done), "01XY456789");
  rw.reset();
  DeleteFileA(path.c_str());
  EXPECT_EQ(machine->Open(path, OpenMode::ReadExisting), nullptr);
  EXPECT_EQ(machine->LastError(), static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(machine->Open("\\\\.\\PhysicalDrive99", OpenMode::ProbeRead), nullptr);
  EXPECT_NE(machine->LastError(), 0u);
}

}  // namespace
}  // namespace dh::platform
