// Hole-aware pieces of the bulk transfers.  Nothing here changes a byte of
// what a transfer produces; it only avoids reading holes and writing zeros.
#include "sectors/sparse_copy.h"

#include <cstring>

#include "disk/sector_device.h"

namespace dh {

HoleMap::HoleMap(SectorDevice& device) : device_(device) { sized_ = device_.SizeBytes(&size_); }

bool HoleMap::IsHole(uint64_t offset, uint64_t bytes) {
  if (!sized_ || bytes == 0 || offset > size_ || bytes > size_ - offset) return false;
  const bool stale = !known_ || offset < from_ || (!noData_ && offset >= dataEnd_);
  if (stale) {
    uint64_t start = 0;
    uint64_t end = 0;
    known_ = true;
    from_ = offset;
    noData_ = !device_.NextData(offset, &start, &end);
    // An answer that does not move forward is no answer: all of it is data.
    if (!noData_ && (start < offset || end <= start)) {
      start = offset;
      end = UINT64_MAX;
    }
    dataStart_ = start;
    dataEnd_ = end;
  }
  if (noData_) return true;
  // Between the query's start and the next data there is only zeros.
  return offset <= dataStart_ && bytes <= dataStart_ - offset;
}

bool HoleMap::DataIn(uint64_t offset, uint64_t limit, uint64_t* start, uint64_t* end) {
  if (offset >= limit) return false;
  if (IsHole(offset, limit - offset)) return false;
  // Not all of it is a hole; where the last answer applies, it tells where
  // the data begins and ends.
  if (sized_ && limit <= size_ && known_ && !noData_ && offset >= from_ && offset < dataEnd_) {
    *start = dataStart_ > offset ? dataStart_ : offset;
    *end = dataEnd_ < limit ? dataEnd_ : limit;
    return true;
  }
  *start = offset;
  *end = limit;
  return true;
}

uint32_t ReadData(SectorDevice& device, HoleMap& holes, uint64_t offset, uint8_t* buffer, uint32_t bytes,
                  bool* failed) {
  *failed = false;
  if (offset > UINT64_MAX - bytes) return ReadFull(device, offset, buffer, bytes, failed);
  const uint64_t limit = offset + bytes;
  uint64_t at = offset;
  while (at < limit) {
    uint64_t start = 0;
    uint64_t end = 0;
    if (!holes.DataIn(at, limit, &start, &end)) start = end = limit;
    std::memset(buffer + (at - offset), 0, start - at);
    if (start == limit) break;
    const uint32_t want = static_cast<uint32_t>(end - start);
    const uint32_t got = ReadFull(device, start, buffer + (start - offset), want, failed);
    if (got < want) return static_cast<uint32_t>(start - offset) + got;
    at = end;
  }
  return bytes;
}

bool AllZero(const uint8_t* data, uint64_t bytes) {
  uint64_t i = 0;
  // Eight words at a time, so that a buffer of data fails at once and one
  // of zeros costs a pass of plain loads.
  for (; i + 64 <= bytes; i += 64) {
    uint64_t w[8];
    std::memcpy(w, data + i, sizeof w);
    if ((w[0] | w[1] | w[2] | w[3] | w[4] | w[5] | w[6] | w[7]) != 0) return false;
  }
  for (; i < bytes; ++i) {
    if (data[i] != 0) return false;
  }
  return true;
}

bool WriteSparse(SectorDevice& file, uint64_t offset, const uint8_t* data, uint32_t bytes, uint64_t* end) {
  uint32_t at = 0;
  while (at < bytes) {
    // One granule of the file, or the part of one the buffer covers.
    const uint64_t into = (offset + at) % kHoleGranule;
    const uint32_t step = static_cast<uint32_t>(
        kHoleGranule - into < bytes - at ? kHoleGranule - into : bytes - at);
    if (AllZero(data + at, step)) {
      at += step;
      continue;
    }
    // A run of granules that hold data goes in one write.
    uint32_t run = step;
    while (at + run < bytes) {
      const uint32_t next = bytes - (at + run) < kHoleGranule ? bytes - (at + run) : kHoleGranule;
      if (AllZero(data + at + run, next)) break;
      run += next;
    }
    if (!WriteFull(file, offset + at, data + at, run)) return false;
    at += run;
    if (offset + at > *end) *end = offset + at;
  }
  return true;
}

}  // namespace dh
