// The pieces that let bulk transfers skip what reads as zeros: where a
// device's holes lie, whether a buffer holds only zeros, and a write that
// leaves runs of zeros unwritten in a file that is new.
#pragma once

#include <cstdint>

namespace dh {

class SectorDevice;

// The holes of one device, learnt as a transfer walks it from its start to
// its end; one query per data run, not one per chunk.
class HoleMap {
 public:
  explicit HoleMap(SectorDevice& device);

  // True only when every byte of [offset, offset + bytes) reads as zeros
  // without being read: it lies inside the device's size, in a hole.  Any
  // doubt (no size, a failed query) answers false, so that the bytes are
  // read and a failing sector fails where it is.
  bool IsHole(uint64_t offset, uint64_t bytes);

  // The first range [*start, *end) inside [offset, limit) that may hold
  // data, everything from `offset` to *start reading as zeros; false when
  // the whole of [offset, limit) is a hole.  Where the map cannot tell, all
  // of it is data.
  bool DataIn(uint64_t offset, uint64_t limit, uint64_t* start, uint64_t* end);

 private:
  SectorDevice& device_;
  bool sized_ = false;
  uint64_t size_ = 0;
  bool known_ = false;    // a query has been made from `from_`
  uint64_t from_ = 0;     // where the last query started
  bool noData_ = false;   // nothing from `from_` to the end
  uint64_t dataStart_ = 0;
  uint64_t dataEnd_ = 0;
};

// Reads `bytes` bytes at `offset` as ReadFull does, reading only the data
// the map knows of and filling its holes with zeros.  Returns the bytes in
// place from `offset` on; `*failed` tells a failure from the end.
uint32_t ReadData(SectorDevice& device, HoleMap& holes, uint64_t offset, uint8_t* buffer, uint32_t bytes,
                  bool* failed);

// Whether all `bytes` bytes are zero.
bool AllZero(const uint8_t* data, uint64_t bytes);

// The granule of the holes a sparse write leaves: the block of most file
// systems, counted at offsets of the file written.
constexpr uint32_t kHoleGranule = 4096;

// Writes the bytes at `offset`, leaving out every granule of zeros: only
// for a file that was empty when the transfer began (they already read as
// zeros there).  `*end` grows to the end of the last byte actually written.
// False when a write fails.
bool WriteSparse(SectorDevice& file, uint64_t offset, const uint8_t* data, uint32_t bytes, uint64_t* end);

}  // namespace dh
