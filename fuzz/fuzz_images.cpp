// Disks built in memory for the fuzz targets, and an independent reading of their tables.
#include "fuzz_images.h"

#include <algorithm>
#include <cstring>

#include "base/le.h"
#include "gpt/gpt_format.h"

namespace dh::fuzz {

namespace {

void PutEntry(uint8_t* sector, int slot, uint8_t boot, uint8_t type, uint32_t start, uint32_t count) {
  uint8_t* e = sector + 446 + 16 * slot;
  e[0] = boot;
  e[1] = 0xFE;
  e[2] = 0xFF;
  e[3] = 0xFF;
  e[4] = type;
  e[5] = 0xFE;
  e[6] = 0xFF;
  e[7] = 0xFF;
  StoreLe32(e + 8, start);
  StoreLe32(e + 12, count);
}

void Signature55Aa(uint8_t* sector) {
  sector[510] = 0x55;
  sector[511] = 0xAA;
}

// A FAT16 or FAT32 boot sector with a serial number, and for FAT16 the
// root directory's label entry right after the FATs.
void PutFat(MemFile& disk, uint64_t lba, bool fat32, uint32_t serial, const char* label) {
  Bytes s(512, 0);
  s[0] = 0xEB;
  s[1] = 0x3C;
  s[2] = 0x90;
  std::memcpy(s.data() + 3, "MSDOS5.0", 8);
  StoreLe16(s.data() + 11, 512);
  s[13] = 8;
  StoreLe16(s.data() + 14, fat32 ? 32 : 1);
  s[16] = 2;
  if (fat32) {
    StoreLe32(s.data() + 36, 16);
    StoreLe32(s.data() + 44, 2);
    StoreLe32(s.data() + 67, serial);
    std::memcpy(s.data() + 71, label, 11);
    std::memcpy(s.data() + 82, "FAT32   ", 8);
  } else {
    StoreLe16(s.data() + 17, 512);
    StoreLe16(s.data() + 22, 4);
    StoreLe32(s.data() + 39, serial);
    std::memcpy(s.data() + 43, label, 11);
    std::memcpy(s.data() + 54, "FAT16   ", 8);
  }
  Signature55Aa(s.data());
  disk.Write(lba * kSector, s.data(), s.size());
  Bytes dir(32, 0);
  std::memcpy(dir.data(), label, 11);
  dir[11] = 0x08;
  const uint64_t root = fat32 ? lba + 32 + 2 * 16 : lba + 1 + 2 * 4;
  disk.Write(root * kSector, dir.data(), dir.size());
}

void PutNtfs(MemFile& disk, uint64_t lba, uint64_t sectors) {
  Bytes s(512, 0);
  s[0] = 0xEB;
  s[1] = 0x52;
  s[2] = 0x90;
  std::memcpy(s.data() + 3, "NTFS    ", 8);
  StoreLe16(s.data() + 11, 512);
  s[13] = 8;
  s[21] = 0xF8;
  StoreLe64(s.data() + 40, sectors - 1);
  StoreLe64(s.data() + 48, 4);
  StoreLe64(s.data() + 56, 2);
  s[64] = 0xF6;  // 1 KiB records
  s[68] = 1;
  StoreLe64(s.data() + 72, 0x1122334455667788ull);
  Signature55Aa(s.data());
  disk.Write(lba * kSector, s.data(), s.size());
  // $Volume (record 3) with a resident volume name "DATA".
  Bytes r(1024, 0);
  std::memcpy(r.data(), "FILE", 4);
  StoreLe16(r.data() + 4, 48);
  StoreLe16(r.data() + 6, 3);
  StoreLe16(r.data() + 20, 56);
  uint8_t* a = r.data() + 56;
  StoreLe32(a, 0x60);
  StoreLe32(a + 4, 32);
  StoreLe32(a + 16, 8);
  StoreLe16(a + 20, 24);
  const char16_t name[] = u"DATA";
  for (int i = 0; i < 4; ++i) StoreLe16(a + 24 + 2 * i, static_cast<uint16_t>(name[i]));
  StoreLe32(a + 32, 0xFFFFFFFF);
  disk.Write((lba * kSector) + 4 * 8 * kSector + 3 * 1024, r.data(), r.size());
}

void PutGuid(uint8_t* at, uint32_t a, uint16_t b, uint16_t c, uint64_t d) {
  StoreLe32(at, a);
  StoreLe16(at + 4, b);
  StoreLe16(at + 6, c);
  for (int i = 0; i < 8; ++i) at[8 + i] = static_cast<uint8_t>(d >> (56 - 8 * i));
}

}  // namespace

Bytes SimpleMbr(uint32_t sectors) {
  Bytes s(512, 0);
  s[0] = 0x33;
  s[1] = 0xC0;
  StoreLe32(s.data() + 440, 0x1234ABCD);
  PutEntry(s.data(), 0, 0x80, 0x07, 2048, sectors - 2048);
  Signature55Aa(s.data());
  return s;
}

MemFile MbrDisk() {
  MemFile disk(nullptr, 0, 32768 * kSector);
  Bytes s(512, 0);
  s[0] = 0x33;
  s[1] = 0xC0;
  StoreLe32(s.data() + 440, 0x1234ABCD);
  PutEntry(s.data(), 0, 0x80, 0x07, 2048, 8192);
  PutEntry(s.data(), 1, 0x00, 0x0C, 10240, 8192);
  PutEntry(s.data(), 2, 0x00, 0x05, 18432, 14336);
  Signature55Aa(s.data());
  disk.Write(0, s.data(), s.size());
  Bytes ebr(512, 0);
  PutEntry(ebr.data(), 0, 0, 0x06, 63, 4000);
  PutEntry(ebr.data(), 1, 0, 0x05, 6000, 8000);
  Signature55Aa(ebr.data());
  disk.Write(18432 * kSector, ebr.data(), ebr.size());
  Bytes ebr2(512, 0);
  PutEntry(ebr2.data(), 0, 0, 0x0E, 63, 4000);
  Signature55Aa(ebr2.data());
  disk.Write(24432 * kSector, ebr2.data(), ebr2.size());
  PutNtfs(disk, 2048, 8192);
  PutFat(disk, 10240, true, 0xA1B2C3D4, "BACKUP     ");
  PutFat(disk, 18495, false, 0x01020304, "LOGIC1     ");
  PutFat(disk, 24495, false, 0x05060708, "LOGIC2     ");
  return disk;
}

MemFile GptDisk() {
  constexpr uint64_t kSectors = 2048;
  MemFile disk(nullptr, 0, kSectors * kSector);
  Bytes mbr(512, 0);
  PutEntry(mbr.data(), 0, 0, 0xEE, 1, kSectors - 1);
  Signature55Aa(mbr.data());
  disk.Write(0, mbr.data(), mbr.size());
  Bytes entries(128 * 128, 0);
  PutGuid(entries.data(), 0xC12A7328, 0xF81F, 0x11D2, 0xBA4B00A0C93EC93Bull);
  PutGuid(entries.data() + 16, 0x11111111, 0x2222, 0x3333, 0x4444555566667777ull);
  StoreLe64(entries.data() + 32, 34);
  StoreLe64(entries.data() + 40, 233);
  PutGuid(entries.data() + 128, 0xEBD0A0A2, 0xB9E5, 0x4433, 0x87C068B6B72699C7ull);
  PutGuid(entries.data() + 128 + 16, 0x11111111, 0x2222, 0x3333, 0x4444555566667778ull);
  StoreLe64(entries.data() + 128 + 32, 234);
  StoreLe64(entries.data() + 128 + 40, 2014);
  const char16_t name[] = u"Data";
  for (int i = 0; i < 4; ++i) StoreLe16(entries.data() + 128 + 56 + 2 * i, static_cast<uint16_t>(name[i]));
  const uint32_t arrayCrc = Crc32(entries.data(), entries.size());
  auto header = [&](uint64_t my, uint64_t alternate, uint64_t array) {
    Bytes h(512, 0);
    std::memcpy(h.data(), "EFI PART", 8);
    StoreLe32(h.data() + 8, 0x00010000);
    StoreLe32(h.data() + 12, 92);
    StoreLe64(h.data() + 24, my);
    StoreLe64(h.data() + 32, alternate);
    StoreLe64(h.data() + 40, 34);
    StoreLe64(h.data() + 48, 2014);
    PutGuid(h.data() + 56, 0xAF26138D, 0x3E87, 0x8448, 0xBF91DC2098A4270Eull);
    StoreLe64(h.data() + 72, array);
    StoreLe32(h.data() + 80, 128);
    StoreLe32(h.data() + 84, 128);
    StoreLe32(h.data() + 88, arrayCrc);
    StoreLe32(h.data() + 16, Crc32(h.data(), 92));
    return h;
  };
  const Bytes primary = header(1, kSectors - 1, 2);
  const Bytes backup = header(kSectors - 1, 1, kSectors - 33);
  disk.Write(kSector, primary.data(), primary.size());
  disk.Write(2 * kSector, entries.data(), entries.size());
  disk.Write((kSectors - 33) * kSector, entries.data(), entries.size());
  disk.Write((kSectors - 1) * kSector, backup.data(), backup.size());
  return disk;
}

MemFile SuperFloppy() {
  MemFile disk(nullptr, 0, 2048 * kSector);
  PutFat(disk, 0, false, 0x0A0B0C0D, "STICK      ");
  return disk;
}

std::string Descriptor(const std::string& createType, uint64_t capacity, const std::string& extentLine) {
  return "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType=\"" + createType +
         "\"\n\n# Extent description\n" + extentLine + "\n\n# The Disk Data Base\n#DDB\n\n" +
         "ddb.virtualHWVersion = \"4\"\nddb.geometry.cylinders = \"" + std::to_string(capacity / (16 * 63)) +
         "\"\nddb.geometry.heads = \"16\"\nddb.geometry.sectors = \"63\"\nddb.adapterType = \"ide\"\n";
}

Bytes SparseExtent(uint64_t capacity, uint64_t grainSize, const std::string& descriptor, const Bytes& sector0) {
  constexpr uint32_t kGtes = 512;
  const uint64_t grains = (capacity + grainSize - 1) / grainSize;
  const uint64_t gdEntries = (grains + kGtes - 1) / kGtes;
  const uint64_t gdSectors = (gdEntries * 4 + 511) / 512;
  const uint64_t gtSectors = kGtes * 4 / 512;
  const uint64_t descriptorSectors = (descriptor.size() + 511) / 512;
  const uint64_t rgd = 1 + descriptorSectors;
  const uint64_t rgt = rgd + gdSectors;
  const uint64_t gd = rgt + gdEntries * gtSectors;
  const uint64_t gt = gd + gdSectors;
  const uint64_t overhead = ((gt + gdEntries * gtSectors + grainSize - 1) / grainSize) * grainSize;
  const bool withGrain = !sector0.empty();
  Bytes f(static_cast<size_t>((overhead + (withGrain ? grainSize : 0)) * 512), 0);
  uint8_t* h = f.data();
  StoreLe32(h, 0x564D444B);
  StoreLe32(h + 4, 1);
  StoreLe32(h + 8, 3);
  StoreLe64(h + 12, capacity);
  StoreLe64(h + 20, grainSize);
  StoreLe64(h + 28, descriptor.empty() ? 0 : 1);
  StoreLe64(h + 36, descriptorSectors);
  StoreLe32(h + 44, kGtes);
  StoreLe64(h + 48, rgd);
  StoreLe64(h + 56, gd);
  StoreLe64(h + 64, overhead);
  h[73] = '\n';
  h[74] = ' ';
  h[75] = '\r';
  h[76] = '\n';
  std::memcpy(f.data() + 512, descriptor.data(), descriptor.size());
  for (uint64_t i = 0; i < gdEntries; ++i) {
    StoreLe32(f.data() + rgd * 512 + 4 * i, static_cast<uint32_t>(rgt + i * gtSectors));
    StoreLe32(f.data() + gd * 512 + 4 * i, static_cast<uint32_t>(gt + i * gtSectors));
  }
  if (withGrain) {
    StoreLe32(f.data() + rgt * 512, static_cast<uint32_t>(overhead));
    StoreLe32(f.data() + gt * 512, static_cast<uint32_t>(overhead));
    std::memcpy(f.data() + overhead * 512, sector0.data(), std::min<size_t>(512, sector0.size()));
  }
  return f;
}

Ranges PartitionSectors(const MemFile& image) {
  Ranges r;
  r.forbid = true;
  // The partition entries of sector 0 are the table's own, whatever an
  // entry starting at sector 0 claims.
  r.always.emplace_back(446, 510);
  const uint64_t sectors = image.size / kSector;
  auto add = [&](uint64_t first, uint64_t last) {
    if (first >= sectors || last < first) return;
    last = std::min(last, sectors - 1);
    r.Sectors(first, last - first + 1);
  };
  const Bytes s0 = image.Slice(0, 512);
  if (s0[510] == 0x55 && s0[511] == 0xAA) {
    for (int i = 0; i < 4; ++i) {
      const uint8_t* e = s0.data() + 446 + 16 * i;
      const uint32_t start = LoadLe32(e + 8);
      const uint32_t count = LoadLe32(e + 12);
      if (e[4] == 0 || e[4] == 0xEE || count == 0) continue;
      add(start, uint64_t{start} + count - 1);
    }
  }
  // The table of the first header whose own CRC and whose array's CRC
  // check out, as a loader trusts it.
  for (uint64_t headerLba : {uint64_t{1}, sectors - 1}) {
    Bytes h = image.Slice(headerLba * kSector, 512);
    if (std::memcmp(h.data(), "EFI PART", 8) != 0) continue;
    const uint32_t headerSize = LoadLe32(h.data() + 12);
    if (headerSize < 92 || headerSize > 512) continue;
    const uint32_t headerCrc = LoadLe32(h.data() + 16);
    StoreLe32(h.data() + 16, 0);
    if (Crc32(h.data(), headerSize) != headerCrc) continue;
    const uint64_t arrayLba = LoadLe64(h.data() + 72);
    const uint32_t count = LoadLe32(h.data() + 80);
    const uint32_t size = LoadLe32(h.data() + 84);
    if (count > 16384 || size < 128 || size > 4096 || arrayLba >= sectors) continue;
    const Bytes array = image.Slice(arrayLba * kSector, size_t{count} * size);
    if (Crc32(array.data(), array.size()) != LoadLe32(h.data() + 88)) continue;
    static const uint8_t kZero[16] = {};
    for (uint32_t i = 0; i < count; ++i) {
      const uint8_t* e = array.data() + size_t{i} * size;
      if (std::memcmp(e, kZero, 16) == 0) continue;
      add(LoadLe64(e + 32), LoadLe64(e + 40));
    }
    break;
  }
  return r;
}

}  // namespace dh::fuzz
