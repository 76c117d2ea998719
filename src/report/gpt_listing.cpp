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
#include "disk/table_driver.h"
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

// The size shown for a byte count beyond what a signed 64-bit size holds
// (a hostile entry): the largest one.
int64_t SizeArgument(uint64_t bytes) { return bytes > INT64_MAX ? INT64_MAX : static_cast<int64_t>(bytes); }

}  // namespace

void PrintGptDetails(DiskSet& disks, const TableHeaderFacts& facts, FramedWriter& out) {
  const FrameChars& frame = out.frame();
  const std::string size = FormatSizeText(disks.machine(), SizeArgument(disks.disk().totalBytes()));
  const std::string& revision = facts.revision;
  out.Inner("   Size:        " + size + FillTo(size, 17) + "GPT Revision:    " + revision + Blanks(24));

  const std::string sectors = std::to_string(static_cast<int64_t>(disks.disk().totalSectors()));
  const std::string& backup = facts.backupStatus;
  out.Inner("   Sectors:     " + sectors + FillTo(sectors, 13) + "    Backup GPT:      " + backup + FillTo(backup, 27));

  const int32_t count = disks.Table() != nullptr ? disks.Table()->Count(kKindPrimary) : 0;
  const std::string& guid = facts.diskGuid;
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

void PrintGptRows(const DiskSet& disks, TableDriver& table, FramedWriter& out) {
  const int32_t count = table.Count(kKindPrimary);
  for (int32_t k = 1; k <= count; ++k) {
    const PartitionRecord* record = table.Get(k, kKindPrimary);
    if (record != nullptr) PrintGptRow(disks, *record, table.Details(k), k, out);
  }
}

void PrintGptRow(const DiskSet& disks, const PartitionRecord& record, const EntryDetails* details, int position,
                 FramedWriter& out) {
  static const EntryDetails kNoDetails;
  const EntryDetails& d = details != nullptr ? *details : kNoDetails;

  const std::string letter = DriveLetterText(record, disks);
  const std::string number = std::to_string(position);
  const std::string start = std::to_string(record.startLba);
  const std::string size = FormatSizeCompact(SizeArgument(record.sizeBytes));
  out.Inner(FillTo(number, 2) + number + "  " + Field(d.longTypeName.empty() ? record.gptTypeName : d.longTypeName, 19) + "  " +
            Field(d.fileSystemName, 5) + " " + FillTo(start, 13) + start + " " + RightField(size, 4) + " " +
            (d.required ? "Yes " : " No ") + " " + (d.readOnly ? "Yes" : "No ") + " " +
            (d.attributeHidden ? "Yes " : " No ") + "  " + letter + " " + Field(record.volumeLabel, 9));
}

}  // namespace dh
