// What the argument and option-file targets share: a machine of every disk
// kind (an MBR disk with logical partitions, a GPT disk, a removable stick
// without table, a sparse VMware file), a private working folder for the
// files a run writes on the host (writeini), and the check of a whole run
// by the command it ended up running.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz_support.h"

namespace dh::fuzz {

struct CliMachine {
  std::shared_ptr<MemMachine> host;
  platform::sim::MachineDescription description;
  std::map<std::string, MemFile> images;  // as they were before the run
};

// A fresh machine; keys answer 'y' three times, a line answers "1".
CliMachine MakeCliMachine();

// A private folder (made once per process), removed with what runs leave
// in it at exit.
const std::string& PrivateFolder();

// Makes the private folder the working one for its lifetime: libFuzzer's
// own relative paths (corpus, artifacts) must keep the folder it started in.
class InPrivateFolder {
 public:
  InPrivateFolder();
  ~InPrivateFolder();
  InPrivateFolder(const InPrivateFolder&) = delete;
  InPrivateFolder& operator=(const InPrivateFolder&) = delete;

 private:
  std::string previous_;
};
// Removes what a run left in the private folder, `keep` aside.
void ClearPrivateFolder(const std::string& keep);

// Whether text may become arguments: no '/' or '\' except where an
// argument starts, so that no file name a run writes on the host (writeini
// uses the host's files) leaves the private folder.
bool StaysInFolder(const uint8_t* data, size_t size);

// After a run: the images changed only as the command in Options() may
// change them.
void CheckCliRun(const CliMachine& m, const std::string& what);

}  // namespace dh::fuzz
