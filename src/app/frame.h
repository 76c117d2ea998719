// The frame characters of the listings, chosen from the console code page.
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
};

FrameChars& Frame();
// Fills Frame() with set 1, 2 or 3.
void SelectFrameChars(int set);
// The set a console code page takes (437 and 65001: 1; 850, 852, 855: 2; else 3).
int FrameSetForCodePage(uint32_t codePage);
// The bytes that show one frame character on this console: the OEM byte
// itself, or its UTF-8 encoding of the same glyph under code page 65001.
std::string FrameText(uint32_t code);
// `count` copies of FrameText(code).
std::string FrameFill(uint32_t code, int count);
// Remembers the console's code page for FrameText; set at start-up.
void SetFrameCodePage(uint32_t codePage);

// The code-page character map printed after a listing with `asciimap`.
void PrintCharacterMap();

}  // namespace dh
