// The option file: the input is the text of "diskhold.opt" beside the
// program, read because the command line is empty, and run on a machine
// of every disk kind.  A run may change only what its command may change.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "app/run_state.h"
#include "fuzz_cli.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(true);
  dh::fuzz::PrivateFolder();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 8192 || !dh::fuzz::StaysInFolder(data, size)) return -1;
  const std::string program = dh::fuzz::PrivateFolder() + "/diskhold";
  std::FILE* file = std::fopen((program + ".opt").c_str(), "wb");
  dh::fuzz::Require(file != nullptr, "cannot write the option file");
  const bool written = std::fwrite(data, 1, size, file) == size;
  dh::fuzz::Require(std::fclose(file) == 0 && written, "cannot write the option file");
  dh::fuzz::CliMachine m = dh::fuzz::MakeCliMachine();
  const dh::fuzz::InPrivateFolder folder;
  dh::fuzz::RunProgram(m.host, m.description, {}, program);
  dh::fuzz::CheckCliRun(m, "the option file");
  if (dh::Options().command == dh::kCmdWriteIni) dh::fuzz::ClearPrivateFolder("diskhold.opt");
  return 0;
}
