// Runs the one command of a run: defaults, disk selection, the partition
// checks, confirmation, then the handler of the command's row.
#pragma once

namespace dh {

struct CommandContext;

void DispatchCommand(CommandContext& context);

}  // namespace dh
