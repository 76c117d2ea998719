// One invocation of the program, from the arguments to the exit value.
#pragma once

#include <cstdint>

namespace dh {

// Runs the program with main's arguments on the current Host() machine and
// returns the exit value.
int32_t RunDiskhold(int argc, char** argv);

}  // namespace dh
