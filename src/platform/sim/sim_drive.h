// A physical drive of the simulated machine: an image file seen through the
// eyes of a disk driver (geometry, bad sectors, an end that does not move).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/platform.h"
#include "platform/sim/machine_file.h"

namespace dh::platform::sim {

// The last failure of the simulated machine, shared with the files it has
// opened so that a failed transfer shows in the machine's LastError.
struct ErrorState {
  uint32_t lastError = 0;
};

// Windows error codes the simulated machine reports.
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorNotReady = 21;
constexpr uint32_t kErrorCrc = 23;
constexpr uint32_t kErrorSectorNotFound = 27;
constexpr uint32_t kErrorWriteFault = 29;
constexpr uint32_t kErrorInvalidParameter = 87;

// The transfer trace of the machine file's `tracelog` key: one line per
// transfer on a drive, "DRIVE OP FIRST COUNT MOVED RESULT", with OP read,
// write or zero, the sectors asked for (FIRST, COUNT), the sectors the
// transfer changed or delivered (MOVED, from FIRST) and RESULT ok or fail.
// A trace that cannot be written is given up silently: the program's own
// output never depends on it.
class TransferTrace {
 public:
  TransferTrace(std::shared_ptr<Machine> native, std::string path);
  void Record(int drive, const char* op, uint64_t offset, uint64_t bytes, uint64_t movedBytes, bool ok);

 private:
  std::shared_ptr<Machine> native_;
  std::string path_;
  bool broken_ = false;
};

// Whether any byte of [offset, offset + bytes) lies in a bad sector.
bool TouchesBadSector(const std::vector<SectorRange>& bad, uint64_t offset, uint64_t bytes);

// The layout Windows would report for a disk without a partition table of
// its own, judged from its first sector (NTFS, FAT32, FAT16/12 or unknown).
LayoutEntry DeriveLayout(const uint8_t* sector0, size_t bytes, uint64_t diskBytes);

// Opens drive `drive` on its image `image` (already open in the mode the
// caller asked for), whose size is `imageBytes`.  `native` reports the
// image's own failures.
std::unique_ptr<File> MakeDriveFile(const DriveDescription& drive, std::unique_ptr<File> image, uint64_t imageBytes,
                                    bool writable, std::shared_ptr<Machine> native,
                                    std::shared_ptr<ErrorState> errors, std::shared_ptr<TransferTrace> trace);

}  // namespace dh::platform::sim
