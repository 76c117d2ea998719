// Where a report goes: standard output or a file.  Reports format their
// lines and hand the bytes to a sink; they never name stdout themselves.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>

namespace dh {

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void Write(const char* bytes, size_t size) = 0;
  void Write(const std::string& text) { Write(text.data(), text.size()); }
  // printf-style; the formats are the program's own texts.
  void Printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // False once a write has failed.
  virtual bool Good() const { return true; }
};

// A sink over a C stream (standard output, or a file the caller opened).
class StreamSink : public Sink {
 public:
  explicit StreamSink(std::FILE* stream) : stream_(stream) {}
  void Write(const char* bytes, size_t size) override;
  bool Good() const override { return good_; }
  using Sink::Write;

 private:
  std::FILE* stream_;
  bool good_ = true;
};

// A sink that keeps everything written, for callers that want the text.
class StringSink : public Sink {
 public:
  void Write(const char* bytes, size_t size) override { text.append(bytes, size); }
  using Sink::Write;
  std::string text;
};

// The process's standard output, and its standard error (warnings).
Sink& StdOut();
Sink& StdErr();

}  // namespace dh
