// The drive file of the simulated machine.  Its failures follow what a disk
// driver reports: reads and writes that touch a bad sector fail with a CRC
// error, transfers past the last sector fail with "sector not found", a
// drive without its medium is "not ready" for everything but opening, and a
// drive told to fail half-way writes the start of a long transfer only.
#include "platform/sim/sim_drive.h"

#include <cstring>
#include <string>
#include <utility>

#include "base/le.h"

namespace dh::platform::sim {
namespace {

constexpr uint64_t kSector = kSectorSize;  // 64-bit: products with sector numbers never wrap

class DriveFile : public File {
 public:
  DriveFile(const DriveDescription& drive, std::unique_ptr<File> image, uint64_t imageBytes, bool writable,
            std::shared_ptr<Machine> native, std::shared_ptr<ErrorState> errors,
            std::shared_ptr<TransferTrace> trace)
      : drive_(drive),
        image_(std::move(image)),
        imageBytes_(imageBytes),
        writable_(writable),
        native_(std::move(native)),
        errors_(std::move(errors)),
        trace_(std::move(trace)) {}

  bool Seek(uint64_t offset) override {
    // Like SetFilePointerEx, any position is accepted; transfers judge it.
    position_ = offset;
    return true;
  }

  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override {
    uint32_t moved = 0;
    const uint64_t at = position_;
    const bool ok = DoRead(buffer, bytes, &moved);
    if (done != nullptr) *done = moved;
    Trace("read", at, bytes, moved, ok);
    return ok;
  }

  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    uint32_t moved = 0;
    const uint64_t at = position_;
    const bool ok = DoWrite(buffer, bytes, &moved);
    if (done != nullptr) *done = moved;
    Trace("write", at, bytes, moved, ok);
    return ok;
  }

  bool WritesRefused() override { return image_->WritesRefused(); }
  int32_t UnusableReason() override { return image_->UnusableReason(); }

  bool ZeroRange(uint64_t offset, uint64_t bytes) override {
    const bool ok = DoZeroRange(offset, bytes);
    Trace("zero", offset, bytes, ok ? bytes : 0, ok);
    return ok;
  }

  bool DoRead(void* buffer, uint32_t bytes, uint32_t* done) {
    if (done != nullptr) *done = 0;
    if (!MediumPresent()) return false;
    if (bytes == 0) return true;
    if (position_ >= imageBytes_) return Fail(kErrorSectorNotFound);
    const uint64_t left = imageBytes_ - position_;
    const uint32_t count = left < bytes ? static_cast<uint32_t>(left) : bytes;
    if (TouchesBadSector(drive_.badSectors, position_, count)) return Fail(kErrorCrc);
    uint32_t moved = 0;
    if (!Transfer(buffer, count, false, &moved)) return false;
    position_ += moved;
    if (done != nullptr) *done = moved;
    return true;
  }

  bool DoWrite(const void* buffer, uint32_t bytes, uint32_t* done) {
    if (done != nullptr) *done = 0;
    if (!writable_) return Fail(kErrorAccessDenied);
    if (!MediumPresent()) return false;
    if (bytes == 0) return true;
    const uint64_t left = position_ < imageBytes_ ? imageBytes_ - position_ : 0;
    if (TouchesBadSector(drive_.badSectors, position_, left < bytes ? left : bytes)) return Fail(kErrorCrc);
    // A disk does not grow: a write that would run past its end is refused
    // whole, so the image keeps its size.
    if (bytes > left) return Fail(kErrorSectorNotFound);
    // A drive failing half-way: the first sectors reach the medium, the
    // transfer still fails.
    const bool halfWay = drive_.hasFailWriteAfter && bytes > drive_.failWriteAfter * kSector;
    const uint32_t part = halfWay ? static_cast<uint32_t>(drive_.failWriteAfter * kSector) : bytes;
    uint32_t moved = 0;
    if (part > 0 && !Transfer(const_cast<void*>(buffer), part, true, &moved)) return false;
    position_ += moved;
    if (done != nullptr) *done = moved;
    if (halfWay) return Fail(kErrorWriteFault);
    return true;
  }

  bool Flush() override {
    if (!image_->Flush()) return FailFromNative();
    return true;
  }

  bool Size(uint64_t* bytes) override {
    if (!MediumPresent()) return false;
    if (bytes != nullptr) *bytes = imageBytes_;
    return true;
  }

  bool GetDriveGeometry(DiskGeometry* out) override {
    if (!MediumPresent()) return false;
    if (out == nullptr) return Fail(kErrorInvalidParameter);
    DiskGeometry g;
    g.mediaType = drive_.media == MediaKind::Removable ? kMediaRemovable : kMediaFixed;
    g.tracksPerCylinder = drive_.heads;
    g.sectorsPerTrack = drive_.sectorsPerTrack;
    g.bytesPerSector = kSectorSize;
    if (drive_.hasCylinders) {
      g.cylinders = drive_.cylinders;
    } else {
      const uint64_t perCylinder = static_cast<uint64_t>(drive_.heads) * drive_.sectorsPerTrack;
      g.cylinders = perCylinder == 0 ? 0 : static_cast<int64_t>(imageBytes_ / kSector / perCylinder);
    }
    *out = g;
    return true;
  }

  bool GetDriveGeometryEx(DiskGeometry* geometry, uint64_t* diskSize) override {
    if (!GetDriveGeometry(geometry)) return false;
    if (diskSize != nullptr) *diskSize = imageBytes_;
    return true;
  }

  bool GetPartitionInfo(uint64_t* startingOffset, uint64_t* partitionLength) override {
    if (!MediumPresent()) return false;
    if (startingOffset != nullptr) *startingOffset = 0;
    if (partitionLength != nullptr) *partitionLength = imageBytes_;
    return true;
  }

  bool GetDriveLayoutEx(LayoutEntry* first) override { return Layout(first); }
  bool GetDriveLayout(LayoutEntry* first) override { return Layout(first); }

  bool UpdateProperties() override { return true; }

  // The image's holes are the drive's, as long as no bad sector could hide
  // in them: a drive with bad sectors is all data, so that every read
  // reaches the sectors that fail.  Past the end is data too, for the same
  // reason: reads there fail.
  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override {
    if (drive_.media == MediaKind::Absent || !drive_.badSectors.empty() || offset >= imageBytes_) {
      return File::NextData(offset, start, end);
    }
    uint64_t dataStart = 0;
    uint64_t dataEnd = 0;
    if (!image_->NextData(offset, &dataStart, &dataEnd) || dataStart >= imageBytes_) {
      // Nothing up to the end of the drive; the sectors beyond it fail.
      *start = imageBytes_;
      *end = UINT64_MAX;
      return true;
    }
    *start = dataStart < offset ? offset : dataStart;
    *end = dataEnd > imageBytes_ ? UINT64_MAX : dataEnd;
    return true;
  }

  // Zeroing fails where a write would: a bad sector in the range makes the
  // caller write sector by sector and meet the failures where they are.  A
  // drive failing half-way refuses to zero more than a write would move, so
  // that the caller's writes meet that failure too.
  bool DoZeroRange(uint64_t offset, uint64_t bytes) {
    if (!writable_) return Fail(kErrorAccessDenied);
    if (!MediumPresent()) return false;
    if (bytes == 0) return true;
    if (drive_.hasFailWriteAfter && bytes > drive_.failWriteAfter * kSector) return Fail(kErrorWriteFault);
    if (offset >= imageBytes_ || bytes > imageBytes_ - offset) return Fail(kErrorSectorNotFound);
    if (TouchesBadSector(drive_.badSectors, offset, bytes)) return Fail(kErrorCrc);
    if (!image_->ZeroRange(offset, bytes)) return FailFromNative();
    return true;
  }

  void StartWriteback(uint64_t offset, uint64_t bytes) override {
    if (writable_ && drive_.media != MediaKind::Absent) image_->StartWriteback(offset, bytes);
  }

  // The image's blocks are shared only by a drive that has no fault to
  // show: a copy that bypassed the transfers would bypass its bad sectors
  // too.  A refusal sends the caller to reads and writes, which meet them.
  File* CloneSource() override { return Faultless() ? image_->CloneSource() : nullptr; }
  bool CloneFrom(File& source, uint64_t from, uint64_t to, uint64_t bytes) override {
    if (!writable_ || !Faultless() || to >= imageBytes_ || bytes > imageBytes_ - to) return false;
    return image_->CloneFrom(source, from, to, bytes);
  }

 private:
  // Faults and the trace must see every transfer, so a drive with either
  // never shares blocks.
  bool Faultless() const {
    return drive_.media != MediaKind::Absent && drive_.badSectors.empty() && !drive_.hasFailWriteAfter &&
           !drive_.hasGrowLimit && !trace_;
  }

  void Trace(const char* op, uint64_t offset, uint64_t bytes, uint64_t moved, bool ok) {
    if (trace_ && bytes > 0) trace_->Record(drive_.number, op, offset, bytes, moved, ok);
  }

  bool Fail(uint32_t code) {
    errors_->lastError = code;
    return false;
  }
  bool FailFromNative() { return Fail(native_->LastError()); }

  bool MediumPresent() {
    if (drive_.media != MediaKind::Absent) return true;
    return Fail(kErrorNotReady);
  }

  // Moves `bytes` bytes between the buffer and the image at the current
  // position, looping over short transfers of the host.
  bool Transfer(void* buffer, uint32_t bytes, bool write, uint32_t* moved) {
    uint32_t total = 0;
    if (!TransferAt(*image_, position_, buffer, bytes, write, &total)) return FailFromNative();
    *moved = total;
    // Nothing moved at all: the image ended early (it shrank underneath us)
    // or the host refused the data without saying why.
    if (total == 0 && bytes != 0) return Fail(write ? kErrorWriteFault : kErrorSectorNotFound);
    return true;
  }

  bool Layout(LayoutEntry* first) {
    if (!MediumPresent()) return false;
    if (first == nullptr) return Fail(kErrorInvalidParameter);
    if (drive_.hasLayout) {
      *first = drive_.layout;
      return true;
    }
    // Read at query time, so that a volume written during the run shows.
    uint8_t sector[kSector] = {};
    uint32_t got = 0;
    ReadAt(*image_, 0, sector, kSector, &got);  // a failed read derives from what arrived
    *first = DeriveLayout(sector, got, imageBytes_);
    return true;
  }

  DriveDescription drive_;
  std::unique_ptr<File> image_;
  uint64_t imageBytes_;
  bool writable_;
  std::shared_ptr<Machine> native_;
  std::shared_ptr<ErrorState> errors_;
  std::shared_ptr<TransferTrace> trace_;
  uint64_t position_ = 0;
};

bool BytesAre(const uint8_t* data, size_t size, size_t offset, const char* text) {
  const size_t length = std::strlen(text);
  return offset + length <= size && std::memcmp(data + offset, text, length) == 0;
}

}  // namespace

TransferTrace::TransferTrace(std::shared_ptr<Machine> native, std::string path)
    : native_(std::move(native)), path_(std::move(path)) {}

void TransferTrace::Record(int drive, const char* op, uint64_t offset, uint64_t bytes, uint64_t movedBytes, bool ok) {
  if (broken_ || bytes == 0) return;
  // Opened for each line and closed again, so that the file is never held
  // open: a test reads it while the drive is still in use, which Windows
  // would refuse for a file another handle keeps open.  Appended to, so that
  // the runs of a test can share one trace.
  uint64_t end = 0;
  std::unique_ptr<File> file = native_->Open(path_, OpenMode::ReadWriteExisting);
  if (file && !file->Size(&end)) file.reset();
  if (!file) {
    end = 0;
    file = native_->Open(path_, OpenMode::CreateAlways);
  }
  if (!file) {
    broken_ = true;
    return;
  }
  // Whole sectors: a partial sector counts as touched.
  const uint64_t first = offset / kSector;
  const uint64_t lead = offset % kSector;
  const auto sectors = [&](uint64_t n) { return n == 0 ? 0 : (lead + n - 1) / kSector + 1; };
  const std::string line = std::to_string(drive) + " " + op + " " + std::to_string(first) + " " +
                           std::to_string(sectors(bytes)) + " " + std::to_string(sectors(movedBytes)) + " " +
                           (ok ? "ok" : "fail") + "\n";
  uint32_t wrote = 0;
  if (!file->Seek(end) || !file->Write(line.data(), static_cast<uint32_t>(line.size()), &wrote) ||
      wrote != line.size()) {
    broken_ = true;
  }
}

bool TouchesBadSector(const std::vector<SectorRange>& bad, uint64_t offset, uint64_t bytes) {
  if (bytes == 0) return false;
  const uint64_t firstLba = offset / kSector;
  // The last byte, clamped so that a range reaching past 2^64 cannot wrap.
  const uint64_t lastByte = bytes - 1 > UINT64_MAX - offset ? UINT64_MAX : offset + (bytes - 1);
  const uint64_t lastLba = lastByte / kSector;
  for (const SectorRange& range : bad) {
    if (range.first <= lastLba && range.first + (range.count - 1) >= firstLba) return true;
  }
  return false;
}

LayoutEntry DeriveLayout(const uint8_t* sector0, size_t bytes, uint64_t diskBytes) {
  LayoutEntry entry;
  entry.partitionStyle = 0;
  entry.present = true;
  entry.startingOffset = 0;
  entry.partitionLength = diskBytes;
  if (BytesAre(sector0, bytes, 3, "NTFS")) {
    entry.partitionType = 0x07;
  } else if (BytesAre(sector0, bytes, 3, "FAT32") || BytesAre(sector0, bytes, 82, "FAT32")) {
    entry.partitionType = 0x0C;
  } else if (BytesAre(sector0, bytes, 54, "FAT16") || BytesAre(sector0, bytes, 54, "FAT12")) {
    entry.partitionType = 0x06;
  }
  return entry;
}

std::unique_ptr<File> MakeDriveFile(const DriveDescription& drive, std::unique_ptr<File> image, uint64_t imageBytes,
                                    bool writable, std::shared_ptr<Machine> native,
                                    std::shared_ptr<ErrorState> errors, std::shared_ptr<TransferTrace> trace) {
  return std::make_unique<DriveFile>(drive, std::move(image), imageBytes, writable, std::move(native),
                                     std::move(errors), std::move(trace));
}

}  // namespace dh::platform::sim
