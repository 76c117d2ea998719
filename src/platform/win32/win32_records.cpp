// Decoding of the records of the disk control codes and of the format engine
// callback (see win32_records.h).
#include "platform/win32/win32_api.h"
#include "platform/win32/win32_records.h"

#include <cstddef>
#include <cstring>

namespace dh::platform::win32 {

// The named offsets are the Windows layouts; a header or target where they
// differ must not build.
static_assert(sizeof(DISK_GEOMETRY) == kGeometrySize);
static_assert(offsetof(DISK_GEOMETRY, Cylinders) == kGeometryCylinders);
static_assert(offsetof(DISK_GEOMETRY, MediaType) == kGeometryMediaType);
static_assert(offsetof(DISK_GEOMETRY, TracksPerCylinder) == kGeometryTracksPerCylinder);
static_assert(offsetof(DISK_GEOMETRY, SectorsPerTrack) == kGeometrySectorsPerTrack);
static_assert(offsetof(DISK_GEOMETRY, BytesPerSector) == kGeometryBytesPerSector);
static_assert(sizeof(DISK_GEOMETRY_EX) == kGeometryExSize);
static_assert(offsetof(DISK_GEOMETRY_EX, DiskSize) == kGeometryExDiskSize);
static_assert(sizeof(PARTITION_INFORMATION) == kPartitionInfoSize);
static_assert(offsetof(PARTITION_INFORMATION, StartingOffset) == kPartitionInfoStartingOffset);
static_assert(offsetof(PARTITION_INFORMATION, PartitionLength) == kPartitionInfoPartitionLength);
static_assert(offsetof(PARTITION_INFORMATION, PartitionType) == kPartitionInfoPartitionType);
static_assert(offsetof(DRIVE_LAYOUT_INFORMATION, PartitionCount) == kLayoutPartitionCount);
static_assert(offsetof(DRIVE_LAYOUT_INFORMATION, PartitionEntry) == kLayoutFirstEntry);
static_assert(offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionCount) == kLayoutExPartitionCount);
static_assert(offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry) == kLayoutExFirstEntry);
static_assert(sizeof(PARTITION_INFORMATION_EX) == kPartitionExSize);
static_assert(offsetof(PARTITION_INFORMATION_EX, PartitionStyle) == kPartitionExStyle);
static_assert(offsetof(PARTITION_INFORMATION_EX, StartingOffset) == kPartitionExStartingOffset);
static_assert(offsetof(PARTITION_INFORMATION_EX, PartitionLength) == kPartitionExPartitionLength);
static_assert(offsetof(PARTITION_INFORMATION_EX, Mbr) + offsetof(PARTITION_INFORMATION_MBR, PartitionType) ==
              kPartitionExMbrType);
static_assert(kLayoutBufferSize == kLayoutExFirstEntry + 9 * kPartitionExSize);

namespace {

// Native-endian loads at any alignment: these records are in the machine's
// own byte order, not on-disk data.
template <typename T>
T LoadNative(const uint8_t* p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

}  // namespace

bool DecodeGeometry(const uint8_t* buffer, size_t length, DiskGeometry* out) {
  if (buffer == nullptr || length < kGeometrySize) return false;
  out->cylinders = LoadNative<int64_t>(buffer + kGeometryCylinders);
  out->mediaType = LoadNative<int32_t>(buffer + kGeometryMediaType);
  out->tracksPerCylinder = LoadNative<uint32_t>(buffer + kGeometryTracksPerCylinder);
  out->sectorsPerTrack = LoadNative<uint32_t>(buffer + kGeometrySectorsPerTrack);
  out->bytesPerSector = LoadNative<uint32_t>(buffer + kGeometryBytesPerSector);
  return true;
}

bool DecodeGeometryEx(const uint8_t* buffer, size_t length, DiskGeometry* geometry, uint64_t* diskSize) {
  if (buffer == nullptr || length < kGeometryExDiskSize + 8) return false;
  if (!DecodeGeometry(buffer, length, geometry)) return false;
  *diskSize = LoadNative<uint64_t>(buffer + kGeometryExDiskSize);
  return true;
}

bool DecodePartitionInfo(const uint8_t* buffer, size_t length, uint64_t* startingOffset, uint64_t* partitionLength) {
  if (buffer == nullptr || length < kPartitionInfoPartitionLength + 8) return false;
  *startingOffset = LoadNative<uint64_t>(buffer + kPartitionInfoStartingOffset);
  *partitionLength = LoadNative<uint64_t>(buffer + kPartitionInfoPartitionLength);
  return true;
}

bool DecodeDriveLayoutEx(const uint8_t* buffer, size_t length, LayoutEntry* first) {
  if (buffer == nullptr || length < kLayoutExFirstEntry) return false;
  *first = LayoutEntry{};
  if (LoadNative<uint32_t>(buffer + kLayoutExPartitionCount) == 0) return true;
  const uint8_t* entry = buffer + kLayoutExFirstEntry;
  if (length < kLayoutExFirstEntry + kPartitionExMbrType + 1) return false;
  first->present = true;
  first->partitionStyle = LoadNative<uint32_t>(entry + kPartitionExStyle);
  first->startingOffset = LoadNative<uint64_t>(entry + kPartitionExStartingOffset);
  first->partitionLength = LoadNative<uint64_t>(entry + kPartitionExPartitionLength);
  // Only an MBR-style entry has a type byte; the GPT data in the same place
  // is a GUID.
  if (first->partitionStyle == 0) first->partitionType = entry[kPartitionExMbrType];
  return true;
}

bool DecodeDriveLayout(const uint8_t* buffer, size_t length, LayoutEntry* first) {
  if (buffer == nullptr || length < kLayoutFirstEntry) return false;
  *first = LayoutEntry{};
  if (LoadNative<uint32_t>(buffer + kLayoutPartitionCount) == 0) return true;
  const uint8_t* entry = buffer + kLayoutFirstEntry;
  if (length < kLayoutFirstEntry + kPartitionInfoPartitionType + 1) return false;
  first->present = true;
  first->startingOffset = LoadNative<uint64_t>(entry + kPartitionInfoStartingOffset);
  first->partitionLength = LoadNative<uint64_t>(entry + kPartitionInfoPartitionLength);
  first->partitionType = entry[kPartitionInfoPartitionType];
  return true;
}

FormatCallbackData DecodeFormatCallback(int command, const void* actionInfo) {
  FormatCallbackData data;
  if (actionInfo == nullptr) return data;
  const auto* bytes = static_cast<const uint8_t*>(actionInfo);
  switch (command) {
    case 0:
      data.percent = LoadNative<uint32_t>(bytes);
      break;
    case 11:
      data.success = bytes[0] != 0;
      break;
    case 14: {
      // The engine's TEXTOUTPUT record: a line count, then the text address.
      struct TextOutput {
        uint32_t lines;
        const char* text;
      };
      const TextOutput record = LoadNative<TextOutput>(bytes);
      if (record.text != nullptr) data.text.assign(record.text, strnlen(record.text, kFormatTextLimit));
      break;
    }
    default:
      break;
  }
  return data;
}

}  // namespace dh::platform::win32
