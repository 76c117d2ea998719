// Hosted sparse extents: the input is a selector byte and then a whole
// monolithicSparse file (header, embedded descriptor, grain directories,
// grain tables and grains).  The disk opens as drive 0 or by /disk=<path>;
// one command runs on it, and the file must still open afterwards.
#include <cstddef>
#include <cstdint>

#include "fuzz_vmdk.h"

namespace {

const char kFile[] = "/fz/s.vmdk";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 128 * dh::fuzz::kSector + 1) return -1;
  auto host = std::make_shared<dh::fuzz::MemMachine>();
  host->Put(kFile, dh::fuzz::MemFile(data + 1, size - 1, size - 1));
  const auto& rows = dh::fuzz::VirtualDiskRows();
  dh::fuzz::CheckVirtualDiskRun(host, kFile, {kFile}, (data[0] & 0x80) != 0, rows[(data[0] & 0x7F) % rows.size()]);
  return 0;
}
