// VMware descriptors: the input is a selector byte and then the text of
// "/fz/d.vmdk", whose extent lines may name the flat file "d-flat.vmdk" and
// the sparse extent "d-s001.vmdk" beside it (or anything else).  The disk
// opens as drive 0 or by /disk=<path>; one command runs on it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_images.h"
#include "fuzz_vmdk.h"

namespace {

const char kDescriptor[] = "/fz/d.vmdk";
const char kFlat[] = "/fz/d-flat.vmdk";
const char kSparse[] = "/fz/d-s001.vmdk";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 16384) return -1;
  static const dh::fuzz::Bytes mbr = dh::fuzz::SimpleMbr(4096);
  static const dh::fuzz::Bytes sparse = dh::fuzz::SparseExtent(2048, 8, "", mbr);
  auto host = std::make_shared<dh::fuzz::MemMachine>();
  host->Put(kDescriptor, dh::fuzz::MemFile(data + 1, size - 1, size - 1));
  host->Put(kFlat, dh::fuzz::MemFile(mbr.data(), mbr.size(), 2048 * dh::fuzz::kSector));
  host->Put(kSparse, sparse);
  const auto& rows = dh::fuzz::VirtualDiskRows();
  dh::fuzz::CheckVirtualDiskRun(host, kDescriptor, {kFlat, kSparse}, (data[0] & 0x80) != 0,
                                rows[(data[0] & 0x7F) % rows.size()]);
  return 0;
}
