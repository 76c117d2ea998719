// A run of sectors: the first and how many.  One type for every layer (the
// write plan, a partition's sectors, the bad sectors of a simulated drive).
#pragma once

#include <cstdint>

namespace dh {

struct SectorRange {
  uint64_t first = 0;
  uint64_t count = 0;
  uint64_t end() const { return first + count; }  // the sector after the range
};

}  // namespace dh
