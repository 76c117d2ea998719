// What a file answers about holes when its backend knows no better: all of
// it may hold data, and nothing can be zeroed except by writing.
#include <cstdint>

#include "platform/platform.h"

namespace dh::platform {

bool File::NextData(uint64_t offset, uint64_t* start, uint64_t* end) {
  *start = offset;
  *end = UINT64_MAX;
  return true;
}

bool File::ZeroRange(uint64_t, uint64_t) { return false; }

}  // namespace dh::platform
