// Choosing the machine of a run, and the process-wide reference to it.
#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"
#include "platform/sim/sim_machine.h"

namespace dh::platform {
namespace {

Machine* g_host = nullptr;

}  // namespace

std::unique_ptr<Machine> CreateMachine(std::string* error) {
  const char* machineFile = std::getenv("DISKHOLD_MACHINE");
  if (machineFile == nullptr || machineFile[0] == '\0') return CreateNativeMachine();
  std::shared_ptr<Machine> native = CreateNativeMachine();
  return sim::LoadSimulatedMachine(machineFile, std::move(native), error);
}

Machine& Host() {
  if (g_host == nullptr) {
    // Every run sets its machine before doing anything else; reaching this
    // is a fault in the program, not in its input.
    std::fputs("diskhold: internal error: no machine has been set\n", stderr);
    std::abort();
  }
  return *g_host;
}

void SetHost(Machine* machine) { g_host = machine; }

}  // namespace dh::platform
