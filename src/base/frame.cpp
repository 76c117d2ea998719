#include "base/frame.h"

namespace dh {

namespace {

// Box-drawing glyphs of the OEM code pages, for consoles that take UTF-8.
uint32_t OemToUnicode(uint32_t code) {
  switch (code) {
    case 0xC4: return 0x2500;  // ─
    case 0xB3: return 0x2502;  // │
    case 0xBA: return 0x2551;  // ║
    case 0xCD: return 0x2550;  // ═
    case 0xD5: return 0x2552;  // ╒
    case 0xB8: return 0x2555;  // ╕
    case 0xBE: return 0x255B;  // ╛
    case 0xD4: return 0x2558;  // ╘
    case 0xC3: return 0x251C;  // ├
    case 0xB4: return 0x2524;  // ┤
    case 0xDA: return 0x250C;  // ┌
    case 0xBF: return 0x2510;  // ┐
    case 0xD9: return 0x2518;  // ┘
    case 0xC0: return 0x2514;  // └
    default: return code;
  }
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

FrameSet FrameSetForCodePage(uint32_t codePage) {
  switch (codePage) {
    case 437:
    case 65001: return FrameSet::DoubleLines;
    case 850:
    case 852:
    case 855: return FrameSet::SingleLines;
    default: return FrameSet::PlainText;
  }
}

FrameChars SelectFrameChars(FrameSet set, uint32_t codePage) {
  FrameChars f;  // the plain text set
  f.codePage = codePage;
  if (set != FrameSet::PlainText) {
    f.hLine = 0xC4;
    f.vLine = 0xB3;
    f.dblVLine = 0xBA;
    f.teeLeft = 0xC3;
    f.teeRight = 0xB4;
    if (set == FrameSet::DoubleLines) {
      f.dblHLine = 0xCD;
      f.topLeft = 0xD5;
      f.topRight = 0xB8;
      f.bottomRight = 0xBE;
      f.bottomLeft = 0xD4;
    } else {
      f.dblHLine = 0xC4;
      f.topLeft = 0xDA;
      f.topRight = 0xBF;
      f.bottomRight = 0xD9;
      f.bottomLeft = 0xC0;
    }
  }
  return f;
}

std::string FrameChars::Text(uint32_t code) const {
  std::string out;
  if (codePage == 65001 && code >= 0x80) {
    AppendUtf8(out, OemToUnicode(code));
  } else {
    out += static_cast<char>(code & 0xFF);
  }
  return out;
}

std::string FrameChars::Fill(uint32_t code, int count) const {
  const std::string one = Text(code);
  std::string out;
  for (int i = 0; i < count; ++i) out += one;
  return out;
}

}  // namespace dh
