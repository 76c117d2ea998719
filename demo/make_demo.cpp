// Writes the demo machine: a machine file and the sparse disk images it
// names.  Usage: make_demo <folder>
//
// Disk 0: a fixed 8 GiB disk with an active NTFS primary, a FAT32 primary,
//         an extended partition with three logical partitions, free space
//         between and after them, mounted as C: and D:.
// Disk 1: a removable 256 MiB USB stick with one FAT16 partition.
// Disk 2: an empty fixed 2 GiB disk (all zeros).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Sector = std::vector<uint8_t>;

void Put32(Sector& s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) s[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void Put16(Sector& s, size_t at, uint16_t v) {
  s[at] = static_cast<uint8_t>(v);
  s[at + 1] = static_cast<uint8_t>(v >> 8);
}

// CHS bytes of an LBA for a 255-head, 63-sector geometry; beyond cylinder
// 1023 the usual 1023/254/63 marker.
void PutChs(Sector& s, size_t at, uint32_t lba) {
  uint32_t c = lba / (255 * 63), h = (lba / 63) % 255, sec = lba % 63 + 1;
  if (c > 1023) {
    c = 1023;
    h = 254;
    sec = 63;
  }
  s[at] = static_cast<uint8_t>(h);
  s[at + 1] = static_cast<uint8_t>(sec | ((c >> 2) & 0xC0));
  s[at + 2] = static_cast<uint8_t>(c);
}

void PutEntry(Sector& s, size_t at, uint8_t boot, uint8_t type, uint32_t start, uint32_t count,
              uint32_t chsBase = 0) {
  s[at] = boot;
  PutChs(s, at + 1, chsBase + start);
  s[at + 4] = type;
  PutChs(s, at + 5, chsBase + start + count - 1);
  Put32(s, at + 8, start);
  Put32(s, at + 12, count);
}

Sector Blank() { return Sector(512, 0); }

void Signature(Sector& s) {
  s[510] = 0x55;
  s[511] = 0xAA;
}

Sector NtfsBoot(uint32_t hidden, uint64_t sectors) {
  Sector s = Blank();
  s[0] = 0xEB; s[1] = 0x52; s[2] = 0x90;
  std::memcpy(&s[3], "NTFS    ", 8);
  Put16(s, 11, 512);
  s[13] = 8;
  s[21] = 0xF8;
  Put16(s, 24, 63);
  Put16(s, 26, 255);
  Put32(s, 28, hidden);
  for (int i = 0; i < 8; ++i) s[40 + i] = static_cast<uint8_t>((sectors - 1) >> (8 * i));
  Put32(s, 48, 786432);  // MFT cluster
  Put32(s, 56, 2);
  s[64] = 0xF6;
  s[68] = 1;
  Put32(s, 72, 0x5A17C0DEu);
  Signature(s);
  return s;
}

Sector FatBoot(bool fat32, uint32_t hidden, uint32_t sectors, const char* label, uint32_t serial) {
  Sector s = Blank();
  s[0] = 0xEB; s[1] = fat32 ? 0x58 : 0x3C; s[2] = 0x90;
  std::memcpy(&s[3], "MSDOS5.0", 8);
  Put16(s, 11, 512);
  s[13] = fat32 ? 8 : 4;
  Put16(s, 14, fat32 ? 32 : 4);
  s[16] = 2;
  s[21] = 0xF8;
  Put16(s, 24, 63);
  Put16(s, 26, 255);
  Put32(s, 28, hidden);
  Put32(s, 32, sectors);
  size_t ext = fat32 ? 64 : 36;
  if (fat32) {
    Put32(s, 36, 1024);
    Put32(s, 44, 2);
    Put16(s, 48, 1);
    Put16(s, 50, 6);
  } else {
    Put16(s, 17, 512);
    Put16(s, 22, 256);
  }
  s[ext] = 0x80;
  s[ext + 2] = 0x29;
  Put32(s, ext + 3, serial);
  char padded[12];
  std::snprintf(padded, sizeof padded, "%-11.11s", label);
  std::memcpy(&s[ext + 7], padded, 11);
  std::memcpy(&s[ext + 18], fat32 ? "FAT32   " : "FAT16   ", 8);
  Signature(s);
  return s;
}

// A root directory sector whose first entry is the volume label, as FAT
// keeps it (the boot sector's copy is not the one that counts).
Sector LabelEntry(const char* label) {
  Sector s = Blank();
  char padded[12];
  std::snprintf(padded, sizeof padded, "%-11.11s", label);
  std::memcpy(&s[0], padded, 11);
  s[11] = 0x08;
  return s;
}

// First sector of the root directory of the boot sectors FatBoot writes:
// FAT32 reserves 32 sectors and two FATs of 1,024; FAT16 reserves 4 and two
// FATs of 256.
constexpr uint32_t kFat32RootOffset = 32 + 2 * 1024;
constexpr uint32_t kFat16RootOffset = 4 + 2 * 256;

class ImageFile {
 public:
  ImageFile(const std::filesystem::path& path, uint64_t sectors) : path_(path) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.close();
    std::filesystem::resize_file(path, sectors * 512);
  }
  void Write(uint64_t lba, const Sector& s) {
    std::fstream f(path_, std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(lba * 512));
    f.write(reinterpret_cast<const char*>(s.data()), static_cast<std::streamsize>(s.size()));
  }

 private:
  std::filesystem::path path_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_demo <folder>\n");
    return 2;
  }
  std::filesystem::path dir = argv[1];
  std::filesystem::create_directories(dir);

  // Disk 0: 8 GiB.
  const uint64_t disk0Sectors = 16777216;
  ImageFile d0(dir / "disk0.img", disk0Sectors);
  Sector mbr = Blank();
  mbr[0] = 0x33; mbr[1] = 0xC0;
  Put32(mbr, 440, 0x1F2E3D4C);
  const uint32_t ntfsStart = 2048, ntfsCount = 4194304;     // 2 GiB
  const uint32_t fatStart = 4196352, fatCount = 2097152;     // 1 GiB
  const uint32_t extStart = 8390656, extCount = 6291456;     // 3 GiB, after a 2 GiB gap
  PutEntry(mbr, 446, 0x80, 0x07, ntfsStart, ntfsCount);
  PutEntry(mbr, 462, 0x00, 0x0C, fatStart, fatCount);
  PutEntry(mbr, 478, 0x00, 0x0F, extStart, extCount);
  Signature(mbr);
  d0.Write(0, mbr);
  d0.Write(ntfsStart, NtfsBoot(ntfsStart, ntfsCount));
  d0.Write(fatStart, FatBoot(true, fatStart, fatCount, "DATA", 0x1234ABCD));
  d0.Write(fatStart + kFat32RootOffset, LabelEntry("DATA"));
  // Three logical partitions of 1 GiB less the EBR track each.
  const uint32_t logicalSpan = 2097152;
  const uint8_t logicalTypes[3] = {0x07, 0x0B, 0x82};
  for (uint32_t i = 0; i < 3; ++i) {
    uint32_t ebr = extStart + i * logicalSpan;
    Sector e = Blank();
    PutEntry(e, 446, 0x00, logicalTypes[i], 2048, logicalSpan - 2048, ebr);
    if (i < 2) PutEntry(e, 462, 0x00, 0x05, (i + 1) * logicalSpan, logicalSpan, extStart);
    Signature(e);
    d0.Write(ebr, e);
    if (logicalTypes[i] == 0x07) d0.Write(ebr + 2048, NtfsBoot(ebr + 2048, logicalSpan - 2048));
    if (logicalTypes[i] == 0x0B) {
      d0.Write(ebr + 2048, FatBoot(true, ebr + 2048, logicalSpan - 2048, "BACKUP", 0x0BADF00D));
      d0.Write(ebr + 2048 + kFat32RootOffset, LabelEntry("BACKUP"));
    }
  }

  // Disk 1: a 256 MiB removable stick with one FAT16 partition.
  const uint64_t disk1Sectors = 524288;
  ImageFile d1(dir / "disk1.img", disk1Sectors);
  Sector stick = Blank();
  stick[0] = 0x33; stick[1] = 0xC0;
  Put32(stick, 440, 0x00C0FFEE);
  PutEntry(stick, 446, 0x80, 0x06, 63, 524225);
  Signature(stick);
  d1.Write(0, stick);
  d1.Write(63, FatBoot(false, 63, 524225, "STICK", 0xCAFE0001));
  d1.Write(63 + kFat16RootOffset, LabelEntry("STICK"));

  // Disk 2: empty.
  ImageFile d2(dir / "disk2.img", 4194304);

  std::ofstream m(dir / "machine.ini", std::ios::trunc);
  m << "# The demo machine of Diskhold: three disks backed by sparse images.\n"
       "[machine]\n"
       "codepage     = 65001\n"
       "computername = DEMO-PC\n"
       "systemdrive  = C:\n"
       "\n"
       "[drive 0]\n"
       "image        = disk0.img\n"
       "media        = fixed\n"
       "instance     = IDE\\DiskWDC_WD80EFAX-68KNBN0\\5&2a4f5&0&0.0.0\n"
       "friendlyname = WDC  WD80EFAX-68KNBN0 ATA Device\n"
       "\n"
       "[drive 1]\n"
       "image        = disk1.img\n"
       "media        = removable\n"
       "instance     = USBSTOR\\Disk&Ven_SanDisk&Prod_Cruzer_Blade&Rev_1.00\\4C530001&0\n"
       "friendlyname = SanDisk Cruzer Blade USB Device\n"
       "parentidprefix = 7&2a3b&0\n"
       "\n"
       "[drive 2]\n"
       "image        = disk2.img\n"
       "media        = fixed\n"
       "instance     = SCSI\\Disk&Ven_QEMU&Prod_HARDDISK\\4&1c0&0&000200\n"
       "friendlyname = QEMU HARDDISK SCSI Disk Device\n"
       "\n"
       "[volume C]\n"
       "drive        = 0\n"
       "offset       = 1048576\n"
       "\n"
       "[volume D]\n"
       "drive        = 0\n"
       "offset       = 2148532224\n"
       "\n"
       "[volume E]\n"
       "drive        = 1\n"
       "device       = \\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}\n";
  return 0;
}
