// The format command's engine wrapper (see formatter.h).
#include "disk/formatter.h"

#include <cstdio>
#include <vector>

#include "base/le.h"
#include "base/sink.h"
#include "disk/disk_set.h"
#include "disk/write_plan.h"

namespace dh {

namespace {

// Calls of the callback since the last pumped message; the engine runs on
// this thread, and one format at a time.
int g_callbackCalls = 0;

// Staged volumes are copied in pieces of this size.
constexpr uint32_t kCopyBytes = 1u << 20;

void SetMessage(Formatter& f, const std::string& text) { f.message = text.substr(0, kFormatMessageSize - 1); }

// The multibyte-to-wide conversion of a volume name ("\\?\Volume{GUID}\"
// is plain ASCII), cut to the field.
std::u16string Widen(const std::string& text) {
  std::u16string out;
  for (char c : text) {
    if (c == '\0' || out.size() >= kFormatRootSize - 1) break;
    out.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
  }
  return out;
}

// Copies a volume formatted in a staging file onto its partition, under a
// plan that holds every write to exactly that partition.
bool WriteStagedVolume(DiskSet& disks, uint64_t start, uint64_t count, platform::File& staged) {
  uint64_t size = 0;
  if (count == 0 || count > UINT64_MAX / kSectorSize || start > UINT64_MAX / kSectorSize - count) return false;
  if (!staged.Size(&size) || size != count * kSectorSize) return false;
  WritePlan plan;
  plan.Allow(start, count);
  WriteScope scope(disks, plan);
  SectorDevice& device = disks.Device();
  std::vector<uint8_t> buffer(kCopyBytes);
  for (uint64_t at = 0; at < size;) {
    const uint32_t piece = static_cast<uint32_t>(size - at < kCopyBytes ? size - at : kCopyBytes);
    uint32_t got = 0;
    if (!platform::ReadAt(staged, at, buffer.data(), piece, &got) || got != piece) return false;
    if (!WriteFull(device, start * kSectorSize + at, buffer.data(), piece)) return false;
    at += piece;
  }
  return device.Flush();
}

}  // namespace

bool FormatCallback(Formatter& f, int command, uint32_t, const platform::FormatCallbackData& data) {
  // A console program has no window, but whatever was queued gets handled
  // now and then; never waiting keeps the format going.
  if (g_callbackCalls > 5) {
    g_callbackCalls = 0;
    f.machine->PumpOneMessage();
  } else {
    ++g_callbackCalls;
  }
  switch (command) {
    case 0: {
      f.progressShown = true;
      // A percentage beyond a signed number is no percentage the engine means.
      f.lastPercent = data.percent > INT32_MAX ? INT32_MAX : static_cast<int32_t>(data.percent);
      SetMessage(f, std::to_string(f.lastPercent));
      f.out->Printf("%d percent completed.\r", static_cast<int>(f.lastPercent));
      break;
    }
    case 6: SetMessage(f, "Insufficient rights"); break;
    case 7: SetMessage(f, "Write protected"); break;
    case 9: SetMessage(f, "Invalid drive root"); break;
    case 11:
      f.success = data.success;
      if (!f.success) {
        if (f.message.size() < 4) SetMessage(f, "Unknown error");
        f.out->Write("Unable to complete format.\n\n");
      }
      break;
    case 14: f.out->Write(data.text); break;
    default: break;
  }
  return true;
}

platform::FormatPlace FormatPlaceOf(DiskSet& disks, const PartitionRecord& partition) {
  platform::FormatPlace place;
  place.drivePath = disks.disk().isVirtual() ? std::string() : disks.devicePath;
  place.startLba = partition.startLba;
  place.heads = disks.disk().heads();
  place.sectorsPerTrack = disks.disk().sectorsPerTrack();
  const uint64_t start = partition.startLba;
  const uint64_t count = partition.sectorCount;
  if (start == 0 || count == 0 || disks.SectorsOnDisk(start, count) != count) return place;
  // The partition, less sector 0 and every other partition the disk knows
  // of (an extended area with its logical drives among them): a hostile or
  // damaged entry makes the format refuse, never reach beyond itself.
  WritePlan plan;
  plan.Allow(start, count);
  for (const SectorRange& r : KnownPartitionSectors(disks)) {
    if (r.first != start || r.count != count) plan.Forbid(r.first, r.count);
  }
  plan.Forbid(0, 1);
  if (plan.Permits(start, count)) place.sectorCount = count;
  return place;
}

bool FormatVolume(DiskSet& disks, const PartitionRecord& partition, Formatter& f) {
  platform::Machine& machine = *f.machine;
  f.state = kFormatterLoading;
  f.progressShown = false;
  const platform::FormatEngineState engine = machine.LoadFormatEngine();
  if (engine == platform::FormatEngineState::LibraryMissing) {
    machine.MessageBox("Error: Unable to locate Windows disk format utility", "Format Error!");
    return false;
  }
  f.state = kFormatterLoaded;
  if (engine == platform::FormatEngineState::EntryMissing) {
    SetMessage(f, "Unable to instantiate format functionality");
    f.state = kFormatterNoEntry;
    machine.MessageBox(f.message, "Format Error!");
    return false;
  }
  f.driveRoot = Widen(partition.volumeName);
  f.label = kFormatLabel;

  platform::FormatPlace place = FormatPlaceOf(disks, partition);
  const uint64_t start = place.startLba;
  const uint64_t count = place.sectorCount;
  place.writeStaged = [&disks, start, count](platform::File& staged) {
    return WriteStagedVolume(disks, start, count, staged);
  };
  const platform::FormatCallback callback = [&f](int command, uint32_t subAction,
                                                 const platform::FormatCallbackData& data) {
    return FormatCallback(f, command, subAction, data);
  };
  try {
    if (!machine.FormatEx(f.driveRoot, kFormatMediaFlag, kFormatFileSystem, f.label, false, 0, callback, place)) {
      // The engine could not be called at all: that is its failure too.
      platform::FormatCallbackData end;
      FormatCallback(f, 11, 0, end);
    }
  } catch (...) {
    f.success = false;
    SetMessage(f, "Exception thrown");
  }
  return f.success;
}

}  // namespace dh
