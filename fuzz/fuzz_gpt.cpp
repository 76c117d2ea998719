// The GPT header and entry array: the input is a selector byte, a count T
// of tail sectors, and then the sectors of a 1 MiB disk: the last T
// sectors of the data end the disk (where the backup table lives), the rest
// start it.  Every input is listed, which must not write; then one command
// of the table runs, and a command that writes must leave alone every
// sector that a partition of the original tables holds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_images.h"
#include "fuzz_support.h"

namespace {

using dh::fuzz::MemFile;
using dh::fuzz::Ranges;

constexpr uint64_t kDiskSectors = 2048;
const char kImage[] = "/fz/gpt.img";

struct Row {
  std::vector<std::string> args;  // "/disk=0 /confirm" are added
  bool writes = false;            // may write outside partitions; else nothing
  bool usesPart = false;
  // Sectors from 0 that are the table's own and may be written whatever a
  // partition entry claims: the wipe always clears sector 0 and the header.
  uint64_t ownSectors = 0;
};

const std::vector<Row>& Table() {
  static const std::vector<Row> rows = {
      {{"/del"}, true, true},
      {{"/del", "/part=*"}, true},
      {{"/wipe=gpt"}, true, false, 2},
      {{"/partcount"}, false},
      {{"/tablist"}, false},
      {{"/list", "/part=*"}, false},
      // A fuzzed sector 0 that is no protective MBR makes an MBR disk, whose
      // entries these edit; they may write, but never into a partition.
      {{"/hide"}, true, true},
      {{"/active"}, true, true},
      {{"/sort"}, true},
      {{"/issorted"}, false},
      {{"/volumeid=Read"}, false, true},
      {{"/info"}, false},
      {{"/show=Sector", "/sector=1"}, false},
      {{"/save=gpt", "/filename=g.dhb"}, false},
  };
  return rows;
}

dh::platform::sim::MachineDescription Machine() {
  dh::platform::sim::MachineDescription d;
  d.hasCodePage = true;
  d.drives.push_back(dh::fuzz::Drive(0, kImage));
  return d;
}

MemFile ImageOf(const uint8_t* data, size_t size, size_t tailSectors) {
  const size_t tail = std::min(size, tailSectors * 512);
  MemFile image = dh::fuzz::ImageFromInput(data, size - tail, kDiskSectors);
  if (tail > 0) image.Write(kDiskSectors * 512 - tail, data + size - tail, tail);
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 80 * dh::fuzz::kSector + 2) return -1;
  const uint8_t selector = data[0];
  const MemFile image = ImageOf(data + 2, size - 2, data[1] % 64);
  const auto description = Machine();
  auto host = std::make_shared<dh::fuzz::MemMachine>();

  host->Put(kImage, image);
  const std::vector<std::string> list = {"/list", "/disk=0", "/freespace"};
  dh::fuzz::RunProgram(host, description, list);
  dh::fuzz::RequireNoWrites(*host, {}, dh::fuzz::Describe(list));

  const Row& row = Table()[selector % Table().size()];
  std::vector<std::string> args = row.args;
  args.push_back("/disk=0");
  args.push_back("/confirm");
  if (row.usesPart) args.push_back("/part=" + std::to_string(1 + (selector >> 4) % 5));
  host->Put(kImage, image);
  host->created = 0;
  dh::fuzz::RunProgram(host, description, args);
  const std::string what = dh::fuzz::Describe(args);
  if (row.writes) {
    Ranges allowed = dh::fuzz::PartitionSectors(image);
    if (row.ownSectors > 0) allowed.always.emplace_back(0, row.ownSectors * dh::fuzz::kSector);
    dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), allowed, what);
  } else {
    dh::fuzz::RequireNoWrites(*host, {"g.dhb"}, what, true);
  }

  // A saved GPT written back never reaches into a partition.
  if ((selector & 0xC0) == 0xC0) {
    host->Put(kImage, image);
    dh::fuzz::RunProgram(host, description, {"/save=gpt", "/disk=0", "/filename=g.dhb"});
    dh::fuzz::RunProgram(host, description, {"/restore=gpt", "/disk=0", "/filename=g.dhb", "/confirm"});
    dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), dh::fuzz::PartitionSectors(image),
                                 "save=gpt then restore=gpt");
  }
  return 0;
}
