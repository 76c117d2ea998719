// The loops every caller shares for whole transfers at an offset, and what
// a file answers about holes when its backend knows no better: all of
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

bool ReadAt(File& file, uint64_t offset, void* buffer, uint32_t bytes, uint32_t* got) {
  auto* p = static_cast<uint8_t*>(buffer);
  *got = 0;
  while (*got < bytes) {
    uint32_t step = 0;
    if (!file.Seek(offset + *got) || !file.Read(p + *got, bytes - *got, &step)) return false;
    if (step == 0) break;
    *got += step;
  }
  return true;
}

bool WriteAt(File& file, uint64_t offset, const void* buffer, uint32_t bytes) {
  const auto* p = static_cast<const uint8_t*>(buffer);
  uint32_t total = 0;
  while (total < bytes) {
    uint32_t step = 0;
    if (!file.Seek(offset + total) || !file.Write(p + total, bytes - total, &step) || step == 0) return false;
    total += step;
  }
  return true;
}

}  // namespace dh::platform
