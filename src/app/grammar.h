// The command-line grammar: the keyword table that turns arguments into
// RunOptions, the ArgumentList that keeps every argument for later lookups by
// name, the number readings of values, and the option file that stands in for
// an empty command line.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"

namespace dh {

// Widths of the ArgumentList fields, in characters.  Longer arguments are
// cut to these widths when they are stored in the list (the parser itself
// sees the whole argument): a name or value cut this way only matters to
// the lookups by name, whose names are short, and to values beyond 255
// characters, which no companion argument needs.
constexpr size_t kArgumentTextWidth = 511;
constexpr size_t kArgumentNameWidth = 255;
constexpr size_t kArgumentValueWidth = 255;

struct ArgumentEntry {
  bool hasValue = false;  // the argument contains '='
  std::string text;       // the whole argument
  std::string name;       // before the first '=', prefix included; empty without '='
  std::string value;      // after the first '='; empty without '='
};

struct ArgumentList {
  std::vector<ArgumentEntry> entries;
  int current = -1;  // index of the entry found last, -1 for none

  void Clear();
  void Add(const std::string& argument);
  // Searches from the first entry; see FindArgument below.
  bool Find(std::string_view name);
  std::string CurrentValue() const;
  std::string CurrentText() const;
};

// The program-wide list, built from the command line or the option file.
ArgumentList& Arguments();

// Looks up "/Name" in Arguments(): an entry matches when its name (or, for an
// argument without '=', its whole text) equals the name, ignoring letter
// case and whether '/' or '-' was the prefix.  The first match becomes the
// current entry.
bool FindArgument(std::string_view name);
// The value and the whole text of the current entry; empty without one.
std::string CurrentArgumentValue();
std::string CurrentArgumentText();

enum class MatchMode {
  Fixed,         // the keyword's own length after the prefix; the rest is a value or ignored
  Abbreviation,  // the text after the prefix is a leading part of the keyword
  Value,         // "name=": the name, one separator character, then the value
};

// Whether the argument matches the keyword under the mode.  In the value mode
// the value is copied into *destination (when given), and an empty value
// still matches but marks the argument as an invalid switch (105).
bool MatchKeyword(MatchMode mode, std::string_view keyword, const std::string& argument, std::string* destination);

// Applies the first keyword of the table that matches the argument to
// Options(); an argument that matches none is an invalid switch (105).
void ParseArgument(const std::string& argument);

// Every keyword of the command line, the commands' own among them, in the
// order they are tried.
std::vector<std::string> AllKeywords();

// The lines of the help pages in their order (each is printed after a "/"),
// with their places: page * 100 + line.
struct HelpLine {
  int place;
  const char* text;
};
std::vector<HelpLine> HelpLines();

// What a bad argument leaves in the run state.  An invalid switch (105) is a
// usage error; the first bad argument is the one reported.
void InvalidSwitch(const std::string& argument);
// An invalid parameter (117) does not stop the parsing; the pending code
// alone keeps the command from running.
void InvalidParameter(const std::string& argument);
// An area word save= or restore= does not know: 105 over any pending code.
void InvalidArea(const std::string& argument);

// The area words of save=, restore=, wipe= and option=.
struct AreaWord {
  const char* word;
  int32_t area;
};
// Sets *area from the first word `value` equals (ignoring case); false
// when it equals none.
bool AreaFromWord(std::string_view value, std::initializer_list<AreaWord> words, int32_t* area);

// The repair kind named by Options().valueText: -1 empty, 1 XP, 2 Win7,
// 3 PartitionTable (or pt); anything else its decimal number.
int32_t ParseRepairKind();

// Reads "diskhold.opt" beside the program into Arguments(), parsing each
// token as an argument.  Reports whether at least one token was read.
bool ReadOptionFile(const std::string& programPath);


}  // namespace dh
