// Volume boot records: FAT, exFAT, NTFS and BitLocker boot sectors, the FAT
// root directory, the exFAT root directory's cluster chain, NTFS file
// records with their attributes and run lists.  The input is a
// selector byte and then the first sectors of the partition at 2048 of a
// 64 MiB disk; the selector picks the partition's type and the command.
// Reading labels and serial numbers must never write; a saved boot record
// restored at once gives the disk back unchanged.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/le.h"
#include "fuzz_images.h"
#include "fuzz_support.h"

namespace {

constexpr uint64_t kDiskSectors = 64 * 2048;
constexpr uint64_t kStart = 2048;
const char kImage[] = "/fz/vol.img";

const uint8_t kTypes[] = {0x07, 0x0C, 0x0B, 0x06, 0x0E, 0x04, 0x17, 0xAF, 0x27, 0x1C};

const std::vector<std::vector<std::string>>& Queries() {
  static const std::vector<std::vector<std::string>> rows = {
      {"/volumeid=Read", "/part=1"},
      {"/list", "/vol=DATA"},
      {"/volumeid=Read", "/vol=D:"},
      {"/info"},
      {"/format", "/part=1"},
      {"/save=vbr", "/part=1", "/filename=v.dhb"},
  };
  return rows;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 256 * dh::fuzz::kSector + 1) return -1;
  const uint8_t selector = data[0];
  dh::fuzz::Bytes mbr = dh::fuzz::SimpleMbr(static_cast<uint32_t>(kDiskSectors));
  mbr[446 + 4] = kTypes[selector % sizeof kTypes];
  dh::fuzz::MemFile image(mbr.data(), mbr.size(), kDiskSectors * dh::fuzz::kSector);
  image.Write(kStart * dh::fuzz::kSector, data + 1, size - 1);

  dh::platform::sim::MachineDescription description;
  description.hasCodePage = true;
  description.drives.push_back(dh::fuzz::Drive(0, kImage));
  // A drive letter on the partition, so that /vol= finds it by letter too.
  dh::platform::sim::VolumeDescription volume;
  volume.letter = 'D';
  volume.drive = 0;
  volume.hasOffset = true;
  volume.offset = kStart * dh::fuzz::kSector;
  volume.guid = "{00000000-0000-0000-0000-000000000001}";
  description.volumes.push_back(volume);
  auto host = std::make_shared<dh::fuzz::MemMachine>();

  host->Put(kImage, image);
  const std::vector<std::string> list = {"/list", "/disk=*"};
  dh::fuzz::RunProgram(host, description, list);
  dh::fuzz::RequireNoWrites(*host, {}, dh::fuzz::Describe(list));

  const std::vector<std::string>& query = Queries()[(selector >> 4) % Queries().size()];
  dh::fuzz::RunProgram(host, description, query);
  dh::fuzz::RequireNoWrites(*host, {"v.dhb"}, dh::fuzz::Describe(query), true);

  if ((selector & 0x08) != 0) {
    host->Put(kImage, image);
    dh::fuzz::RunProgram(host, description, {"/save=vbr", "/part=1", "/filename=v.dhb"});
    dh::fuzz::RunProgram(host, description, {"/restore=vbr", "/part=1", "/filename=v.dhb", "/confirm"});
    dh::fuzz::RequireOnlyChanged(image, host->Get(kImage), dh::fuzz::Ranges(), "save=vbr then restore=vbr");
  }
  return 0;
}
