// The Y/N question asked before a command that changes a disk, and the two
// help pages.
#pragma once

#include <string>

namespace dh {

class DiskSet;

// The action text of the question for the current command; empty when the
// command asks nothing.
std::string ConfirmActionText(const DiskSet& disks);
// Asks the question; true to go on.  Commands without a question go on at
// once without reading a key.
bool ConfirmCommand(const DiskSet& disks);
void PrintUsage();

}  // namespace dh
