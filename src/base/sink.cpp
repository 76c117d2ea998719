#include "base/sink.h"

#include <vector>

namespace dh {

void Sink::Printf(const char* format, ...) {
  char small[512];
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) {
    va_end(copy);
    return;
  }
  if (static_cast<size_t>(length) < sizeof small) {
    va_end(copy);
    Write(small, static_cast<size_t>(length));
    return;
  }
  std::vector<char> large(static_cast<size_t>(length) + 1);
  std::vsnprintf(large.data(), large.size(), format, copy);
  va_end(copy);
  Write(large.data(), static_cast<size_t>(length));
}

void StreamSink::Write(const char* bytes, size_t size) {
  if (size == 0) return;
  if (std::fwrite(bytes, 1, size, stream_) != size) good_ = false;
}

Sink& StdOut() {
  static StreamSink sink(stdout);
  return sink;
}

Sink& StdErr() {
  static StreamSink sink(stderr);
  return sink;
}

}  // namespace dh
