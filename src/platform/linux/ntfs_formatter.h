// The NTFS formatter of the Linux backend: mkntfs of ntfs-3g, found on
// PATH and run as a child process whose output is read for percentages.
// The argument list and the progress reading are pure, so that tests can
// check them without running anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace dh::platform::linux_native {

// The first executable `name` in the folders of PATH; empty when none.
std::string FindOnPath(const std::string& name);

// mkntfs's arguments for a job (the program name first).  A plain file
// needs --force, the sector size and its sector count; a device node tells
// mkntfs those itself.
std::vector<std::string> MkntfsArguments(const std::string& program, const NtfsFormatJob& job, bool plainFile);

// Reads mkntfs's output as it arrives: "NN%" counters (mkntfs rewrites them
// in place with backspaces), and the text, kept up to 4 KiB, which tells
// why a run failed.
class MkntfsOutput {
 public:
  // Feeds a chunk; returns the percentages completed in it, in order.
  std::vector<uint32_t> Feed(const char* bytes, size_t size);
  const std::string& text() const { return text_; }

 private:
  std::string number_;
  std::string text_;
};

// Runs mkntfs (`program`, a path) for the job: percentages reach the
// callback as command 0, the end as command 11.  False, with `error` set to
// an errno value, when it could not be started.
bool RunMkntfs(const std::string& program, const NtfsFormatJob& job, const FormatCallback& callback, int* error);

}  // namespace dh::platform::linux_native
