// The diskhold executable: picks the machine (simulated or native) and runs
// one invocation.
#include <cstdio>
#include <exception>
#include <string>

#include "app/program.h"
#include "app/run_state.h"
#include "platform/platform.h"
#include "vdisk/vmdk.h"

int main(int argc, char** argv) {
  std::string error;
  // Drive images of a simulated machine may be VMware disks.
  dh::platform::SetImageOpener(&dh::OpenVmdkImage);
  std::unique_ptr<dh::platform::Machine> machine = dh::platform::CreateMachine(&error);
  if (!machine) {
    std::fprintf(stderr, "diskhold: %s\n", error.c_str());
    return 1;
  }
  dh::platform::SetHost(machine.get());
  try {
    return dh::platform::ProcessExitStatus(dh::RunDiskhold(argc, argv));
  } catch (...) {
    // Memory exhaustion and the like end the run where it stands.
    std::printf("Error 99: Exception thrown\n");
    std::fflush(stdout);
    return dh::platform::ProcessExitStatus(dh::State().resultCode);
  }
}
