// The VMware descriptor parser: the input is a selector byte and then the
// text of "/fz/d.vmdk", whose extent lines may name the flat file
// "d-flat.vmdk" and the sparse extent "d-s001.vmdk" beside it (or anything
// else).  The disk opens as the program opens it (read-only, or for writing
// with selector bit 0x01) and its first sectors are read.  Opening writes
// nothing.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_images.h"
#include "fuzz_support.h"
#include "vdisk/vmdk.h"

namespace {

const char kDescriptor[] = "/fz/d.vmdk";
const char kFlat[] = "/fz/d-flat.vmdk";
const char kSparse[] = "/fz/d-s001.vmdk";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 16384) return -1;
  static const dh::fuzz::Bytes mbr = dh::fuzz::SimpleMbr(4096);
  static const dh::fuzz::MemFile flat(mbr.data(), mbr.size(), 2048 * dh::fuzz::kSector);
  static const dh::fuzz::MemFile sparse(dh::fuzz::SparseExtent(2048, 8, "", mbr));
  dh::fuzz::MemMachine host;
  host.Put(kDescriptor, dh::fuzz::MemFile(data + 1, size - 1, size - 1));
  host.Put(kFlat, flat);
  host.Put(kSparse, sparse);
  const auto disk = dh::OpenVmdk(kDescriptor, host, (data[0] & 1) != 0);
  if (disk->opened && disk->errorCode == dh::kSuccess && disk->device.IsOpen()) {
    uint8_t sectors[8 * 512];
    dh::ReadFull(disk->device, 0, sectors, sizeof sectors);
    uint64_t start = 0, end = 0;
    disk->device.NextData(0, &start, &end);
  }
  dh::fuzz::RequireNoWrites(host, {}, "opening the descriptor");
  return 0;
}
