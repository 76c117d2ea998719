#include "disk/sector_device.h"

#include <cstddef>

#include "base/le.h"

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

bool WriteAllOrNothing(SectorDevice& device, const std::vector<WritePiece>& pieces) {
  std::vector<std::vector<uint8_t>> old(pieces.size());
  for (size_t i = 0; i < pieces.size(); ++i) {
    const WritePiece& p = pieces[i];
    if (p.bytes == 0) continue;
    if (p.lba > UINT64_MAX / kSectorSize) return false;
    old[i].resize(p.bytes);
    bool failed = false;
    if (ReadFull(device, p.lba * kSectorSize, old[i].data(), p.bytes, &failed) != p.bytes || failed) return false;
  }
  size_t reached = 0;  // the pieces that may have changed
  bool ok = true;
  while (ok && reached < pieces.size()) {
    const WritePiece& p = pieces[reached++];
    ok = p.bytes == 0 || WriteFull(device, p.lba * kSectorSize, p.data, p.bytes);
  }
  if (ok && device.Flush()) return true;
  // Last first, so that pieces that overlap end as they began.
  for (size_t i = reached; i-- > 0;) {
    if (pieces[i].bytes != 0) WriteFull(device, pieces[i].lba * kSectorSize, old[i].data(), pieces[i].bytes);
  }
  device.Flush();
  return false;
}

}  // namespace dh
