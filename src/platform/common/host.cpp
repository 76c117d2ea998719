// Choosing the machine of a run, and the process-wide reference to it.
#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"
#include "platform/sim/machine_file.h"
#include "platform/sim/sim_machine.h"

namespace dh::platform {
namespace {

Machine* g_host = nullptr;
ImageOpener g_imageOpener = nullptr;

// The separator of image lists, as PATH has it on the host.
#ifdef _WIN32
constexpr char kListSeparator = ';';
#else
constexpr char kListSeparator = ':';
#endif

bool IsSet(const char* variable) { return variable != nullptr && variable[0] != '\0'; }

}  // namespace

void SetImageOpener(ImageOpener opener) { g_imageOpener = opener; }
ImageOpener GetImageOpener() { return g_imageOpener; }

std::unique_ptr<Machine> CreateMachine(std::string* error) {
  const char* machineFile = std::getenv("DISKHOLD_MACHINE");
  const char* imageList = std::getenv("DISKHOLD_DISKS");
  if (IsSet(machineFile) && IsSet(imageList)) {
    if (error != nullptr) *error = "DISKHOLD_MACHINE and DISKHOLD_DISKS are both set; set only one of them";
    return nullptr;
  }
  if (IsSet(imageList)) {
    sim::MachineDescription description;
    std::string why;
    if (!sim::DescribeImageList(imageList, kListSeparator, &description, &why)) {
      if (error != nullptr) *error = why;
      return nullptr;
    }
    std::unique_ptr<Machine> machine = sim::CreateSimulatedMachine(std::move(description), CreateNativeMachine(), &why);
    if (!machine && error != nullptr) *error = "DISKHOLD_DISKS, " + why;
    return machine;
  }
  if (!IsSet(machineFile)) return CreateNativeMachine();
  std::shared_ptr<Machine> native = CreateNativeMachine();
  return sim::LoadSimulatedMachine(machineFile, std::move(native), error);
}

Machine& Host() {
  if (g_host == nullptr) {
    // Every run sets its machine before doing anything else; reaching this
    // is a fault in the program, not in its input.
    std::fputs("diskhold: internal error: no machine has been set\n", stderr);
    std::abort();
  }
  return *g_host;
}

void SetHost(Machine* machine) { g_host = machine; }

}  // namespace dh::platform
