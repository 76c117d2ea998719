// Text helpers every layer shares: letter-case-blind comparison and the
// number readings of command-line and descriptor values.  ASCII only: the
// texts are bytes from the command line, files and disks, never locale text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dh {

char LowerAscii(char c);
// ASCII comparison ignoring letter case.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
// Whether `text` begins with `prefix`, ignoring letter case.
bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix);
bool StartsWithDigit(std::string_view text);

// Optional blanks and sign, then the leading decimal digits; no digits give
// 0.  Results beyond the type's range saturate.
int64_t ReadDecimal64(std::string_view text);
int32_t ReadDecimal(std::string_view text);
// The leading hexadecimal digits (after optional blanks, sign and "0x"),
// saturating like ReadDecimal.  False, and *value untouched, when there is
// no hexadecimal digit at all.
bool ReadHexadecimal(std::string_view text, int32_t* value);

// Blanks (space, tab, line ends, vertical tab, form feed) taken off both ends.
std::string TrimBlanks(std::string_view text);

}  // namespace dh
