#include "base/text.h"

namespace dh {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
// Blanks before a number, as the C library skips them.
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = LowerAscii(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Reads the leading digits of `text` from `pos` in the base, saturating at
// `limit` so that any number of digits gives a defined result.
uint64_t ReadMagnitude(std::string_view text, size_t pos, unsigned base, uint64_t limit, bool* anyDigit) {
  uint64_t magnitude = 0;
  *anyDigit = false;
  for (; pos < text.size(); ++pos) {
    int digit = base == 16 ? HexDigitValue(text[pos]) : (IsDigit(text[pos]) ? text[pos] - '0' : -1);
    if (digit < 0) break;
    *anyDigit = true;
    uint64_t d = static_cast<uint64_t>(digit);
    magnitude = (magnitude > (limit - d) / base) ? limit : magnitude * base + d;
  }
  return magnitude;
}

// Skips blanks and one sign; returns the position of the first digit.
size_t SkipBlanksAndSign(std::string_view text, bool* negative) {
  size_t pos = 0;
  while (pos < text.size() && IsBlank(text[pos])) ++pos;
  *negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    *negative = text[pos] == '-';
    ++pos;
  }
  return pos;
}

}  // namespace

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return true;
}

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

bool StartsWithDigit(std::string_view text) { return !text.empty() && IsDigit(text[0]); }

int64_t ReadDecimal64(std::string_view text) {
  bool negative = false;
  size_t pos = SkipBlanksAndSign(text, &negative);
  const uint64_t limit = negative ? static_cast<uint64_t>(INT64_MAX) + 1 : static_cast<uint64_t>(INT64_MAX);
  bool anyDigit = false;
  uint64_t magnitude = ReadMagnitude(text, pos, 10, limit, &anyDigit);
  if (!negative) return static_cast<int64_t>(magnitude);
  if (magnitude == static_cast<uint64_t>(INT64_MAX) + 1) return INT64_MIN;
  return -static_cast<int64_t>(magnitude);
}

int32_t ReadDecimal(std::string_view text) {
  int64_t value = ReadDecimal64(text);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

bool ReadHexadecimal(std::string_view text, int32_t* value) {
  bool negative = false;
  size_t pos = SkipBlanksAndSign(text, &negative);
  if (pos + 2 < text.size() && text[pos] == '0' && LowerAscii(text[pos + 1]) == 'x' &&
      HexDigitValue(text[pos + 2]) >= 0) {
    pos += 2;
  }
  const uint64_t limit = negative ? static_cast<uint64_t>(INT32_MAX) + 1 : static_cast<uint64_t>(INT32_MAX);
  bool anyDigit = false;
  uint64_t magnitude = ReadMagnitude(text, pos, 16, limit, &anyDigit);
  if (!anyDigit) return false;
  int64_t signedValue = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
  *value = static_cast<int32_t>(signedValue);
  return true;
}

std::string TrimBlanks(std::string_view text) {
  size_t first = 0;
  size_t last = text.size();
  while (first < last && IsBlank(text[first])) ++first;
  while (last > first && IsBlank(text[last - 1])) --last;
  return std::string(text.substr(first, last - first));
}

}  // namespace dh
