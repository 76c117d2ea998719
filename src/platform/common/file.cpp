// What a file answers about holes when its backend knows no better: all of
// it may hold data, nothing can be zeroed except by writing, nothing is
// written early and nothing is copied but by reading and writing.
#include <cstdint>

#include "platform/platform.h"

namespace dh::platform {

bool File::NextData(uint64_t offset, uint64_t* start, uint64_t* end) {
  *start = offset;
  *end = UINT64_MAX;
  return true;
}

bool File::ZeroRange(uint64_t, uint64_t) { return false; }

void File::StartWriteback(uint64_t, uint64_t) {}

File* File::CloneSource() { return nullptr; }

bool File::CloneFrom(File&, uint64_t, uint64_t, uint64_t) { return false; }

}  // namespace dh::platform
