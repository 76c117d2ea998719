// The one table of the commands: for each command its keyword, the
// selectors it accepts, its question, its success texts, its exit value and
// its handler.  The grammar, the dispatcher, the confirmation and the final
// report all read a command's facts from its row; adding a command is one
// row here and one handler.
#pragma once

#include <cstdint>
#include <string>

#include "app/grammar.h"
#include "app/run_state.h"

namespace dh {

class DiskSet;
class Sink;
struct FrameChars;

// What a handler works with.  Code below the app layer gets what it needs
// from here as parameters.
struct CommandContext {
  RunOptions& options;
  RunState& state;
  DiskSet& disks;
  Sink& out;
  const FrameChars& frame;
  uint32_t codePage;
};

// Which partition and disk selectors a command accepts besides a partition
// number of the disk.
enum SelectorRules : uint32_t {
  kAnyPartNumber = 1u << 0,     // a number beyond the disk's partitions (or 0) too
  kAllPartitionsOk = 1u << 1,   // part=*
  kAllDisksOk = 1u << 2,        // disk=*
  // The command's work is the whole disk or sector 0: a partition number is
  // checked only when one was given (save= and restore= of a volume boot
  // record work on a partition all the same), so that a disk without
  // partitions can be backed up, read and wiped.
  kWholeDisk = 1u << 3,
};

using ParseFn = void (*)(const std::string& argument, const std::string& value);
using QuestionFn = std::string (*)(const RunOptions& options, const DiskSet& disks);
using SuccessTextFn = const char* (*)(int32_t step, const RunOptions& options);
using SuccessPrintFn = bool (*)(const RunOptions& options, const RunState& state, Sink& out);
using ExitValueFn = int32_t (*)(const RunOptions& options, const RunState& state, const DiskSet* disks);
using HandlerFn = void (*)(CommandContext& context);

struct CommandSpec {
  int32_t id;
  // Step numbers this command completes besides its own (0: none): del's
  // all-partitions step, the signature and volume ID sub-steps.
  int32_t firstSubStep;
  int32_t lastSubStep;
  // The keyword: its place in the keyword order (the first keyword that
  // matches wins, which is what makes /s sort and /c compare), the text as
  // the matcher compares it, the mode, the field that takes a value, and
  // what the argument does (null: selects the command).
  int keywordOrder;
  const char* keyword;
  MatchMode mode;
  std::string RunOptions::*valueField;
  ParseFn parse;
  uint32_t selectors;
  // The action text of the Y/N question; null or an empty text: no question.
  QuestionFn question;
  // The success text of a completed step, or null (texts with "%s" show
  // valueText there).
  SuccessTextFn successText;
  // A success report of its own instead of the success text, or null; it
  // returns false to leave the step to its success text.
  SuccessPrintFn printSuccess;
  // The exit value when it is not the result code, or null.
  ExitValueFn exitValue;
  // Runs the command after the selectors were checked and the question
  // answered; null: the command does its work elsewhere (or none).
  HandlerFn handler;
};

// The rows, and the row of a command or step number (null when none).
const CommandSpec* CommandRows(size_t* count);
const CommandSpec* FindCommand(int32_t idOrStep);

}  // namespace dh
