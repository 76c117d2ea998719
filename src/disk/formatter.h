// Formatting a volume: the program writes no file system structures
// itself.  It hands the volume to the system's format engine (FormatEx of
// "fmifs.dll" on Windows, mkntfs elsewhere) and prints the engine's
// progress as it arrives.  The outcome is on the console only: it never
// becomes the run's result.
#pragma once

#include <cstdint>
#include <string>

#include "disk/partition_record.h"
#include "platform/platform.h"

namespace dh {

class DiskSet;
class Sink;

// Formatter states.
constexpr int32_t kFormatterNoEntry = 0;  // the engine's entry point is missing
constexpr int32_t kFormatterLoaded = 1;
constexpr int32_t kFormatterLoading = 2;

// Capacities of the formatter's texts, terminator included.
constexpr size_t kFormatRootSize = 130;
constexpr size_t kFormatMessageSize = 1024;

// The new volume's file system and label, whatever the partition was.
constexpr char16_t kFormatFileSystem[] = u"NTFS";
constexpr char16_t kFormatLabel[] = u"MYLABEL";
// FormatEx's media flag for a fixed disk.
constexpr uint32_t kFormatMediaFlag = 0x0C;

struct Formatter {
  Formatter(Sink& console, platform::Machine& host) : out(&console), machine(&host) {}

  std::u16string driveRoot;
  std::u16string label;
  int32_t state = kFormatterLoading;
  bool progressShown = false;
  bool success = false;
  int32_t lastPercent = 0;
  // The last progress value or the reason of a failure; never printed.
  std::string message;
  // Where progress and failure lines go.
  Sink* out;
  // Whose format engine runs, and whose message queue is served meanwhile.
  platform::Machine* machine;
};

// The engine's report of one step (commands 0 progress, 6, 7, 9 failure
// reasons, 11 end, 14 a text to print).  Always true: the format goes on.
bool FormatCallback(Formatter& formatter, int command, uint32_t subAction, const platform::FormatCallbackData& data);

// Formats the volume of `partition`, a record of the current disk: by its
// volume name for FormatEx, by its place on the disk for mkntfs, which may
// only write inside the partition.  True when the engine reported success.
// A missing engine is told in a message box.
bool FormatVolume(DiskSet& disks, const PartitionRecord& partition, Formatter& formatter);

// Where `partition` lies, for engines that format by place: sectorCount 0
// when it must not be written as a whole (sector 0 in it, beyond the disk,
// or overlapping another partition).
platform::FormatPlace FormatPlaceOf(DiskSet& disks, const PartitionRecord& partition);

}  // namespace dh
