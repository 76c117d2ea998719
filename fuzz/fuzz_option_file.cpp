// The option file reader: the input is the text of "diskhold.opt", written
// into a private folder (in memory, under /dev/shm, where there is one)
// beside a program path there, and read into the argument list and through
// the keyword table.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/grammar.h"
#include "app/run_state.h"
#include "fuzz_support.h"

namespace {

std::string folder;

void RemoveFolder() {
  std::remove((folder + "/diskhold.opt").c_str());
  std::remove(folder.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  char name[] = "/dev/shm/diskhold-fuzz-XXXXXX";
  char fallback[] = "/tmp/diskhold-fuzz-XXXXXX";
  const char* made = mkdtemp(name);
  if (made == nullptr) made = mkdtemp(fallback);
  dh::fuzz::Require(made != nullptr, "cannot make a private folder");
  folder = made;
  std::atexit(RemoveFolder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 8192) return -1;
  std::FILE* file = std::fopen((folder + "/diskhold.opt").c_str(), "wb");
  dh::fuzz::Require(file != nullptr, "cannot write the option file");
  const bool written = std::fwrite(data, 1, size, file) == size;
  dh::fuzz::Require(std::fclose(file) == 0 && written, "cannot write the option file");
  dh::ResetRun();
  dh::ReadOptionFile(folder + "/diskhold");
  return 0;
}
