// Where a VMware virtual disk keeps its sectors: the extents of the
// descriptor in order (flat runs of a file, hosted sparse extents with their
// grain directory and grain tables, zero runs), seen together as one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/result_codes.h"
#include "platform/platform.h"
#include "vdisk/vmdk_descriptor.h"

namespace dh::vmdk {

// Hosted sparse extent header (sector 0 of a sparse extent file).
constexpr size_t kHdrMagic = 0;              // "KDMV"
constexpr size_t kHdrVersion = 4;            // 32-bit
constexpr size_t kHdrFlags = 8;              // 32-bit
constexpr size_t kHdrCapacity = 12;          // 64-bit, sectors
constexpr size_t kHdrGrainSize = 20;         // 64-bit, sectors
constexpr size_t kHdrDescriptorOffset = 28;  // 64-bit, sector
constexpr size_t kHdrDescriptorSize = 36;    // 64-bit, sectors
constexpr size_t kHdrGtesPerGt = 44;         // 32-bit
constexpr size_t kHdrRgdOffset = 48;         // 64-bit, sector
constexpr size_t kHdrGdOffset = 56;          // 64-bit, sector
constexpr size_t kHdrOverhead = 64;          // 64-bit, sectors
constexpr size_t kHdrCompression = 77;       // 16-bit

constexpr uint32_t kFlagRedundantGd = 1u << 1;
constexpr uint32_t kFlagZeroedGrainGte = 1u << 2;
constexpr uint32_t kFlagCompressedGrains = 1u << 16;
constexpr uint32_t kFlagMarkers = 1u << 17;

// Limits beyond which a header is not believed: they keep the tables that
// are read at open, and the memory they take, bounded (a grain directory of
// at most 512 KiB, at most 256 MiB of grain tables to check).
constexpr uint64_t kMaxGrainSize = 0x200000;  // sectors (1 GiB)
constexpr uint32_t kMaxGtesPerGt = 512;
constexpr uint64_t kMaxGrains = 1ull << 26;
constexpr uint64_t kMaxGdEntries = 1ull << 17;
// A descriptor larger than this is not one.
constexpr uint64_t kMaxDescriptorBytes = 1u << 20;

struct SparseHeader {
  uint32_t version = 0;
  uint32_t flags = 0;
  uint64_t capacity = 0;
  uint64_t grainSize = 0;
  uint64_t descriptorOffset = 0;
  uint64_t descriptorSize = 0;
  uint32_t gtesPerGt = 0;
  uint64_t rgdOffset = 0;
  uint64_t gdOffset = 0;
  uint64_t overhead = 0;
  // Derived: grains of the capacity, grain directory entries, sectors of
  // one grain table and of the directory.
  uint64_t grains = 0;
  uint64_t gdEntries = 0;
  uint64_t gtSectors = 0;
  uint64_t gdSectors = 0;
  bool redundant = false;
};

// Checks a header sector of a file of `fileSectors` whole sectors: 304 for
// anything that cannot be right (wrong magic or version, compression or
// stream markers, a grain size that is 0, not a power of two or too large,
// tables beyond the metadata or the metadata beyond the file).
ResultCode ParseSparseHeader(const uint8_t* sector, uint64_t fileSectors, SparseHeader* out);

// Opens a file that an extent line names; null when it cannot be opened.
using FileOpener = std::function<std::unique_ptr<platform::File>(const std::string& path, bool writable)>;

class SparseExtent;

// The virtual disk as one file.  Positions are bytes of the virtual disk;
// a transfer that would run past its end is cut (reads) or refused
// (writes).  The DeviceIoControl queries fail as they do on a plain file.
class VmdkFile : public platform::PlainFile {
 public:
  // Builds the layout from a descriptor's extent lines; extent file names
  // are taken relative to the folder of `descriptorPath`; a descriptor
  // `embedded` in a sparse file has that file as its sparse extent.  303
  // when an extent file does not open, 304 when a line, header or table
  // cannot be right.  Nothing is written.
  static ResultCode Open(std::string_view descriptorText, const std::string& descriptorPath, bool embedded,
                         const FileOpener& opener, bool writable, std::unique_ptr<VmdkFile>* out);
  ~VmdkFile() override;

  uint64_t CapacityBytes() const { return capacityBytes_; }

  bool Seek(uint64_t offset) override;
  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override;
  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override;
  bool Flush() override;
  bool Size(uint64_t* bytes) override;
  // Data lies only in grains with storage and in the data of flat extents'
  // files; ZERO extents and grains without storage read as zeros.
  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override;
  // A sparse extent whose grain tables failed the check at open (a grain
  // outside the file or in its metadata, two grains sharing sectors, tables
  // that disagree with their redundant copies): the disk reads, with the
  // damaged grains failing, and refuses every write before it starts.
  bool WritesRefused() override { return !damage_.empty(); }
  // The first problem found, "FILE: what is wrong"; empty when none.
  const std::string& Damage() const { return damage_; }

 private:
  struct Extent {
    ExtentLine line;
    uint64_t firstByte = 0;
    uint64_t bytes = 0;
    platform::File* file = nullptr;  // null for ZERO extents
    std::unique_ptr<SparseExtent> sparse;
  };

  VmdkFile() = default;
  // The extent holding virtual byte `offset` (which is below the capacity).
  size_t ExtentAt(uint64_t offset) const;
  // Calls `step` for each piece of [offset, offset + bytes) that lies in one
  // extent, with the offset inside that extent; stops at the first false.
  bool ForEachPiece(uint64_t offset, uint32_t bytes,
                    const std::function<bool(Extent&, uint64_t inExtent, uint32_t done, uint32_t count)>& step);

  std::vector<std::unique_ptr<platform::File>> files_;
  std::vector<Extent> extents_;
  uint64_t capacityBytes_ = 0;
  uint64_t position_ = 0;
  bool writable_ = false;
  std::string damage_;
};

}  // namespace dh::vmdk
