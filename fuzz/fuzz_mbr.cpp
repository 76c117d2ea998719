// Sector 0 and the extended chain: the input is a selector byte and then the
// first sectors of a 16 MiB disk (zeros after them), so that EBR links into
// the input land on fuzzed sectors.  Every input is listed, which must not
// write, and then one command of the table below runs on a fresh copy of
// the image; it may change only the bytes its row names.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

using dh::fuzz::Bytes;
using dh::fuzz::Ranges;

constexpr uint64_t kDiskSectors = 16 * 2048;  // 16 MiB
const char kImage[] = "/fz/disk0.img";

// Byte ranges of sector 0 by what a command rewrites.
Ranges Entries() { return Ranges().Add(446, 510); }
Ranges Nothing() { return Ranges(); }

struct Row {
  std::vector<std::string> args;  // "/disk=0 /confirm" are added
  Ranges allowed;
  bool usesPart = false;  // gets "/part=N" from the selector
};

const std::vector<Row>& Table() {
  static const std::vector<Row> rows = {
      {{"/hide"}, Entries(), true},
      {{"/unhide"}, Entries(), true},
      {{"/active"}, Entries(), true},
      {{"/inactive"}, Entries(), true},
      {{"/inactive", "/part=*"}, Entries()},
      {{"/type=0C"}, Entries(), true},
      {{"/type=255d"}, Entries(), true},
      {{"/del"}, Entries(), true},
      {{"/del", "/part=*"}, Entries()},
      {{"/sort"}, Entries()},
      {{"/create", "/size=64"}, Entries()},
      {{"/create", "/start=freespace", "/size=max", "/align=4", "/type=12"}, Entries()},
      {{"/create", "/start=100", "/size=16"}, Entries()},
      {{"/status=7"}, Ranges().Add(434, 435)},
      {{"/signature=Zero"}, Ranges().Add(440, 444)},
      {{"/signature=Generate"}, Ranges().Add(440, 444)},
      {{"/signature=Write", "/value=1F2E3D4C"}, Ranges().Add(440, 444)},
      {{"/repair=XP"}, Ranges().Add(0, 446).Add(510, 512)},
      {{"/repair=Win7"}, Ranges().Add(0, 446).Add(510, 512)},
      {{"/wipe=mbr"}, Ranges().Sectors(0, 1)},
      {{"/wipe=track0"}, Ranges().Sectors(0, 63)},
      {{"/copy", "/source=0", "/target=5"}, Ranges().Sectors(5, 1)},
      {{"/format"}, Nothing(), true},
      {{"/issorted"}, Nothing()},
      {{"/status"}, Nothing()},
      {{"/partcount"}, Nothing()},
      {{"/signature=Read"}, Nothing()},
      {{"/volumeid=Read"}, Nothing(), true},
      {{"/info"}, Nothing()},
      {{"/tablist"}, Nothing()},
      {{"/show=Sector", "/sector=1"}, Nothing()},
      {{"/compare", "/source=0", "/target=1"}, Nothing()},
  };
  return rows;
}

dh::platform::sim::MachineDescription Machine(bool removable) {
  dh::platform::sim::MachineDescription d;
  d.hasCodePage = true;
  d.drives.push_back(dh::fuzz::Drive(
      0, kImage, removable ? dh::platform::sim::MediaKind::Removable : dh::platform::sim::MediaKind::Fixed));
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 64 * dh::fuzz::kSector + 1) return -1;
  const uint8_t selector = data[0];
  const dh::fuzz::MemFile image = dh::fuzz::ImageFromInput(data + 1, size - 1, kDiskSectors);
  const bool removable = (selector & 0x80) != 0;
  const auto description = Machine(removable);
  auto host = std::make_shared<dh::fuzz::MemMachine>();

  // A listing of everything reads the whole chain and every volume.
  host->Put(kImage, image);
  const std::vector<std::string> list = {"/list", "/logical", "/freespace", "/disk=0"};
  dh::fuzz::RunProgram(host, description, list);
  dh::fuzz::RequireNoWrites(*host, {}, dh::fuzz::Describe(list));

  const std::vector<Row>& rows = Table();
  const Row& row = rows[(selector & 0x7F) % rows.size()];
  std::vector<std::string> args = row.args;
  args.push_back("/disk=0");
  args.push_back("/confirm");
  if (row.usesPart) args.push_back("/part=" + std::to_string(1 + (selector >> 5) % 6));
  host->Put(kImage, image);
  dh::fuzz::RunProgram(host, description, args);
  dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), row.allowed, dh::fuzz::Describe(args));
  dh::fuzz::RequireNoWrites(*host, {kImage}, dh::fuzz::Describe(args));

  // A backup of track 0 restored at once gives the image back unchanged.
  if ((selector & 0x60) == 0x60) {
    host->Put(kImage, image);
    const std::vector<std::string> save = {"/save=track0", "/disk=0", "/filename=t.dhb"};
    dh::fuzz::RunProgram(host, description, save);
    const std::vector<std::string> restore = {"/restore=track0", "/disk=0", "/filename=t.dhb", "/confirm"};
    dh::fuzz::RunProgram(host, description, restore);
    dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), Nothing(), "save=track0 then restore=track0");
  }
  return 0;
}
