// Whole argument vectors: the input is split at zero bytes into at most 16
// arguments, run on a machine of every disk kind with 'y' typed to the
// questions.  A run may change only what its command may change.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/run_state.h"
#include "fuzz_cli.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(true);
  dh::fuzz::PrivateFolder();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096 || !dh::fuzz::StaysInFolder(data, size)) return -1;
  std::vector<std::string> args(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      if (args.size() == 16) break;
      args.emplace_back();
    } else {
      args.back() += static_cast<char>(data[i]);
    }
  }
  dh::fuzz::CliMachine m = dh::fuzz::MakeCliMachine();
  const dh::fuzz::InPrivateFolder folder;
  dh::fuzz::RunProgram(m.host, m.description, args);
  dh::fuzz::CheckCliRun(m, dh::fuzz::Describe(args));
  if (dh::Options().command == dh::kCmdWriteIni) dh::fuzz::ClearPrivateFolder("");
  return 0;
}
