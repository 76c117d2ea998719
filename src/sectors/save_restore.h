// save= and restore=: copies of disk sectors into a Diskhold Backup File
// and back.
#pragma once

#include <cstdint>
#include <string>

#include "base/le.h"
#include "base/result_codes.h"

namespace dh {

class DiskSet;
class Sink;

// The chunk of the bulk copies and of restores: 2048 sectors, 1 MiB.
constexpr uint32_t kChunkSectors = 2048;
constexpr uint32_t kChunkBytes = kChunkSectors * kSectorSize;

// Sectors of the current disk, counted from its sector 0.  Each operation
// records its failures in the DiskSet (first error wins) and returns the
// DiskSet's first error.

// Sector-by-sector copy (mbr, track0, gpt, vbr).  A sector that cannot be
// read is left out (506) and the copy goes on; the save succeeds only when
// the last sector was read and written.  `kind` 0 writes a raw file.
ResultCode SaveSectorsToFile(DiskSet& disks, const std::string& fileName, uint64_t firstSector, uint64_t count,
                             uint8_t kind);

// Chunked copy of 2048 sectors at a time (disk, range), with the progress
// screen when more than 13,000 sectors are copied.  A failing read ends the
// copy with 508, a failing file write with 507.
ResultCode SaveRangeToFile(DiskSet& disks, const std::string& fileName, uint64_t firstSector, uint64_t count,
                           uint8_t kind, Sink& out);

// Copies at most this many sectors without the progress screen.
constexpr uint64_t kQuietSaveSectors = 13000;

// Writes the sectors a backup file holds at `targetSector` on.  `count` is
// the number of sectors the command asks for (the file may hold fewer, never
// more: 560), or -1 for whatever the file holds, which must fit on the disk
// from `targetSector` on (560).  The caller's write plan covers the area.
// `requireMbr`: every chunk must end in 55 AA at bytes 510..511 (561).
// With `count` -1 the sector count is printed to `out` first.
ResultCode RestoreFromFile(DiskSet& disks, const std::string& fileName, uint64_t targetSector, int64_t count,
                           bool requireMbr, Sink& out);

}  // namespace dh
