// Writes the demo machine: a machine file and the sparse disk images it
// names.  Usage: make_demo <folder>
//
// Disk 0: a fixed 8 GiB MBR disk with an active NTFS primary, a FAT32
//         primary labelled DATA, an extended partition with three logical
//         partitions (one labelled BACKUP), free space between and after
//         them, mounted as C: and D:.
// Disk 1: a fixed 64 GiB GPT disk as Windows sets one up: EFI system
//         partition (FAT32, SYSTEM), Microsoft reserved, Basic data (NTFS,
//         Windows) and the Windows recovery environment at the end.
// Disk 2: an empty fixed 2 GiB disk (all zeros).
// Disk 3: a removable 256 MiB USB stick with one FAT16 partition, E:.
//
// The machine file names no code page, so the listings follow the terminal
// (UTF-8 frames under a UTF-8 locale).
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

// An NTFS boot sector.  Where `mftCluster` points at no file record (the
// default lies beyond the demo volumes, 0 is the boot sector itself), the
// volume shows no label.
Sector NtfsBoot(uint64_t hidden, uint64_t sectors, uint64_t mftCluster = 786432, uint32_t serial = 0x5A17C0DEu) {
  Sector s = Blank();
  s[0] = 0xEB; s[1] = 0x52; s[2] = 0x90;
  std::memcpy(&s[3], "NTFS    ", 8);
  Put16(s, 11, 512);
  s[13] = 8;
  s[21] = 0xF8;
  Put16(s, 24, 63);
  Put16(s, 26, 255);
  Put32(s, 28, static_cast<uint32_t>(hidden));
  for (int i = 0; i < 8; ++i) s[40 + i] = static_cast<uint8_t>((sectors - 1) >> (8 * i));
  for (int i = 0; i < 8; ++i) s[48 + i] = static_cast<uint8_t>(mftCluster >> (8 * i));
  Put32(s, 56, 2);
  s[64] = 0xF6;  // 2^10 = 1,024-byte file records
  s[68] = 1;
  Put32(s, 72, serial);
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

// Record 3 of an MFT, $Volume, with the volume name as its only attribute.
// 1,024 bytes with the update sequence of two 512-byte strides in place.
Sector NtfsVolumeRecord(const char* label) {
  Sector r(1024, 0);
  std::memcpy(&r[0], "FILE", 4);
  Put16(r, 4, 48);  // update sequence array offset
  Put16(r, 6, 3);   // its length: the sequence number and one word per stride
  Put16(r, 20, 56);  // first attribute
  Put16(r, 22, 1);   // in use
  Put16(r, 48, 1);   // sequence number; the saved words stay zero
  Put16(r, 510, 1);
  Put16(r, 1022, 1);
  const size_t length = std::strlen(label);
  const uint32_t attrLength = static_cast<uint32_t>((24 + 2 * length + 7) / 8 * 8);
  Put32(r, 56, 0x60);  // $VOLUME_NAME, resident
  Put32(r, 60, attrLength);
  Put32(r, 56 + 16, static_cast<uint32_t>(2 * length));
  Put16(r, 56 + 20, 24);
  for (size_t i = 0; i < length; ++i) r[56 + 24 + 2 * i] = static_cast<uint8_t>(label[i]);
  Put32(r, 56 + attrLength, 0xFFFFFFFFu);  // end of attributes
  Put32(r, 24, 56 + attrLength + 8);        // bytes in use
  Put32(r, 28, 1024);
  return r;
}

// First sector of the root directory of the boot sectors FatBoot writes:
// FAT32 reserves 32 sectors and two FATs of 1,024; FAT16 reserves 4 and two
// FATs of 256.
constexpr uint32_t kFat32RootOffset = 32 + 2 * 1024;
constexpr uint32_t kFat16RootOffset = 4 + 2 * 256;

// CRC-32 as the GPT uses it (IEEE 802.3, reflected).
uint32_t Crc32(const uint8_t* data, size_t size) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void Put64(Sector& s, size_t at, uint64_t v) {
  for (int i = 0; i < 8; ++i) s[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// "C12A7328-F81F-11D2-BA4B-00A0C93EC93B" in its on-disk byte order: the
// first three groups little-endian, the last two as written.
void PutGuid(Sector& s, size_t at, const char* text) {
  uint8_t bytes[16];
  size_t n = 0;
  for (const char* p = text; *p != '\0' && n < 16; ++p) {
    if (*p == '-') continue;
    auto hex = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    bytes[n++] = static_cast<uint8_t>(hex(p[0]) << 4 | hex(p[1]));
    ++p;
  }
  const int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  for (int i = 0; i < 16; ++i) s[at + i] = bytes[order[i]];
}

struct GptEntry {
  const char* type;
  const char* unique;
  uint64_t first;
  uint64_t last;
  uint64_t attributes;
  const char* name;
};

// The entry array of 128 entries of 128 bytes.
Sector GptArray(const std::vector<GptEntry>& entries) {
  Sector a(128 * 128, 0);
  for (size_t i = 0; i < entries.size(); ++i) {
    const size_t at = i * 128;
    PutGuid(a, at, entries[i].type);
    PutGuid(a, at + 16, entries[i].unique);
    Put64(a, at + 32, entries[i].first);
    Put64(a, at + 40, entries[i].last);
    Put64(a, at + 48, entries[i].attributes);
    for (size_t c = 0; entries[i].name[c] != '\0' && c < 36; ++c) a[at + 56 + 2 * c] = static_cast<uint8_t>(entries[i].name[c]);
  }
  return a;
}

// A GPT header: the primary at LBA 1 or the backup at the last LBA.
Sector GptHeader(uint64_t self, uint64_t alternate, uint64_t arrayLba, uint64_t diskSectors, const char* diskGuid,
                 const Sector& array) {
  Sector h = Blank();
  std::memcpy(&h[0], "EFI PART", 8);
  Put32(h, 8, 0x00010000);
  Put32(h, 12, 92);
  Put64(h, 24, self);
  Put64(h, 32, alternate);
  Put64(h, 40, 34);
  Put64(h, 48, diskSectors - 34);
  PutGuid(h, 56, diskGuid);
  Put64(h, 72, arrayLba);
  Put32(h, 80, 128);
  Put32(h, 84, 128);
  Put32(h, 88, Crc32(array.data(), array.size()));
  Put32(h, 16, Crc32(h.data(), 92));
  return h;
}

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

  // Disk 1: 64 GiB GPT, the partitions a Windows installation makes.
  const uint64_t disk1Sectors = 134217728;
  ImageFile d1(dir / "disk1.img", disk1Sectors);
  const uint64_t efiFirst = 2048, efiLast = 206847;           // 100 MiB
  const uint64_t msrFirst = 206848, msrLast = 239615;         // 16 MiB
  const uint64_t dataFirst = 239616, dataLast = 132782079;    // the rest
  const uint64_t reFirst = 132782080, reLast = 134215679;     // 700 MiB
  const std::vector<GptEntry> entries = {
      {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "0A8E7A3C-5D01-4C1B-9E55-6D2B10000001", efiFirst, efiLast, 0,
       "EFI system partition"},
      {"E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "0A8E7A3C-5D01-4C1B-9E55-6D2B10000002", msrFirst, msrLast, 0,
       "Microsoft reserved partition"},
      {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "0A8E7A3C-5D01-4C1B-9E55-6D2B10000003", dataFirst, dataLast, 0,
       "Basic data partition"},
      // Required by the platform, and no drive letter of its own.
      {"DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "0A8E7A3C-5D01-4C1B-9E55-6D2B10000004", reFirst, reLast,
       0x8000000000000001ull, ""},
  };
  const char* const diskGuid = "6F1C2B84-93D0-4E7A-A5B2-0C3D5E7F9A1B";
  Sector protective = Blank();
  protective[446 + 1] = 0x00;  // CHS of LBA 1: head 0, sector 2, cylinder 0
  protective[446 + 2] = 0x02;
  protective[446 + 4] = 0xEE;
  protective[446 + 5] = 0xFF;
  protective[446 + 6] = 0xFF;
  protective[446 + 7] = 0xFF;
  Put32(protective, 446 + 8, 1);
  Put32(protective, 446 + 12, static_cast<uint32_t>(disk1Sectors - 1));
  Signature(protective);
  d1.Write(0, protective);
  const Sector array = GptArray(entries);
  d1.Write(1, GptHeader(1, disk1Sectors - 1, 2, disk1Sectors, diskGuid, array));
  d1.Write(2, array);
  d1.Write(disk1Sectors - 33, array);
  d1.Write(disk1Sectors - 1, GptHeader(disk1Sectors - 1, 1, disk1Sectors - 33, disk1Sectors, diskGuid, array));
  d1.Write(efiFirst, FatBoot(true, static_cast<uint32_t>(efiFirst), static_cast<uint32_t>(efiLast - efiFirst + 1),
                             "SYSTEM", 0x7E57EF10));
  d1.Write(efiFirst + kFat32RootOffset, LabelEntry("SYSTEM"));
  // The MFT at cluster 4 (byte 16,384 of the volume); $Volume is record 3.
  d1.Write(dataFirst, NtfsBoot(dataFirst, dataLast - dataFirst + 1, 4, 0x2C6A9E11u));
  d1.Write(dataFirst + 32 + 3 * 2, NtfsVolumeRecord("Windows"));
  d1.Write(reFirst, NtfsBoot(reFirst, reLast - reFirst + 1, 0, 0x3EC0FE42u));

  // Disk 2: empty.
  ImageFile d2(dir / "disk2.img", 4194304);

  // Disk 3: a 256 MiB removable stick with one FAT16 partition.
  const uint64_t disk3Sectors = 524288;
  ImageFile d3(dir / "disk3.img", disk3Sectors);
  Sector stick = Blank();
  stick[0] = 0x33; stick[1] = 0xC0;
  Put32(stick, 440, 0x00C0FFEE);
  PutEntry(stick, 446, 0x80, 0x06, 63, 524225);
  Signature(stick);
  d3.Write(0, stick);
  d3.Write(63, FatBoot(false, 63, 524225, "STICK", 0xCAFE0001));
  d3.Write(63 + kFat16RootOffset, LabelEntry("STICK"));

  std::ofstream m(dir / "machine.ini", std::ios::trunc);
  m << "# The demo machine of Diskhold: four disks backed by sparse images.\n"
       "# No codepage key: the console follows the terminal.\n"
       "[machine]\n"
       "computername = DEMO-PC\n"
       "systemdrive  = C:\n"
       "formatengine = ok           # /format reports what it would do, and succeeds\n"
       "\n"
       "[drive 0]\n"
       "image        = disk0.img\n"
       "media        = fixed\n"
       "instance     = IDE\\DiskWDC_WD80EFAX-68KNBN0\\5&2a4f5&0&0.0.0\n"
       "friendlyname = WDC  WD80EFAX-68KNBN0 ATA Device\n"
       "\n"
       "[drive 1]\n"
       "image        = disk1.img\n"
       "media        = fixed\n"
       "instance     = SCSI\\Disk&Ven_NVMe&Prod_Samsung_SSD_970\\5&1f2e3d&0&000000\n"
       "friendlyname = NVMe Samsung SSD 970 SCSI Disk Device\n"
       "\n"
       "[drive 2]\n"
       "image        = disk2.img\n"
       "media        = fixed\n"
       "instance     = SCSI\\Disk&Ven_QEMU&Prod_HARDDISK\\4&1c0&0&000200\n"
       "friendlyname = QEMU HARDDISK SCSI Disk Device\n"
       "\n"
       "[drive 3]\n"
       "image        = disk3.img\n"
       "media        = removable\n"
       "instance     = USBSTOR\\Disk&Ven_SanDisk&Prod_Cruzer_Blade&Rev_1.00\\4C530001&0\n"
       "friendlyname = SanDisk Cruzer Blade USB Device\n"
       "parentidprefix = 7&2a3b&0\n"
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
       "drive        = 3\n"
       "device       = \\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}\n";
  m.close();
  if (!m) {
    std::fprintf(stderr, "make_demo: cannot write %s\n", (dir / "machine.ini").string().c_str());
    return 1;
  }
  return 0;
}
