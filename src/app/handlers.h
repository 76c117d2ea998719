// The commands' own pieces, named in their rows of the command table: how
// their keywords parse, the questions they ask, their success texts and
// exit values, and their handlers.  One file of handlers per family.
#pragma once

#include <cstdint>
#include <string>

#include "app/command_table.h"

namespace dh {

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
