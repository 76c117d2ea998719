// The GPT header and entry reader on an in-memory drive: the input is a
// selector byte (unused, kept so that the seeds serve fuzz_commands too), a
// count T of tail sectors, and then the sectors of a 1 MiB disk: the last
// T sectors of the data end the disk (where the backup table lives), the
// rest start it.  Loading checks both copies and picks the entries; it
// must not write, and the sizes that save and wipe take from the header
// must stay inside the disk.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"
#include "gpt/gpt_table.h"

namespace {

constexpr uint64_t kDiskSectors = 2048;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 80 * dh::fuzz::kSector + 2) return -1;
  static dh::fuzz::DirectDisk disk;
  dh::DiskSet& d = disk.Load(dh::fuzz::TailImage(data + 2, size - 2, data[1] % 64, kDiskSectors));
  if (const dh::GptTable* gpt = dh::GptOf(d)) {
    dh::fuzz::Require(gpt->entries.size() == gpt->details.size(), "entries and details differ");
    if (dh::GptHeaderValid(d)) {
      dh::fuzz::Require(dh::GptSaveSectorCount(d) <= kDiskSectors, "save=gpt reaches past the disk");
      dh::fuzz::Require(dh::GptWipeLastSector(d) < kDiskSectors, "wipe=gpt reaches past the disk");
    }
    d.Table()->OccupiedSectors();
  }
  dh::fuzz::RequireNoWrites(*disk.host, {}, "loading the GPT");
  return 0;
}
