// The command table: one row per command.
#include "app/command_table.h"

#include <iterator>

namespace dh {

namespace {

using M = MatchMode;
constexpr auto kText = &RunOptions::valueText;
constexpr uint32_t kNone = 0;

// id, sub-steps, keyword order, keyword, mode, value field, parse,
// selectors, question, success text, success report, exit value, handler,
// and for the commands on the help pages the place and text of their line.
const CommandSpec kCommands[] = {
    {kCmdList, 0, 0, 1, "list", M::Abbreviation, nullptr, nullptr, kAnyPartNumber | kAllDisksOk, nullptr, nullptr,
     PrintNothing, nullptr, HandleList,
     101, "List        Lists disk and partition details"},
    {kCmdTabList, 0, 0, 2, "tablist", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr, nullptr,
     HandleList},
    {kCmdRepair, 0, 0, 12, "repair=", M::Value, kText, ParseRepair, kAnyPartNumber | kWholeDisk, AskRepair,
     RepairText, nullptr, nullptr, HandleRepair,
     108, "Repair=#    XP=Replaces a damaged PE/XP/2K3 boot record, WIN7=Win7/2K8"},
    {kCmdFlashMbr, 0, 0, 13, "FlashMBR", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr, nullptr,
     HandleFlashMbr},
    {kCmdSave, 0, 0, 14, "save=", M::Value, kText, ParseSave, kWholeDisk, nullptr, nullptr, PrintSaved, nullptr,
     HandleSave,
     106, "Save=x      Saves the MBR/GPT/Track0/VBR, or range. /Filename required"},
    {kCmdRestore, 0, 0, 15, "restore=", M::Value, kText, ParseRestore, kAnyPartNumber | kWholeDisk, AskRestore, nullptr,
     PrintRestored, nullptr, HandleRestore,
     107, "Restore=x   Restores the MBR/GPT/Track0/VBR or range from /Filename"},
    {kCmdShow, 0, 0, 16, "show=", M::Value, kText, nullptr, kWholeDisk, nullptr, nullptr, PrintNothing, nullptr,
     HandleShow,
     109, "Show=x      Shows contents of FILE or SECTOR. Use with /file or /sector"},
    {kCmdWipe, 0, 0, 18, "wipe=", M::Value, kText, ParseWipe, kAnyPartNumber | kWholeDisk, AskWipe, WipeText,
     nullptr, nullptr, HandleWipe,
     110, "Wipe=x      Wipes the MBR/GPT/Track0/DISK, or range of SECTOR(s)"},
    {kCmdSort, 0, 0, 20, "sort", M::Abbreviation, nullptr, nullptr, kNone, AskSort, SortText, nullptr, nullptr,
     HandleSort,
     111, "Sort        Sort MBR partition entries to match physical location on disk"},
    {kCmdIsSorted, 0, 0, 21, "issorted", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, PrintIsSorted,
     IsSortedExit, HandleIsSorted,
     112, "IsSorted    Returns 0 if MBR partitions are already sorted"},
    {kCmdHide, 0, 0, 23, "hide", M::Abbreviation, nullptr, nullptr, kAllPartitionsOk | kAllDisksOk, AskHide,
     HideText, nullptr, nullptr, HandleFlagEdit,
     113, "Hide        Hides selected partition"},
    {kCmdUnhide, 0, 0, 24, "unhide", M::Abbreviation, nullptr, nullptr, kAllPartitionsOk, AskHide, UnhideText,
     nullptr, nullptr, HandleFlagEdit,
     114, "UnHide      UnHides selected partition"},
    {kCmdActive, 0, 0, 25, "active", M::Abbreviation, nullptr, nullptr, kAllDisksOk, AskActive, ActiveText, nullptr,
     nullptr, HandleFlagEdit,
     115, "Active      Marks a partition as bootable"},
    {kCmdInactive, 0, 0, 26, "inactive", M::Abbreviation, nullptr, nullptr, kAllPartitionsOk, AskActive,
     InactiveText, nullptr, nullptr, HandleFlagEdit,
     116, "Inactive    Sets the specified partition as unbootable"},
    {kCmdType, 0, 0, 27, "type=", M::Value, kText, ParseType, kNone, AskType, TypeText, nullptr, nullptr,
     HandleFlagEdit,
     118, "Type=#      Changes partition type in MBR, where # is a hexadecimal value"},
    {kCmdDelete, kStepDeleteAll, kStepDeleteAll, 28, "del", M::Abbreviation, nullptr, nullptr,
     kAllPartitionsOk | kAllDisksOk, AskDelete, DeleteText, nullptr, nullptr, HandleDelete,
     117, "Del         Deletes the selected partition"},
    {kCmdCompare, 0, 0, 29, "compare", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, nullptr, PrintCompared,
     nullptr, HandleCompare,
     206, "Compare     Compares 2 sectors. Req. /source=x target=y"},
    {kCmdCopy, 0, 0, 30, "copy", M::Abbreviation, nullptr, nullptr, kWholeDisk, AskCopy, CopyText, nullptr, nullptr,
     HandleCopy,
     202, "Copy        Copies sector.  Req. /source and /target"},
    {kCmdStatus, 0, 0, 33, "status", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, nullptr, PrintStatus,
     StatusExit, HandleStatus,
     211, "Status      Shows the status flag, or writes new status with =x"},
    {kCmdStatusWrite, 0, 0, 34, "status=", M::Value, kText, ParseStatusWrite, kWholeDisk, AskStatusWrite,
     StatusWriteText, nullptr, nullptr, HandleStatusWrite},
    {kCmdCreate, 0, 0, 35, "create=", M::Value, kText, nullptr, kAnyPartNumber, nullptr, CreateText, nullptr,
     nullptr, HandleCreate,
     207, "Create      Creates a new new partition. Req. /Start, /Size, and /Align"},
    {kCmdFormat, 0, 0, 36, "format", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr, nullptr,
     HandleFormat},
    {kCmdSignature, kStepSignatureRead, kStepSignatureZero, 37, "signature=", M::Value, kText, nullptr, kWholeDisk,
     nullptr, SignatureText, PrintSignature, nullptr, HandleSignature,
     204, "Signature=  Read/Zero/Generate/Write. /Value=xxxxxxxx required with /Write"},
    {kCmdVolumeId, kStepVolumeIdRead, kStepVolumeIdRead, 38, "volumeid=", M::Value, kText, nullptr, kNone, nullptr,
     nullptr, PrintVolumeId, nullptr, HandleVolumeId,
     205, "VolumeID=x  Read.  Displays the VolumeID for the specified partition"},
    {kCmdBootMenu, 0, 0, 43, "bootmenu", M::Abbreviation, nullptr, nullptr, kNone, nullptr, BootMenuText, nullptr,
     nullptr, nullptr,
     212, "BootMenu    Allows user to select the active partition from a menu"},
    {kCmdInfo, 0, 0, 44, "info", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, nullptr, nullptr, nullptr,
     HandleInfo},
    {kCmdWriteIni, 0, 0, 45, "writeini", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, WriteIniText, nullptr,
     nullptr, HandleWriteIni,
     203, "WriteIni    Writes detailed info in .ini format.  Req. /Filename"},
    {kCmdIsFixed, 0, 0, 51, "isfixed", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr,
     IsFixedExit, nullptr},
    {kCmdDiskCount, 0, 0, 52, "diskcount", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr,
     DiskCountExit, nullptr},
    {kCmdPartCount, 0, 0, 53, "partcount", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr,
     PartCountExit, nullptr},
};

}  // namespace

const CommandSpec* CommandRows(size_t* count) {
  *count = std::size(kCommands);
  return kCommands;
}

const CommandSpec* FindCommand(int32_t idOrStep) {
  for (const CommandSpec& c : kCommands) {
    if (c.id == idOrStep) return &c;
    if (c.firstSubStep != 0 && idOrStep >= c.firstSubStep && idOrStep <= c.lastSubStep) return &c;
  }
  return nullptr;
}

}  // namespace dh
