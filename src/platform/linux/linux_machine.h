// The native machine on Linux.  CreateNativeMachine() looks at the real
// /sys and /dev; tests build one over a tree of their own.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

namespace dh::platform::linux_native {

struct MachineRoots {
  std::string sysRoot = "/sys";  // block devices and their attributes
  std::string devRoot = "/dev";  // where /sys/block/<name> has its node
};

std::unique_ptr<Machine> CreateLinuxMachine(const MachineRoots& roots);

}  // namespace dh::platform::linux_native
