// mkntfs as the format engine of the Linux backend (see ntfs_formatter.h).
#include "platform/linux/ntfs_formatter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/le.h"

namespace dh::platform::linux_native {

namespace {

// Most output kept for a failure report, and longest run of digits taken
// for a counter: mkntfs prints three.
constexpr size_t kMaxText = 4096;
constexpr size_t kMaxDigits = 3;

// mkntfs writes its volume in these sectors; the program's are always 512 bytes.

bool Executable(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string FindOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (path == nullptr || name.empty() || name.find('/') != std::string::npos) return std::string();
  const std::string folders = path;
  size_t at = 0;
  while (at <= folders.size()) {
    size_t end = folders.find(':', at);
    if (end == std::string::npos) end = folders.size();
    // An empty entry names the working folder, as for the shell.
    std::string candidate = end > at ? folders.substr(at, end - at) : std::string(1, '.');
    candidate.append(1, '/').append(name);
    if (Executable(candidate)) return candidate;
    at = end + 1;
  }
  return std::string();
}

std::vector<std::string> MkntfsArguments(const std::string& program, const NtfsFormatJob& job, bool plainFile) {
  std::vector<std::string> args = {program};
  if (job.quick) args.push_back("--quick");
  args.push_back("--label");
  args.push_back(job.label);
  args.push_back("--partition-start");
  args.push_back(std::to_string(job.hiddenSectors));
  // The boot sector's geometry fields hold what a BIOS can address; other
  // values are left to mkntfs.
  if (job.heads >= 1 && job.heads <= 255 && job.sectorsPerTrack >= 1 && job.sectorsPerTrack <= 63) {
    args.push_back("--heads");
    args.push_back(std::to_string(job.heads));
    args.push_back("--sectors-per-track");
    args.push_back(std::to_string(job.sectorsPerTrack));
  }
  if (plainFile) {
    args.push_back("--force");
    args.push_back("--sector-size");
    args.push_back(std::to_string(kSectorSize));
  }
  // mkntfs takes no "--": a relative path that begins with '-' is made
  // one that cannot read as an option.
  args.push_back(!job.path.empty() && job.path[0] == '-' ? "./" + job.path : job.path);
  if (plainFile && job.sectorCount != 0) args.push_back(std::to_string(job.sectorCount));
  return args;
}

std::vector<uint32_t> MkntfsOutput::Feed(const char* bytes, size_t size) {
  std::vector<uint32_t> done;
  for (size_t i = 0; i < size; ++i) {
    const char c = bytes[i];
    if (c >= '0' && c <= '9') {
      if (number_.size() < kMaxDigits + 1) number_.push_back(c);
    } else {
      if (c == '%' && !number_.empty() && number_.size() <= kMaxDigits) {
        const uint32_t value = static_cast<uint32_t>(std::atoi(number_.c_str()));
        if (value <= 100) done.push_back(value);
      }
      number_.clear();
    }
    // The text as a terminal would show it: counters rewritten in place
    // leave only their last value.
    if (c == '\b') {
      if (!text_.empty() && text_.back() != '\n') text_.pop_back();
    } else if (c == '\r') {
      const size_t lineStart = text_.rfind('\n');
      text_.resize(lineStart == std::string::npos ? 0 : lineStart + 1);
    } else if (text_.size() < kMaxText) {
      text_.push_back(c);
    }
  }
  return done;
}

bool RunMkntfs(const std::string& program, const NtfsFormatJob& job, const FormatCallback& callback, int* error) {
  struct stat info {};
  const bool plainFile = ::stat(job.path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
  const std::vector<std::string> args = MkntfsArguments(program, job, plainFile);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  // Output: both streams of mkntfs.  Start: a close-on-exec pipe that
  // carries the exec failure back, and stays silent when exec worked.
  int output[2];
  int started[2];
  if (::pipe2(output, O_CLOEXEC) != 0) {
    *error = errno;
    return false;
  }
  if (::pipe2(started, O_CLOEXEC) != 0) {
    *error = errno;
    ::close(output[0]);
    ::close(output[1]);
    return false;
  }
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t child = ::fork();
  if (child < 0) {
    *error = errno;
    for (int fd : {output[0], output[1], started[0], started[1]}) ::close(fd);
    return false;
  }
  if (child == 0) {
    // The program's own standard input stays its own (answers to come).
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null >= 0) ::dup2(null, STDIN_FILENO);
    ::dup2(output[1], STDOUT_FILENO);
    ::dup2(output[1], STDERR_FILENO);
    ::execv(program.c_str(), argv.data());
    int err = errno;
    ssize_t ignored = ::write(started[1], &err, sizeof err);
    (void)ignored;
    ::_exit(127);
  }
  ::close(output[1]);
  ::close(started[1]);

  int execError = 0;
  ssize_t n = 0;
  do {
    n = ::read(started[0], &execError, sizeof execError);
  } while (n < 0 && errno == EINTR);
  ::close(started[0]);
  const bool execFailed = n == static_cast<ssize_t>(sizeof execError);

  MkntfsOutput reader;
  uint32_t shown = 0;
  bool reported = false;
  bool listening = static_cast<bool>(callback) && !execFailed;
  auto report = [&](uint32_t percent) {
    if (!listening || (reported && percent == shown)) return;
    FormatCallbackData data;
    data.percent = percent;
    reported = true;
    shown = percent;
    // The engine stops reporting when its callback says so.
    listening = callback(0, 0, data);
  };
  report(0);
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(output[0], buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    for (uint32_t percent : reader.Feed(buffer, static_cast<size_t>(got))) report(percent);
  }
  ::close(output[0]);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (execFailed) {
    *error = execError;
    return false;
  }
  const bool success = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (success) {
    report(100);
  } else {
    std::fflush(stdout);
    std::string text = reader.text();
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::fprintf(stderr, "diskhold: mkntfs failed:\n%s\n", text.c_str());
    std::fflush(stderr);
  }
  if (callback) {
    FormatCallbackData end;
    end.success = success;
    callback(11, 0, end);
  }
  return true;
}

}  // namespace dh::platform::linux_native
