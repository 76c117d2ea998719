// The reports and queries: list, tablist, writeini, info, the boot menu,
// and the exit values of isfixed, diskcount and partcount.
#include <cstdio>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "disk/disk_set.h"
#include "disk/table_driver.h"
#include "platform/platform.h"
#include "report/info.h"
#include "report/ini_report.h"
#include "report/listing.h"
#include "report/text_fields.h"

namespace dh {

void HandleList(CommandContext& c) {
  const RunOptions& o = c.options;
  ListRequest request;
  request.diskNumber = o.diskNumber;
  request.diskExplicit = o.diskExplicit;
  request.diskFileName = o.diskFileName;
  request.showFreeSpace = o.showFreeSpace;
  request.showLogical = o.showLogical;
  request.asciiMap = o.asciiMap;
  request.codePage = c.codePage;
  FramedWriter out(c.out, c.frame);
  SetResultIfNone(ListDisks(c.disks, request, out));
  c.state.completedStep = kCmdList;
}

void HandleWriteIni(CommandContext& c) {
  if (!FindArgument("/Filename")) {
    SetResultIfNone(kMissingFilename);
    return;
  }
  AssignValueText(c.options.valueText, CurrentArgumentValue());
  IniReportRequest request;
  request.diskNumber = c.options.diskNumber;
  request.diskFileName = c.options.diskFileName;
  if (WriteIniFile(c.disks, c.options.valueText, request) != kSuccess) {
    SetResultIfNone(kIniWriteFailed);
    return;
  }
  // A disk that failed to load was reported all the same; its code is the
  // run's result.
  SetResultIfNone(c.disks.firstError);
  c.state.completedStep = kCmdWriteIni;
}

void HandleInfo(CommandContext& c) { ShowDiskInfo(c.disks, c.out); }

void RunBootMenuStep(CommandContext& c) {
  // The menu offers MBR entries: a GPT disk has none, and a superfloppy's
  // sector 0 is a boot record whose bytes are no entries to rewrite.
  TableDriver* table = c.disks.Table();
  const ResultCode refusal = table != nullptr ? table->Refusal(TableDriver::Edit::Entries) : kNotGptDisk;
  if (refusal != kSuccess) {
    SetResultIfNone(refusal);
    return;
  }
  const BootMenuChoice choice = RunBootMenu(c.disks, c.out);
  if (!choice.asked) return;
  if (!choice.valid) {
    SetResultIfNone(kInvalidPartitionId);
    return;
  }
  // The menu may have reloaded the disk: the table is asked for again.
  c.disks.Table()->SetActive(choice.number, true);
  AssignValueText(c.options.valueText, std::to_string(choice.number));
  if (c.disks.firstError == kSuccess) {
    c.state.completedStep = kCmdBootMenu;
  } else {
    SetResultIfNone(c.disks.firstError);
  }
}

const char* WriteIniText(int32_t step, const RunOptions&) {
  return step == kCmdWriteIni ? "MBR information was successfully written to %s" : nullptr;
}

const char* BootMenuText(int32_t step, const RunOptions&) {
  return step == kCmdBootMenu ? "\n Partition %s successfully set to active" : nullptr;
}

int32_t IsFixedExit(const RunOptions&, const RunState& s, const DiskSet* disks) {
  if (!disks) return s.resultCode;
  return disks->disk().mediaType() == platform::kMediaRemovable ? 1 : 0;
}

int32_t DiskCountExit(const RunOptions&, const RunState& s, const DiskSet* disks) {
  if (!disks) return s.resultCode;
  return disks->diskCount;
}

int32_t PartCountExit(const RunOptions&, const RunState& s, const DiskSet* disks) {
  if (!disks) return s.resultCode;
  return PartitionCount(*disks, kKindPrimary);  // GPT entries on a GPT disk
}

}  // namespace dh
