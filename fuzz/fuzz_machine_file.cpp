// The machine file parser: the input is a selector byte (unused, kept so
// that the seeds stay as they were) and then the text of a machine file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "platform/sim/machine_file.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 16384) return -1;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  dh::platform::sim::MachineDescription description;
  std::string error;
  const bool ok = dh::platform::sim::ParseMachineFile(text, "/fz/machine.ini", &description, &error);
  dh::fuzz::Require(ok || !error.empty(), "a machine file refused without a reason");
  return 0;
}
