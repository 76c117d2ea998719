// The GPT partition types the program knows.  An entry whose type is not in
// this table is invisible to the listings and counts (it stays on disk), so
// the table covers the types users meet on today's disks.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

struct GptTypeInfo {
  int32_t number;  // never 0; not contiguous
  const char* guidText;  // as FormatGuidText prints it
  const char* shortName;  // at most 8 characters
  const char* longName;   // at most 39 characters
};

// The number of the first row whose GUID text equals `guidText` exactly, or
// 0 when none does.  On a match the names are copied into the outputs that
// are not null.
int32_t LookupGptType(const std::string& guidText, std::string* shortName, std::string* longName);

// The rows in table order, for reports that walk them.
const GptTypeInfo* GptTypeRows(size_t* count);

}  // namespace dh
