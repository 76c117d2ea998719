// Small text helpers of the framed reports: fills, fixed-width fields, and
// the writer that puts framed lines on a sink.
#pragma once

#include <cstdint>
#include <string>

#include "base/frame.h"
#include "base/sink.h"

namespace dh {

// Width of every framed line between its two border characters.
constexpr int kFrameWidth = 77;

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

// Framed output: lines between two border characters on a sink.
class FramedWriter {
 public:
  FramedWriter(Sink& sink, const FrameChars& frame) : sink_(sink), frame_(frame) {}

  const FrameChars& frame() const { return frame_; }
  Sink& sink() { return sink_; }

  void Emit(const std::string& text) { sink_.Write(text); }
  // A line "V text V" followed by a line end.
  void Inner(const std::string& text) {
    const std::string v = frame_.Text(frame_.vLine);
    sink_.Write(v + text + v + "\n");
  }
  // A frame line: a left character, kFrameWidth fill characters, a right one.
  void Border(uint32_t left, uint32_t fill, uint32_t right) {
    sink_.Write(frame_.Text(left) + frame_.Fill(fill, kFrameWidth) + frame_.Text(right) + "\n");
  }

 private:
  Sink& sink_;
  const FrameChars& frame_;
};

}  // namespace dh
