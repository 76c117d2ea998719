#include "app/confirm.h"

#include <cstdarg>
#include <cstdio>

#include "app/command_table.h"
#include "app/run_state.h"
#include "base/sink.h"
#include "base/text.h"
#include "disk/disk_set.h"
#include "platform/platform.h"

namespace dh {

namespace {

// The question lives in a 128-character text; a longer one (a long type=
// value) is cut rather than overflowing.
constexpr size_t kQuestionSize = 128;

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

std::string ConfirmActionText(const RunOptions& options, const DiskSet& disks) {
  const CommandSpec* spec = FindCommand(options.command);
  if (spec == nullptr || spec->question == nullptr) return "";
  return spec->question(options, disks);
}

bool ConfirmCommand(const RunOptions& options, const DiskSet& disks, Sink& out) {
  const std::string action = ConfirmActionText(options, disks);
  return action.empty() || ConfirmAction(action, out);
}

bool ConfirmAction(const std::string& action, Sink& out) {
  std::string question = "Preparing to " + action + ", are you sure? (Y/N): ";
  if (question.size() > kQuestionSize - 1) question.resize(kQuestionSize - 1);
  out.Write("\n " + question);
  std::fflush(stdout);
  int key = platform::Host().ReadKey();
  // At the end of input there is no key to echo; it answers no.
  if (key >= 0) out.Printf("%c", key);
  bool yes = key >= 0 && key <= 0xFF && LowerAscii(static_cast<char>(key)) == 'y';
  out.Write("\n\n");
  return yes;
}

void PrintUsage(Sink& out) {
  out.Printf(" \n Usage: Diskhold %ccommand[=x or #] [/filename=y] [/sector=z]", '/');
  for (const char* line : kPage1) out.Printf("\n %c%s", '/', line);
  out.Write("\n\nPress any key for remaining options...");
  std::fflush(stdout);
  platform::Host().ReadKey();
  for (const char* line : kPage2) out.Printf("\n %c%s", '/', line);
  out.Write("\n \nAll funtions return 0 on success, > 0 on error\n");
}

}  // namespace dh
