// The info report and the boot menu (see info.h).  Numbers are formatted
// here rather than with printf length modifiers, whose MinGW and glibc
// readings differ.
#include "report/info.h"

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "base/sink.h"
#include "disk/disk_set.h"
#include "disk/identify.h"
#include "platform/platform.h"
#include "report/format.h"
#include "report/text_fields.h"

namespace dh {

namespace {

// The type of an extended partition that the menu does not offer.
constexpr int32_t kHiddenMenuType = 0x0F;

// "%-Ws": at least `width` characters, never cut.
std::string AtLeast(const std::string& text, int width) { return text + FillTo(text, width); }

// "%-2.2X": at least two upper-case hexadecimal digits.
std::string Hex2(uint32_t value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%02X", static_cast<unsigned int>(value));
  return buffer;
}

}  // namespace

void ShowDiskInfo(DiskSet& disks, Sink& out) {
  for (int32_t d = 0; d < disks.diskCount; ++d) {
    disks.SelectDisk(d);
    // Nothing reports the BIOS enhanced-disk-drive parameters here.
    out.Write("\n Disk:       " + std::to_string(d) + "\n Bios Ext:   None");
    out.Write("\n Host Bus:   Not Supported");
    out.Write("\n Interface:  Not Supported");
    out.Write("\n CHS:        " + std::to_string(disks.disk().cylinders()) + " " + std::to_string(disks.disk().heads()) + " " +
              std::to_string(disks.disk().sectorsPerTrack()) + "     Sectors: " +
              std::to_string(static_cast<int64_t>(disks.disk().totalSectors())) +
              "   Size: " + FormatSizeText(disks.machine(), static_cast<int64_t>(disks.disk().totalBytes())));
    out.Write("\n");
  }
}

BootMenuChoice ReadBootMenuAnswer(const std::string& line, int32_t lastId) {
  const std::string answer = line.substr(0, kBootMenuAnswerLength);
  BootMenuChoice choice;
  choice.asked = true;
  int64_t number = 0;
  for (size_t i = 0; i < answer.size() && answer[i] >= '0' && answer[i] <= '9'; ++i) {
    number = number * 10 + (answer[i] - '0');
    if (number > INT32_MAX) number = INT32_MAX;
  }
  choice.number = static_cast<int32_t>(number);
  // Only the first character counts: '1' up to the last id shown, as one
  // character (ids of ten and more cannot be typed as their first digit
  // alone).
  const int32_t c = answer.empty() ? 0 : static_cast<unsigned char>(answer[0]);
  choice.valid = c >= '1' && c < '1' + lastId;
  return choice;
}

BootMenuChoice RunBootMenu(DiskSet& disks, Sink& out) {
  out.Write("\n Disk: " + std::to_string(disks.currentDisk) +
            "   Size: " + FormatSizeText(disks.machine(), static_cast<int64_t>(disks.disk().totalBytes())) + "  Name: " +
            CText(GetDiskDescription(disks, disks.currentDisk)) + "\n");
  out.Write("\n ID  Volume Label DL Type/Name  Size  Active  Hidden  Start Sector");
  out.Write("\n --  ------------ -- ---------  ----  ------  ------  ------------");

  const std::vector<PartitionRecord*> primaries = Partitions(disks, kKindPrimary);
  int32_t rows = 0;
  int32_t lastId = 0;
  for (size_t i = 0; i < primaries.size(); ++i) {
    const PartitionRecord& r = *primaries[i];
    if (r.type == kHiddenMenuType) continue;
    const int32_t k = static_cast<int32_t>(i + 1);
    const std::string label = CText(r.volumeLabel).empty() ? "<None>" : CText(r.volumeLabel);
    out.Write("\n  " + AtLeast(std::to_string(k), 2) + " " + AtLeast(label, 12) + " " + DriveLetterText(r, disks) +
              " " + Hex2(static_cast<uint32_t>(r.type)) + "-" + Field(r.typeName, 7) + " " +
              FormatSizeCompact(static_cast<int64_t>(r.sizeBytes)) + "   " + (r.active ? "Yes" : "No ") + "     " +
              (r.hidden ? "Yes" : "No ") + "     " + FormatGroupedCount(static_cast<uint32_t>(r.startLba), 12));
    ++rows;
    lastId = k;
  }
  if (rows == 0) return BootMenuChoice{};

  out.Write("\n\n Select the partition id to set active: ");
  std::string line;
  // End of input answers like an empty line.
  if (!disks.machine().ReadLine(&line)) line.clear();
  return ReadBootMenuAnswer(line, lastId);
}

}  // namespace dh
