// The two MBR boot programs that `repair=` writes: the XP family's and the
// Windows 7 family's.  Each is the 446 bytes in front of the partition
// table: code and messages in bytes 0-439, then six zero bytes where the
// disk signature and the two bytes after it lie.  The bytes come from our
// own sources in src/mbr/boot (tools/gen_boot_images.sh).
#pragma once

#include <cstddef>
#include <cstdint>

namespace dh {

constexpr size_t kBootImageSize = 446;
// Bytes of an image that may hold code; the rest stays zero.
constexpr size_t kBootCodeSize = 440;

extern const uint8_t kXpBootImage[kBootImageSize];
extern const uint8_t kWin7BootImage[kBootImageSize];

}  // namespace dh
