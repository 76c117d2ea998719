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
                                    std::shared_ptr<ErrorState> errors);

}  // namespace dh::platform::sim
