#include "app/dispatcher.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/confirm.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "app/run_state.h"
#include "disk/disk_set.h"
#include "edit/edit_commands.h"
#include "mbr/partition.h"
#include "mbr/volume.h"
#include "report/listing.h"
#include "sectors/sector_commands.h"

namespace dh {

namespace {

// Commands whose operations this build does not carry yet say so on the
// error stream and change nothing.
void NotAvailable(const char* name) {
  std::fprintf(stderr, "diskhold: %s is not available in this build; nothing was changed\n", name);
}

bool AcceptsAnyPartition(int32_t command) {
  switch (command) {
    case kCmdRepair: case kCmdRestore: case kCmdWipe: case kCmdList: case kCmdCreate:
      return true;
    default:
      return false;
  }
}

bool AcceptsAllPartitions(int32_t command) {
  switch (command) {
    case kCmdHide: case kCmdInactive: case kCmdUnhide: case kCmdDelete:
      return true;
    default:
      return false;
  }
}

bool AcceptsAllDisks(int32_t command) {
  switch (command) {
    case kCmdDelete: case kCmdHide: case kCmdActive: case kCmdList:
      return true;
    default:
      return false;
  }
}

void RunCommand(DiskSet& disks) {
  RunOptions& o = Options();
  RunState& s = State();
  switch (o.command) {
    case kCmdSave:
    case kCmdRestore:
    case kCmdShow:
    case kCmdWipe:
    case kCmdCopy:
    case kCmdCompare:
      RunSectorCommand(disks);
      return;
    case kCmdRepair: {
      int64_t kind = ParseRepairKind();
      if (kind < 1 || kind > 3) {
        s.badArgument = o.valueText;
        SetResultIfNone(kInvalidParameter);
        return;
      }
      if (kind == 3) {
        RecordOutcome(disks.firstError, kCmdRepair);
        return;
      }
      NotAvailable("repair=");
      return;
    }
    case kCmdSort:
    case kCmdIsSorted:
    case kCmdActive:
    case kCmdInactive:
    case kCmdHide:
    case kCmdUnhide:
    case kCmdDelete:
    case kCmdType:
    case kCmdCreate:
      RunEditCommand(disks);
      return;
    case kCmdList:
    case kCmdTabList:
      ListDisks(disks);
      s.completedStep = kCmdList;
      return;
    case kCmdWriteIni:
      if (!FindArgument("/Filename")) {
        SetResultIfNone(kMissingFilename);
        return;
      }
      AssignValueText(o.valueText, CurrentArgumentValue());
      NotAvailable("writeini");
      return;
    case kCmdBootMenu:
      return;  // runs after the dispatcher
    case kCmdStatus:
      NotAvailable("status");
      return;
    case kCmdStatusWrite: {
      int64_t value = ReadDecimal64(o.valueText);
      if (value < 0 || value > 254) {
        SetResultIfNone(kStatusOutOfRange);
        return;
      }
      s.statusByte = static_cast<uint8_t>(value);
      NotAvailable("status=");
      return;
    }
    case kCmdFormat:
      NotAvailable("format");
      return;
    case kCmdFlashMbr:
      RecordOutcome(disks.firstError, kCmdFlashMbr);
      return;
    case kCmdSignature: {
      if (!FindArgument("/Signature")) return;
      std::string action = CurrentArgumentValue();
      if (EqualsIgnoreCase(action, "Write")) {
        o.command = kStepSignatureWrite;
        if (!FindArgument("/Value")) {
          SetResultIfNone(kSignatureOption);
          return;
        }
        if (CurrentArgumentValue().size() != 8) {
          SetResultIfNone(kSignatureValueLength);
          return;
        }
      } else if (!EqualsIgnoreCase(action, "Read") && !EqualsIgnoreCase(action, "Generate") && !EqualsIgnoreCase(action, "Zero")) {
        SetResultIfNone(kSignatureOption);
        return;
      }
      NotAvailable("signature=");
      return;
    }
    case kCmdVolumeId:
      if (!FindArgument("/Volumeid") || !EqualsIgnoreCase(CurrentArgumentValue(), "Read")) {
        SetResultIfNone(kVolumeIdOption);
        return;
      }
      s.volumeIdText = VolumeIdText(disks, o.partNumber);
      RecordOutcome(disks.firstError, kCmdVolumeId);
      o.command = kStepVolumeIdRead;
      return;
    case kCmdInfo:
      NotAvailable("info");
      return;
    default:
      return;  // diskcount, partcount, isfixed: the exit value answers
  }
}

}  // namespace

void DispatchCommand(DiskSet& disks) {
  RunOptions& o = Options();
  RunState& s = State();

  if (s.resultCode == kSuccess) {
    if (o.diskNumber == kDiskNotGiven) {
      o.diskNumber = 0;
      o.diskExplicit = false;
    }
    if (o.partNumber == kPartNotGiven) o.partNumber = 1;
    if (o.sectorNumber == kSectorNotGiven) o.sectorNumber = 0;

    bool selected = false;
    if (o.diskNumber != kAllDisks) {
      if (o.diskNumber == kVirtualDiskNumber) {
        disks.OpenVirtualDisk(o.diskFileName);
      } else {
        disks.SelectDisk(o.diskNumber);
      }
      selected = true;
      if (disks.firstError != kSuccess) {
        SetResultIfNone(disks.firstError);
      } else {
        s.completedStep = 0;
      }
    }

    if (selected) {
      if (o.partNumber == kAllPartitions) {
        if (!AcceptsAllPartitions(o.command)) SetResultIfNone(kInvalidPartition);
      } else {
        // On a GPT disk this counts its entries.
        int32_t count = PartitionCount(disks, kKindAll);
        bool inRange = o.partNumber >= 1 && o.partNumber <= count;
        if (!inRange && !AcceptsAnyPartition(o.command)) SetResultIfNone(kInvalidPartition);
      }
    }

    if (o.diskNumber == kAllDisks && !AcceptsAllDisks(o.command)) SetResultIfNone(kAllDisksNotAllowed);
    if (o.partNumber == kAllPartitions && !AcceptsAllPartitions(o.command)) SetResultIfNone(kAllPartitionsNotAllowed);

    if (s.resultCode == kSuccess) {
      if (!o.confirmed && !ConfirmCommand(disks)) {
        SetResultIfNone(kUserCancelled);
      } else {
        RunCommand(disks);
      }
    }
  }

  if (o.helpRequested) PrintUsage();
  if (!o.silent) std::printf("\n");
}

}  // namespace dh
