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

bool TransferAt(File& file, uint64_t offset, void* buffer, uint32_t bytes, bool write, uint32_t* moved) {
  auto* p = static_cast<uint8_t*>(buffer);
  *moved = 0;
  while (*moved < bytes) {
    uint32_t step = 0;
    if (!file.Seek(offset + *moved)) return false;
    const bool ok = write ? file.Write(p + *moved, bytes - *moved, &step) : file.Read(p + *moved, bytes - *moved, &step);
    if (!ok) return false;
    if (step == 0) break;
    *moved += step;
  }
  return true;
}

bool ReadAt(File& file, uint64_t offset, void* buffer, uint32_t bytes, uint32_t* got) {
  return TransferAt(file, offset, buffer, bytes, false, got);
}

bool WriteAt(File& file, uint64_t offset, const void* buffer, uint32_t bytes) {
  uint32_t moved = 0;
  // The buffer is only read on this path.
  return TransferAt(file, offset, const_cast<void*>(buffer), bytes, true, &moved) && moved == bytes;
}

}  // namespace dh::platform
