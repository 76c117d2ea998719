// The simulated machine: a Machine built from a machine file (machine_file.h)
// whose physical drives are image files, with the registry values, mounted
// volumes, version, rights, locale and console answers the file describes.
// It runs on Linux and on Windows alike; every host file it touches is
// reached through the native machine it is given.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"
#include "platform/sim/machine_file.h"

namespace dh::platform::sim {

// Reads the machine file at `machineFilePath` and builds its machine.  Null
// with `error` telling why when the file cannot be read, is invalid, or names
// an image that cannot be opened.
std::unique_ptr<Machine> LoadSimulatedMachine(const std::string& machineFilePath, std::shared_ptr<Machine> native,
                                              std::string* error);

// Builds the machine of an already read description; checks its images.
std::unique_ptr<Machine> CreateSimulatedMachine(MachineDescription description, std::shared_ptr<Machine> native,
                                                std::string* error);

}  // namespace dh::platform::sim
