// Descriptor reading.  The key searches run over a fixed block so that a
// descriptor with keys in odd places reads the same every time; the extent
// lines are read strictly, because they decide where writes land.
#include "vdisk/vmdk_descriptor.h"

#include <cstring>

#include "base/le.h"
#include "base/text.h"

namespace dh::vmdk {
namespace {

struct TypeRow {
  const char* createType;
  int32_t number;
  const char* description;
};

constexpr TypeRow kTypes[] = {
    {"monolithicFlat", kTypeMonolithicFlat, "VMware Pre-allocated Flat Disk File"},
    {"twoGbMaxExtentFlat", kTypeTwoGbFlat, "VMware Pre-allocated 2GB Flat Disk File"},
    {"monolithicSparse", kTypeMonolithicSparse, "VMware Standard Disk File"},
    {"twoGbMaxExtentSparse", kTypeTwoGbSparse, "VMware 2GB Standard Disk File"},
};
constexpr char kUnknownDescription[] = "Unknown Virtual Disk File";

// A descriptor names each extent on one line; more than this many is not a
// disk anyone made.
constexpr size_t kMaxExtents = 65536;

bool MatchesAt(const uint8_t* block, size_t size, size_t at, std::string_view key) {
  return at <= size && key.size() <= size - at && std::memcmp(block + at, key.data(), key.size()) == 0;
}

// The text from `at` to the block's end (its terminating zero stops any
// number there).
std::string_view TailFrom(const uint8_t* block, size_t size, size_t at) {
  if (at >= size) return {};
  const char* begin = reinterpret_cast<const char*>(block + at);
  const void* zero = std::memchr(begin, 0, size - at);
  const size_t length = zero ? static_cast<size_t>(static_cast<const char*>(zero) - begin) : size - at;
  return std::string_view(begin, length);
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Splits off the next blank-separated word; a quoted word keeps its blanks
// and loses its quotation marks.  False when a quotation is not closed.
bool NextWord(std::string_view* rest, std::string* word, bool* quoted) {
  size_t i = 0;
  while (i < rest->size() && IsBlank((*rest)[i])) ++i;
  word->clear();
  *quoted = false;
  if (i < rest->size() && (*rest)[i] == '"') {
    const size_t close = rest->find('"', i + 1);
    if (close == std::string_view::npos) return false;
    *word = std::string(rest->substr(i + 1, close - i - 1));
    *quoted = true;
    *rest = rest->substr(close + 1);
    return true;
  }
  size_t end = i;
  while (end < rest->size() && !IsBlank((*rest)[end])) ++end;
  *word = std::string(rest->substr(i, end - i));
  *rest = rest->substr(end);
  return true;
}

// Digits only; false on anything else, on no digits and on overflow.
bool ParseCount(const std::string& text, uint64_t* out) {
  if (text.empty()) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    if (__builtin_mul_overflow(value, 10u, &value) ||
        __builtin_add_overflow(value, static_cast<uint64_t>(c - '0'), &value)) {
      return false;
    }
  }
  *out = value;
  return true;
}

}  // namespace

int64_t FindKeyNumber(const uint8_t* block, size_t size, std::string_view key) {
  if (key.empty()) return -1;
  for (size_t at = 0; at + key.size() <= size; ++at) {
    if (!MatchesAt(block, size, at, key)) continue;
    const int64_t number = ReadDecimal64(TailFrom(block, size, at + key.size() + 1));
    if (number >= 0) return number;
  }
  return -1;
}

bool FindQuotedValue(const uint8_t* block, size_t size, std::string_view key, std::string* out) {
  if (key.empty()) return false;
  for (size_t at = 0; at + key.size() <= size; ++at) {
    if (!MatchesAt(block, size, at, key)) continue;
    const size_t value = at + key.size();
    // The closing mark is looked for after the value's first character.
    for (size_t close = value + 1; close <= value + kMaxValueLength && close < size; ++close) {
      if (block[close] == '"') {
        out->assign(reinterpret_cast<const char*>(block + value), close - value);
        return true;
      }
    }
  }
  return false;
}

bool BlockContains(const uint8_t* block, size_t size, std::string_view text) {
  for (size_t at = 0; at + text.size() <= size; ++at) {
    if (MatchesAt(block, size, at, text)) return true;
  }
  return false;
}

int32_t DiskTypeOf(const std::string& createType) {
  for (const TypeRow& row : kTypes) {
    if (std::strncmp(row.createType, createType.c_str(), createType.size()) == 0) return row.number;
  }
  return kTypeUnknown;
}

const char* DescriptionOfType(int32_t diskType) {
  for (const TypeRow& row : kTypes) {
    if (row.number == diskType) return row.description;
  }
  return kUnknownDescription;
}

const char* AdapterTextOf(const std::string& adapterType) {
  if (adapterType.rfind("lsilogic", 0) == 0 || adapterType.rfind("buslogic", 0) == 0) return "SCSI";
  if (adapterType.rfind("ide", 0) == 0) return "IDE";
  return "UNKNOWN";
}

bool SumReadWriteSectors(const uint8_t* block, size_t size, uint64_t* sectors) {
  int64_t sum = 0;
  for (size_t at = 0; at + 2 <= size; ++at) {
    if (!MatchesAt(block, size, at, "RW")) continue;
    if (__builtin_add_overflow(sum, ReadDecimal64(TailFrom(block, size, at + 3)), &sum)) return false;
  }
  if (sum < 0 || static_cast<uint64_t>(sum) > UINT64_MAX / kSectorSize) return false;
  *sectors = static_cast<uint64_t>(sum);
  return true;
}

std::string ExtentPath(const std::string& descriptorPath, const std::string& fileName) {
  const size_t slash = descriptorPath.find_last_of("\\/");
  if (slash == std::string::npos) return fileName;
  return descriptorPath.substr(0, slash + 1) + fileName;
}

ResultCode ParseExtentLines(std::string_view text, std::vector<ExtentLine>* out) {
  out->clear();
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);

    std::string word;
    bool quoted = false;
    if (!NextWord(&line, &word, &quoted) || quoted) continue;
    ExtentLine extent;
    if (word == "RW") {
      extent.access = ExtentAccess::ReadWrite;
    } else if (word == "RDONLY") {
      extent.access = ExtentAccess::ReadOnly;
    } else if (word == "NOACCESS") {
      extent.access = ExtentAccess::NoAccess;
    } else {
      continue;  // comments, keys and blank lines
    }
    if (out->size() >= kMaxExtents) return kVmdkUnknownType;
    if (!NextWord(&line, &word, &quoted) || quoted || !ParseCount(word, &extent.sectors)) return kVmdkUnknownType;
    if (!NextWord(&line, &word, &quoted) || quoted) return kVmdkUnknownType;
    if (word == "FLAT") {
      extent.kind = ExtentKind::Flat;
    } else if (word == "SPARSE") {
      extent.kind = ExtentKind::Sparse;
    } else if (word == "ZERO") {
      extent.kind = ExtentKind::Zero;
    } else {
      return kVmdkUnknownType;  // VMFS kinds live on an ESX datastore
    }
    if (extent.kind != ExtentKind::Zero) {
      if (!NextWord(&line, &extent.fileName, &quoted) || !quoted || extent.fileName.empty()) {
        return kVmdkUnknownType;
      }
      if (!NextWord(&line, &word, &quoted) || quoted) return kVmdkUnknownType;
      // Only a flat extent starts part-way into its file.
      if (!word.empty() && (extent.kind != ExtentKind::Flat || !ParseCount(word, &extent.offset))) {
        return kVmdkUnknownType;
      }
    }
    if (!TrimBlanks(line).empty()) return kVmdkUnknownType;
    out->push_back(std::move(extent));
  }
  return out->empty() ? kVmdkUnknownType : kSuccess;
}

}  // namespace dh::vmdk
