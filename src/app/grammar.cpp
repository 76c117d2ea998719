#include "app/grammar.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <initializer_list>

#include "app/command_table.h"
#include "app/run_state.h"

namespace dh {

namespace {

ArgumentList g_arguments;

bool IsPrefixChar(char c) { return c == '/' || c == '-'; }
// Separators of option-file tokens: blanks, tabs and line ends.
bool IsTokenSeparator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }


enum class MatchResult { None, Matched, EmptyValue };

MatchResult Match(MatchMode mode, std::string_view keyword, std::string_view argument, std::string* value) {
  value->clear();
  if (argument.empty() || !IsPrefixChar(argument[0])) {
    // Without a prefix only the whole keyword counts, so any value is empty.
    if (!EqualsIgnoreCase(argument, keyword)) return MatchResult::None;
    return mode == MatchMode::Value ? MatchResult::EmptyValue : MatchResult::Matched;
  }
  std::string_view rest = argument.substr(1);
  if (rest.empty()) return MatchResult::None;
  switch (mode) {
    case MatchMode::Fixed:
      if (rest.size() < keyword.size() || !EqualsIgnoreCase(rest.substr(0, keyword.size()), keyword)) {
        return MatchResult::None;
      }
      value->assign(rest.substr(keyword.size()));
      return MatchResult::Matched;
    case MatchMode::Abbreviation:
      if (rest.size() > keyword.size() || !EqualsIgnoreCase(rest, keyword.substr(0, rest.size()))) {
        return MatchResult::None;
      }
      return MatchResult::Matched;
    case MatchMode::Value: {
      size_t n = keyword.size();
      if (n > 0 && keyword[n - 1] == '=') --n;
      if (rest.size() < n || !EqualsIgnoreCase(rest.substr(0, n), keyword.substr(0, n))) return MatchResult::None;
      // The character after the name is skipped whatever it is: /save:mbr
      // works like /save=mbr.
      if (rest.size() > n + 1) value->assign(rest.substr(n + 1));
      return value->empty() ? MatchResult::EmptyValue : MatchResult::Matched;
    }
  }
  return MatchResult::None;
}

void ApplyDisk(const std::string&, const std::string& value) {
  RunOptions& o = Options();
  if (!value.empty() && value[0] == '*') {
    o.diskNumber = kAllDisks;
  } else if (StartsWithDigit(value)) {
    o.diskNumber = ReadDecimal(value);
  } else {
    o.diskNumber = kVirtualDiskNumber;
    AssignValueText(o.diskFileName, value);
  }
}

void ApplyPart(const std::string& argument, const std::string& value) {
  RunOptions& o = Options();
  o.partArgument = argument;
  if (!value.empty() && value[0] == '*') {
    o.partNumber = kAllPartitions;
  } else if (StartsWithDigit(value) && value.size() <= 2) {
    o.partNumber = ReadDecimal(value);
  } else if (EqualsIgnoreCase(value, "system")) {
    o.partNumber = kPartSystem;
  } else if (EqualsIgnoreCase(value, "boot")) {
    o.partNumber = kPartBoot;
  } else if (EqualsIgnoreCase(value, "diag") || EqualsIgnoreCase(value, "dell") || EqualsIgnoreCase(value, "utility")) {
    o.partNumber = kPartUtility;
  } else {
    InvalidSwitch(argument);
  }
}

void ApplyOption(const std::string& argument, const std::string& value) {
  if (!AreaFromWord(value, {{"track0", kAreaTrack0}, {"mbr", kAreaMbr}, {"gpt", kAreaGpt}, {"disk", kAreaDisk}},
                    &Options().areaKind)) {
    InvalidSwitch(argument);
  }
}

void ApplySector(const std::string& argument, const std::string& value) {
  if (StartsWithDigit(value)) {
    Options().sectorNumber = ReadDecimal(value);
  } else if (EqualsIgnoreCase(value, "disk")) {
    // Letter case is ignored here as for every other value word.
    Options().sectorNumber = kSectorDisk;
  } else {
    InvalidSwitch(argument);
  }
}

void ApplyVol(const std::string& argument, const std::string& value) {
  char first = LowerAscii(value.empty() ? '\0' : value[0]);
  if (value.size() == 2 && first >= 'a' && first <= 'z' && value[1] == ':') {
    Options().partNumber = kPartDriveLetter;
  } else if (!value.empty()) {
    Options().partNumber = kPartVolumeLabel;
  } else {
    InvalidSwitch(argument);
  }
}

// Keywords whose whole effect is one field set to one value.
template <auto Field, auto Value>
void Set(const std::string&, const std::string&) {
  Options().*Field = Value;
}

// Keywords accepted without any effect of their own (their value, if any, is
// read again by name later).
void Accept(const std::string&, const std::string&) {}

using ApplyFn = void (*)(const std::string& argument, const std::string& value);

struct Keyword {
  int order;  // its place among all keywords, commands included
  const char* keyword;
  MatchMode mode;
  std::string RunOptions::*destination;  // value mode: the text field that takes the value
  ApplyFn apply;                          // null: selects `command`
  int32_t command;
  // Its line on the help pages and the line's place (see CommandSpec).
  int helpPlace = 0;
  const char* help = nullptr;
};

// The keywords that select no command; the commands' own keywords come
// from the command table.  Each carries its place in the one order in
// which keywords are tried, and those on the help pages their line there.
const Keyword kOptionKeywords[] = {
    {3, "freespace", MatchMode::Fixed, nullptr, Set<&RunOptions::showFreeSpace, true>, 0},
    {4, "extended", MatchMode::Fixed, nullptr, Set<&RunOptions::showLogical, true>, 0},
    {5, "logical", MatchMode::Fixed, nullptr, Set<&RunOptions::showLogical, true>, 0},
    {6, "disk=", MatchMode::Fixed, nullptr, ApplyDisk, 0,
     102, "Disk=#      Selects the disk (or file), defaults to '0' if not specified"},
    {7, "part=", MatchMode::Fixed, nullptr, ApplyPart, 0,
     103, "Part=#      Selects partition by number.  Defaults to '1'"},
    {8, "option=", MatchMode::Fixed, nullptr, ApplyOption, 0},
    {9, "sector=", MatchMode::Fixed, nullptr, ApplySector, 0,
     105, "Sector=#    Specifies sector(s) to use for applicable operations"},
    {10, "vol=", MatchMode::Fixed, nullptr, ApplyVol, 0,
     104, "Vol=x       Specifies volume by drive letter (C:) or volume label"},
    {11, "Filename=", MatchMode::Fixed, nullptr,
     [](const std::string&, const std::string& value) { AssignValueText(Options().valueText2, value); }, 0},
    {17, "FILE", MatchMode::Abbreviation, nullptr, Accept, 0},
    {19, "range=", MatchMode::Value, &RunOptions::valueText, Accept, 0},
    {22, "result", MatchMode::Abbreviation, nullptr, Set<&RunOptions::showResult, true>, 0,
     216, "Result      Shows Errorlevel code on program exit"},
    {31, "source=", MatchMode::Value, &RunOptions::valueText,
     [](const std::string&, const std::string& value) { Options().rangeFirst = ReadDecimal64(value); }, 0},
    {32, "target=", MatchMode::Value, &RunOptions::valueText2,
     [](const std::string&, const std::string& value) { Options().rangeLast = ReadDecimal64(value); }, 0},
    {39, "value=", MatchMode::Value, &RunOptions::valueText2, Accept, 0},
    {40, "align=", MatchMode::Value, &RunOptions::valueText2, Accept, 0,
     210, "Align=      Alignment boundary to start new partition, eg. 1k, 2k, 4k, etc."},
    {41, "start=", MatchMode::Value, &RunOptions::valueText2, Accept, 0,
     208, "Start=      Sector to start new partition. /Freespace uses first avail. "},
    {42, "size=", MatchMode::Value, &RunOptions::valueText2, Accept, 0,
     209, "Size=       Size in MB of new partition. /Max uses all avail freespace. "},
    {46, "ignore", MatchMode::Abbreviation, nullptr, Set<&RunOptions::ignoreErrors, true>, 0,
     215, "Ignore      Ignore Errors and continue processing"},
    {47, "msg=", MatchMode::Value, &RunOptions::valueText3,
     [](const std::string&, const std::string& value) { Options().messageNumber = ReadDecimal(value); }, 0,
     213, "Msg=#       Hides the status message displayed upon program exit"},
    {48, "confirm", MatchMode::Abbreviation, nullptr, Set<&RunOptions::confirmed, true>, 0,
     214, "Confirm     Automatically answers 'Yes'"},
    {49, "debug", MatchMode::Abbreviation, nullptr, Accept, 0},
    {50, "text", MatchMode::Abbreviation, nullptr, Set<&RunOptions::textFrame, true>, 0},
    {54, "silent", MatchMode::Abbreviation, nullptr, Set<&RunOptions::silent, true>, 0},
    {55, "nohdr", MatchMode::Abbreviation, nullptr, Set<&RunOptions::noHeader, true>, 0},
    {56, "asciimap", MatchMode::Abbreviation, nullptr, Set<&RunOptions::asciiMap, true>, 0},
    {57, "shutdown=", MatchMode::Value, &RunOptions::valueText3,
     [](const std::string&, const std::string& value) { Options().shutdownMode = ReadDecimal(value); }, 0,
     201, "Shutdown=#  1-Force shutdown, 2-Force Reboot, 3-Shutdown, 4-Reboot"},
    {58, "?", MatchMode::Abbreviation, nullptr, Set<&RunOptions::helpRequested, true>, 0,
     217, "?           Displays this help page"},
};

// Every keyword in the order they are tried: the option keywords and the
// commands' keywords merged by their places.
const std::vector<Keyword>& KeywordTable() {
  static const std::vector<Keyword> all = [] {
    std::vector<Keyword> list(std::begin(kOptionKeywords), std::end(kOptionKeywords));
    size_t count = 0;
    const CommandSpec* rows = CommandRows(&count);
    for (size_t i = 0; i < count; ++i) {
      const CommandSpec& c = rows[i];
      list.push_back({c.keywordOrder, c.keyword, c.mode, c.valueField, c.parse, c.id, c.helpPlace, c.help});
    }
    std::stable_sort(list.begin(), list.end(), [](const Keyword& a, const Keyword& b) { return a.order < b.order; });
    return list;
  }();
  return all;
}

// The value of create= is never used, so "/create" alone (nothing after the
// name) is accepted as the creation command instead of being refused for its
// missing value.  "/create:" or "/createX" remain invalid switches.
bool IsBareCreate(const std::string& argument) {
  return argument.size() > 1 && IsPrefixChar(argument[0]) &&
         EqualsIgnoreCase(std::string_view(argument).substr(1), "create");
}

}  // namespace

// The message of a code names the argument that caused it, so badArgument
// follows the first-error rule together with resultCode: with several bad
// arguments the first one is reported.
void InvalidSwitch(const std::string& argument) {
  State().usageError = true;
  if (State().resultCode == kSuccess) {
    State().resultCode = kInvalidSwitch;
    State().badArgument = argument;
  }
}

// An invalid parameter does not stop the parsing as a usage error does; the
// pending code alone keeps the command from running.
void InvalidParameter(const std::string& argument) {
  if (State().resultCode == kSuccess) {
    State().resultCode = kInvalidParameter;
    State().badArgument = argument;
  }
}

// save= and restore= store 105 over a pending code: an unknown area word
// must never be mistaken for some other failure.
void InvalidArea(const std::string& argument) {
  State().usageError = true;
  State().badArgument = argument;
  State().resultCode = kInvalidSwitch;
}

bool AreaFromWord(std::string_view value, std::initializer_list<AreaWord> words, int32_t* area) {
  for (const AreaWord& w : words) {
    if (EqualsIgnoreCase(value, w.word)) {
      *area = w.area;
      return true;
    }
  }
  return false;
}

// ---- ArgumentList ---------------------------------------------------------

void ArgumentList::Clear() {
  entries.clear();
  current = -1;
}

void ArgumentList::Add(const std::string& argument) {
  ArgumentEntry entry;
  size_t equals = argument.find('=');
  entry.hasValue = equals != std::string::npos;
  entry.text = argument.substr(0, kArgumentTextWidth);
  if (entry.hasValue) {
    entry.name = argument.substr(0, equals < kArgumentNameWidth ? equals : kArgumentNameWidth);
    entry.value = argument.substr(equals + 1, kArgumentValueWidth);
  }
  entries.push_back(std::move(entry));
}

bool ArgumentList::Find(std::string_view name) {
  current = -1;
  for (size_t i = 0; i < entries.size(); ++i) {
    const ArgumentEntry& entry = entries[i];
    std::string_view key = entry.hasValue ? entry.name : entry.text;
    bool match;
    if (!key.empty() && !name.empty() && IsPrefixChar(key[0]) && IsPrefixChar(name[0])) {
      match = EqualsIgnoreCase(key.substr(1), name.substr(1));
    } else {
      match = EqualsIgnoreCase(key, name);
    }
    if (match) {
      current = static_cast<int>(i);
      return true;
    }
  }
  return false;
}

std::string ArgumentList::CurrentValue() const {
  if (current < 0 || static_cast<size_t>(current) >= entries.size()) return std::string();
  return entries[current].value;
}

std::string ArgumentList::CurrentText() const {
  if (current < 0 || static_cast<size_t>(current) >= entries.size()) return std::string();
  return entries[current].text;
}

ArgumentList& Arguments() { return g_arguments; }
bool FindArgument(std::string_view name) { return g_arguments.Find(name); }
std::string CurrentArgumentValue() { return g_arguments.CurrentValue(); }
std::string CurrentArgumentText() { return g_arguments.CurrentText(); }

// ---- matching and parsing -------------------------------------------------

bool MatchKeyword(MatchMode mode, std::string_view keyword, const std::string& argument, std::string* destination) {
  std::string value;
  MatchResult result = Match(mode, keyword, argument, &value);
  if (result == MatchResult::None) return false;
  if (mode == MatchMode::Value && destination != nullptr) AssignValueText(*destination, value);
  if (result == MatchResult::EmptyValue) InvalidSwitch(argument);
  return true;
}

void ParseArgument(const std::string& argument) {
  for (const Keyword& k : KeywordTable()) {
    std::string value;
    MatchResult result = Match(k.mode, k.keyword, argument, &value);
    if (result == MatchResult::None) continue;
    if (k.destination != nullptr) AssignValueText(Options().*(k.destination), value);
    if (result == MatchResult::EmptyValue && !(std::string_view(k.keyword) == "create=" && IsBareCreate(argument))) {
      // A value keyword without its value is refused as a whole: none of its
      // effects apply.
      InvalidSwitch(argument);
      return;
    }
    if (k.apply != nullptr) {
      k.apply(argument, value);
    } else {
      Options().command = k.command;
    }
    return;
  }
  InvalidSwitch(argument);
}

std::vector<std::string> AllKeywords() {
  std::vector<std::string> words;
  for (const Keyword& k : KeywordTable()) words.emplace_back(k.keyword);
  return words;
}

std::vector<HelpLine> HelpLines() {
  std::vector<HelpLine> lines;
  for (const Keyword& k : KeywordTable()) {
    if (k.help != nullptr) lines.push_back({k.helpPlace, k.help});
  }
  std::sort(lines.begin(), lines.end(), [](const HelpLine& a, const HelpLine& b) { return a.place < b.place; });
  return lines;
}

int32_t ParseRepairKind() {
  const std::string& text = Options().valueText;
  if (text.empty()) return -1;
  if (EqualsIgnoreCase(text, "XP")) return 1;
  if (EqualsIgnoreCase(text, "Win7")) return 2;
  if (EqualsIgnoreCase(text, "PartitionTable") || EqualsIgnoreCase(text, "pt")) return 3;
  return ReadDecimal(text);
}

// ---- option file ----------------------------------------------------------

bool ReadOptionFile(const std::string& programPath) {
  // The program's folder ends at its last separator: '\' as Windows writes
  // paths, and '/' as well so that the file beside the program is found on
  // Linux (and for Windows paths written with '/').
  size_t cut = programPath.find_last_of("\\/");
  std::string path =
      cut == std::string::npos ? std::string("diskhold.opt") : programPath.substr(0, cut + 1) + "diskhold.opt";

  ArgumentList& list = Arguments();
  list.Clear();
  std::FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return false;

  bool anyToken = false;
  // A line longer than the buffer is read in pieces of 1023 characters; a
  // token that straddles a piece boundary becomes two tokens.
  char line[1024];
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    std::string_view text(line);
    size_t pos = 0;
    while (pos < text.size()) {
      while (pos < text.size() && IsTokenSeparator(text[pos])) ++pos;
      size_t start = pos;
      while (pos < text.size() && !IsTokenSeparator(text[pos])) ++pos;
      if (pos > start) {
        std::string token(text.substr(start, pos - start));
        list.Add(token);
        ParseArgument(token);
        anyToken = true;
      }
    }
  }
  std::fclose(file);
  return anyToken;
}

}  // namespace dh
