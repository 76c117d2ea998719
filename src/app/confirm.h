// The Y/N question asked before a command that changes a disk, and the two
// help pages.
#pragma once

#include <string>

#include "app/run_state.h"

namespace dh {

class DiskSet;
class Sink;

// The action text of the question for the current command (from its row);
// empty when the command asks nothing.
std::string ConfirmActionText(const RunOptions& options, const DiskSet& disks);
// Asks the question; true to go on.  Commands without a question go on at
// once without reading a key.
bool ConfirmCommand(const RunOptions& options, const DiskSet& disks, Sink& out);
// Asks "Preparing to <action>, are you sure? (Y/N): " and reads one key;
// true for 'y' or 'Y'.  For a command that learns only while it runs that
// it must ask.
bool ConfirmAction(const std::string& action, Sink& out);
void PrintUsage(Sink& out);

}  // namespace dh
