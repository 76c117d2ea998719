// The boot-record reader: FAT, exFAT, NTFS, HFS+ and BitLocker boot
// sectors, the FAT root directory, the exFAT root directory's cluster
// chain, NTFS file records with their attributes and run lists.  The input
// is a selector byte and then the first sectors of the partition at 2048
// of a 64 MiB disk whose one MBR entry takes its type from the selector.
// Loading the disk reads the label; detection, label and volume ID are
// then read again directly.  Reading must never write.
#include <cstddef>
#include <cstdint>
#include <string>

#include "disk/volume.h"
#include "fuzz_images.h"
#include "fuzz_support.h"

namespace {

constexpr uint64_t kDiskSectors = 64 * 2048;
constexpr uint64_t kStart = 2048;
const uint8_t kTypes[] = {0x07, 0x0C, 0x0B, 0x06, 0x0E, 0x04, 0x17, 0xAF, 0x27, 0x1C};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 256 * dh::fuzz::kSector + 1) return -1;
  static dh::fuzz::DirectDisk disk;
  dh::fuzz::Bytes mbr = dh::fuzz::SimpleMbr(static_cast<uint32_t>(kDiskSectors));
  mbr[446 + 4] = kTypes[data[0] % sizeof kTypes];
  dh::fuzz::MemFile image(mbr.data(), mbr.size(), kDiskSectors * dh::fuzz::kSector);
  image.Write(kStart * dh::fuzz::kSector, data + 1, size - 1);
  dh::DiskSet& d = disk.Load(image);

  std::string name;
  const dh::FileSystemKind kind = dh::ReadPartitionBootSector(d, kStart, &name);
  dh::ReadVolumeEncrypted(d, kStart);
  dh::ReadVolumeLabel(kind, d, kStart);
  dh::ReadExfatLabel(d.Device(), kStart);
  dh::ReadNtfsLabel(d.machine(), d.Device(), kStart);
  dh::VolumeIdText(d, 1);
  dh::VolumeIdTextAt(d, kStart);
  dh::fuzz::RequireNoWrites(*disk.host, {}, "reading the volume");
  return 0;
}
