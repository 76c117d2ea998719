// The machine file: the input is a selector byte and then the text of
// "/fz/machine.ini", whose drives may stand on the images "disk0.img" (MBR
// with logical partitions), "disk1.img" (GPT), "usb.img" (no table) and
// "v.vmdk" beside it.  One command of the table runs on the machine it
// describes; reading must not write, and an edit changes only the table.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_images.h"
#include "fuzz_support.h"
#include "platform/sim/machine_file.h"

namespace {

using dh::fuzz::MemFile;

const char kMachineFile[] = "/fz/machine.ini";

const std::vector<std::vector<std::string>>& Queries() {
  static const std::vector<std::vector<std::string>> rows = {
      {"/list", "/logical", "/freespace"},
      {"/list", "/disk=*"},
      {"/info"},
      {"/diskcount"},
      {"/isfixed", "/disk=1"},
      {"/partcount", "/disk=1"},
      {"/volumeid=Read", "/vol=C:"},
      {"/list", "/vol=DATA"},
      {"/list", "/part=system"},
      {"/list", "/part=boot"},
      {"/status", "/disk=2"},
      {"/format", "/part=1"},
      {"/list", "/disk=2", "/shutdown=4"},
  };
  return rows;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 16384) return -1;
  static const std::map<std::string, MemFile> images = {
      {"/fz/disk0.img", dh::fuzz::MbrDisk()},
      {"/fz/disk1.img", dh::fuzz::GptDisk()},
      {"/fz/usb.img", dh::fuzz::SuperFloppy()},
      {"/fz/v.vmdk", MemFile(dh::fuzz::SparseExtent(
                         2048, 8, dh::fuzz::Descriptor("monolithicSparse", 2048, "RW 2048 SPARSE \"v.vmdk\""),
                         dh::fuzz::SimpleMbr(4096)))},
  };
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  dh::platform::sim::MachineDescription description;
  std::string error;
  if (!dh::platform::sim::ParseMachineFile(text, kMachineFile, &description, &error)) return 0;
  // A shutdown log kept in a disk image is the file's own doing.
  if (images.count(description.shutdownLog) != 0) return 0;
  auto host = std::make_shared<dh::fuzz::MemMachine>();
  for (const auto& [path, image] : images) host->Put(path, image);

  const std::vector<std::string>& query = Queries()[data[0] % Queries().size()];
  dh::fuzz::RunProgram(host, description, query);
  for (const auto& [path, image] : images) {
    dh::fuzz::Require(host->files.at(path)->writes == 0, dh::fuzz::Describe(query) + ": wrote to " + path);
  }

  if ((data[0] & 0x80) != 0) {
    const std::vector<std::string> edit = {"/active", "/disk=0", "/part=1", "/confirm"};
    dh::fuzz::RunProgram(host, description, edit);
    for (const auto& [path, image] : images) {
      if (path == "/fz/v.vmdk") continue;
      dh::fuzz::RequireOnlyChanged(image, host->Get(path), dh::fuzz::Ranges().Add(446, 510),
                                   dh::fuzz::Describe(edit) + " on " + path);
    }
  }
  return 0;
}
