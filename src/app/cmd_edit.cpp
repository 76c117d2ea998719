// The partition editing commands: sort, issorted, active, inactive, hide,
// unhide, type=, del and create=.  Which operation runs for which selector,
// the refusals that apply before anything is written, and the outcome each
// one leaves in the run state.
#include <cstdio>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "base/sink.h"
#include "base/text.h"
#include "disk/disk_set.h"
#include "disk/table_driver.h"

namespace dh {

namespace {

std::string Format(const char* format, int a, int b = 0) {
  char buffer[160];
  std::snprintf(buffer, sizeof buffer, format, a, b);
  return buffer;
}

const char* TextFor(int32_t step, int32_t own, const char* text) { return step == own ? text : nullptr; }

}  // namespace

// ---- keywords ---------------------------------------------------------------

void ParseType(const std::string& argument, const std::string& value) {
  // Partition creation reads "/type" itself; the type command is not meant.
  if (FindArgument("/create")) return;
  RunOptions& o = Options();
  o.command = kCmdType;
  if (!value.empty() && value.back() == 'd') {
    o.typeValue = ReadDecimal(value);
  } else if (!ReadHexadecimal(value, &o.typeValue)) {
    // Without a single hexadecimal digit there is no type byte to store;
    // typeValue keeps -2 and the pending 117 keeps the type change from
    // running, naming the argument.
    InvalidParameter(argument);
  }
}

// ---- questions ----------------------------------------------------------------

std::string AskSort(const RunOptions&, const DiskSet& disks) {
  return Format("sort the MBR entries on disk %d", disks.currentDisk);
}

std::string AskActive(const RunOptions& o, const DiskSet& disks) {
  const bool activate = o.command == kCmdActive;
  if (disks.disk().isVirtual()) {
    char buffer[160];
    std::snprintf(buffer, sizeof buffer, "set the virtual disk partition %d %sctive", o.partNumber,
                  activate ? "a" : "ina");
    return buffer;
  }
  char buffer[160];
  if (o.partNumber < 0) {
    std::snprintf(buffer, sizeof buffer, "%sctivate all partitions on disk %d", activate ? "A" : "Dea",
                  disks.currentDisk);
  } else {
    std::snprintf(buffer, sizeof buffer, "%sctivate partition %d on disk %d", activate ? "A" : "Dea", o.partNumber,
                  disks.currentDisk);
  }
  return buffer;
}

std::string AskHide(const RunOptions& o, const DiskSet& disks) {
  const bool hide = o.command == kCmdHide;
  char buffer[160];
  if (disks.disk().isVirtual()) {
    std::snprintf(buffer, sizeof buffer, "%side virtual disk partition %d", hide ? "h" : "unh", o.partNumber);
  } else if (o.partNumber < 0) {
    std::snprintf(buffer, sizeof buffer, "%side all partitions on disk %d", hide ? "H" : "Unh", disks.currentDisk);
  } else {
    std::snprintf(buffer, sizeof buffer, "%side partition %d on disk %d", hide ? "H" : "Unh", o.partNumber,
                  disks.currentDisk);
  }
  return buffer;
}

std::string AskDelete(const RunOptions& o, const DiskSet& disks) {
  if (o.partNumber < 0) return Format("delete all partitions on disk %d", disks.currentDisk);
  return Format("delete partition %d on disk %d", o.partNumber, disks.currentDisk);
}

std::string AskType(const RunOptions& o, const DiskSet& disks) {
  return Format("change the type of disk %d:Part %d to ", disks.currentDisk, o.partNumber) + o.valueText;
}

// ---- success texts ------------------------------------------------------------

const char* SortText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdSort, "Partition entries successfully sorted");
}
const char* ActiveText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdActive, "Partition successfully set as bootable");
}
const char* InactiveText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdInactive, "Partition successfully set inactive");
}
const char* HideText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdHide, "Partition(s) successfully hidden");
}
const char* UnhideText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdUnhide, "Partition(s) successfully unhidden");
}
const char* DeleteText(int32_t step, const RunOptions&) {
  if (step == kStepDeleteAll) return "All Partitions successfully deleted";
  return TextFor(step, kCmdDelete, "Partition successfully deleted");
}
const char* TypeText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdType, "Partition type successfully changed");
}
const char* CreateText(int32_t step, const RunOptions&) {
  return TextFor(step, kCmdCreate, "Partition created successfully");
}

bool PrintIsSorted(const RunOptions&, const RunState& s, Sink& out) {
  out.Printf(" Partition entries are %ssorted \n", s.sortedFlag != 0 ? "" : "not ");
  return true;
}

int32_t IsSortedExit(const RunOptions&, const RunState& s, const DiskSet*) { return s.sortedFlag == 0 ? 1 : 0; }

// ---- handlers -----------------------------------------------------------------

namespace {

// The table of the loaded disk for an edit; before any load there is no
// table to edit, as on a disk whose table takes no such edit (131).
TableDriver* TableFor(CommandContext& c, int32_t step) {
  TableDriver* table = c.disks.Table();
  if (table == nullptr) RecordOutcome(kNotGptDisk, step);
  return table;
}

}  // namespace

void HandleSort(CommandContext& c) {
  if (TableDriver* table = TableFor(c, kCmdSort)) RecordOutcome(table->Reorder(), kCmdSort);
}

void HandleIsSorted(CommandContext& c) {
  TableDriver* table = TableFor(c, kCmdIsSorted);
  if (table == nullptr) return;
  bool ordered = false;
  const ResultCode rc = table->CheckOrder(&ordered);
  if (rc == kSuccess) c.state.sortedFlag = ordered ? 1 : 0;
  RecordOutcome(rc, kCmdIsSorted);
}

void HandleFlagEdit(CommandContext& c) {
  const RunOptions& o = c.options;
  const int32_t command = o.command;
  TableDriver* table = TableFor(c, command);
  if (table == nullptr) return;
  // part=* arrives as kAllPartitions, which is the driver's kEveryPartition.
  const int32_t n = o.partNumber == kAllPartitions ? kEveryPartition : o.partNumber;
  ResultCode result = kSuccess;
  switch (command) {
    case kCmdHide:
    case kCmdUnhide:
      result = table->SetHidden(n, command == kCmdHide);
      break;
    case kCmdActive:
    case kCmdInactive:
      // part=* never reaches active (only one partition can be active).
      result = table->SetActive(n, command == kCmdActive);
      break;
    case kCmdType:
      // The parser keeps -2 when the value held no hexadecimal digit; the
      // table refuses it and the argument is named.
      result = table->SetType(n, o.typeValue < 0 ? -1 : (o.typeValue & 0xFF));
      if (result == kInvalidParameter && o.typeValue < 0) c.state.badArgument = o.valueText;
      break;
    default:
      break;
  }
  RecordOutcome(result, command);
}

void HandleDelete(CommandContext& c) {
  const RunOptions& o = c.options;
  DiskSet& disks = c.disks;
  if (o.partNumber == kAllPartitions) {
    if (o.diskNumber != kAllDisks) {
      RecordOutcome(disks.DeletePartition(kEveryPartition), kStepDeleteAll);
      return;
    }
    // Every disk in turn; a disk that fails does not stop the others, and
    // the first failure is the run's result.
    for (int32_t d = 0; d < disks.diskCount; ++d) {
      disks.SelectDisk(d);
      RecordOutcome(disks.DeletePartition(kEveryPartition), kStepDeleteAll);
    }
    return;
  }
  if (o.diskNumber == kAllDisks) {
    RecordOutcome(kAllDisksNeedAllPartitions, kCmdDelete);
    return;
  }
  // Logical partitions are numbered after the primaries and are never
  // deleted by number.
  const TableDriver* table = disks.Table();
  const int32_t limit = table ? table->DeletableCount() : 0;
  if (o.partNumber < 1 || o.partNumber > limit) {
    RecordOutcome(kInvalidPartition, kCmdDelete);
    return;
  }
  RecordOutcome(disks.DeletePartition(o.partNumber), kCmdDelete);
}

void HandleCreate(CommandContext& c) {
  CreateRequest request;
  auto take = [](const char* name, bool* have, std::string* value) {
    *have = FindArgument(name);
    if (*have) *value = CurrentArgumentValue();
  };
  take("/start", &request.haveStart, &request.start);
  take("/align", &request.haveAlign, &request.align);
  take("/size", &request.haveSize, &request.size);
  take("/type", &request.haveType, &request.type);
  TableDriver* table = TableFor(c, kCmdCreate);
  if (table == nullptr) return;
  const ResultCode result = table->Add(request);
  if (result == kInvalidParameter && FindArgument("/type")) c.state.badArgument = CurrentArgumentText();
  RecordOutcome(result, kCmdCreate);
}

}  // namespace dh
