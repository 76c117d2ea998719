// Shutting down or restarting the system after a successful run.
#pragma once

#include <cstdint>

namespace dh {

// The ExitWindowsEx flags of a shutdown mode; 0 for modes without flags.
uint32_t ShutdownFlags(int32_t mode);
// Asks the system to shut down as Options().shutdownMode says; true when the
// request was accepted.  Modes other than 1 to 4 request nothing.
bool RequestShutdown();

}  // namespace dh
