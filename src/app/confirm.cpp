#include "app/confirm.h"

#include <cstdarg>
#include <cstdio>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/run_state.h"
#include "base/sink.h"
#include "base/text.h"
#include "disk/disk_set.h"
#include "platform/platform.h"

namespace dh {

namespace {

// The question lives in a 128-character text; a longer one (a long type=
// value) is cut rather than overflowing.
constexpr size_t kQuestionSize = 128;

}  // namespace

std::string ConfirmActionText(const RunOptions& options, const DiskSet& disks) {
  const CommandSpec* spec = FindCommand(options.command);
  if (spec == nullptr || spec->question == nullptr) return "";
  return spec->question(options, disks);
}

bool ConfirmCommand(const RunOptions& options, const DiskSet& disks, Sink& out) {
  const std::string action = ConfirmActionText(options, disks);
  return action.empty() || ConfirmAction(action, out);
}

bool ConfirmAction(const std::string& action, Sink& out) {
  std::string question = "Preparing to " + action + ", are you sure? (Y/N): ";
  if (question.size() > kQuestionSize - 1) question.resize(kQuestionSize - 1);
  out.Write("\n " + question);
  std::fflush(stdout);
  int key = platform::Host().ReadKey();
  // At the end of input there is no key to echo; it answers no.
  if (key >= 0) out.Printf("%c", key);
  bool yes = key >= 0 && key <= 0xFF && LowerAscii(static_cast<char>(key)) == 'y';
  out.Write("\n\n");
  return yes;
}

void PrintUsage(Sink& out) {
  out.Printf(" \n Usage: Diskhold %ccommand[=x or #] [/filename=y] [/sector=z]", '/');
  int page = 1;
  for (const HelpLine& line : HelpLines()) {
    // A key press between the pages.
    if (line.place / 100 != page) {
      page = line.place / 100;
      out.Write("\n\nPress any key for remaining options...");
      std::fflush(stdout);
      platform::Host().ReadKey();
    }
    out.Printf("\n %c%s", '/', line.text);
  }
  out.Write("\n \nAll funtions return 0 on success, > 0 on error\n");
}

}  // namespace dh
