// The records Windows hands back to the win32 backend, decoded from bytes.
//
// DeviceIoControl fills caller buffers with DISK_GEOMETRY, DISK_GEOMETRY_EX,
// PARTITION_INFORMATION and the two DRIVE_LAYOUT_INFORMATION records, and the
// format engine passes its callback untyped pointers.  The fields are taken
// out of those buffers by offset, never by casting a buffer of unknown
// alignment to a struct, and never beyond the bytes Windows said it wrote.
// The offsets are those of the 64-bit Windows layouts; win32_records.cpp checks
// them against the Windows headers at compile time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/platform.h"

namespace dh::platform::win32 {

// DISK_GEOMETRY
constexpr size_t kGeometrySize = 24;
constexpr size_t kGeometryCylinders = 0;  // LARGE_INTEGER
constexpr size_t kGeometryMediaType = 8;  // MEDIA_TYPE
constexpr size_t kGeometryTracksPerCylinder = 12;
constexpr size_t kGeometrySectorsPerTrack = 16;
constexpr size_t kGeometryBytesPerSector = 20;

// DISK_GEOMETRY_EX: the geometry, then DiskSize; the program asks for the
// first 40 bytes (the head of the record, without the detection data).
constexpr size_t kGeometryExSize = 40;
constexpr size_t kGeometryExDiskSize = 24;

// PARTITION_INFORMATION
constexpr size_t kPartitionInfoSize = 32;
constexpr size_t kPartitionInfoStartingOffset = 0;
constexpr size_t kPartitionInfoPartitionLength = 8;
constexpr size_t kPartitionInfoPartitionType = 24;

// DRIVE_LAYOUT_INFORMATION: count, signature, PARTITION_INFORMATION entries.
constexpr size_t kLayoutPartitionCount = 0;
constexpr size_t kLayoutFirstEntry = 8;

// DRIVE_LAYOUT_INFORMATION_EX: style, count, the style's data, then the
// PARTITION_INFORMATION_EX entries of 144 bytes.
constexpr size_t kLayoutExPartitionCount = 4;
constexpr size_t kLayoutExFirstEntry = 48;
constexpr size_t kPartitionExSize = 144;
constexpr size_t kPartitionExStyle = 0;
constexpr size_t kPartitionExStartingOffset = 8;
constexpr size_t kPartitionExPartitionLength = 16;
constexpr size_t kPartitionExMbrType = 32;  // Mbr.PartitionType

// The buffer the program offers both layout queries: the EX head and nine
// entries.
constexpr size_t kLayoutBufferSize = 1344;

// Each decoder reads only the first `length` bytes of `buffer` (the count
// DeviceIoControl returned) and fails when the record does not fit in them.
bool DecodeGeometry(const uint8_t* buffer, size_t length, DiskGeometry* out);
bool DecodeGeometryEx(const uint8_t* buffer, size_t length, DiskGeometry* geometry, uint64_t* diskSize);
bool DecodePartitionInfo(const uint8_t* buffer, size_t length, uint64_t* startingOffset, uint64_t* partitionLength);
// The first entry of a layout; a layout with no entry decodes as an entry
// with `present` false and every other field 0.
bool DecodeDriveLayoutEx(const uint8_t* buffer, size_t length, LayoutEntry* first);
bool DecodeDriveLayout(const uint8_t* buffer, size_t length, LayoutEntry* first);

// The data of one format engine callback.  Command 0 points to a 32-bit
// percentage, 11 to a BOOLEAN, 14 to a record whose second member is the
// address of a zero-terminated text; other commands carry nothing the
// program reads.  A null pointer leaves the data at its defaults.
FormatCallbackData DecodeFormatCallback(int command, const void* actionInfo);

// The longest text taken from a command 14 record; the engine's texts are a
// line or two, and the bound keeps a text without terminator from running on.
constexpr size_t kFormatTextLimit = 4096;

}  // namespace dh::platform::win32
