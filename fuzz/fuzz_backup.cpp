// The backup file: its header and the sectors after it.  The input is a
// selector byte and then the file "b.dhb"; show=File and compare read it
// and must write nothing, and each restore= may write only inside its area
// of the 16 MiB disk it restores to (never the file).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_images.h"
#include "fuzz_support.h"

namespace {

using dh::fuzz::Ranges;

const char kImage[] = "/fz/disk0.img";
const char kFile[] = "b.dhb";

struct Row {
  std::vector<std::string> args;  // "/disk=0 /filename=b.dhb /confirm" are added
  Ranges allowed;
};

const std::vector<Row>& Table() {
  static const std::vector<Row> rows = {
      {{"/show=File"}, Ranges()},
      {{"/show=File", "/nohdr"}, Ranges()},
      {{"/compare", "/source=0", "/target=b.dhb"}, Ranges()},
      {{"/compare", "/source=b.dhb", "/target=2048"}, Ranges()},
      {{"/restore=mbr"}, Ranges().Sectors(0, 1)},
      {{"/restore=track0"}, Ranges().Sectors(0, 63)},
      {{"/restore=vbr", "/part=1"}, Ranges().Sectors(2048, 8192)},
      {{"/restore=vbr", "/part=2"}, Ranges().Sectors(10240, 8192)},
      {{"/restore=5"}, Ranges().Sectors(5, 1)},
      // No partition of the disk's tables may be touched by a GPT restore.
      {{"/restore=gpt"}, dh::fuzz::PartitionSectors(dh::fuzz::MbrDisk())},
      {{"/restore=disk"}, Ranges().Sectors(0, 32768)},
  };
  return rows;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 96 * dh::fuzz::kSector) return -1;
  static const dh::fuzz::MemFile disk = dh::fuzz::MbrDisk();
  dh::platform::sim::MachineDescription description;
  description.hasCodePage = true;
  description.drives.push_back(dh::fuzz::Drive(0, kImage));
  auto host = std::make_shared<dh::fuzz::MemMachine>();
  host->Put(kImage, disk);
  host->Put(kFile, dh::fuzz::MemFile(data + 1, size - 1, size - 1));

  const Row& row = Table()[data[0] % Table().size()];
  std::vector<std::string> args = row.args;
  args.insert(args.end(), {"/disk=0", "/filename=b.dhb", "/confirm"});
  dh::fuzz::RunProgram(host, description, args);
  const std::string what = dh::fuzz::Describe(args);
  dh::fuzz::RequireNoWrites(*host, {kImage}, what);
  dh::fuzz::RequireOnlyChanged(disk, host->Get(kImage), row.allowed, what);
  return 0;
}
