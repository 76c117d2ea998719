// The command table: one row per command.
#include "app/command_table.h"

#include <iterator>

#include "app/handlers.h"

namespace dh {

namespace {

using M = MatchMode;
constexpr auto kText = &RunOptions::valueText;
constexpr uint32_t kNone = 0;

// id, sub-steps, keyword order, keyword, mode, value field, parse,
// selectors, question, success text, success report, exit value, handler.
const CommandSpec kCommands[] = {
    {kCmdList, 0, 0, 1, "list", M::Abbreviation, nullptr, nullptr, kAnyPartNumber | kAllDisksOk, nullptr, nullptr,
     PrintNothing, nullptr, HandleList},
    {kCmdTabList, 0, 0, 2, "tablist", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr, nullptr,
     HandleList},
    {kCmdRepair, 0, 0, 12, "repair=", M::Value, kText, ParseRepair, kAnyPartNumber | kWholeDisk, AskRepair,
     RepairText, nullptr, nullptr, HandleRepair},
    {kCmdFlashMbr, 0, 0, 13, "FlashMBR", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr, nullptr,
     HandleFlashMbr},
    {kCmdSave, 0, 0, 14, "save=", M::Value, kText, ParseSave, kWholeDisk, nullptr, nullptr, PrintSaved, nullptr,
     HandleSave},
    {kCmdRestore, 0, 0, 15, "restore=", M::Value, kText, ParseRestore, kAnyPartNumber | kWholeDisk, AskRestore, nullptr,
     PrintRestored, nullptr, HandleRestore},
    {kCmdShow, 0, 0, 16, "show=", M::Value, kText, nullptr, kWholeDisk, nullptr, nullptr, PrintNothing, nullptr,
     HandleShow},
    {kCmdWipe, 0, 0, 18, "wipe=", M::Value, kText, ParseWipe, kAnyPartNumber | kWholeDisk, AskWipe, WipeText,
     nullptr, nullptr, HandleWipe},
    {kCmdSort, 0, 0, 20, "sort", M::Abbreviation, nullptr, nullptr, kNone, AskSort, SortText, nullptr, nullptr,
     HandleSort},
    {kCmdIsSorted, 0, 0, 21, "issorted", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, PrintIsSorted,
     IsSortedExit, HandleIsSorted},
    {kCmdHide, 0, 0, 23, "hide", M::Abbreviation, nullptr, nullptr, kAllPartitionsOk | kAllDisksOk, AskHide,
     HideText, nullptr, nullptr, HandleFlagEdit},
    {kCmdUnhide, 0, 0, 24, "unhide", M::Abbreviation, nullptr, nullptr, kAllPartitionsOk, AskHide, UnhideText,
     nullptr, nullptr, HandleFlagEdit},
    {kCmdActive, 0, 0, 25, "active", M::Abbreviation, nullptr, nullptr, kAllDisksOk, AskActive, ActiveText, nullptr,
     nullptr, HandleFlagEdit},
    {kCmdInactive, 0, 0, 26, "inactive", M::Abbreviation, nullptr, nullptr, kAllPartitionsOk, AskActive,
     InactiveText, nullptr, nullptr, HandleFlagEdit},
    {kCmdType, 0, 0, 27, "type=", M::Value, kText, ParseType, kNone, AskType, TypeText, nullptr, nullptr,
     HandleFlagEdit},
    {kCmdDelete, kStepDeleteAll, kStepDeleteAll, 28, "del", M::Abbreviation, nullptr, nullptr,
     kAllPartitionsOk | kAllDisksOk, AskDelete, DeleteText, nullptr, nullptr, HandleDelete},
    {kCmdCompare, 0, 0, 29, "compare", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, nullptr, PrintCompared,
     nullptr, HandleCompare},
    {kCmdCopy, 0, 0, 30, "copy", M::Abbreviation, nullptr, nullptr, kWholeDisk, AskCopy, CopyText, nullptr, nullptr,
     HandleCopy},
    {kCmdStatus, 0, 0, 33, "status", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, nullptr, PrintStatus,
     StatusExit, HandleStatus},
    {kCmdStatusWrite, 0, 0, 34, "status=", M::Value, kText, ParseStatusWrite, kWholeDisk, AskStatusWrite,
     StatusWriteText, nullptr, nullptr, HandleStatusWrite},
    {kCmdCreate, 0, 0, 35, "create=", M::Value, kText, nullptr, kAnyPartNumber, nullptr, CreateText, nullptr,
     nullptr, HandleCreate},
    {kCmdFormat, 0, 0, 36, "format", M::Abbreviation, nullptr, nullptr, kNone, nullptr, nullptr, nullptr, nullptr,
     HandleFormat},
    {kCmdSignature, kStepSignatureRead, kStepSignatureZero, 37, "signature=", M::Value, kText, nullptr, kWholeDisk,
     nullptr, SignatureText, PrintSignature, nullptr, HandleSignature},
    {kCmdVolumeId, kStepVolumeIdRead, kStepVolumeIdRead, 38, "volumeid=", M::Value, kText, nullptr, kNone, nullptr,
     nullptr, PrintVolumeId, nullptr, HandleVolumeId},
    {kCmdBootMenu, 0, 0, 43, "bootmenu", M::Abbreviation, nullptr, nullptr, kNone, nullptr, BootMenuText, nullptr,
     nullptr, nullptr},
    {kCmdInfo, 0, 0, 44, "info", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, nullptr, nullptr, nullptr,
     HandleInfo},
    {kCmdWriteIni, 0, 0, 45, "writeini", M::Abbreviation, nullptr, nullptr, kWholeDisk, nullptr, WriteIniText, nullptr,
     nullptr, HandleWriteIni},
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
