// The argument grammar alone: the input is split at zero bytes into at most
// 16 arguments, which go into the argument list and through the keyword
// table as the program takes a command line.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/grammar.h"
#include "app/run_state.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return -1;
  std::vector<std::string> args(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      if (args.size() == 16) break;
      args.emplace_back();
    } else {
      args.back() += static_cast<char>(data[i]);
    }
  }
  dh::ResetRun();
  dh::Arguments().Clear();
  for (const std::string& a : args) dh::Arguments().Add(a);
  for (const std::string& a : args) dh::ParseArgument(a);
  dh::FindArgument("/Filename");
  dh::CurrentArgumentValue();
  dh::ParseRepairKind();
  return 0;
}
