// The grain mapper of hosted sparse extents: the input is a selector byte
// and then a whole sparse extent file (header, grain directories, grain
// tables, grains), the same inputs as fuzz_commands takes for a VMware
// sparse disk.  The layout opens over the in-memory file with one extent
// line of the header's capacity, which runs the grain-table check; the
// virtual disk is then read and its data ranges walked.  Nothing may be
// written, and a layout found damaged must refuse a write before it starts.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/le.h"
#include "fuzz_support.h"
#include "vdisk/vmdk_extent.h"

namespace {

const char kFile[] = "/fz/s.vmdk";
constexpr uint64_t kReadBytes = 4096 * dh::fuzz::kSector;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 128 * dh::fuzz::kSector + 1) return -1;
  using dh::platform::OpenMode;
  dh::fuzz::MemMachine host;
  host.Put(kFile, dh::fuzz::MemFile(data + 1, size - 1, size - 1));
  const uint64_t capacity = size >= 21 ? dh::LoadLe64(data + 1 + dh::vmdk::kHdrCapacity) : 0;
  const std::string descriptor = "RW " + std::to_string(capacity) + " SPARSE \"s.vmdk\"\n";
  const bool writable = (data[0] & 1) != 0;
  std::unique_ptr<dh::vmdk::VmdkFile> disk;
  const auto opener = [&host](const std::string& path, bool canWrite) {
    return host.Open(path, canWrite ? OpenMode::ReadWriteExisting : OpenMode::ReadExisting);
  };
  if (dh::vmdk::VmdkFile::Open(descriptor, kFile, true, opener, writable, &disk) != dh::kSuccess) {
    dh::fuzz::RequireNoWrites(host, {}, "opening the layout");
    return 0;
  }
  dh::fuzz::Require(disk->WritesRefused() == !disk->Damage().empty(), "damage and refusal differ");
  uint64_t bytes = 0;
  dh::fuzz::Require(disk->Size(&bytes) && bytes == disk->CapacityBytes(), "size and capacity differ");
  static dh::fuzz::Bytes buffer(64 * 1024);
  for (uint64_t at = 0; at < bytes && at < kReadBytes; at += buffer.size()) {
    uint32_t got = 0;
    if (!disk->Seek(at) || !disk->Read(buffer.data(), static_cast<uint32_t>(buffer.size()), &got)) break;
  }
  uint64_t start = 0, end = 0;
  for (int i = 0; i < 4096 && end < bytes && disk->NextData(end, &start, &end); ++i) {
    dh::fuzz::Require(start < end && end <= bytes, "a data range outside the disk");
  }
  if (writable && disk->WritesRefused()) {
    uint32_t done = 0;
    dh::fuzz::Require(disk->Seek(0) && !disk->Write(buffer.data(), 512, &done) && done == 0,
                      "a damaged layout took a write");
  }
  dh::fuzz::RequireNoWrites(host, {}, "reading the layout");
  return 0;
}
