#include "disk/sector_device.h"

namespace dh {

bool SectorDevice::NextData(uint64_t offset, uint64_t* start, uint64_t* end) {
  uint64_t size = 0;
  if (!SizeBytes(&size) || offset >= size) return false;
  *start = offset;
  *end = size;
  return true;
}

bool SectorDevice::ZeroRange(uint64_t, uint64_t) { return false; }

void SectorDevice::StartWriteback(uint64_t, uint64_t) {}

platform::File* SectorDevice::CloneSource() { return nullptr; }

bool SectorDevice::CloneFrom(SectorDevice&, uint64_t, uint64_t, uint64_t) { return false; }

uint32_t ReadFull(SectorDevice& device, uint64_t offset, void* buffer, uint32_t bytes, bool* failed) {
  uint8_t* p = static_cast<uint8_t*>(buffer);
  uint32_t total = 0;
  bool bad = false;
  while (total < bytes) {
    if (offset > UINT64_MAX - total) {
      bad = true;
      break;
    }
    uint32_t done = 0;
    if (!device.ReadSome(offset + total, p + total, bytes - total, &done)) {
      bad = true;
      break;
    }
    if (done == 0) break;
    // A device never hands over more than asked; one that claims to is broken.
    if (done > bytes - total) {
      bad = true;
      break;
    }
    total += done;
  }
  if (failed) *failed = bad;
  return total;
}

bool WriteFull(SectorDevice& device, uint64_t offset, const void* buffer, uint32_t bytes) {
  const uint8_t* p = static_cast<const uint8_t*>(buffer);
  uint32_t total = 0;
  while (total < bytes) {
    if (offset > UINT64_MAX - total) return false;
    uint32_t done = 0;
    if (!device.WriteSome(offset + total, p + total, bytes - total, &done) || done == 0 || done > bytes - total) {
      return false;
    }
    total += done;
  }
  return true;
}

}  // namespace dh
