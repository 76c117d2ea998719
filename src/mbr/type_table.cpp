// The MBR partition type table: the short name of every type byte the
// program knows, and the hidden column used for drive-layout records.
#include "mbr/type_table.h"

#include "disk/volume.h"

#include <iterator>

namespace dh {

namespace {

// Type byte, short name (at most 7 characters, so that it fits an 8-byte
// name field with its terminator), hidden column.  Related types share
// their short names; 0x00 has no row, so an empty entry never has a name.
constexpr PartitionTypeInfo kPartitionTypes[] = {
    {0x01, "FAT12", false},  // FAT12
    {0x02, "XENIX", false},  // Xenix root
    {0x03, "XENIX", false},  // Xenix usr
    {0x04, "FAT16", false},  // FAT16 below 32 MB
    {0x05, "EXTEND", false},  // extended (CHS)
    {0x06, "FAT16B", false},  // FAT16 of 32 MB or more
    {0x07, "NTFS", false},  // NTFS, HPFS, IFS or Advanced Unix
    {0x08, "AIX", false},  // AIX boot
    {0x09, "AIXbt", false},  // AIX data
    {0x0A, "OS2BOOT", false},  // OS/2 Boot Manager
    {0x0B, "FAT32", false},  // FAT32
    {0x0C, "FAT32X", false},  // FAT32, LBA
    {0x0E, "FAT16X", false},  // FAT16 of 32 MB or more, LBA
    {0x0F, "EXTEND", false},  // extended, LBA
    {0x10, "OPUS", false},  // OPUS
    {0x11, "DOS", false},  // DOS partition as seen from OS/2
    {0x12, "OEMDIAG", false},  // OEM diagnostic
    {0x14, "FAT16", true},  // hidden FAT16 below 32 MB
    {0x15, "EXTEND", false},  // hidden extended (CHS)
    {0x16, "FAT16B", true},  // hidden FAT16 of 32 MB or more
    {0x17, "NTFS", true},  // hidden NTFS/HPFS
    {0x18, "ASTSWP", false},  // AST SmartSleep
    {0x1B, "FAT32", true},  // hidden FAT32
    {0x1C, "FAT32X", true},  // hidden FAT32, LBA
    {0x1E, "FAT16X", true},  // hidden FAT16, LBA
    {0x1F, "EXTEND", true},  // hidden extended, LBA
    {0x24, "NECDOS", false},  // NEC DOS 3.x
    {0x35, "JFS", false},  // JFS on OS/2
    {0x38, "THEOS", false},  // THEOS 3.2, 2 GB
    {0x39, "Theosv4", false},  // THEOS 4
    {0x3C, "PQFile", false},  // PowerQuest recovery
    {0x3D, "Netware", true},  // hidden NetWare
    {0x40, "VENIX", false},  // Venix 80286
    {0x41, "RISCbt", false},  // Personal RISC boot
    {0x42, "DYNMIC", false},  // dynamic disk / secure file system
    {0x44, "GOBACK", false},  // GoBack
    {0x50, "ONTRAC", false},  // Ontrack Disk Manager
    {0x51, "NOVELL", false},  // Novell
    {0x52, "CP/M", false},  // CP/M
    {0x53, "DSKMGR", false},  // Disk Manager
    {0x55, "EZDRIV", false},  // EZ-Drive
    {0x61, "SPDSTR", false},  // SpeedStor
    {0x63, "UNIX", false},  // System V/386
    {0x64, "NOVELL", false},  // NetWare 286
    {0x65, "NOVELL", false},  // NetWare 386, 3.x or 4.x
    {0x66, "NOVELL", false},  // NetWare SMS
    {0x67, "NOVELL", false},  // Novell
    {0x68, "NOVELL", false},  // Novell
    {0x75, "PC/IX", false},  // IBM PC/IX
    {0x80, "Minix", false},  // Minix up to 1.4a
    {0x81, "Minix", false},  // Minix from 1.4b
    {0x82, "LxSwap", false},  // Linux swap
    {0x83, "Linux", false},  // Linux native
    {0x84, "PwrMgt", false},  // power-management hibernation
    {0x85, "LxExt", false},  // Linux extended
    {0x86, "NTVol", false},  // NTFS volume set
    {0x87, "NTVol", false},  // NTFS volume set
    {0x88, "LxText", false},  // Linux plain text
    {0x8E, "LxLVM", false},  // Linux LVM
    {0x93, "Ameba", false},  // Amoeba file system
    {0x94, "Ameba", false},  // Amoeba bad-block table
    {0xA0, "Hibrnt", false},  // laptop hibernation
    {0xA1, "Hibrnt", false},  // laptop hibernation
    {0xA5, "386BSD", false},  // 386BSD
    {0xA6, "OpnBSD", false},  // OpenBSD
    {0xA7, "NxtStp", false},  // NeXTSTEP
    {0xA8, "MacOSX", false},  // Mac OS X
    {0xAB, "MacBt", false},  // Mac OS X boot
    {0xAF, "HFS", false},  // Mac HFS/HFS+
    {0xBB, "BtWizd", false},  // Boot Wizard hidden
    {0xBC, "AcrnSZ", false},  // Acronis Secure Zone
    {0xBE, "SOLRIS", false},  // Solaris boot
    {0xBF, "SOLRIS", false},  // Solaris (new)
    {0xDB, "Dell", false},  // Dell recovery
    {0xDE, "Dell", false},  // Dell OEM
    {0xEE, "GPT", false},  // GPT protective
    {0xEF, "EFI", false},  // EFI system partition
    {0xFB, "VMware", false},  // VMware system
    {0xFC, "VMwSwp", false},  // VMware swap
    {0xFE, "IBM", false},  // IBM OEM
};

static_assert(std::size(kPartitionTypes) == 80);

constexpr bool ShortNamesFit() {
  for (const PartitionTypeInfo& row : kPartitionTypes) {
    size_t length = 0;
    while (row.shortName[length] != '\0') ++length;
    if (length > 7) return false;
  }
  return true;
}
static_assert(ShortNamesFit());

// Each byte has at most one row, so the lookup may stop at the first match.
constexpr bool TypesUnique() {
  for (size_t i = 0; i < std::size(kPartitionTypes); ++i) {
    for (size_t j = i + 1; j < std::size(kPartitionTypes); ++j) {
      if (kPartitionTypes[i].type == kPartitionTypes[j].type) return false;
    }
  }
  return true;
}
static_assert(TypesUnique());

}  // namespace

const PartitionTypeInfo* LookupPartitionType(uint32_t type) {
  for (const PartitionTypeInfo& row : kPartitionTypes) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

std::string PartitionTypeName(uint32_t type) {
  const PartitionTypeInfo* row = LookupPartitionType(type);
  return row ? row->shortName : "UNKNWN";
}

bool IsExtendedType(uint32_t type) { return type == 0x05 || type == 0x0F || type == 0x15 || type == 0x1F; }

bool IsHiddenTypeByRule(uint32_t type) {
  switch (type) {
    case 0x11: case 0x14: case 0x16: case 0x17: case 0x1B: case 0x1C: case 0x1D: case 0x1E: case 0x1F:
      return true;
    default:
      return false;
  }
}

bool IsHideableType(uint32_t type) {
  switch (type) {
    case 0x01: case 0x04: case 0x06: case 0x07: case 0x0B: case 0x0C: case 0x0D: case 0x0E: case 0x0F:
      return true;
    default:
      return false;
  }
}

uint32_t VbrSectorCount(uint32_t type) {
  switch (type) {
    case 0x04: case 0x05: case 0x06: case 0x0B: case 0x0C: case 0x0E: case 0x12: case 0x14: case 0x15:
    case 0x16: case 0x1B: case 0x1C: case 0x1E:
      return kFatBootRecordSectors;
    case 0x07: case 0x17:
      return kNtfsBootRecordSectors;
    default:
      return 0;
  }
}

}  // namespace dh
