// Small text helpers of the framed reports: fills, fixed-width fields, the
// frame's lines and raw output of already formatted lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "app/frame.h"

namespace dh {

// Width of every framed line between its two border characters.
constexpr int kFrameWidth = 77;

inline void Emit(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

inline std::string Blanks(int count) {
  return count > 0 ? std::string(static_cast<size_t>(count), ' ') : std::string();
}

// Text as a C string holds it: up to its first NUL.
inline std::string CText(const std::string& text) { return text.substr(0, text.find('\0')); }

// The blanks that fill `text` out to `width` (none when it is as long or
// longer).
inline std::string FillTo(const std::string& text, int width) { return Blanks(width - static_cast<int>(text.size())); }

// "%-W.Ws": cut or blank-filled to exactly `width` characters.
inline std::string Field(const std::string& text, int width) {
  std::string cut = CText(text).substr(0, static_cast<size_t>(width));
  return cut + FillTo(cut, width);
}

// A line "V text V" followed by a line end.
inline void EmitInner(const std::string& text) {
  const std::string v = FrameText(Frame().vLine);
  Emit(v + text + v + "\n");
}

// A frame line: a left character, kFrameWidth fill characters, a right one.
inline void EmitBorder(uint32_t left, uint32_t fill, uint32_t right) {
  Emit(FrameText(left) + FrameFill(fill, kFrameWidth) + FrameText(right) + "\n");
}

}  // namespace dh
