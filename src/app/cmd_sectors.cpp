// The sector maintenance commands: save=, restore=, show=, wipe=, copy and
// compare, with their area words, questions, argument checks and reports.
#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "app/run_state.h"
#include "base/le.h"
#include "base/sink.h"
#include "base/text.h"
#include "disk/backup_file.h"
#include "disk/device.h"
#include "disk/disk_set.h"
#include "disk/volume.h"
#include "disk/write_plan.h"
#include "gpt/gpt_table.h"
#include "platform/platform.h"
#include "report/backup_display.h"
#include "report/text_fields.h"
#include "sectors/save_restore.h"
#include "sectors/sector_ops.h"

namespace dh {

namespace {

constexpr uint64_t kTrack0Sectors = 63;
constexpr uint64_t kHiddenSector = 9;
// Heading texts put the file name on a line of its own from this length on.
constexpr size_t kShortFileName = 31;


// The value of the last "/keyword=value" argument: the one the parser kept.
// The value fields of RunOptions are shared by many keywords, so a later
// argument may have overwritten them; the argument list still has it.
std::string CommandValue(std::string_view keyword, const std::string& fallback) {
  const auto& entries = Arguments().entries;
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    const std::string& text = it->text;
    if (text.size() < keyword.size() + 2 || (text[0] != '/' && text[0] != '-')) continue;
    if (!EqualsIgnoreCase(std::string_view(text).substr(1, keyword.size()), keyword)) continue;
    return text.substr(keyword.size() + 2);  // the separator after the name is skipped, whatever it is
  }
  return fallback;
}

// The value of the argument FindArgument found, taken from its whole text,
// which the argument list keeps longer than the value itself: paths may
// be longer than a value.  False when even the text was cut, since a cut
// path names another file.
bool WholeValue(std::string* value) {
  const std::string text = CurrentArgumentText();
  const size_t equals = text.find('=');
  if (text.size() >= kArgumentTextWidth || equals == std::string::npos) return false;
  *value = text.substr(equals + 1);
  return true;
}

// "/Filename" for save= and restore=; its value also names the file in the
// final report.
bool FileNameArgument(std::string* name) {
  if (!FindArgument("/Filename") || !WholeValue(name)) {
    SetResultIfNone(kMissingFilename);
    return false;
  }
  AssignValueText(Options().valueText2, *name);
  return true;
}

// "/Range=a-b": the '-' is searched from the second character on, so that
// a leading '-' is not taken for it.  Negative numbers are refused: no
// sector has one.
bool RangeArgument(int64_t* a, int64_t* b) {
  if (!FindArgument("/Range")) return false;
  const std::string value = CurrentArgumentValue();
  const size_t dash = value.size() > 1 ? value.find('-', 1) : std::string::npos;
  if (dash == std::string::npos) return false;
  *a = ReadDecimal64(std::string_view(value).substr(0, dash));
  *b = ReadDecimal64(std::string_view(value).substr(dash + 1));
  return *a >= 0 && *b >= 0;
}

// The N-th primary partition (on a GPT disk the N-th entry) for the vbr
// area; save= and restore= of a volume boot record need a real one.
const PartitionRecord* VbrPartition(DiskSet& disks) {
  const int32_t n = Options().partNumber;
  if (n < 1 || n > PartitionCount(disks, kKindPrimary)) return nullptr;
  return GetPartition(disks, n, kKindPrimary);
}

// Sectors of a partition's volume boot record, as its table knows them.
uint32_t VbrSectors(const DiskSet& disks, const PartitionRecord& r) {
  const TableDriver* table = disks.Table();
  return table != nullptr ? table->BootRecordSectors(r) : 0;
}

// The table's own area (the GPT area), or the table's refusal recorded.
bool TableAreaOf(const DiskSet& disks, TableArea* area) {
  const TableDriver* table = disks.Table();
  const ResultCode rc = table != nullptr ? table->OwnArea(area) : kNotGptDisk;
  SetResultIfNone(rc);
  return rc == kSuccess;
}

void RunSave(DiskSet& disks, Sink& out) {
  const RunOptions& o = Options();
  std::string name;
  if (!FileNameArgument(&name)) return;
  auto kind = [&](BackupContentKind k) { return o.noHeader ? uint8_t{kBackupRaw} : uint8_t{k}; };
  switch (o.areaKind) {
    case kAreaMbr:
      SaveSectorsToFile(disks, name, 0, 1, kind(kBackupMbr));
      break;
    case kAreaTrack0:
      SaveSectorsToFile(disks, name, 0, kTrack0Sectors, kind(kBackupTrack0));
      break;
    case kAreaGpt: {
      TableArea area;
      if (!TableAreaOf(disks, &area)) return;
      SaveSectorsToFile(disks, name, 0, area.saveSectors, kind(kBackupGpt));
      break;
    }
    case kAreaVbr: {
      const PartitionRecord* r = VbrPartition(disks);
      if (!r) {
        SetResultIfNone(kInvalidPartition);
        return;
      }
      const uint32_t count = VbrSectors(disks, *r);
      if (count == 0) {
        SetResultIfNone(kUnsupportedBootRecord);
        return;
      }
      SaveSectorsToFile(disks, name, r->startLba, count, kind(kBackupVbr));
      break;
    }
    case kAreaDisk:
      SaveRangeToFile(disks, name, 0, disks.disk().totalSectors(), kind(kBackupDisk), out);
      break;
    case kAreaRange: {
      // For save=, b is the number of sectors from a on.
      int64_t a = 0, b = 0;
      if (!RangeArgument(&a, &b) || b == 0) {
        SetResultIfNone(kMissingRange);
        return;
      }
      SaveRangeToFile(disks, name, static_cast<uint64_t>(a), static_cast<uint64_t>(b), kind(kBackupRange), out);
      break;
    }
    default:
      return;
  }
  RecordOutcome(disks.firstError, kCmdSave);
}

// Restores `count` sectors (or -1: what the file holds, up to the end of
// the disk) at `target`, writing nowhere else.
void RestoreArea(DiskSet& disks, const std::string& name, uint64_t target, int64_t count, bool requireMbr,
                 Sink& out) {
  WritePlan plan;
  plan.Allow(target, count > 0 ? static_cast<uint64_t>(count) : disks.SectorsOnDisk(target, UINT64_MAX));
  WriteScope scope(disks, plan);
  RestoreFromFile(disks, name, target, count, requireMbr, out);
}

void RunRestoreVbr(DiskSet& disks, const std::string& name, Sink& out) {
  if (!FindArgument("/Part")) {
    State().badArgument = "/Part";
    SetResultIfNone(kMissingParameter);
    return;
  }
  const PartitionRecord* r = VbrPartition(disks);
  if (!r) {
    SetResultIfNone(kInvalidPartition);
    return;
  }
  if (!disks.machine().PathExists(name)) {
    SetResultIfNone(kFileNotFound);
    return;
  }
  // Only a saved volume boot record goes back onto a partition: a raw file
  // has no sector count, and any other backup would put an MBR or a range
  // over the partition's first sectors.
  uint8_t header[backup::kHeaderSize];
  if (ReadBackupKind(disks.machine(), name, header) != kBackupVbr) {
    SetResultIfNone(kNotBackupFile);
    return;
  }
  // A volume boot record is the 3 or 7 sectors its type gives, and never
  // reaches past its partition: a file that holds more is refused.
  const uint64_t count = LoadLe64(header + backup::kSectorCountOffset);
  const uint64_t limit = std::min<uint64_t>(VbrSectors(disks, *r), r->sectorCount);
  if (count > limit) {
    disks.RecordError(kFileSizeMismatch);
    return;
  }
  RestoreArea(disks, name, r->startLba, static_cast<int64_t>(count), false, out);
}

void RunRestore(DiskSet& disks, Sink& out) {
  const RunOptions& o = Options();
  std::string name;
  if (!FileNameArgument(&name)) return;
  switch (o.areaKind) {
    case kAreaMbr:
      RestoreArea(disks, name, 0, 1, !o.ignoreErrors, out);
      break;
    case kAreaTrack0:
      RestoreArea(disks, name, 0, kTrack0Sectors, false, out);
      break;
    case kAreaDisk:
      RestoreArea(disks, name, 0, -1, false, out);
      break;
    case kAreaGpt:
      // The GPT restore keeps its code in the GPT table; the disk set's
      // rule (first error, nothing under ignore) makes it the outcome.  A
      // disk that is no GPT disk, and holds a partition table, refuses it.
      if (const ResultCode rc = RestoreGptImage(disks, name); rc == kNotGptDisk) {
        SetResultIfNone(kNotGptDisk);
        return;
      } else {
        disks.RecordError(rc);
      }
      break;
    case kAreaVbr:
      RunRestoreVbr(disks, name, out);
      if (State().resultCode != kSuccess) return;
      break;
    case kAreaRange: {
      // Sector numbers are used whole: cutting them to 32 bits would put
      // the sector somewhere else on a disk beyond 2 TiB.
      const int64_t sector = ReadDecimal64(CommandValue("restore", o.valueText));
      RestoreArea(disks, name, static_cast<uint64_t>(sector < 0 ? 0 : sector), 1, false, out);
      break;
    }
    default:
      return;
  }
  RecordOutcome(disks.firstError, kCmdRestore);
}

// The heading of the display, kept in valueText2.
void SetHeading(const std::string& heading) { AssignValueText(Options().valueText2, heading); }

std::string FileHeading(const std::string& name) {
  return name.size() < kShortFileName ? "file:  " + name + "\n" : "file: \n   " + name + "\n";
}

// show=File: the file's first data sector becomes the disk's sector0 image
// and its entries the partition model; the disk itself is not read.
bool LoadFileForShow(DiskSet& disks, std::string* name) {
  if (!FindArgument("/Filename") || !WholeValue(name)) {
    State().badArgument = "/Filename=";
    SetResultIfNone(kMissingParameter);
    return false;
  }
  if (!disks.machine().PathExists(*name)) {
    SetResultIfNone(kFileNotFound);
    return false;
  }
  uint8_t header[backup::kHeaderSize];
  const uint64_t dataSector = ReadBackupKind(disks.machine(), *name, header) != kBackupRaw ? 1 : 0;
  uint8_t image[kSectorSize] = {};
  DeviceHandle file;
  if (file.OpenRead(disks.machine(), *name)) {
    ReadFull(file, dataSector * kSectorSize, image, kSectorSize);
    file.Close();
  }
  disks.SetSector0(image);
  disks.KeepToImage();
  disks.LoadImageTable();
  SetHeading(FileHeading(*name));
  return true;
}

void RunShow(DiskSet& disks, FramedWriter& out) {
  const RunOptions& o = Options();
  RunState& s = State();
  if (!FindArgument("/Show")) {
    s.badArgument = "/Show";
    SetResultIfNone(kMissingParameter);
    return;
  }
  const std::string subject = CurrentArgumentValue();
  const bool isFile = EqualsIgnoreCase(subject, "File");
  std::string name;
  bool loaded = false;
  if (isFile) {
    loaded = LoadFileForShow(disks, &name);
  } else if (EqualsIgnoreCase(subject, "Sector")) {
    if (!FindArgument("/Sector")) {
      s.badArgument = "/Sector=";
      SetResultIfNone(kMissingParameter);
    } else {
      const int64_t sector = ReadDecimal64(CurrentArgumentValue());
      loaded = ReadSectorIntoImage(disks, static_cast<uint64_t>(sector), true) == kSuccess;
      char heading[80];
      std::snprintf(heading, sizeof heading, "sector # %" PRId64 " on Disk %d\n", sector, static_cast<int>(o.diskNumber));
      SetHeading(heading);
    }
  } else if (EqualsIgnoreCase(subject, "Hidden")) {
    loaded = ReadSectorIntoImage(disks, kHiddenSector, true) == kSuccess;
    char heading[80];
    std::snprintf(heading, sizeof heading, "hidden sector for Disk %d\n", static_cast<int>(o.diskNumber));
    SetHeading(heading);
  } else {
    s.badArgument = CurrentArgumentText();
    SetResultIfNone(kMissingParameter);
  }
  RecordOutcome(disks.firstError, kCmdShow);
  // A sector that failed to load is not shown even under ignore: the model
  // would still be the disk's own.
  if (loaded && s.resultCode == kSuccess) SetResultIfNone(ShowContents(disks, isFile, name, o.valueText2, out));
}

void RunWipe(DiskSet& disks) {
  RunOptions& o = Options();
  uint64_t first = 0;
  uint64_t last = 0;
  switch (o.areaKind) {
    case kAreaMbr:
      break;
    case kAreaTrack0:
      last = kTrack0Sectors - 1;
      break;
    case kAreaGpt: {
      TableArea area;
      if (!TableAreaOf(disks, &area)) return;
      last = area.wipeLast;
      break;
    }
    case kAreaDisk:
      if (disks.disk().totalSectors() == 0) {
        SetResultIfNone(kWipeFailed);
        return;
      }
      last = disks.disk().totalSectors() - 1;
      break;
    case kAreaRange: {
      // For wipe=, b is the last sector to clear.
      int64_t a = 0, b = 0;
      if (!RangeArgument(&a, &b)) {
        SetResultIfNone(kMissingRange);
        return;
      }
      first = static_cast<uint64_t>(a);
      last = static_cast<uint64_t>(b);
      break;
    }
    default:
      return;
  }
  // The success text names the area by the word of wipe=.
  AssignValueText(o.valueText, CommandValue("wipe", o.valueText));
  WritePlan plan;
  if (last >= first) plan.Allow(first, last - first == UINT64_MAX ? UINT64_MAX : last - first + 1);
  WriteScope scope(disks, plan);
  WipeArea(disks, first, last);
  RecordOutcome(disks.firstError, kCmdWipe);
}

// "/Source" and "/Target" of copy: sector numbers.  A value that is not a
// number is refused rather than read as sector 0, which would put another
// sector over the MBR.
bool SectorArgument(const char* name, ResultCode missing, uint64_t* sector) {
  if (!FindArgument(name) || !StartsWithDigit(CurrentArgumentValue())) {
    SetResultIfNone(missing);
    return false;
  }
  *sector = static_cast<uint64_t>(ReadDecimal64(CurrentArgumentValue()));
  return true;
}

void RunCopy(DiskSet& disks) {
  RunOptions& o = Options();
  uint64_t source = 0;
  uint64_t target = 0;
  if (!SectorArgument("/Source", kMissingSource, &source)) return;
  if (!SectorArgument("/Target", kMissingTarget, &target)) return;
  o.rangeFirst = static_cast<int64_t>(source);
  o.rangeLast = static_cast<int64_t>(target);
  WritePlan plan;
  plan.Allow(target, 1);
  WriteScope scope(disks, plan);
  CopySector(disks, source, target);
  RecordOutcome(disks.firstError, kCmdCopy);
}

// A side of compare: a value that begins with a digit is a sector number,
// anything else a file name.
bool CompareArgument(const char* name, ResultCode missing, CompareSide* side) {
  if (!FindArgument(name)) {
    SetResultIfNone(missing);
    return false;
  }
  std::string value = CurrentArgumentValue();
  side->isFile = !StartsWithDigit(value);
  if (side->isFile) {
    // A name cut by the argument list would name another file: it is kept
    // as cut, and the file is then not found.
    WholeValue(&value);
    side->fileName = value.substr(0, kValueTextSize - 1);
  } else {
    side->sector = static_cast<uint64_t>(ReadDecimal64(value));
  }
  return true;
}

void RunCompare(DiskSet& disks) {
  CompareSide source;
  CompareSide target;
  if (!CompareArgument("/Source", kMissingSource, &source)) return;
  if (!CompareArgument("/Target", kMissingTarget, &target)) return;
  ResultCode result = kSuccess;
  std::string message;
  try {
    result = CompareItems(disks, source, target, &message);
  } catch (const CompareReadError&) {
    // No comparison result exists; the exit value must not read as a match.
    SetResultIfNone(kReadFailed);
    throw;
  }
  if (!message.empty()) AssignValueText(Options().valueText2, message);
  RecordOutcome(result, kCmdCompare);
}

}  // namespace

// ---- keywords ---------------------------------------------------------------

void ParseSave(const std::string& argument, const std::string& value) {
  Options().command = kCmdSave;
  if (!AreaFromWord(value,
                    {{"track0", kAreaTrack0},
                     {"mbr", kAreaMbr},
                     {"gpt", kAreaGpt},
                     {"disk", kAreaDisk},
                     {"vbr", kAreaVbr},
                     {"range", kAreaRange}},
                    &Options().areaKind)) {
    InvalidArea(argument);
  }
}

void ParseRestore(const std::string& argument, const std::string& value) {
  Options().command = kCmdRestore;
  if (AreaFromWord(
          value,
          {{"track0", kAreaTrack0}, {"mbr", kAreaMbr}, {"gpt", kAreaGpt}, {"disk", kAreaDisk}, {"vbr", kAreaVbr}},
          &Options().areaKind)) {
    return;
  }
  if (StartsWithDigit(value)) {
    Options().areaKind = kAreaRange;
  } else {
    InvalidArea(argument);
  }
}

void ParseWipe(const std::string& argument, const std::string& value) {
  Options().command = kCmdWipe;
  if (!AreaFromWord(
          value,
          {{"track0", kAreaTrack0}, {"mbr", kAreaMbr}, {"gpt", kAreaGpt}, {"disk", kAreaDisk}, {"range", kAreaRange}},
          &Options().areaKind)) {
    InvalidParameter(argument);
  }
}

// ---- questions and reports ------------------------------------------------------

std::string AskRestore(const RunOptions& o, const DiskSet&) {
  switch (o.areaKind) {
    case kAreaGpt: return "restore the GPT";
    case kAreaTrack0: return "restore track 0";
    case kAreaMbr: return "restore the MBR";
    default: return "restore the specified sector";
  }
}

std::string AskWipe(const RunOptions& o, const DiskSet&) {
  switch (o.areaKind) {
    case kAreaMbr: return "wipe the MBR";
    case kAreaTrack0: return "wipe the track 0";
    case kAreaDisk: return "wipe the entire disk";
    case kAreaGpt: return "wipe the GPT Table";
    case kAreaRange: return "wipe the specified range";
    default: return "";
  }
}

std::string AskCopy(const RunOptions&, const DiskSet&) { return "copy the selected sectors"; }

const char* WipeText(int32_t step, const RunOptions& o) {
  if (step != kCmdWipe) return nullptr;
  if (EqualsIgnoreCase(o.valueText, "mbr")) return "MBR successfully cleared";
  if (EqualsIgnoreCase(o.valueText, "track0")) return "Track 0 successfully cleared";
  if (EqualsIgnoreCase(o.valueText, "disk")) return "Disk successfully cleared";
  return "Specified sectors successfully cleared";
}

const char* CopyText(int32_t step, const RunOptions&) {
  return step == kCmdCopy ? "Sector was successfully copied" : nullptr;
}

namespace {

// The area name of save= and restore= reports.
const char* AreaName(int32_t areaKind) {
  switch (areaKind) {
    case kAreaVbr: return "volume boot record";
    case kAreaGpt: return "GPT";
    case kAreaDisk: return "disk";
    case kAreaTrack0: return "track 0";
    case kAreaMbr: return "MBR";
    default: return "specified sector range";
  }
}

}  // namespace

bool PrintSaved(const RunOptions& o, const RunState&, Sink& out) {
  out.Printf(" The %s was successfully saved to %s\n", AreaName(o.areaKind), o.valueText2.c_str());
  return true;
}

bool PrintRestored(const RunOptions& o, const RunState&, Sink& out) {
  out.Printf(" The %s was successfully restored from %s\n", AreaName(o.areaKind), o.valueText2.c_str());
  return true;
}

bool PrintCompared(const RunOptions&, const RunState&, Sink& out) {
  out.Write(" The specified items compared successfully\n");
  return true;
}

bool PrintNothing(const RunOptions&, const RunState&, Sink&) { return true; }

// ---- handlers -----------------------------------------------------------------

void HandleSave(CommandContext& c) { RunSave(c.disks, c.out); }
void HandleRestore(CommandContext& c) { RunRestore(c.disks, c.out); }
void HandleShow(CommandContext& c) {
  FramedWriter out(c.out, c.frame);
  RunShow(c.disks, out);
}
void HandleWipe(CommandContext& c) { RunWipe(c.disks); }
void HandleCopy(CommandContext& c) { RunCopy(c.disks); }
void HandleCompare(CommandContext& c) { RunCompare(c.disks); }

}  // namespace dh
