// Reference codecs of the tests' own, written from the published formats,
// so that no test checks the program's code against itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dh::test {

// CRC-32 (the reflected 0xEDB88320 polynomial of GPT headers and arrays), a bit at a time.
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
  // Where each stored byte's two digits stand in the text (mixed endian).
  static const size_t kAt[16] = {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};
  std::vector<uint8_t> g(16);
  for (size_t i = 0; i < 16; ++i) g[i] = static_cast<uint8_t>(std::stoul(text.substr(kAt[i], 2), nullptr, 16));
  return g;
}

}  // namespace dh::test
