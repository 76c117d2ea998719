// The MBR table reader and its extended-chain walk on an in-memory drive:
// the input is a selector byte and then the first sectors of a 16 MiB disk
// (zeros after them), so that EBR links into the input land on fuzzed
// sectors; selector bit 0x80 makes the drive removable, where a volume
// without table stands for its one partition.  Loading reads the table and
// every volume's label; it must not write, and the table must agree with
// itself however its chain runs.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 64 * dh::fuzz::kSector + 1) return -1;
  using dh::platform::sim::MediaKind;
  static dh::fuzz::DirectDisk disk;
  const dh::fuzz::MemFile image = dh::fuzz::ImageFromInput(data + 1, size - 1, 16 * 2048);
  dh::DiskSet& d = disk.Load(image, (data[0] & 0x80) != 0 ? MediaKind::Removable : MediaKind::Fixed);
  for (int32_t kind : {dh::kKindAll, dh::kKindPrimary, dh::kKindLogical}) {
    const auto records = dh::Partitions(d, kind);
    dh::fuzz::Require(static_cast<int32_t>(records.size()) == dh::PartitionCount(d, kind), "count and records differ");
    for (size_t i = 0; i < records.size(); ++i) {
      dh::fuzz::Require(dh::GetPartition(d, static_cast<int32_t>(i + 1), kind) == records[i], "lookup and records differ");
    }
  }
  if (d.Table() != nullptr) d.Table()->OccupiedSectors();
  dh::KnownPartitionSectors(d);
  dh::fuzz::RequireNoWrites(*disk.host, {}, "loading the MBR");
  return 0;
}
