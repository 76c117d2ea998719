// Commands on sector 0's own fields, its boot code and the volumes:
// repair=, FlashMBR, status, status=, signature= and volumeid=.
#include <cstdio>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "base/sink.h"
#include "base/text.h"
#include "disk/disk_set.h"
#include "disk/mbr_layout.h"
#include "disk/volume.h"
#include "edit/signature.h"
#include "mbr/boot_images.h"
#include "mbr/boot_repair.h"
#include "sectors/sector_ops.h"

namespace dh {

// ---- keywords ---------------------------------------------------------------

void ParseRepair(const std::string&, const std::string&) {
  Options().command = kCmdRepair;
  Options().rangeFirst = ParseRepairKind();
}

void ParseStatusWrite(const std::string& argument, const std::string& value) {
  Options().command = kCmdStatusWrite;
  if (!StartsWithDigit(value)) InvalidParameter(argument);
}

// ---- questions and reports ------------------------------------------------------

std::string AskRepair(const RunOptions& o, const DiskSet& disks) {
  if (o.rangeFirst != 1 && o.rangeFirst != 2) return "";
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "create a Windows %s MBR on disk %d", o.rangeFirst == 1 ? "XP" : "Win7",
                disks.currentDisk);
  return buffer;
}

std::string AskStatusWrite(const RunOptions&, const DiskSet&) { return "write a new status flag"; }

const char* RepairText(int32_t step, const RunOptions& o) {
  if (step != kCmdRepair) return nullptr;
  return o.sectorNumber == 0 ? "MBR successfully repaired" : "Specified sectors successfully restored";
}

const char* StatusWriteText(int32_t step, const RunOptions&) {
  return step == kCmdStatusWrite ? "Status written successfully" : nullptr;
}

const char* SignatureText(int32_t step, const RunOptions&) {
  switch (step) {
    case kStepSignatureWrite: return "Disk signature was successfully updated";
    case kStepSignatureGenerate: return "Disk signature was successfully generated";
    case kStepSignatureZero: return "Disk signature was successfully Zeroed out";
    default: return nullptr;
  }
}

bool PrintStatus(const RunOptions&, const RunState& s, Sink& out) {
  out.Printf(" Status read successfully as %d  \n", static_cast<int>(s.statusByte));
  return true;
}

bool PrintSignature(const RunOptions& o, const RunState& s, Sink& out) {
  if (o.command != kStepSignatureRead) return false;
  const uint8_t* b = s.signatureBytes;
  if (o.silent) {
    out.Printf("%-2.2X%-2.2X%-2.2X%-2.2X", unsigned{b[0]}, unsigned{b[1]}, unsigned{b[2]}, unsigned{b[3]});
  } else {
    out.Printf(" Disk %d signature: 0x%-2.2X%-2.2X%-2.2X%-2.2X  \n", static_cast<int>(o.diskNumber), unsigned{b[0]},
               unsigned{b[1]}, unsigned{b[2]}, unsigned{b[3]});
  }
  return true;
}

bool PrintVolumeId(const RunOptions& o, const RunState& s, Sink& out) {
  if (o.command != kStepVolumeIdRead) return false;
  if (o.silent) {
    out.Write(s.volumeIdText);
  } else {
    out.Printf(" Disk %d Part %d VolumeID: %s  \n", static_cast<int>(o.diskNumber), static_cast<int>(o.partNumber),
               s.volumeIdText.c_str());
  }
  return true;
}

int32_t StatusExit(const RunOptions&, const RunState& s, const DiskSet*) {
  return s.resultCode == kSuccess ? s.statusByte : -s.resultCode;
}

// ---- handlers -----------------------------------------------------------------

void HandleRepair(CommandContext& c) {
  const int64_t kind = ParseRepairKind();
  if (kind < 1 || kind > 3) {
    c.state.badArgument = c.options.valueText;
    SetResultIfNone(kInvalidParameter);
    return;
  }
  // The partition table kind writes nothing: the table stays as it is.
  if (kind != 3) RepairBootCode(c.disks, kind == 1 ? kXpBootImage : kWin7BootImage);
  RecordOutcome(c.disks.firstError, kCmdRepair);
}

void HandleFlashMbr(CommandContext& c) { RecordOutcome(c.disks.firstError, kCmdFlashMbr); }

void HandleStatus(CommandContext& c) {
  ReadSectorIntoImage(c.disks, 0, true);
  c.state.statusByte = c.disks.disk().sector0()[kStatusByteOffset];
  RecordOutcome(c.disks.firstError, kCmdStatus);
}

void HandleStatusWrite(CommandContext& c) {
  const int64_t value = ReadDecimal64(c.options.valueText);
  if (value < 0 || value > 254) {
    SetResultIfNone(kStatusOutOfRange);
    return;
  }
  c.state.statusByte = static_cast<uint8_t>(value);
  WriteStatusByte(c.disks, c.state.statusByte);
  RecordOutcome(c.disks.firstError, kCmdStatusWrite);
}

namespace {

// signature=Read: the bytes go to the run state most significant first, the
// order the report prints them in.
void ReadSignature(CommandContext& c) {
  ReadSectorIntoImage(c.disks, 0, true);
  RecordOutcome(c.disks.firstError, kCmdSignature);
  for (size_t i = 0; i < sizeof c.state.signatureBytes; ++i) {
    c.state.signatureBytes[i] = c.disks.disk().sector0()[mbr::kDiskSignatureOffset + 3 - i];
  }
  c.options.command = kStepSignatureRead;
  RecordOutcome(c.disks.firstError, kStepSignatureRead);
}

void ChangeSignature(CommandContext& c, int32_t step, SignatureMode mode, const std::string& text) {
  c.options.command = step;
  SetDiskSignature(c.disks, mode, text);
  RecordOutcome(c.disks.firstError, step);
}

}  // namespace

void HandleSignature(CommandContext& c) {
  // Without a "/Signature=" argument (signature:Read, say) there is
  // nothing to do, and nothing fails.
  if (!FindArgument("/Signature")) return;
  const std::string action = CurrentArgumentValue();
  if (EqualsIgnoreCase(action, "Read")) {
    ReadSignature(c);
  } else if (EqualsIgnoreCase(action, "Generate")) {
    ChangeSignature(c, kStepSignatureGenerate, SignatureMode::Generate, "");
  } else if (EqualsIgnoreCase(action, "Zero")) {
    ChangeSignature(c, kStepSignatureZero, SignatureMode::Zero, "");
  } else if (EqualsIgnoreCase(action, "Write")) {
    c.options.command = kStepSignatureWrite;
    if (!FindArgument("/Value")) {
      SetResultIfNone(kSignatureOption);
      return;
    }
    const std::string value = CurrentArgumentValue();
    if (value.size() != 8) {
      SetResultIfNone(kSignatureValueLength);
      return;
    }
    ChangeSignature(c, kStepSignatureWrite, SignatureMode::Write, value);
  } else {
    SetResultIfNone(kSignatureOption);
  }
}

void HandleVolumeId(CommandContext& c) {
  if (!FindArgument("/Volumeid") || !EqualsIgnoreCase(CurrentArgumentValue(), "Read")) {
    SetResultIfNone(kVolumeIdOption);
    return;
  }
  c.state.volumeIdText = VolumeIdText(c.disks, c.options.partNumber);
  RecordOutcome(c.disks.firstError, kCmdVolumeId);
  c.options.command = kStepVolumeIdRead;
}

}  // namespace dh
