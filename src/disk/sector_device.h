// The one road to the bytes of a disk.  A SectorDevice is what a disk's
// sectors live on: a drive or image file (DeviceHandle), or a virtual disk
// whose sectors its own layout places inside its files.  Each device applies
// its own mapping once; everything above addresses the disk by its own byte
// offsets (LBA x 512) and never adds an offset of its own.
#pragma once

#include <cstdint>
#include <vector>

namespace dh {

namespace platform {
class File;
}

class SectorDevice {
 public:
  virtual ~SectorDevice() = default;

  // One transfer at a byte offset of the disk.  It may move fewer bytes than
  // asked (`*done`); a read of 0 bytes is the end of the data.  False when
  // the transfer failed.
  virtual bool ReadSome(uint64_t offset, void* buffer, uint32_t bytes, uint32_t* done) = 0;
  virtual bool WriteSome(uint64_t offset, const void* buffer, uint32_t bytes, uint32_t* done) = 0;
  // Makes everything written so far durable.
  virtual bool Flush() = 0;

  // The disk's size in bytes, when the device knows it.
  virtual bool SizeBytes(uint64_t* bytes) = 0;

  // Where data may lie at or after `offset`: the first range [*start, *end)
  // that may hold non-zero bytes.  Everything outside such ranges reads as
  // zeros.  False when there is no data at or after `offset`.  A device that
  // cannot tell reports everything up to its end as data.
  virtual bool NextData(uint64_t offset, uint64_t* start, uint64_t* end);

  // Makes [offset, offset + bytes) read as zeros without writing buffers of
  // zeros, where the medium can (holes in image files, the device's own
  // zeroing).  False when the device cannot; the caller then writes zeros.
  virtual bool ZeroRange(uint64_t offset, uint64_t bytes);

  // Starts writing [offset, offset + bytes) to the medium while a bulk
  // transfer goes on; durable only after Flush.  A hint a device may ignore.
  virtual void StartWriteback(uint64_t offset, uint64_t bytes);

  // The host file that holds this device's bytes at the device's own
  // offsets, for the file system to share its blocks; nullptr when there is
  // none.
  virtual platform::File* CloneSource();
  // Makes [to, to + bytes) of this device hold [from, from + bytes) of
  // `source` by sharing the file system's blocks.  False when it cannot;
  // the caller then reads and writes.
  virtual bool CloneFrom(SectorDevice& source, uint64_t from, uint64_t to, uint64_t bytes);

  // Whether the device refuses every write (a disk file whose layout was
  // found damaged when it opened).
  virtual bool WritesRefused() { return false; }
};

// Reads until `bytes` bytes are in, the data ends or a transfer fails.
// Returns the byte count read; `*failed` (when given) tells a failure from
// the end.  The only read loop of the program.
uint32_t ReadFull(SectorDevice& device, uint64_t offset, void* buffer, uint32_t bytes, bool* failed = nullptr);

// Writes all `bytes` bytes or fails: a transfer that fails or moves nothing
// ends it.  Does not flush.  The only write loop of the program.
bool WriteFull(SectorDevice& device, uint64_t offset, const void* buffer, uint32_t bytes);

// One part of a write that lands whole or not at all.
struct WritePiece {
  uint64_t lba = 0;
  const uint8_t* data = nullptr;
  uint32_t bytes = 0;  // 0: nothing to write
};

// Writes the pieces in order and flushes them.  What they overwrite is read
// first, and a piece whose old sectors cannot be read is not written at
// all; when a write or the flush fails, every piece written so far (the
// failed one too, which may have landed in part) gets its old sectors back.
// A table spread over several places (a GPT's headers and arrays) is thus
// left all old or all new, as far as the medium lets itself be written.
bool WriteAllOrNothing(SectorDevice& device, const std::vector<WritePiece>& pieces);

}  // namespace dh
