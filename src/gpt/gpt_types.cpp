// The GPT partition type table.
#include "gpt/gpt_types.h"

#include <iterator>

namespace dh {

namespace {

// The numbers are the program's own and have gaps (7 and 10 to 15 are not
// used).  The Linux filesystem-data type and the all-zero GUID of an unused
// entry have no row.
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
