#include "app/confirm.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>

#include "app/run_state.h"
#include "disk/disk_set.h"
#include "platform/platform.h"

namespace dh {

namespace {

// The question lives in a 128-character text; a longer one (a long type=
// value) is cut rather than overflowing.
constexpr size_t kQuestionSize = 128;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Format(const char* format, ...) {
  char buffer[kValueTextSize + 256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

const char* const kPage1[] = {
    "List        Lists disk and partition details",
    "Disk=#      Selects the disk (or file), defaults to '0' if not specified",
    "Part=#      Selects partition by number.  Defaults to '1'",
    "Vol=x       Specifies volume by drive letter (C:) or volume label",
    "Sector=#    Specifies sector(s) to use for applicable operations",
    "Save=x      Saves the MBR/GPT/Track0/VBR, or range. /Filename required",
    "Restore=x   Restores the MBR/GPT/Track0/VBR or range from /Filename",
    "Repair=#    XP=Replaces a damaged PE/XP/2K3 boot record, WIN7=Win7/2K8",
    "Show=x      Shows contents of FILE or SECTOR. Use with /file or /sector",
    "Wipe=x      Wipes the MBR/GPT/Track0/DISK, or range of SECTOR(s)",
    "Sort        Sort MBR partition entries to match physical location on disk",
    "IsSorted    Returns 0 if MBR partitions are already sorted",
    "Hide        Hides selected partition",
    "UnHide      UnHides selected partition",
    "Active      Marks a partition as bootable",
    "Inactive    Sets the specified partition as unbootable",
    "Del         Deletes the selected partition",
    "Type=#      Changes partition type in MBR, where # is a hexadecimal value",
};

const char* const kPage2[] = {
    "Shutdown=#  1-Force shutdown, 2-Force Reboot, 3-Shutdown, 4-Reboot",
    "Copy        Copies sector.  Req. /source and /target",
    "WriteIni    Writes detailed info in .ini format.  Req. /Filename",
    "Signature=  Read/Zero/Generate/Write. /Value=xxxxxxxx required with /Write",
    "VolumeID=x  Read.  Displays the VolumeID for the specified partition",
    "Compare     Compares 2 sectors. Req. /source=x target=y",
    "Create      Creates a new new partition. Req. /Start, /Size, and /Align",
    "Start=      Sector to start new partition. /Freespace uses first avail. ",
    "Size=       Size in MB of new partition. /Max uses all avail freespace. ",
    "Align=      Alignment boundary to start new partition, eg. 1k, 2k, 4k, etc.",
    "Status      Shows the status flag, or writes new status with =x",
    "BootMenu    Allows user to select the active partition from a menu",
    "Msg=#       Hides the status message displayed upon program exit",
    "Confirm     Automatically answers 'Yes'",
    "Ignore      Ignore Errors and continue processing",
    "Result      Shows Errorlevel code on program exit",
    "?           Displays this help page",
};

}  // namespace

std::string ConfirmActionText(const DiskSet& disks) {
  const RunOptions& o = Options();
  const int disk = disks.currentDisk;
  const int part = o.partNumber;
  const bool activate = o.command == kCmdActive;
  const bool hide = o.command == kCmdHide;
  switch (o.command) {
    case kCmdRepair:
      if (o.rangeFirst == 1 || o.rangeFirst == 2) {
        return Format("create a Windows %s MBR on disk %d", o.rangeFirst == 1 ? "XP" : "Win7", disk);
      }
      return "";
    case kCmdRestore:
      switch (o.areaKind) {
        case kAreaGpt: return "restore the GPT";
        case kAreaTrack0: return "restore track 0";
        case kAreaMbr: return "restore the MBR";
        default: return "restore the specified sector";
      }
    case kCmdWipe:
      switch (o.areaKind) {
        case kAreaMbr: return "wipe the MBR";
        case kAreaTrack0: return "wipe the track 0";
        case kAreaDisk: return "wipe the entire disk";
        case kAreaGpt: return "wipe the GPT Table";
        case kAreaRange: return "wipe the specified range";
        default: return "";
      }
    case kCmdSort:
      return Format("sort the MBR entries on disk %d", disk);
    case kCmdActive:
    case kCmdInactive:
      if (disks.isVirtual) return Format("set the virtual disk partition %d %sctive", part, activate ? "a" : "ina");
      if (part < 0) return Format("%sctivate all partitions on disk %d", activate ? "A" : "Dea", disk);
      return Format("%sctivate partition %d on disk %d", activate ? "A" : "Dea", part, disk);
    case kCmdHide:
    case kCmdUnhide:
      if (disks.isVirtual) return Format("%side virtual disk partition %d", hide ? "h" : "unh", part);
      if (part < 0) return Format("%side all partitions on disk %d", hide ? "H" : "Unh", disk);
      return Format("%side partition %d on disk %d", hide ? "H" : "Unh", part, disk);
    case kCmdDelete:
      if (part < 0) return Format("delete all partitions on disk %d", disk);
      return Format("delete partition %d on disk %d", part, disk);
    case kCmdType:
      return Format("change the type of disk %d:Part %d to %s", disk, part, o.valueText.c_str());
    case kCmdCopy:
      return "copy the selected sectors";
    case kCmdStatusWrite:
      return "write a new status flag";
    default:
      return "";
  }
}

bool ConfirmCommand(const DiskSet& disks) {
  std::string action = ConfirmActionText(disks);
  if (action.empty()) return true;
  std::string question = "Preparing to " + action + ", are you sure? (Y/N): ";
  if (question.size() > kQuestionSize - 1) question.resize(kQuestionSize - 1);
  std::printf("\n %s", question.c_str());
  std::fflush(stdout);
  int key = platform::Host().ReadKey();
  // At the end of input there is no key to echo; it answers no.
  if (key >= 0) std::printf("%c", key);
  bool yes = key >= 0 && std::tolower(key) == 'y';
  std::printf("\n\n");
  return yes;
}

void PrintUsage() {
  std::printf(" \n Usage: Diskhold %ccommand[=x or #] [/filename=y] [/sector=z]", '/');
  for (const char* line : kPage1) std::printf("\n %c%s", '/', line);
  std::printf("\n\nPress any key for remaining options...");
  std::fflush(stdout);
  platform::Host().ReadKey();
  for (const char* line : kPage2) std::printf("\n %c%s", '/', line);
  std::printf("\n \nAll funtions return 0 on success, > 0 on error\n");
}

}  // namespace dh
