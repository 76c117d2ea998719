// The framed disk and partition listing.  Every inner line is 77 characters
// between two border characters: fixed texts plus fields filled with blanks
// to fixed widths, so that the right border stands in one column.  A text
// longer than its field is printed whole and pushes the border out.
//
// Numbers are formatted here rather than with printf length modifiers
// (%lld, %hX), whose MinGW and glibc readings differ; the output must be the
// same bytes on every platform.
#include "report/listing.h"

#include <cstdio>
#include <string>
#include <vector>

#include "base/le.h"
#include "disk/disk_set.h"
#include "disk/identify.h"
#include "disk/table_driver.h"
#include "mbr/type_table.h"
#include "platform/platform.h"
#include "report/format.h"
#include "report/gpt_listing.h"
#include "report/text_fields.h"

namespace dh {

namespace {

// "%-Wd": left-aligned decimal number.
std::string LeftNumber(int64_t value, int width) {
  std::string digits = std::to_string(value);
  return digits + FillTo(digits, width);
}

// "%-2.2X" / "%02hX": at least two upper-case hexadecimal digits.
std::string Hex2(uint32_t value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%02X", static_cast<unsigned int>(value));
  return buffer;
}

void EmitFreeSpaceRow(FramedWriter& out, uint64_t start, uint64_t sectors) {
  // The size wraps like the program's 64-bit product for absurd counts; the
  // columns show the low 32 bits of start and count, as the MBR holds them.
  std::string size = FormatSizeCompact(static_cast<int64_t>(sectors * kSectorSize));
  out.Inner(" Freespace        " + size + "            " + FormatGroupedCount(static_cast<uint32_t>(start), 14) + " " +
            FormatGroupedCount(static_cast<uint32_t>(sectors), 15) + "               ");
}

void PrintMbrRows(DiskSet& disks, const ListRequest& options, FramedWriter& out) {
  // Collected once, so that long extended chains list in linear time.
  const std::vector<PartitionRecord*> primaries = Partitions(disks, kKindPrimary);
  const std::vector<PartitionRecord*> logicals = Partitions(disks, kKindLogical);
  const size_t count = primaries.size();
  for (size_t i = 0; i < count; ++i) {
    const PartitionRecord& record = *primaries[i];
    const int position = static_cast<int>(i + 1);
    // Free space before the first partition is counted from sector 63, where
    // the first partition of a classic MBR disk begins.
    if (options.showFreeSpace && i == 0 && record.startLba > 63) EmitFreeSpaceRow(out, 63, record.startLba - 63);
    PrintPartitionRow(record, position, kRowFramed, DriveLetterText(record, disks), out);
    if (options.showLogical && IsExtendedType(static_cast<uint32_t>(record.type))) {
      for (size_t j = 0; j < logicals.size(); ++j) {
        PrintPartitionRow(*logicals[j], position + static_cast<int>(j + 1), kRowFramed,
                          DriveLetterText(*logicals[j], disks), out);
      }
    }
    if (options.showFreeSpace) {
      const uint64_t end = record.startLba + record.sectorCount;
      if (i + 1 < count) {
        const uint64_t next = primaries[i + 1]->startLba;
        if (next > end) EmitFreeSpaceRow(out, end, next - end);
      } else if (disks.disk().totalSectors() > end) {
        EmitFreeSpaceRow(out, end, disks.disk().totalSectors() - end);
      }
    }
  }
}

void PrintDiskBlock(DiskSet& disks, int32_t diskNumber, const ListRequest& request, FramedWriter& out) {
  const FrameChars& frame = out.frame();

  // Every block is preceded by an empty line.
  out.Emit("\n");
  out.Border(frame.topLeft, frame.dblHLine, frame.topRight);

  const std::string kind = CText(disks.disk().diskKindText());
  const std::string kindField = "MBR/GPT:         " + kind + FillTo(kind, 27);
  out.Inner(" Disk: " + DiskNameField(disks, diskNumber) + kindField);

  // A table with a header of its own lists its entries with their
  // attributes; the MBR lists its slots.
  TableHeaderFacts facts;
  TableDriver* table = disks.Table();
  if (table != nullptr && table->HeaderFacts(&facts)) {
    PrintGptDetails(disks, facts, out);
    PrintGptRows(disks, *table, out);
  } else {
    PrintMbrDiskDetails(disks, out);
    PrintMbrRows(disks, request, out);
  }

  if (!disks.disk().tableLoaded()) {
    out.Inner(Blanks(kFrameWidth));
    const std::string disk = std::to_string(disks.currentDisk);
    out.Inner("  Warning:  There is a discrepency with the partition table on disk " + disk + " " + Blanks(7));
    out.Inner("    Try reloading the configuration by rebooting the machine " + Blanks(16));
  }
  // A GPT disk lists its entries, an MBR disk its primaries.
  if (PartitionCount(disks, kKindPrimary) == 0) out.Inner("  No partitions found on this disk  " + Blanks(41));

  out.Border(frame.bottomLeft, frame.dblHLine, frame.bottomRight);
}

constexpr int32_t kAllDisks = -1;
constexpr int32_t kVirtualDisk = 999;

// The problems the table of the disk just listed found in itself, one
// warning line each.  A disk that failed to load leaves the table of the
// disk before it in place: its warnings are not repeated under another
// disk's name.
void PrintTableWarnings(const DiskSet& disks, int32_t diskNumber, Sink& warnings) {
  const TableDriver* table = disks.Table();
  if (table == nullptr) return;
  const bool virtualDisk = diskNumber == kVirtualDisk;
  if (disks.disk().isVirtual() != virtualDisk || !disks.TableLoadedFor(diskNumber, virtualDisk)) return;
  if (!virtualDisk && disks.currentDisk != diskNumber) return;
  const std::string prefix =
      "diskhold: warning: " + (virtualDisk ? std::string("virtual disk") : "disk " + std::to_string(diskNumber)) + ": ";
  for (const std::string& problem : table->Verify()) warnings.Write(prefix + problem + "\n");
}

ResultCode ListOneDisk(DiskSet& disks, int32_t diskNumber, const ListRequest& request, FramedWriter& out) {
  if (diskNumber == kVirtualDisk) {
    disks.OpenVirtualDisk(request.diskFileName);
  } else {
    disks.SelectDisk(diskNumber);
  }
  // A disk that failed to load is listed all the same, with whatever the
  // loaded disk record then holds: the listing shows what the program sees.
  PrintDiskBlock(disks, diskNumber, request, out);
  PrintTableWarnings(disks, diskNumber, request.warnings != nullptr ? *request.warnings : StdErr());
  return disks.firstError;
}

}  // namespace

ResultCode ListDisks(DiskSet& disks, const ListRequest& request, FramedWriter& out) {
  ResultCode first = kSuccess;
  if (request.diskNumber == kAllDisks || !request.diskExplicit) {
    for (int32_t d = 0; d < disks.diskCount; ++d) {
      const ResultCode rc = ListOneDisk(disks, d, request, out);
      if (first == kSuccess) first = rc;
    }
  } else {
    first = ListOneDisk(disks, request.diskNumber, request, out);
  }
  if (request.asciiMap) PrintCharacterMap(request.codePage, out);
  return first;
}

void PrintCharacterMap(uint32_t codePage, FramedWriter& out) {
  Sink& sink = out.sink();
  sink.Printf("\nCodepage= %d\n", static_cast<int>(codePage));
  for (int row = 0; row < 32; ++row) {
    if (row != 1) {
      for (int col = 0; col < 8; ++col) {
        int code = row * 8 + col;
        sink.Printf("%3d %c    ", code, code);
      }
    }
    sink.Write("\n", 1);
  }
  sink.Write("\n", 1);
}

void PrintMbrDiskDetails(DiskSet& disks, FramedWriter& out) {
  const FrameChars& frame = out.frame();

  const std::string size = FormatSizeText(disks.machine(), static_cast<int64_t>(disks.disk().totalBytes()));
  const std::string geometry = "CHS:             " + std::to_string(disks.disk().cylinders()) + " " +
                               std::to_string(disks.disk().heads()) + " " + std::to_string(disks.disk().sectorsPerTrack());
  out.Inner("   Size:        " + size + FillTo(size, 17) + geometry + FillTo(geometry, 44));

  // The signature bytes from last to first read as the little-endian number.
  const std::string sectors = std::to_string(static_cast<int64_t>(disks.disk().totalSectors()));
  out.Inner("   Sectors:     " + sectors + FillTo(sectors, 13) + Blanks(4) + "Disk Signature:  0x" +
            Hex2(disks.disk().savedSignature()[3]) + Hex2(disks.disk().savedSignature()[2]) + Hex2(disks.disk().savedSignature()[1]) +
            Hex2(disks.disk().savedSignature()[0]) + Blanks(17));

  const std::vector<PartitionRecord*> primaries = Partitions(disks, kKindPrimary);
  std::string order;
  for (const PartitionRecord* record : primaries) order += std::to_string(record->slot + 1) + " ";
  out.Inner("   Partitions:  " + std::to_string(primaries.size()) + Blanks(16) + "Partition Order: " + order +
            FillTo(order, 27));

  PrintMediaAndDescription(disks, out);

  out.Border(frame.teeLeft, frame.hLine, frame.teeRight);
  out.Inner("Pos Idx Type/Name Size Boot Hide  Start Sector  Total Sectors  DL Vol Label  ");

  std::string underline = frame.Text(frame.teeLeft);
  const int runs[] = {3, 3, 9, 4, 4, 4, 14, 14, 2, 11};
  for (size_t i = 0; i < sizeof runs / sizeof runs[0]; ++i) {
    if (i > 0) underline += " ";
    underline += frame.Fill(frame.hLine, runs[i]);
  }
  out.Emit(underline + frame.Text(frame.teeRight) + "\n");
}

void PrintMediaAndDescription(DiskSet& disks, FramedWriter& out) {
  // The bus and the description share one buffer of the DiskSet.
  const std::string bus = CText(GetDiskBus(disks, disks.currentDisk));
  const bool removable = disks.disk().mediaType() == platform::kMediaRemovable;
  out.Inner(std::string("   Media Type:  ") + (removable ? "Removable" + Blanks(7) : "Fixed" + Blanks(11)) +
            " Interface:       " + bus + FillTo(bus, 27));
  const std::string description = CText(GetDiskDescription(disks, disks.currentDisk));
  out.Inner("   Description: " + description + FillTo(description, 61));
}

void PrintPartitionRow(const PartitionRecord& record, int position, int form, const std::string& letter,
                       FramedWriter& out) {
  const std::string type = Hex2(static_cast<uint32_t>(record.type));
  const std::string size = FormatSizeCompact(static_cast<int64_t>(record.sizeBytes));
  const std::string start = FormatGroupedCount(static_cast<uint32_t>(record.startLba), 14);
  const std::string count = FormatGroupedCount(static_cast<uint32_t>(record.sectorCount), 15);
  const std::string slot = LeftNumber(record.slot + 1, 2);

  if (form == kRowBackupFile) {
    out.Emit("\n  " + LeftNumber(record.primaryNumber, 2) + "  " + slot + " " + type + "-" + Field(record.typeName, 7) +
         " " + size + "  " + (record.active ? "Yes" : "No ") + "    " + (record.hidden ? "Yes" : "No ") + "  " +
         start + "  " + count);
    return;
  }

  std::string lead;
  if (record.isPrimary) {
    lead = " " + LeftNumber(record.primaryNumber, 2) + "  " + slot;
  } else if (position <= 9) {
    lead = " L" + LeftNumber(record.logicalNumber, 2) + " - ";
  } else {
    lead = "L" + LeftNumber(record.logicalNumber, 2) + "  - ";
  }
  const std::string label = CText(record.volumeLabel).empty() ? "<None>" : record.volumeLabel;
  out.Inner(lead + " " + type + "-" + Field(record.typeName, 6) + " " + size + " " +
            Field(record.active ? " Yes" : " No", 4) + "  " + Field(record.hidden ? "Yes" : "No ", 3) + "  " + start +
            " " + count + " " + letter + " " + Field(label, 11));
}

}  // namespace dh
