// The on-disk layout of sector 0 (the MBR) and of the extended boot
// records: the one place their offsets are named.  The disk set reads it to
// classify a disk; the MBR model, the edits and the boot code repair build
// on it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dh {

// On-disk MBR / EBR layout.
namespace mbr {
constexpr size_t kDiskSignatureOffset = 440;
constexpr size_t kEntryOffset = 446;  // slot 0; slot i at 446 + 16 * i
constexpr size_t kEntrySize = 16;
constexpr size_t kSlotCount = 4;
constexpr size_t kBootSignatureOffset = 510;
constexpr size_t kSlot0TypeOffset = 450;
constexpr size_t kEbrLinkOffset = 462;
// Fields of a 16-byte entry.
constexpr size_t kEntryBoot = 0;
constexpr size_t kEntryStartHead = 1;
constexpr size_t kEntryStartSector = 2;
constexpr size_t kEntryStartCylinder = 3;
constexpr size_t kEntryType = 4;
constexpr size_t kEntryEndHead = 5;
constexpr size_t kEntryEndSector = 6;
constexpr size_t kEntryEndCylinder = 7;
constexpr size_t kEntryFirstSector = 8;
constexpr size_t kEntrySectorCount = 12;
constexpr uint8_t kActiveFlag = 0x80;
constexpr uint8_t kGptProtectiveType = 0xEE;

// Whether a sector ends in the boot signature 55 AA.
inline bool HasBootSignature(const uint8_t* sector) {
  return sector[kBootSignatureOffset] == 0x55 && sector[kBootSignatureOffset + 1] == 0xAA;
}

// The type bytes of the file systems the system mounts with drive letters.
// The GPT driver applies the same test to the file-system number it keeps
// as a record's type.
inline bool IsDriveLetterType(uint32_t type) {
  switch (type) {
    case 0x01: case 0x04: case 0x06: case 0x07: case 0x0B: case 0x0C: case 0x0D: case 0x0E:
      return true;
    default:
      return false;
  }
}
}  // namespace mbr

}  // namespace dh
