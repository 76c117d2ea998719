// The on-disk GPT: header and entry layout, the CRC32 that firmware checks,
// the GUID text, and the checks a header must pass before its numbers are
// used to read or write anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/result_codes.h"

namespace dh {

namespace gpt {

// Header sector (LBA 1 for the primary, the alternate LBA for the backup).
constexpr size_t kSignature = 0;  // "EFI PART"
constexpr size_t kSignatureSize = 8;
constexpr size_t kRevisionMajor = 10;  // third byte of the revision
constexpr size_t kRevisionMinor = 11;  // fourth byte of the revision
constexpr size_t kHeaderSize = 12;
constexpr size_t kHeaderCrc = 16;
constexpr size_t kMyLba = 24;
constexpr size_t kAlternateLba = 32;
constexpr size_t kFirstUsableLba = 40;
constexpr size_t kLastUsableLba = 48;
constexpr size_t kDiskGuid = 56;
constexpr size_t kEntryArrayLba = 72;
constexpr size_t kEntryCount = 80;
constexpr size_t kEntrySizeField = 84;
constexpr size_t kEntryArrayCrc = 88;
// The header as revision 1.0 defines it; the CRC covers kHeaderSize bytes,
// which may be more, up to one sector.
constexpr uint32_t kMinHeaderSize = 92;
constexpr uint32_t kMaxHeaderSize = 512;

// Partition entry.
constexpr size_t kEntrySize = 128;
constexpr size_t kEntryTypeGuid = 0;
constexpr size_t kEntryUniqueGuid = 16;
constexpr size_t kEntryFirstLba = 32;
constexpr size_t kEntryLastLba = 40;  // inclusive
constexpr size_t kEntryAttributes = 48;
constexpr size_t kEntryName = 56;
constexpr size_t kEntryNameSize = 72;  // 36 UTF-16 code units
constexpr size_t kGuidSize = 16;

constexpr uint32_t kEntriesPerSector = 4;
static_assert(kEntrySize * kEntriesPerSector == 512, "four entries fill a sector");
static_assert(kEntryName + kEntryNameSize == kEntrySize, "the name ends the entry");
static_assert(kEntryArrayCrc + 4 == kMinHeaderSize, "the array CRC ends the 1.0 header");

// The most entries a header may list.  Real tables have 128; the bound keeps
// a hostile count from allocating or reading more than 2 MiB.
constexpr int32_t kMaxEntries = 16384;
// Sectors of the largest array, and of the largest saved GPT area (sector 0,
// the header and the array).
constexpr uint32_t kMaxArraySectors = kMaxEntries / kEntriesPerSector;
constexpr uint32_t kMaxAreaSectors = kMaxArraySectors + 2;

// Attribute bits shown by the listing: "platform required" of the UEFI
// specification, and the read-only and hidden bits that Windows gives every
// GPT partition type.
constexpr uint64_t kAttrRequired = uint64_t{1} << 0;
constexpr uint64_t kAttrReadOnly = uint64_t{1} << 60;
constexpr uint64_t kAttrHidden = uint64_t{1} << 62;

}  // namespace gpt

// IEEE 802.3 CRC32 (reflected, polynomial 0xEDB88320), as the header and the
// entry array carry it.  `seed` lets a CRC run over several pieces.
uint32_t Crc32(const uint8_t* data, size_t size, uint32_t seed = 0);

// "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X": the first three fields
// little-endian, the last eight bytes in stored order, upper case.
std::string FormatGuidText(const uint8_t* guid);

// Sectors that hold `entryCount` entries, the last one possibly in part.
uint32_t EntryArraySectors(int32_t entryCount);

// The facts of a header that passed ValidateGptHeader.
struct GptHeaderFacts {
  int32_t entryCount = 0;
  uint64_t entryArrayLba = 0;
  uint32_t arraySectors = 0;
  uint64_t alternateLba = 0;
  uint64_t firstUsableLba = 0;
  uint64_t lastUsableLba = 0;
};

// Checks a header sector before any of its numbers is used: the signature,
// an entry count from 0 to kMaxEntries, and an entry array that starts
// behind the header and ends on the disk.  `diskSectors` 0 means the size is
// unknown, and the array is then only held to the LBA range.  Returns 0 and
// fills `facts`, or kGptInvalid.
ResultCode ValidateGptHeader(const uint8_t* header, uint64_t diskSectors, GptHeaderFacts* facts);

// What is wrong with one copy of the GPT (a header and its entry array),
// in the order the checks run; the first failing check names the fault.
// The array of a header that fails is not judged: its place and CRC come
// from that header.
enum class GptFault : uint8_t {
  kNone = 0,
  kUnreadable,       // the header sector cannot be read, or lies nowhere
  kNoSignature,      // no "EFI PART"
  kBadFields,        // entry count or array location out of range
  kBadLayout,        // a header size or entry size this program does not handle
  kBadHeaderCrc,
  kBadLba,           // MyLBA or AlternateLBA disagree with where the headers lie
  kArrayUnreadable,
  kBadArrayCrc,
};

// Whether a fault is the header's own (and its array was not judged).
inline bool IsHeaderFault(GptFault fault) {
  return fault != GptFault::kNone && fault != GptFault::kArrayUnreadable && fault != GptFault::kBadArrayCrc;
}

// Checks a header read from sector `lba`: signature, ValidateGptHeader,
// layout, CRC, MyLBA equal to `lba`, and, when `alternate` is not 0,
// AlternateLBA equal to it.  Fills `facts` whenever ValidateGptHeader
// passes.  Returns the header's fault, or kNone.
GptFault CheckGptHeader(const uint8_t* header, uint64_t lba, uint64_t alternate, uint64_t diskSectors,
                        GptHeaderFacts* facts);

// Whether the header's own layout fields are the ones the entry writer
// knows how to keep consistent: a header size of 92..512 bytes and entries
// of 128 bytes.
bool HeaderLayoutWritable(const uint8_t* header);

// Whether the header's CRC matches its bytes (with a writable layout).
bool HeaderCrcMatches(const uint8_t* header);

// Recomputes the header CRC of a header sector in place; does nothing to a
// header that fails HeaderLayoutWritable.
void UpdateHeaderCrc(uint8_t* header);

}  // namespace dh
