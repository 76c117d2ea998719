// The GPT partition type table.
#include "gpt/gpt_types.h"

#include <iterator>

namespace dh {

namespace {

// The numbers are the program's own and have gaps (7 and 10 to 15 are not
// used).  Rows 1 to 23 are the original table; rows from 24 on add the types
// of current installations (Windows recovery, BIOS boot, the Linux
// discoverable-partition types, ChromeOS, FreeBSD, APFS, VMFS, Storage
// Spaces), whose entries would otherwise be invisible and their space look
// free.  The Linux swap type of the discoverable partitions is row 9.  The
// all-zero GUID of an unused entry has no row.
constexpr GptTypeInfo kGptTypes[] = {
    {1, "024DEE41-33E7-11D3-9D69-0008C781F39F", "MBR", "MBR Partition Scheme"},
    {2, "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI", "EFI System Partition"},
    {3, "E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "MSR", "Microsoft Reserved Partition"},
    {4, "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "BDP", "Basic Data Partition"},
    {5, "5808C8AA-7E8F-42E0-85D2-E1E90434CFB3", "LDM meta", "Logical Disk Manager metadata partition"},
    {6, "AF9B60A0-1431-4F62-BC68-3311714A69AD", "LDM data", "Logical Disk Manager data partition"},
    {8, "A19D880F-05FC-4D3B-A006-743F0F84911E", "LX-RAID", "Linux RAID Partition"},
    {9, "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "LX-SWAP", "Linux Swap Partition"},
    {16, "E6D6D379-F507-44C2-A23C-238F2A3DF928", "LX-LVM", "Linux Logical Volume Manager Partition"},
    {17, "8DA63339-0007-60C0-C436-083AC8230908", "LX-RSVD", "Linux Reserved"},
    {18, "48465300-0000-11AA-AA11-00306543ECAC", "HFS-PLUS", "Apple HFS Plus"},
    {19, "55465300-0000-11AA-AA11-00306543ECAC", "APL-UFS", "Apple UFS"},
    {20, "426F6F74-0000-11AA-AA11-00306543ECAC", "APL-BOOT", "Apple Boot"},
    {21, "52414944-0000-11AA-AA11-00306543ECAC", "APL-RAID", "Apple RAID"},
    {22, "52414944-5F4F-11AA-AA11-00306543ECAC", "APL-RAID", "Apple Offline RAID"},
    {23, "4C616265-6C00-11AA-AA11-00306543ECAC", "APL-LBL", "Apple Label"},
    {24, "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "WIN-RE", "Windows Recovery Environment"},
    {25, "21686148-6449-6E6F-744E-656564454649", "BIOSBOOT", "BIOS Boot Partition"},
    {26, "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "LX-DATA", "Linux Filesystem Data"},
    {27, "4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709", "LXROOT64", "Linux Root (x86-64)"},
    {28, "44479540-F297-41B2-9AF7-D131D5F0458A", "LXROOT32", "Linux Root (x86)"},
    {29, "933AC7E1-2EB4-4F13-B844-0E14E2AEF915", "LX-HOME", "Linux Home (/home)"},
    {30, "3B8F8425-20E0-4F3B-907F-1A25A76F98E8", "LX-SRV", "Linux Server Data (/srv)"},
    {31, "BC13C2FF-59E6-4262-A352-B275FD6F7172", "LX-XBOOT", "Linux Extended Boot (/boot, XBOOTLDR)"},
    {32, "FE3A2A5D-4F32-41A7-B725-ACCC3285A309", "CROS-KRN", "ChromeOS Kernel"},
    {33, "3CB8E202-3B7E-47DD-8A3C-7FF2A13CFCEC", "CROSROOT", "ChromeOS Root Filesystem"},
    {34, "83BD6B9D-7F41-11DC-BE0B-001560B84F0F", "BSD-BOOT", "FreeBSD Boot"},
    {35, "516E7CB6-6ECF-11D6-8FF8-00022D09712B", "BSD-UFS", "FreeBSD UFS"},
    {36, "516E7CBA-6ECF-11D6-8FF8-00022D09712B", "BSD-ZFS", "FreeBSD ZFS"},
    {37, "516E7CB5-6ECF-11D6-8FF8-00022D09712B", "BSD-SWAP", "FreeBSD Swap"},
    {38, "7C3457EF-0000-11AA-AA11-00306543ECAC", "APL-APFS", "Apple APFS"},
    {39, "AA31E02A-400F-11DB-9590-000C2911D1B8", "VMFS", "VMware VMFS"},
    {40, "E75CAF8F-F680-4CEE-AFA3-B001E56EFC2D", "MS-SPACE", "Microsoft Storage Spaces"},
};

}  // namespace

int32_t LookupGptType(const std::string& guidText, std::string* shortName, std::string* longName) {
  for (const GptTypeInfo& row : kGptTypes) {
    if (guidText != row.guidText) continue;
    if (shortName != nullptr) *shortName = row.shortName;
    if (longName != nullptr) *longName = row.longName;
    return row.number;
  }
  return 0;
}

const GptTypeInfo* GptTypeRows(size_t* count) {
  *count = std::size(kGptTypes);
  return kGptTypes;
}

}  // namespace dh
