// The on-disk GPT: CRC32, GUID text and header checks.
#include "gpt/gpt_format.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "base/le.h"

namespace dh {

namespace {

constexpr std::array<uint32_t, 256> MakeCrcTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    table[n] = c;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = MakeCrcTable();

}  // namespace

uint32_t Crc32(const uint8_t* data, size_t size, uint32_t seed) {
  uint32_t crc = ~seed;
  for (size_t i = 0; i < size; ++i) crc = kCrcTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

std::string FormatGuidText(const uint8_t* guid) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                static_cast<unsigned int>(LoadLe32(guid)), static_cast<unsigned int>(LoadLe16(guid + 4)),
                static_cast<unsigned int>(LoadLe16(guid + 6)), guid[8], guid[9], guid[10], guid[11], guid[12],
                guid[13], guid[14], guid[15]);
  return text;
}

uint32_t EntryArraySectors(int32_t entryCount) {
  if (entryCount <= 0) return 0;
  return (static_cast<uint32_t>(entryCount) + gpt::kEntriesPerSector - 1) / gpt::kEntriesPerSector;
}

ResultCode ValidateGptHeader(const uint8_t* header, uint64_t diskSectors, GptHeaderFacts* facts) {
  if (std::memcmp(header + gpt::kSignature, "EFI PART", gpt::kSignatureSize) != 0) return kGptInvalid;
  const int32_t count = static_cast<int32_t>(LoadLe32(header + gpt::kEntryCount));
  if (count < 0 || count > gpt::kMaxEntries) return kGptInvalid;
  const uint64_t arrayLba = LoadLe64(header + gpt::kEntryArrayLba);
  const uint32_t sectors = EntryArraySectors(count);
  // The array never shares a sector with the protective MBR or the header:
  // writing it there would destroy them.
  if (arrayLba < 2) return kGptInvalid;
  // Every LBA must stay addressable in bytes, relative to any image offset.
  const uint64_t lbaLimit = UINT64_MAX / kSectorSize / 2;
  if (arrayLba > lbaLimit - sectors) return kGptInvalid;
  if (diskSectors != 0 && arrayLba + sectors > diskSectors) return kGptInvalid;
  if (facts != nullptr) {
    facts->entryCount = count;
    facts->entryArrayLba = arrayLba;
    facts->arraySectors = sectors;
    facts->alternateLba = LoadLe64(header + gpt::kAlternateLba);
    facts->firstUsableLba = LoadLe64(header + gpt::kFirstUsableLba);
    facts->lastUsableLba = LoadLe64(header + gpt::kLastUsableLba);
  }
  return kSuccess;
}

bool HeaderLayoutWritable(const uint8_t* header) {
  const uint32_t size = LoadLe32(header + gpt::kHeaderSize);
  return size >= gpt::kMinHeaderSize && size <= gpt::kMaxHeaderSize &&
         LoadLe32(header + gpt::kEntrySizeField) == gpt::kEntrySize;
}

bool HeaderCrcMatches(const uint8_t* header) {
  if (!HeaderLayoutWritable(header)) return false;
  uint8_t copy[gpt::kMaxHeaderSize];
  const uint32_t size = LoadLe32(header + gpt::kHeaderSize);
  std::memcpy(copy, header, size);
  StoreLe32(copy + gpt::kHeaderCrc, 0);
  return Crc32(copy, size) == LoadLe32(header + gpt::kHeaderCrc);
}

void UpdateHeaderCrc(uint8_t* header) {
  // A size outside one sector would make the CRC read past the buffer.
  if (!HeaderLayoutWritable(header)) return;
  StoreLe32(header + gpt::kHeaderCrc, 0);
  StoreLe32(header + gpt::kHeaderCrc, Crc32(header, LoadLe32(header + gpt::kHeaderSize)));
}

GptFault CheckGptHeader(const uint8_t* header, uint64_t lba, uint64_t alternate, uint64_t diskSectors,
                        GptHeaderFacts* facts) {
  if (std::memcmp(header + gpt::kSignature, "EFI PART", gpt::kSignatureSize) != 0) return GptFault::kNoSignature;
  if (ValidateGptHeader(header, diskSectors, facts) != kSuccess) return GptFault::kBadFields;
  if (!HeaderLayoutWritable(header)) return GptFault::kBadLayout;
  if (!HeaderCrcMatches(header)) return GptFault::kBadHeaderCrc;
  if (LoadLe64(header + gpt::kMyLba) != lba) return GptFault::kBadLba;
  if (alternate != 0 && LoadLe64(header + gpt::kAlternateLba) != alternate) return GptFault::kBadLba;
  return GptFault::kNone;
}

}  // namespace dh
