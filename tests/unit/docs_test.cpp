// The command reference of the README and of the manual page: every keyword
// of the command line has an entry with a description and an example, and
// every example is a command line the grammar accepts.  (That the examples
// also run on the demo machine with the exit status given is checked by
// tests/e2e/readme_examples.sh.)
#ifndef _WIN32

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"

namespace dh {
namespace {

// The 58 keywords of the command line, as the grammar's table spells them.
const char* const kKeywords[] = {
    "list",     "tablist",   "freespace", "extended", "logical",  "disk=",     "part=",    "option=",
    "sector=",  "vol=",      "Filename=", "repair=",  "FlashMBR", "save=",     "restore=", "show=",
    "FILE",     "wipe=",     "range=",    "sort",     "issorted", "result",    "hide",     "unhide",
    "active",   "inactive",  "type=",     "del",      "compare",  "copy",      "source=",  "target=",
    "status",   "status=",   "create=",   "format",   "signature=", "volumeid=", "value=", "align=",
    "start=",   "size=",     "bootmenu",  "info",     "writeini", "ignore",    "msg=",     "confirm",
    "debug",    "text",      "isfixed",   "diskcount", "partcount", "silent",  "nohdr",    "asciimap",
    "shutdown=", "?",
};

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string ReadSource(const std::string& name) {
  std::ifstream in(std::string(DISKHOLD_SOURCE_DIR) + "/" + name, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// Whether a keyword as a reference shows it ("/disk=N", "/list") names the
// keyword: a value keyword may carry a placeholder, a flag nothing more.
bool ShowsKeyword(const std::string& shown, const std::string& keyword) {
  const std::string name = "/" + Lower(keyword);
  if (Lower(shown).compare(0, name.size(), name) != 0) return false;
  const std::string rest = shown.substr(name.size());
  if (keyword.back() != '=') return rest.empty();
  for (char c : rest) {
    if (!std::isalpha(static_cast<unsigned char>(c)) && c != '-') return false;
  }
  return true;
}

// Whether an argument of an example uses the keyword.
bool UsesKeyword(const std::string& argument, const std::string& keyword) {
  const std::string arg = Lower(argument);
  const std::string name = "/" + Lower(keyword);
  if (keyword.back() != '=') return arg == name;
  // create= takes no value; the bare keyword is accepted.
  return arg.compare(0, name.size(), name) == 0 || (keyword == "create=" && arg == "/create");
}

struct Row {
  std::string shown;
  std::string description;
  std::vector<std::string> exampleArgs;
};

// The rows of the README's reference tables: | `kw` | text | `example` | status |
std::vector<Row> ReadmeRows() {
  std::vector<Row> rows;
  bool inReference = false;
  for (const std::string& line : Lines(ReadSource("README.md"))) {
    if (line.rfind("## ", 0) == 0) inReference = line == "## Command reference";
    if (!inReference || line.rfind("| `", 0) != 0) continue;
    std::vector<std::string> cells;
    std::string cell;
    for (size_t i = 1; i < line.size(); ++i) {
      if (line[i] == '|' && line[i - 1] != '\\') {
        cells.push_back(cell);
        cell.clear();
      } else {
        cell += line[i];
      }
    }
    EXPECT_EQ(cells.size(), 4u) << line;
    if (cells.size() != 4) continue;
    auto code = [](const std::string& c) {
      const size_t open = c.find('`');
      const size_t close = c.rfind('`');
      return open == std::string::npos || close <= open ? std::string() : c.substr(open + 1, close - open - 1);
    };
    Row row{code(cells[0]), cells[1], {}};
    std::vector<std::string> words = Words(code(cells[2]));
    const auto program = std::find(words.begin(), words.end(), "diskhold");
    EXPECT_NE(program, words.end()) << line;
    if (program != words.end()) row.exampleArgs.assign(program + 1, words.end());
    const std::string status = Words(cells[3]).empty() ? "" : Words(cells[3])[0];
    EXPECT_FALSE(status.empty() || status.find_first_not_of("-0123456789") != std::string::npos) << line;
    rows.push_back(row);
  }
  return rows;
}

TEST(CommandReference, ReadmeHasOneRowPerKeywordWithAnExampleTheGrammarAccepts) {
  const std::vector<Row> rows = ReadmeRows();
  ASSERT_EQ(rows.size(), std::size(kKeywords));
  std::set<const Row*> used;
  for (const char* keyword : kKeywords) {
    SCOPED_TRACE(keyword);
    const Row* row = nullptr;
    for (const Row& r : rows) {
      if (ShowsKeyword(r.shown, keyword)) row = &r;
    }
    ASSERT_NE(row, nullptr) << "no row names /" << keyword;
    EXPECT_TRUE(used.insert(row).second) << row->shown << " names two keywords";
    EXPECT_GE(Words(row->description).size(), 3u) << row->shown;
    bool uses = false;
    for (const std::string& a : row->exampleArgs) uses = uses || UsesKeyword(a, keyword);
    EXPECT_TRUE(uses) << "the example of " << row->shown << " does not use it";

    // Parsed as the program parses its command line.
    ResetRun();
    for (const std::string& a : row->exampleArgs) Arguments().Add(a);
    for (const std::string& a : row->exampleArgs) ParseArgument(a);
    EXPECT_FALSE(State().usageError) << row->shown << ": " << State().badArgument;
    EXPECT_EQ(State().resultCode, kSuccess) << row->shown;
  }
  ResetRun();
}

// The manual page: an entry per keyword (.B or .BI line after .TP) with an
// example line that uses it.
TEST(CommandReference, ManualPageHasAnEntryAndExamplePerKeyword) {
  const std::vector<std::string> lines = Lines(ReadSource("docs/diskhold.1"));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].rfind(".\\\"", 0), 0u);
  for (const char* keyword : kKeywords) {
    SCOPED_TRACE(keyword);
    bool found = false;
    for (size_t i = 1; i + 3 < lines.size() && !found; ++i) {
      if (lines[i - 1] != ".TP") continue;
      const std::vector<std::string> words = Words(lines[i]);
      if (words.size() < 2 || (words[0] != ".B" && words[0] != ".BI") || !ShowsKeyword(words[1], keyword)) continue;
      found = true;
      // Description, line break, example.
      EXPECT_GE(Words(lines[i + 1]).size(), 3u);
      EXPECT_EQ(lines[i + 3].rfind("Example: \\fB", 0), 0u) << lines[i + 3];
      bool uses = false;
      for (std::string w : Words(lines[i + 3])) {
        if (w.rfind("\\fB", 0) == 0) w = w.substr(3);
        if (w.size() > 3 && w.compare(w.size() - 3, 3, "\\fR") == 0) w.resize(w.size() - 3);
        uses = uses || UsesKeyword(w, keyword);
      }
      EXPECT_TRUE(uses) << lines[i + 3];
    }
    EXPECT_TRUE(found) << "no entry for /" << keyword;
  }
}

}  // namespace
}  // namespace dh

#endif  // _WIN32
