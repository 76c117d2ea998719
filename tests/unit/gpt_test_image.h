// Builds GPT disks on fake drives for the GPT unit tests, and checks a disk
// the way firmware does (signatures, CRCs, backup agreeing with primary).
// The CRC here is a bit-by-bit one of its own, so that the tests do not
// check the program's CRC against itself.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/le.h"
#include "fake_machine.h"

namespace dh::test {

inline uint32_t ReferenceCrc32(const uint8_t* data, size_t size) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

// "C12A7328-F81F-11D2-BA4B-00A0C93EC93B" as the 16 bytes stored on disk.
inline std::vector<uint8_t> GuidBytes(const std::string& text) {
  auto hex = [&](size_t at) { return static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)); };
  std::vector<uint8_t> g(16);
  for (int i = 0; i < 4; ++i) g[static_cast<size_t>(i)] = hex(6 - 2 * static_cast<size_t>(i));
  g[4] = hex(11);
  g[5] = hex(9);
  g[6] = hex(16);
  g[7] = hex(14);
  g[8] = hex(19);
  g[9] = hex(21);
  for (size_t i = 0; i < 6; ++i) g[10 + i] = hex(24 + 2 * i);
  return g;
}

const char* const kEfiType = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
const char* const kMsrType = "E3C9E316-0B5C-4DB8-817D-F92DF00215AE";
const char* const kBasicDataType = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
const char* const kLinuxSwapType = "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F";
const char* const kUnknownType = "75894C1E-3AEB-11D3-B7C1-7B03A0000000";  // HP-UX data: not in the table

struct GptTestEntry {
  std::string type;
  uint64_t first = 0;
  uint64_t last = 0;
  uint64_t attributes = 0;
  uint8_t uniqueTag = 0;  // fills the unique GUID so entries are told apart
};

struct GptLayout {
  int32_t entryCount = 128;
  uint64_t arrayLba = 2;
  bool writeBackup = true;
};

inline uint32_t ArraySectors(int32_t count) { return static_cast<uint32_t>((count + 3) / 4); }

inline std::vector<uint8_t> MakeEntryArray(const std::vector<GptTestEntry>& entries, int32_t count) {
  std::vector<uint8_t> array(ArraySectors(count) * 512u, 0);
  for (size_t i = 0; i < entries.size(); ++i) {
    uint8_t* e = array.data() + i * 128;
    if (!entries[i].type.empty()) {
      std::vector<uint8_t> g = GuidBytes(entries[i].type);
      std::memcpy(e, g.data(), 16);
      std::memset(e + 16, entries[i].uniqueTag ? entries[i].uniqueTag : static_cast<int>(i + 1), 16);
    }
    StoreLe64(e + 32, entries[i].first);
    StoreLe64(e + 40, entries[i].last);
    StoreLe64(e + 48, entries[i].attributes);
  }
  return array;
}

inline void SealHeader(uint8_t* h) {
  StoreLe32(h + 16, 0);
  StoreLe32(h + 16, ReferenceCrc32(h, LoadLe32(h + 12)));
}

// Protective MBR, primary header and array, backup array and header, all
// consistent.  `entries` fill slots 0.. in order (an empty type leaves the
// slot unused).
inline void WriteGptDisk(FakeDrive& drive, const std::vector<GptTestEntry>& entries, const GptLayout& layout = {}) {
  const uint64_t sectors = drive.bytes.size() / 512;
  const uint32_t arraySectors = ArraySectors(layout.entryCount);
  uint8_t* mbr = drive.Sector(0);
  std::memset(mbr, 0, 512);
  mbr[446 + 4] = 0xEE;
  StoreLe32(mbr + 446 + 8, 1);
  StoreLe32(mbr + 446 + 12, static_cast<uint32_t>(sectors - 1));
  drive.SetBootSignature();

  std::vector<uint8_t> array = MakeEntryArray(entries, layout.entryCount);
  const uint32_t arrayCrc = ReferenceCrc32(array.data(), static_cast<size_t>(layout.entryCount) * 128);
  const uint64_t backupArray = sectors - 1 - arraySectors;

  uint8_t h[512] = {};
  std::memcpy(h, "EFI PART", 8);
  h[10] = 1;  // revision 1.0
  StoreLe32(h + 12, 92);
  StoreLe64(h + 24, 1);
  StoreLe64(h + 32, sectors - 1);
  StoreLe64(h + 40, layout.arrayLba + arraySectors);
  StoreLe64(h + 48, backupArray - 1);
  for (int i = 0; i < 16; ++i) h[56 + i] = static_cast<uint8_t>(0xA0 + i);
  StoreLe64(h + 72, layout.arrayLba);
  StoreLe32(h + 80, static_cast<uint32_t>(layout.entryCount));
  StoreLe32(h + 84, 128);
  StoreLe32(h + 88, arrayCrc);
  SealHeader(h);
  std::memcpy(drive.Sector(1), h, 512);
  if (!array.empty()) std::memcpy(drive.Sector(layout.arrayLba), array.data(), array.size());

  if (layout.writeBackup) {
    StoreLe64(h + 24, sectors - 1);
    StoreLe64(h + 32, 1);
    StoreLe64(h + 72, backupArray);
    SealHeader(h);
    std::memcpy(drive.Sector(sectors - 1), h, 512);
    if (!array.empty()) std::memcpy(drive.Sector(backupArray), array.data(), array.size());
  }
}

// What firmware checks: both headers carry the signature and correct CRCs,
// point at each other, and describe identical arrays.  Empty when all is
// well, else what is wrong.
inline std::string GptProblems(FakeDrive& drive) {
  const uint8_t* p = drive.Sector(1);
  if (std::memcmp(p, "EFI PART", 8) != 0) return "primary signature";
  auto headerOk = [](const uint8_t* h) {
    uint8_t copy[512];
    std::memcpy(copy, h, 512);
    StoreLe32(copy + 16, 0);
    return ReferenceCrc32(copy, LoadLe32(h + 12)) == LoadLe32(h + 16);
  };
  if (!headerOk(p)) return "primary header CRC";
  const uint32_t count = LoadLe32(p + 80);
  const size_t arrayBytes = static_cast<size_t>(count) * 128;
  const uint8_t* pa = drive.Sector(LoadLe64(p + 72));
  if (ReferenceCrc32(pa, arrayBytes) != LoadLe32(p + 88)) return "primary array CRC";
  const uint64_t alt = LoadLe64(p + 32);
  const uint8_t* b = drive.Sector(alt);
  if (std::memcmp(b, "EFI PART", 8) != 0) return "backup signature";
  if (!headerOk(b)) return "backup header CRC";
  if (LoadLe64(b + 24) != alt || LoadLe64(b + 32) != 1) return "backup LBAs";
  if (LoadLe32(b + 80) != count || LoadLe32(b + 88) != LoadLe32(p + 88)) return "backup array facts";
  const uint8_t* ba = drive.Sector(LoadLe64(b + 72));
  if (std::memcmp(pa, ba, arrayBytes) != 0) return "backup array differs";
  return "";
}

// The type GUID bytes of slot `slot` of the primary array.
inline std::vector<uint8_t> SlotType(FakeDrive& drive, uint32_t slot) {
  const uint8_t* e = drive.Sector(LoadLe64(drive.Sector(1) + 72)) + slot * 128;
  return std::vector<uint8_t>(e, e + 16);
}

}  // namespace dh::test
