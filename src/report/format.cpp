// The size and number texts shared by every report: a long size in the
// user's locale, a four-character size for table columns, and a sector
// number grouped with commas for the fixed-width MBR tables.
#include "report/format.h"

#include <cstdio>

#include "platform/platform.h"

namespace dh {

namespace {

using platform::LocaleItem;
using platform::Machine;

// GetLocaleInfoA fills a 9-character buffer: a longer value does not fit and
// counts as a failed read.
constexpr size_t kLocaleTextMax = 8;
constexpr size_t kSizeTextMax = 100;

bool ReadLocaleText(Machine& machine, LocaleItem item, std::string* out) {
  std::string text;
  if (!machine.GetLocaleInfo(item, &text) || text.size() > kLocaleTextMax) return false;
  *out = text;
  return true;
}

// The leading decimal number of a locale value, as the C library's atoi
// reads it ("3;0" gives 3).  A value without leading digits gives 0; the
// digit count is capped so that no setting can overflow.
uint32_t LeadingNumber(const std::string& text) {
  uint32_t value = 0;
  for (size_t i = 0; i < text.size() && i < 9 && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + static_cast<uint32_t>(text[i] - '0');
  }
  return value;
}

// A locale item that cannot be read keeps the value NumberFormat starts
// with (the English (United States) setting), so that a broken locale still
// gives a readable number rather than one without separators.
void ReadLocaleNumber(Machine& machine, LocaleItem item, uint32_t* field) {
  std::string text;
  if (ReadLocaleText(machine, item, &text)) *field = LeadingNumber(text);
}

platform::NumberFormat UserNumberFormat(Machine& machine) {
  platform::NumberFormat format;
  format.numDigits = 2;
  ReadLocaleNumber(machine, LocaleItem::LeadingZero, &format.leadingZero);
  ReadLocaleNumber(machine, LocaleItem::Grouping, &format.grouping);
  ReadLocaleText(machine, LocaleItem::DecimalSep, &format.decimalSep);
  ReadLocaleText(machine, LocaleItem::ThousandSep, &format.thousandSep);
  ReadLocaleNumber(machine, LocaleItem::NegativeNumber, &format.negativeOrder);
  return format;
}

// When the number cannot be formatted, the reason takes its place: the
// system's text for the error, without its line break.
std::string FailureText(Machine& machine) {
  uint32_t error = machine.LastError();
  std::string text;
  if (!machine.SystemMessageText(error, &text)) return {};
  text.resize(text.size() >= 2 ? text.size() - 2 : 0);
  return text;
}

}  // namespace

std::string FormatSizeText(Machine& machine, int64_t bytes) {
  static const char* const kUnits[] = {"Bytes", "KB", "MB", "GB", "TB", "PB"};
  // The first power of 1024 that the count stays below (minus one, so 1023
  // bytes already count as kilobytes).  Counts of 2^60 - 1 and more have no
  // larger unit: they stay in petabytes, at most 8192PB.
  int unit = 5;
  for (int k = 1; k <= 6; ++k) {
    int64_t limit = (int64_t{1} << (10 * k)) - 1;
    if (bytes < limit) {
      unit = k - 1;
      break;
    }
  }
  // long double holds every 64-bit count exactly, and dividing by a power of
  // two is exact, so the six decimals are those of the true quotient.
  long double quotient = static_cast<long double>(bytes) / static_cast<long double>(int64_t{1} << (10 * unit));
  char number[128];
  std::snprintf(number, sizeof number, "%Lf", quotient);

  std::string text;
  if (!machine.GetNumberFormat(number, UserNumberFormat(machine), &text)) text = FailureText(machine);
  std::string unitWord = kUnits[unit];
  // The result is at most 100 characters; a long system message is cut so
  // that the unit word still shows.
  if (text.size() + unitWord.size() > kSizeTextMax) text.resize(kSizeTextMax - unitWord.size());
  return text + unitWord;
}

std::string FormatSizeCompact(int64_t bytes) {
  char text[64];
  if (bytes < 999) {
    // Negative counts print in full here (they never come from a disk).
    std::snprintf(text, sizeof text, "%3lld", static_cast<long long>(bytes));
    return std::string(text) + "B";
  }
  // Each unit starts at 999 of the one below it.  Counts of 999 * 2^50 and
  // more have no larger unit: they stay in petabytes ("8192P" at most, one
  // character wider than usual) rather than wrap or overflow.
  static const char kLetters[] = {'K', 'M', 'G', 'T', 'P'};
  int step = 4;
  for (int i = 0; i < 4; ++i) {
    int64_t limit = int64_t{999} << (10 * (i + 1));
    if (bytes < limit) {
      step = i;
      break;
    }
  }
  double quotient = static_cast<double>(bytes) / static_cast<double>(int64_t{1} << (10 * (step + 1)));
  if (quotient >= 99.96) {
    // Truncated, not rounded: 998.99K prints as 998K.
    std::snprintf(text, sizeof text, "%3d", static_cast<int>(quotient));
  } else if (quotient >= 9.96) {
    std::snprintf(text, sizeof text, "% 2.0f", quotient);
  } else {
    std::snprintf(text, sizeof text, "%2.1f", quotient);
  }
  return std::string(text) + kLetters[step];
}

std::string FormatGroupedCount(uint32_t value, int width) {
  constexpr int kFieldSize = 24;
  char digits[16];
  std::snprintf(digits, sizeof digits, "%lu", static_cast<unsigned long>(value));
  int digitCount = 0;
  while (digits[digitCount] != '\0') ++digitCount;

  // The field holds 24 positions; a width beyond it is brought back into it,
  // and a width below 2 leaves no position at all.
  int positions = width - 1;
  if (positions < 0) positions = 0;
  if (positions > kFieldSize) positions = kFieldSize;

  char field[kFieldSize];
  int next = digitCount;  // digits[next - 1] is the next digit from the right
  for (int p = 1; p <= positions; ++p) {
    char c;
    if (next == 0) {
      c = ' ';
    } else if (p % 4 == 0) {
      c = ',';
    } else {
      c = digits[--next];
    }
    field[kFieldSize - p] = c;
  }
  return std::string(field + kFieldSize - positions, static_cast<size_t>(positions));
}

}  // namespace dh
