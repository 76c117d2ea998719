// The frame characters of the listings: ten codes of the console's OEM
// character set chosen from its code page (or plain ASCII), and the bytes
// that show them on that console.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

struct FrameChars {
  uint32_t hLine = 0x2D;
  uint32_t vLine = 0x20;
  uint32_t dblVLine = 0x20;
  uint32_t dblHLine = 0x2D;
  uint32_t topLeft = 0x20;
  uint32_t topRight = 0x20;
  uint32_t bottomRight = 0x20;
  uint32_t bottomLeft = 0x20;
  uint32_t teeLeft = 0x20;
  uint32_t teeRight = 0x20;
  // The console's code page: under 65001 the OEM glyphs go out as UTF-8.
  uint32_t codePage = 437;

  // The bytes that show one frame character on this console: the OEM byte
  // itself, or the UTF-8 encoding of the same glyph under code page 65001.
  std::string Text(uint32_t code) const;
  // `count` copies of Text(code).
  std::string Fill(uint32_t code, int count) const;
};

// The three frame sets: box-drawing glyphs with double horizontal lines,
// with single lines only, and plain ASCII text.
enum class FrameSet { DoubleLines, SingleLines, PlainText };

// The characters of a set for a console code page.
FrameChars SelectFrameChars(FrameSet set, uint32_t codePage);
// The set a console code page takes (437 and 65001: double lines; 850, 852,
// 855: single lines; any other: plain text).
FrameSet FrameSetForCodePage(uint32_t codePage);

}  // namespace dh
