// GetNumberFormatA with an explicit NUMBERFMTA, done on the decimal text so
// that no floating-point rounding can creep in.
#include "platform/common/number_format.h"

#include <cstddef>
#include <vector>

namespace dh::platform {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Inserts the thousands separator into a run of integer digits.  Windows
// encodes the grouping as a number: 0 none, 1..9 groups of that size, and 32
// a first group of three followed by groups of two (the Indian style).
std::string GroupDigits(const std::string& digits, uint32_t grouping, const std::string& separator) {
  if (grouping == 0) return digits;
  const size_t first = grouping == 32 ? 3 : grouping;
  const size_t rest = grouping == 32 ? 2 : grouping;
  // Cut the groups off from the right end, then join them left to right.
  std::vector<std::string> groups;
  size_t end = digits.size();
  size_t size = first;
  while (end > 0) {
    const size_t take = end > size ? size : end;
    groups.push_back(digits.substr(end - take, take));
    end -= take;
    size = rest;
  }
  std::string out;
  for (size_t i = groups.size(); i-- > 0;) {
    out += groups[i];
    if (i != 0) out += separator;
  }
  return out;
}

}  // namespace

bool FormatNumberLikeWindows(const std::string& value, const NumberFormat& f, std::string* out) {
  if (out == nullptr) return false;
  // The ranges Windows accepts in a NUMBERFMTA; anything else is error 87.
  if (f.numDigits > 9 || f.leadingZero > 1 || f.negativeOrder > 4) return false;
  if (f.grouping > 9 && f.grouping != 32) return false;

  size_t i = 0;
  bool negative = false;
  if (i < value.size() && value[i] == '-') {
    negative = true;
    ++i;
  }
  std::string intDigits;
  std::string fracDigits;
  bool seenPoint = false;
  for (; i < value.size(); ++i) {
    const char c = value[i];
    if (IsDigit(c)) {
      (seenPoint ? fracDigits : intDigits) += c;
    } else if (c == '.' && !seenPoint) {
      seenPoint = true;
    } else {
      return false;
    }
  }
  // "-", "." and "" carry no number at all.
  if (intDigits.empty() && fracDigits.empty()) return false;

  const size_t firstNonZero = intDigits.find_first_not_of('0');
  intDigits = firstNonZero == std::string::npos ? std::string() : intDigits.substr(firstNonZero);

  // Round half away from zero on the decimal digits: the sign plays no part,
  // so rounding the magnitude up is away from zero for both signs.
  const size_t keep = f.numDigits;
  const bool roundUp = fracDigits.size() > keep && fracDigits[keep] >= '5';
  fracDigits.resize(keep, '0');
  if (roundUp) {
    std::string all = intDigits + fracDigits;
    size_t k = all.size();
    while (k > 0 && all[k - 1] == '9') {
      all[k - 1] = '0';
      --k;
    }
    if (k == 0) {
      all.insert(all.begin(), '1');
    } else {
      ++all[k - 1];
    }
    intDigits = all.substr(0, all.size() - keep);
    fracDigits = all.substr(all.size() - keep);
  }

  // A value that rounds to zero is shown without a sign: "-0.00" would only
  // puzzle the reader.
  if (intDigits.empty() && fracDigits.find_first_not_of('0') == std::string::npos) negative = false;

  // Built by appends only: GCC 12 at -O2 warns falsely (-Wrestrict) about
  // assigning or concatenating literals here.
  std::string number;
  if (!intDigits.empty()) {
    number = GroupDigits(intDigits, f.grouping, f.thousandSep);
  } else if (f.leadingZero != 0 || keep == 0) {
    // Without decimals the zero is all there is, so it stays even when the
    // locale drops leading zeros.
    number.push_back('0');
  }
  if (keep > 0) {
    number.append(f.decimalSep);
    number.append(fracDigits);
  }

  std::string text;
  if (negative) {
    static const char* const kBefore[] = {"(", "-", "- ", "", ""};
    static const char* const kAfter[] = {")", "", "", "-", " -"};
    text.append(kBefore[f.negativeOrder]);
    text.append(number);
    text.append(kAfter[f.negativeOrder]);
  } else {
    text = number;
  }
  *out = text;
  return true;
}

}  // namespace dh::platform
