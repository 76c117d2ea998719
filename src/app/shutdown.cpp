#include "app/shutdown.h"

#include "app/run_state.h"
#include "platform/platform.h"

namespace dh {

uint32_t ShutdownFlags(int32_t mode) {
  constexpr uint32_t kShutdown = 1, kReboot = 2, kForce = 4;
  switch (mode) {
    case 1: return kShutdown | kForce;
    case 2: return kReboot | kForce;
    case 3: return kShutdown;
    case 4: return kReboot;
    default: return 0;
  }
}

bool RequestShutdown() {
  uint32_t flags = ShutdownFlags(Options().shutdownMode);
  // A mode without flags must not reach the system with undefined flags.
  if (flags == 0) return false;
  platform::Machine& host = platform::Host();
  // Outside the NT family no privilege is needed.
  if ((host.GetVersion() & 0x80000000u) == 0 && !host.EnableShutdownPrivilege()) return false;
  return host.ExitWindows(flags);
}

}  // namespace dh
