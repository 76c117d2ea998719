// The one table of the commands: for each command its keyword, the
// selectors it accepts, its question, its success texts, its exit value,
// its handler and its line on the help pages.  The grammar, the dispatcher,
// the confirmation, the help pages and the final report all read a
// command's facts from its row.  Adding a command is its number and the
// declarations of its pieces here, its row in command_table.cpp, its pieces
// in one of the cmd_*.cpp files, and its entries in the README's command
// reference and the manual page (a unit test checks those two).
#pragma once

#include <cstdint>
#include <string>

#include "app/grammar.h"
#include "app/run_state.h"

namespace dh {

// Command numbers.  They are also the step numbers whose completion selects
// a success text; the sub-steps of del, signature= and volumeid= lie
// between them.
enum CommandId : int32_t {
  kCmdNone = 0,
  kCmdSave = 1,
  kCmdRepair = 2,
  kCmdRestore = 3,
  kCmdShow = 4,
  kCmdWipe = 5,
  kCmdSort = 6,
  kCmdIsSorted = 7,
  kCmdList = 8,
  kCmdTabList = 9,
  kCmdActive = 10,
  kCmdHide = 11,
  kCmdInactive = 12,
  kCmdUnhide = 13,
  kCmdDelete = 14,
  kStepDeleteAll = 15,
  kCmdType = 16,
  kCmdCopy = 17,
  kCmdCompare = 18,
  kCmdWriteIni = 20,
  kCmdBootMenu = 21,
  kCmdStatus = 26,
  kCmdStatusWrite = 27,
  kCmdCreate = 28,
  kCmdFormat = 29,
  kCmdFlashMbr = 30,
  kCmdSignature = 31,
  kStepSignatureRead = 32,
  kStepSignatureWrite = 33,
  kStepSignatureGenerate = 34,
  kStepSignatureZero = 35,
  kCmdVolumeId = 36,
  kStepVolumeIdRead = 37,
  kCmdInfo = 39,
  kCmdDiskCount = 40,
  kCmdPartCount = 41,
  kCmdIsFixed = 42,
};

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
  // Its line on the help pages (after the "/"), and the line's place there:
  // page * 100 + line, so 101 is the first line of the first page.  0 and
  // null: the command is not on the help pages.
  int helpPlace = 0;
  const char* help = nullptr;
};

// The rows, and the row of a command or step number (null when none).
const CommandSpec* CommandRows(size_t* count);
const CommandSpec* FindCommand(int32_t idOrStep);

// ---- the commands' own pieces, named in their rows ------------------------
// How their keywords parse, the questions they ask, their success texts and
// exit values, and their handlers.  One file of pieces per family.

// Partition edits (cmd_edit.cpp).
void ParseType(const std::string& argument, const std::string& value);
std::string AskSort(const RunOptions& o, const DiskSet& disks);
std::string AskActive(const RunOptions& o, const DiskSet& disks);
std::string AskHide(const RunOptions& o, const DiskSet& disks);
std::string AskDelete(const RunOptions& o, const DiskSet& disks);
std::string AskType(const RunOptions& o, const DiskSet& disks);
const char* SortText(int32_t step, const RunOptions& o);
const char* ActiveText(int32_t step, const RunOptions& o);
const char* InactiveText(int32_t step, const RunOptions& o);
const char* HideText(int32_t step, const RunOptions& o);
const char* UnhideText(int32_t step, const RunOptions& o);
const char* DeleteText(int32_t step, const RunOptions& o);
const char* TypeText(int32_t step, const RunOptions& o);
const char* CreateText(int32_t step, const RunOptions& o);
bool PrintIsSorted(const RunOptions& o, const RunState& s, Sink& out);
int32_t IsSortedExit(const RunOptions& o, const RunState& s, const DiskSet* disks);
void HandleSort(CommandContext& c);
void HandleIsSorted(CommandContext& c);
void HandleFlagEdit(CommandContext& c);
void HandleDelete(CommandContext& c);
void HandleCreate(CommandContext& c);

// Backups and sector maintenance (cmd_sectors.cpp).
void ParseSave(const std::string& argument, const std::string& value);
void ParseRestore(const std::string& argument, const std::string& value);
void ParseWipe(const std::string& argument, const std::string& value);
std::string AskRestore(const RunOptions& o, const DiskSet& disks);
std::string AskWipe(const RunOptions& o, const DiskSet& disks);
std::string AskCopy(const RunOptions& o, const DiskSet& disks);
const char* WipeText(int32_t step, const RunOptions& o);
const char* CopyText(int32_t step, const RunOptions& o);
bool PrintSaved(const RunOptions& o, const RunState& s, Sink& out);
bool PrintRestored(const RunOptions& o, const RunState& s, Sink& out);
bool PrintCompared(const RunOptions& o, const RunState& s, Sink& out);
bool PrintNothing(const RunOptions& o, const RunState& s, Sink& out);
void HandleSave(CommandContext& c);
void HandleRestore(CommandContext& c);
void HandleShow(CommandContext& c);
void HandleWipe(CommandContext& c);
void HandleCopy(CommandContext& c);
void HandleCompare(CommandContext& c);

// Reports and queries (cmd_report.cpp).
void HandleList(CommandContext& c);
void HandleWriteIni(CommandContext& c);
void HandleInfo(CommandContext& c);
// The boot menu, which runs after the dispatcher when nothing failed.
void RunBootMenuStep(CommandContext& c);
const char* WriteIniText(int32_t step, const RunOptions& o);
const char* BootMenuText(int32_t step, const RunOptions& o);
int32_t IsFixedExit(const RunOptions& o, const RunState& s, const DiskSet* disks);
int32_t DiskCountExit(const RunOptions& o, const RunState& s, const DiskSet* disks);
int32_t PartCountExit(const RunOptions& o, const RunState& s, const DiskSet* disks);

// Sector 0 fields, boot code and volume IDs (cmd_disk.cpp).
void ParseRepair(const std::string& argument, const std::string& value);
void ParseStatusWrite(const std::string& argument, const std::string& value);
std::string AskRepair(const RunOptions& o, const DiskSet& disks);
std::string AskStatusWrite(const RunOptions& o, const DiskSet& disks);
const char* RepairText(int32_t step, const RunOptions& o);
const char* StatusWriteText(int32_t step, const RunOptions& o);
const char* SignatureText(int32_t step, const RunOptions& o);
bool PrintStatus(const RunOptions& o, const RunState& s, Sink& out);
bool PrintSignature(const RunOptions& o, const RunState& s, Sink& out);
bool PrintVolumeId(const RunOptions& o, const RunState& s, Sink& out);
int32_t StatusExit(const RunOptions& o, const RunState& s, const DiskSet* disks);
void HandleRepair(CommandContext& c);
void HandleFlashMbr(CommandContext& c);
void HandleStatus(CommandContext& c);
void HandleStatusWrite(CommandContext& c);
void HandleSignature(CommandContext& c);
void HandleVolumeId(CommandContext& c);

// Volume formatting (cmd_format.cpp).
void HandleFormat(CommandContext& c);

}  // namespace dh
