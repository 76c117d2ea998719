// Staged formatting (see staged_format.h).
#include "platform/common/staged_format.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <system_error>

#include "base/le.h"

namespace dh::platform {

namespace {

constexpr uint64_t kSectorBytes = kSectorSize;

// A fresh name in the host's temporary folder; empty when there is none.
std::string StagingPath() {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::temp_directory_path(error);
  if (error) return std::string();
  std::random_device random;
  const uint64_t tag = (static_cast<uint64_t>(random()) << 32) ^ random();
  char name[64];
  std::snprintf(name, sizeof name, "diskhold-format-%016llx.img", static_cast<unsigned long long>(tag));
  return (folder / name).string();
}

void RemoveHostFile(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

// Makes the new file `bytes` long without writing its body: a sparse file
// where the host allows one.
bool SizeStagingFile(File& file, uint64_t bytes) {
  const uint8_t zero = 0;
  uint32_t done = 0;
  return file.Seek(bytes - 1) && file.Write(&zero, 1, &done) && done == 1;
}

}  // namespace

std::string NarrowText(const std::u16string& text) {
  std::string out;
  for (char16_t c : text) out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  return out;
}

NtfsFormatJob JobForPlace(const FormatPlace& place, const std::string& path, const std::string& label) {
  NtfsFormatJob job;
  job.path = path;
  job.hiddenSectors = place.startLba;
  job.sectorCount = place.sectorCount;
  job.heads = place.heads;
  job.sectorsPerTrack = place.sectorsPerTrack;
  job.label = label;
  job.quick = true;
  return job;
}

bool FormatStaged(Machine& runner, const std::string& label, const FormatPlace& place,
                  const FormatCallback& callback) {
  auto finish = [&](bool success) {
    FormatCallbackData end;
    end.success = success;
    if (callback) callback(11, 0, end);
    return true;
  };
  if (place.sectorCount == 0 || place.sectorCount > UINT64_MAX / kSectorBytes || !place.writeStaged) {
    return finish(false);
  }
  const std::string path = StagingPath();
  if (path.empty()) return finish(false);
  {
    std::unique_ptr<File> file = runner.Open(path, OpenMode::CreateAlways);
    if (!file) return finish(false);
    if (!SizeStagingFile(*file, place.sectorCount * kSectorBytes)) {
      file.reset();
      RemoveHostFile(path);
      return finish(false);
    }
  }
  // The engine's end is held back: the volume is done only once it is on
  // the partition.
  bool formatted = false;
  const FormatCallback inner = [&](int command, uint32_t subAction, const FormatCallbackData& data) {
    if (command == 11) {
      formatted = data.success;
      return true;
    }
    return callback ? callback(command, subAction, data) : true;
  };
  if (!runner.RunNtfsFormatter(JobForPlace(place, path, label), inner)) {
    RemoveHostFile(path);
    return false;
  }
  bool copied = false;
  if (formatted) {
    std::unique_ptr<File> staged = runner.Open(path, OpenMode::ReadExisting);
    copied = staged && place.writeStaged(*staged);
  }
  RemoveHostFile(path);
  return finish(copied);
}

}  // namespace dh::platform
