// Whole runs of the program, the one target that starts it: a selector byte
// picks a command of the table for the disk kind, and every command may
// change only the bytes its row names.  After the selector comes either a
// VMware sparse extent file (its magic "KDMV"), run as a virtual disk, or a
// layout byte L and disk sectors: with bit 7 of L a 16 MiB MBR disk, else a
// 1 MiB GPT disk; the low 6 bits of L count the sectors at the end of the
// data that end the disk (a backup GPT), the rest start it.  Every MBR and
// GPT input is first listed, which must not write.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_images.h"
#include "fuzz_support.h"
#include "fuzz_vmdk.h"

namespace {

using dh::fuzz::MemFile;
using dh::fuzz::Ranges;

const char kImage[] = "/fz/disk0.img";
const char kSparse[] = "/fz/s.vmdk";

Ranges Entries() { return Ranges().Add(446, 510); }

struct MbrRow {
  std::vector<std::string> args;  // "/disk=0 /confirm" are added
  Ranges allowed;
  bool usesPart = false;  // gets "/part=N" from the selector
};

const std::vector<MbrRow>& MbrRows() {
  static const std::vector<MbrRow> rows = {
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
      {{"/format"}, Ranges(), true},
      {{"/issorted"}, Ranges()},
      {{"/status"}, Ranges()},
      {{"/partcount"}, Ranges()},
      {{"/signature=Read"}, Ranges()},
      {{"/volumeid=Read"}, Ranges(), true},
      {{"/info"}, Ranges()},
      {{"/tablist"}, Ranges()},
      {{"/show=Sector", "/sector=1"}, Ranges()},
      {{"/compare", "/source=0", "/target=1"}, Ranges()},
  };
  return rows;
}

struct GptRow {
  std::vector<std::string> args;  // "/disk=0 /confirm" are added
  bool writes = false;            // may write outside partitions; else nothing
  bool usesPart = false;
  // Sectors from 0 that are the table's own and may be written whatever a
  // partition entry claims: the wipe always clears sector 0 and the header.
  uint64_t ownSectors = 0;
};

const std::vector<GptRow>& GptRows() {
  static const std::vector<GptRow> rows = {
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

dh::platform::sim::MachineDescription Machine(bool removable) {
  dh::platform::sim::MachineDescription d;
  d.hasCodePage = true;
  d.drives.push_back(dh::fuzz::Drive(
      0, kImage, removable ? dh::platform::sim::MediaKind::Removable : dh::platform::sim::MediaKind::Fixed));
  return d;
}

std::vector<std::string> WithDisk(std::vector<std::string> args, bool usesPart, int part) {
  args.push_back("/disk=0");
  args.push_back("/confirm");
  if (usesPart) args.push_back("/part=" + std::to_string(part));
  return args;
}

void RunMbr(uint8_t selector, const MemFile& image) {
  const auto description = Machine((selector & 0x80) != 0);
  auto host = std::make_shared<dh::fuzz::MemMachine>();
  host->Put(kImage, image);
  const std::vector<std::string> list = {"/list", "/logical", "/freespace", "/disk=0"};
  dh::fuzz::RunProgram(host, description, list);
  dh::fuzz::RequireNoWrites(*host, {}, dh::fuzz::Describe(list));

  const MbrRow& row = MbrRows()[(selector & 0x7F) % MbrRows().size()];
  const auto args = WithDisk(row.args, row.usesPart, 1 + (selector >> 5) % 6);
  host->Put(kImage, image);
  dh::fuzz::RunProgram(host, description, args);
  dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), row.allowed, dh::fuzz::Describe(args));
  dh::fuzz::RequireNoWrites(*host, {kImage}, dh::fuzz::Describe(args));

  // A saved area restored at once gives the image back unchanged.
  const char* area = (selector & 0x60) == 0x60 ? "track0" : (selector & 0x60) == 0x40 ? "vbr" : nullptr;
  if (area != nullptr) {
    host->Put(kImage, image);
    const std::string what = std::string("save=") + area + " then restore=" + area;
    dh::fuzz::RunProgram(host, description, {std::string("/save=") + area, "/disk=0", "/part=1", "/filename=t.dhb"});
    dh::fuzz::RunProgram(host, description,
                         {std::string("/restore=") + area, "/disk=0", "/part=1", "/filename=t.dhb", "/confirm"});
    dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), Ranges(), what);
  }
}

void RunGpt(uint8_t selector, const MemFile& image) {
  const auto description = Machine(false);
  auto host = std::make_shared<dh::fuzz::MemMachine>();
  host->Put(kImage, image);
  const std::vector<std::string> list = {"/list", "/disk=0", "/freespace"};
  dh::fuzz::RunProgram(host, description, list);
  dh::fuzz::RequireNoWrites(*host, {}, dh::fuzz::Describe(list));

  const GptRow& row = GptRows()[selector % GptRows().size()];
  const auto args = WithDisk(row.args, row.usesPart, 1 + (selector >> 4) % 5);
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
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 128 * dh::fuzz::kSector + 2) return -1;
  const uint8_t selector = data[0];
  if (size >= 5 && std::memcmp(data + 1, "KDMV", 4) == 0) {
    auto host = std::make_shared<dh::fuzz::MemMachine>();
    host->Put(kSparse, MemFile(data + 1, size - 1, size - 1));
    const auto& rows = dh::fuzz::VirtualDiskRows();
    dh::fuzz::CheckVirtualDiskRun(host, kSparse, {kSparse}, (selector & 0x80) != 0, rows[(selector & 0x7F) % rows.size()]);
    return 0;
  }
  const bool mbr = (data[1] & 0x80) != 0;
  const MemFile image = dh::fuzz::TailImage(data + 2, size - 2, data[1] & 0x3F, mbr ? 16 * 2048 : 2048);
  if (mbr) {
    RunMbr(selector, image);
  } else {
    RunGpt(selector, image);
  }
  return 0;
}
