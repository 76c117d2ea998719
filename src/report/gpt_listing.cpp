// The GPT part of the disk listing.  Like the MBR block, every inner line is
// 77 characters between the borders: fixed texts plus fields filled with
// blanks, and a text longer than its field pushes the border out.  Numbers
// are formatted here, not with printf length modifiers, so that every
// platform prints the same bytes.
#include "report/gpt_listing.h"

#include <cstdio>
#include <string>
#include <vector>

#include "disk/disk_set.h"
#include "gpt/gpt_format.h"
#include "gpt/gpt_table.h"
#include "report/format.h"
#include "report/listing.h"
#include "report/text_fields.h"

namespace dh {

namespace {

// "%W.Ws": cut to `width` characters, blanks in front up to it.
std::string RightField(const std::string& text, int width) {
  std::string cut = CText(text).substr(0, static_cast<size_t>(width));
  return FillTo(cut, width) + cut;
}

// What is wrong with one copy of the GPT, naming the structure at fault.
std::string FaultText(const char* copy, GptFault fault) {
  const std::string header = std::string("the ") + copy + " GPT header";
  const std::string array = std::string("the ") + copy + " GPT entry array";
  switch (fault) {
    case GptFault::kNone:
      break;
    case GptFault::kUnreadable:
      return header + " cannot be read";
    case GptFault::kNoSignature:
      return header + " is missing (no EFI PART signature)";
    case GptFault::kBadFields:
      return header + "'s entry count or entry array location is out of range";
    case GptFault::kBadLayout:
      return header + "'s header size or entry size is not supported";
    case GptFault::kBadHeaderCrc:
      return header + "'s CRC is wrong";
    case GptFault::kBadLba:
      return header + "'s MyLBA or AlternateLBA is wrong";
    case GptFault::kArrayUnreadable:
      return array + " cannot be read";
    case GptFault::kBadArrayCrc:
      return array + "'s CRC is wrong";
  }
  return std::string();
}

// The size shown for a byte count beyond what a signed 64-bit size holds
// (a hostile entry): the largest one.
int64_t SizeArgument(uint64_t bytes) { return bytes > INT64_MAX ? INT64_MAX : static_cast<int64_t>(bytes); }

}  // namespace

void PrintGptDetails(DiskSet& disks, const GptTable& gpt, FramedWriter& out) {
  const FrameChars& frame = out.frame();
  const GptTable* table = &gpt;
  // The revision and disk GUID are those of the header the entries come
  // from.  Without one that passed the field checks there is nothing to
  // show: revision 0.0 and a zero GUID stand in for it.
  const uint8_t* shown = table->ShownHeader();
  static const uint8_t kZeroGuid[gpt::kGuidSize] = {};

  const std::string size = FormatSizeText(disks.machine(), SizeArgument(disks.totalBytes));
  const std::string revision = shown != nullptr ? std::to_string(shown[gpt::kRevisionMajor]) + "." +
                                                      std::to_string(shown[gpt::kRevisionMinor])
                                                : "0.0";
  out.Inner("   Size:        " + size + FillTo(size, 17) + "GPT Revision:    " + revision + Blanks(24));

  const std::string sectors = std::to_string(static_cast<int64_t>(disks.totalSectors));
  const std::string backup = table->BackupStatusText();
  out.Inner("   Sectors:     " + sectors + FillTo(sectors, 13) + "    Backup GPT:      " + backup + FillTo(backup, 27));

  const int32_t count = table->EntryCount();
  const std::string guid = FormatGuidText(shown != nullptr ? shown + gpt::kDiskGuid : kZeroGuid);
  out.Inner("   Partitions:  " + std::to_string(count) + Blanks(16) + "GUID:  " + guid + Blanks(1));

  // The media and description lines are those of the MBR block.
  PrintMediaAndDescription(disks, out);

  out.Border(frame.teeLeft, frame.hLine, frame.teeRight);
  out.Inner("Pos    GPT Type         FSType   LBA Start   Size Reqd R/O Hide  DL Vol Label");

  // Runs under the columns; Hide is followed by two blanks, as the heading
  // has them before DL.
  auto run = [&](int length) { return frame.Fill(frame.hLine, length); };
  out.Emit(frame.Text(frame.teeLeft) + run(3) + " " + run(19) + " " + run(6) + " " + run(13) + " " + run(4) + " " +
       run(4) + " " + run(3) + " " + run(4) + "  " + run(2) + " " + run(9) + frame.Text(frame.teeRight) + "\n");
}

void PrintGptRows(const DiskSet& disks, const GptTable& table, FramedWriter& out) {
  for (int32_t k = 1; k <= table.EntryCount(); ++k) {
    const PartitionRecord* record = table.entries[static_cast<size_t>(k - 1)].get();
    if (record != nullptr) PrintGptRow(disks, *record, table.Details(k), k, out);
  }
}

void PrintGptRow(const DiskSet& disks, const PartitionRecord& record, const GptEntryDetails* details, int position,
                 FramedWriter& out) {
  static const GptEntryDetails kNoDetails;
  const GptEntryDetails& d = details != nullptr ? *details : kNoDetails;

  const std::string letter = DriveLetterText(record, disks);
  const std::string number = std::to_string(position);
  const std::string start = std::to_string(record.startLba);
  const std::string size = FormatSizeCompact(SizeArgument(record.sizeBytes));
  out.Inner(FillTo(number, 2) + number + "  " + Field(d.longTypeName.empty() ? record.gptTypeName : d.longTypeName, 19) + "  " +
            Field(d.fileSystemName, 5) + " " + FillTo(start, 13) + start + " " + RightField(size, 4) + " " +
            (d.required ? "Yes " : " No ") + " " + (d.readOnly ? "Yes" : "No ") + " " +
            (d.attributeHidden ? "Yes " : " No ") + "  " + letter + " " + Field(record.volumeLabel, 9));
}

std::vector<std::string> GptWarningLines(const GptTable& table, const std::string& diskName) {
  const std::string prefix = "diskhold: warning: " + diskName + ": ";
  std::vector<std::string> lines;
  if (table.primaryFault != GptFault::kNone) {
    const char* outcome = table.fromBackup    ? "; listing the entries of the backup GPT"
                          : table.arrayLoaded ? "; listing the entries of the primary GPT as they stand"
                                              : "; no entries can be listed";
    lines.push_back(prefix + FaultText("primary", table.primaryFault) + outcome + "\n");
  }
  if (table.backupFault != GptFault::kNone) {
    lines.push_back(prefix + FaultText("backup", table.backupFault) + "\n");
  }
  return lines;
}

}  // namespace dh
