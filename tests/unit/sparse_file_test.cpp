// Holes of plain files through the platform's File (SEEK_DATA/SEEK_HOLE,
// punching) and the hole-aware pieces of the bulk transfers on top of them.
#ifdef __linux__

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "disk/device.h"
#include "platform/linux/linux_machine.h"
#include "sectors/sparse_copy.h"

namespace dh {
namespace {

constexpr uint64_t kMiB = 1024 * 1024;

class SparseFile : public ::testing::Test {
 protected:
  SparseFile() : machine_(platform::linux_native::CreateLinuxMachine({})) {
    char name[] = "/tmp/dh_sparse_XXXXXX";
    const int fd = ::mkstemp(name);
    path_ = name;
    // 8 MiB of hole with data at 1 MiB and at 5 MiB + 4 KiB.
    EXPECT_EQ(0, ::ftruncate(fd, 8 * kMiB));
    const std::vector<uint8_t> data(64 * 1024, 0xAB);
    EXPECT_EQ(static_cast<ssize_t>(data.size()), ::pwrite(fd, data.data(), data.size(), kMiB));
    EXPECT_EQ(static_cast<ssize_t>(data.size()), ::pwrite(fd, data.data(), data.size(), 5 * kMiB + 4096));
    ::close(fd);
    file_ = machine_->Open(path_, platform::OpenMode::ReadWriteExisting);
  }
  ~SparseFile() override { std::remove(path_.c_str()); }

  uint64_t Allocated() const {
    struct stat st {};
    ::stat(path_.c_str(), &st);
    return static_cast<uint64_t>(st.st_blocks) * 512;
  }

  std::unique_ptr<platform::Machine> machine_;
  std::string path_;
  std::unique_ptr<platform::File> file_;
};

TEST_F(SparseFile, NextDataFindsTheRunsAndNothingPastTheLast) {
  ASSERT_TRUE(file_);
  uint64_t start = 0, end = 0;
  ASSERT_TRUE(file_->NextData(0, &start, &end));
  EXPECT_EQ(kMiB, start);
  EXPECT_LE(kMiB + 64 * 1024, end);
  EXPECT_GT(5 * kMiB, end);
  ASSERT_TRUE(file_->NextData(end, &start, &end));
  EXPECT_GE(5 * kMiB + 4096, start);
  EXPECT_FALSE(file_->NextData(6 * kMiB, &start, &end));
  EXPECT_FALSE(file_->NextData(9 * kMiB, &start, &end));
}

TEST_F(SparseFile, ZeroRangeZeroesInsideTheFileOnly) {
  ASSERT_TRUE(file_);
  const uint64_t before = Allocated();
  ASSERT_TRUE(file_->ZeroRange(kMiB + 512, 8192));
  EXPECT_FALSE(file_->ZeroRange(7 * kMiB, 2 * kMiB));  // past the end
  uint64_t size = 0;
  ASSERT_TRUE(file_->Size(&size));
  EXPECT_EQ(8 * kMiB, size);
  std::vector<uint8_t> got(3 * 4096);
  uint32_t done = 0;
  ASSERT_TRUE(file_->Seek(kMiB));
  ASSERT_TRUE(file_->Read(got.data(), static_cast<uint32_t>(got.size()), &done));
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_EQ(i >= 512 && i < 512 + 8192 ? 0 : 0xAB, got[i]) << i;
  }
  ASSERT_TRUE(file_->ZeroRange(0, 8 * kMiB));
  EXPECT_LE(Allocated(), before);
  std::vector<uint8_t> all(8 * kMiB, 0xFF);
  ASSERT_TRUE(file_->Seek(0));
  ASSERT_TRUE(file_->Read(all.data(), static_cast<uint32_t>(all.size()), &done));
  EXPECT_EQ(all.size(), done);
  EXPECT_EQ(std::vector<uint8_t>(8 * kMiB, 0), all);
}

TEST_F(SparseFile, HoleMapAnswersOnlyForWholeHolesInsideTheSize) {
  DeviceHandle device;
  device.Attach(std::move(file_), path_);
  HoleMap holes(device);
  struct Case {
    uint64_t offset, bytes;
    bool hole;
  } cases[] = {
      {0, kMiB, true},           {0, kMiB + 1, false},       {kMiB, 512, false},
      {2 * kMiB, kMiB, true},    {5 * kMiB, 4096, true},     {5 * kMiB, 8192, false},
      {6 * kMiB, 2 * kMiB, true}, {7 * kMiB, 2 * kMiB, false}, {0, 512, true},  // backwards
  };
  for (const Case& c : cases) EXPECT_EQ(c.hole, holes.IsHole(c.offset, c.bytes)) << c.offset << "+" << c.bytes;

  // ReadData gives what a plain read gives, reading only the data runs.
  std::vector<uint8_t> sparse(3 * kMiB, 0xEE);
  std::vector<uint8_t> plain(3 * kMiB, 0x11);
  bool failed = true;
  ASSERT_EQ(sparse.size(), ReadData(device, holes, 4 * kMiB - 512, sparse.data(), 3 * kMiB, &failed));
  EXPECT_FALSE(failed);
  ASSERT_EQ(plain.size(), ReadFull(device, 4 * kMiB - 512, plain.data(), 3 * kMiB));
  EXPECT_EQ(plain, sparse);
  EXPECT_FALSE(AllZero(sparse.data(), sparse.size()));
  // Past the end it reads what a plain read does: nothing.
  EXPECT_EQ(4096u, ReadData(device, holes, 8 * kMiB - 4096, sparse.data(), 8192, &failed));
}

TEST(SparseWrite, LeavesZeroBlocksOutAndWritesTheRestAtTheirPlace) {
  char name[] = "/tmp/dh_sparse_XXXXXX";
  ::close(::mkstemp(name));
  auto machine = platform::linux_native::CreateLinuxMachine({});
  DeviceHandle out;
  out.Attach(machine->Open(name, platform::OpenMode::CreateAlways), name);
  std::vector<uint8_t> data(64 * 1024, 0);
  data[100] = 1;            // in the first, partial, block
  data[20000] = 2;          // a block in the middle
  data.back() = 3;          // the last block
  uint64_t end = 0;
  ASSERT_TRUE(WriteSparse(out, 512, data.data(), static_cast<uint32_t>(data.size()), &end));
  EXPECT_EQ(512 + data.size(), end);
  std::vector<uint8_t> back(512 + data.size());
  DeviceHandle in;
  in.Attach(machine->Open(name, platform::OpenMode::ReadExisting), name);
  ASSERT_TRUE(in.IsOpen());
  ASSERT_EQ(back.size(), ReadFull(in, 0, back.data(), static_cast<uint32_t>(back.size())));
  EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin() + 512));
  EXPECT_TRUE(AllZero(back.data(), 512));
  EXPECT_FALSE(AllZero(back.data(), back.size()));
  struct stat st {};
  ::stat(name, &st);
  EXPECT_LE(static_cast<uint64_t>(st.st_blocks) * 512, 3 * 4096u);
  std::remove(name);
}

}  // namespace
}  // namespace dh

#endif  // __linux__
