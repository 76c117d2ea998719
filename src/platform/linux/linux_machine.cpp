// The native machine on Linux: whole-disk block devices stand in for the
// physical drives, sysfs for the registry's disk records, termios and ANSI
// escapes for the console, the C library's locales for the user's number
// format, mkntfs for the format engine.  Windows services without a Linux
// counterpart (drive letters, elevation) answer as an empty or absent
// service would.
#include "platform/linux/linux_machine.h"

#include <fcntl.h>
#include <langinfo.h>
#include <locale.h>
#include <sys/random.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

#include "base/text.h"
#include "platform/common/number_format.h"
#include "platform/common/staged_format.h"
#include "platform/common/system_messages.h"
#include "platform/linux/linux_file.h"
#include "platform/linux/linux_support.h"
#include "platform/linux/ntfs_formatter.h"
#include "platform/linux/sysfs.h"

namespace dh::platform::linux_native {

namespace {

const char kDiskEnumKey[] = "SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum";
const char kEnumKeyPrefix[] = "SYSTEM\\CurrentControlSet\\Enum\\";

// A typed answer line is short; the cap keeps endless input from growing
// memory while the rest of the line is still consumed.
constexpr size_t kMaxLineLength = 64 * 1024;

// ExitWindowsEx flags.
constexpr uint32_t kEwxShutdown = 1;
constexpr uint32_t kEwxReboot = 2;
constexpr uint32_t kEwxForce = 4;
constexpr uint32_t kEwxPowerOff = 8;

// ERROR_GEN_FAILURE: what the random source reports when it cannot deliver.
constexpr uint32_t kErrorGenFailure = 31;

// One byte from standard input: 1 when read, 0 at end of input and on any
// error (a closed or non-blocking descriptor must not make a caller spin).
ssize_t ReadStdinByte(unsigned char* byte) {
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, byte, 1);
    if (n < 0 && errno == EINTR) continue;
    return n == 1 ? 1 : 0;
  }
}

void WriteConsole(const char* text) {
  std::fflush(stdout);
  std::fputs(text, stdout);
  std::fflush(stdout);
}

class LinuxMachine final : public Machine {
 public:
  explicit LinuxMachine(MachineRoots roots) : roots_(std::move(roots)), lastError_(std::make_shared<uint32_t>(0)) {}

  // ---- files and devices ------------------------------------------------
  std::unique_ptr<File> Open(const std::string& path, OpenMode mode) override {
    std::string target;
    bool drive = false;
    if (!ResolvePath(path, &target, &drive)) return nullptr;
    return OpenLinuxFile(target, mode, drive, roots_.sysRoot, lastError_);
  }

  bool PathExists(const std::string& path) override {
    std::string target;
    bool drive = false;
    if (!ResolvePath(path, &target, &drive)) return false;
    struct stat info {};
    if (::stat(target.c_str(), &info) != 0) return Fail(WindowsErrorFromErrno(errno));
    return true;
  }

  // ---- registry ---------------------------------------------------------
  bool RegQueryString(const std::string& key, const std::string& value, std::string* out) override {
    if (EqualsIgnoreCase(key, kDiskEnumKey)) {
      // Value names are disk indexes as "%u" writes them.
      uint32_t index = 0;
      if (!ParseCanonicalNumber(value, &index) || index >= TabledDisks().size()) return Fail(kErrorFileNotFound);
      if (out != nullptr) *out = Identity(index).instancePath;
      return true;
    }
    const size_t prefixLength = sizeof(kEnumKeyPrefix) - 1;
    if (key.size() > prefixLength && EqualsIgnoreCase(key.substr(0, prefixLength), kEnumKeyPrefix)) {
      std::string instance = key.substr(prefixLength);
      for (uint32_t d = 0; d < TabledDisks().size(); ++d) {
        const DiskIdentity& id = Identity(d);
        if (!EqualsIgnoreCase(id.instancePath, instance)) continue;
        if (EqualsIgnoreCase(value, "FriendlyName") && !id.friendlyName.empty()) {
          if (out != nullptr) *out = id.friendlyName;
          return true;
        }
        if (EqualsIgnoreCase(value, "DeviceDesc")) {
          if (out != nullptr) *out = "Disk drive";
          return true;
        }
        // No ParentIDPrefix: Linux has no removable-media volume records
        // that would need one.
        return Fail(kErrorFileNotFound);
      }
    }
    // SYSTEM\MountedDevices among others: Linux gives volumes no letters.
    return Fail(kErrorFileNotFound);
  }

  bool RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) override {
    // A string value read raw is its bytes with the terminating zero.
    std::string text;
    if (!RegQueryString(key, value, &text)) return false;
    if (out != nullptr) {
      out->assign(text.begin(), text.end());
      out->push_back(0);
    }
    return true;
  }

  // ---- mount manager ----------------------------------------------------
  std::vector<std::string> LogicalDriveStrings() override { return {}; }
  bool VolumeNameForMountPoint(const std::string&, std::string*) override { return Fail(kErrorFileNotFound); }

  // ---- format engine ----------------------------------------------------
  // mkntfs stands in for "fmifs.dll": present when it is on PATH.
  FormatEngineState LoadFormatEngine() override {
    return NtfsFormatterPresent() ? FormatEngineState::Ready : FormatEngineState::LibraryMissing;
  }

  bool FormatEx(const std::u16string&, uint32_t, const std::u16string&, const std::u16string& label, bool, uint32_t,
                const FormatCallback& callback, const FormatPlace& place) override {
    // A virtual disk's partitions have no node: they are staged.
    if (place.drivePath.empty()) return FormatStaged(*this, NarrowText(label), place, callback);
    // A drive's partition is formatted on its own node, which holds mkntfs
    // to the partition; one the kernel does not know is not formatted.
    std::string node;
    DrivePath parsed;
    if (place.sectorCount != 0 && ParsePhysicalDrivePath(place.drivePath, &parsed) && parsed.valid &&
        parsed.number < Disks().size()) {
      const std::string name =
          FindPartitionName(roots_.sysRoot, Disks()[parsed.number], place.startLba, place.sectorCount);
      if (!name.empty()) node = roots_.devRoot + "/" + name;
    }
    if (node.empty()) {
      std::fflush(stdout);
      std::fprintf(stderr, "diskhold: the system has no device for the partition at sector %llu of %s\n",
                   static_cast<unsigned long long>(place.startLba), place.drivePath.c_str());
      FormatCallbackData end;
      if (callback) callback(11, 0, end);
      return true;
    }
    return RunNtfsFormatter(JobForPlace(place, node, NarrowText(label)), callback);
  }

  void PumpOneMessage() override {}

  bool NtfsFormatterPresent() override {
    if (!FindOnPath("mkntfs").empty()) return true;
    return Fail(kErrorModNotFound);
  }

  bool RunNtfsFormatter(const NtfsFormatJob& job, const FormatCallback& callback) override {
    const std::string program = FindOnPath("mkntfs");
    if (program.empty()) return Fail(kErrorModNotFound);
    int error = 0;
    if (!RunMkntfs(program, job, callback, &error)) return Fail(WindowsErrorFromErrno(error));
    return true;
  }

  // ---- version, rights, shutdown -----------------------------------------
  bool GetVersionEx(OsVersion* out) override {
    // The program reads the Windows version only to decide on the
    // elevation check and the privilege dance; Windows 7 takes both roads.
    if (out != nullptr) {
      out->majorVersion = 6;
      out->minorVersion = 1;
      out->platformId = 2;
    }
    return true;
  }
  uint32_t GetVersion() override { return 0x1DB10106u; }  // 6.1, build 7601, NT family

  bool QueryElevation(bool* elevated) override {
    // There is no elevation on Linux: a user who may not open the drives
    // finds none and the program reports that instead.
    if (elevated != nullptr) *elevated = true;
    return true;
  }

  bool EnableShutdownPrivilege() override {
    if (::geteuid() == 0) return true;
    return Fail(kErrorNotAllAssigned);
  }

  bool ExitWindows(uint32_t flags) override {
    bool reboot = (flags & kEwxReboot) != 0;
    bool powerOff = (flags & (kEwxShutdown | kEwxPowerOff)) != 0;
    // Logging off (no shutdown bit) has no meaning for a console program
    // on Linux; nothing is requested.
    if (!reboot && !powerOff) return Fail(kErrorInvalidParameter);
    if ((flags & kEwxForce) != 0) {
      // Forced: no service gets a say, but written data reaches the disks.
      ::sync();
      if (::reboot(reboot ? RB_AUTOBOOT : RB_POWER_OFF) != 0) return Fail(WindowsErrorFromErrno(errno));
      return true;
    }
    return StartDetached(reboot ? "reboot" : "poweroff");
  }

  // ---- console ----------------------------------------------------------
  uint32_t ConsoleOutputCodePage() override {
    // The user's LC_CTYPE, looked at through a locale object of its own so
    // that the program's global locale never changes.
    locale_t user = ::newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
    if (user == static_cast<locale_t>(nullptr)) return CodePageFromCodeset("");
    const char* codeset = ::nl_langinfo_l(CODESET, user);
    uint32_t codePage = CodePageFromCodeset(codeset != nullptr ? codeset : "");
    ::freelocale(user);
    return codePage;
  }

  void ClearScreen() override {
    std::fflush(stdout);
    if (::isatty(STDOUT_FILENO)) WriteConsole("\x1b[2J");
  }

  void SetCursorPosition(int column, int row) override {
    std::fflush(stdout);
    if (!::isatty(STDOUT_FILENO)) return;
    // Far beyond any screen; keeps the numbers and the text small.
    constexpr int kMaxPosition = 9998;
    int r = row < 0 ? 0 : (row > kMaxPosition ? kMaxPosition : row);
    int c = column < 0 ? 0 : (column > kMaxPosition ? kMaxPosition : column);
    char text[32];
    std::snprintf(text, sizeof(text), "\x1b[%d;%dH", r + 1, c + 1);
    WriteConsole(text);
  }

  int ReadKey() override {
    std::fflush(stdout);
    unsigned char byte = 0;
    termios saved {};
    if (::isatty(STDIN_FILENO) && ::tcgetattr(STDIN_FILENO, &saved) == 0) {
      termios raw = saved;
      // One key, unechoed, without Enter.  Ctrl+C arrives as the key 3 (as
      // the Windows console hands it over) instead of ending the program
      // with the terminal left silent.
      raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO | ISIG));
      raw.c_cc[VMIN] = 1;
      raw.c_cc[VTIME] = 0;
      if (::tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0) {
        ssize_t n = ReadStdinByte(&byte);
        if (n == 1 && byte == 0x1B) DrainEscapeSequence(&raw);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        return n == 1 ? byte : -1;
      }
    }
    return ReadStdinByte(&byte) == 1 ? byte : -1;
  }

  bool ReadLine(std::string* line) override {
    std::fflush(stdout);
    std::string text;
    bool any = false;
    unsigned char byte = 0;
    while (ReadStdinByte(&byte) == 1) {
      any = true;
      if (byte == '\n') break;
      if (text.size() < kMaxLineLength) text.push_back(static_cast<char>(byte));
    }
    if (!any) return false;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (line != nullptr) *line = text;
    return true;
  }

  // ---- locale, names, environment, messages ------------------------------
  bool GetLocaleInfo(LocaleItem item, std::string* out) override {
    std::string value;
    switch (item) {
      case LocaleItem::LeadingZero:
      case LocaleItem::NegativeNumber:
        value = "1";
        break;
      case LocaleItem::DecimalSep:
        value = NumericItem(RADIXCHAR);
        // Windows always has a decimal separator; a number without one
        // would read as a different value.
        if (value.empty()) value = ".";
        break;
      case LocaleItem::ThousandSep:
        value = NumericItem(THOUSEP);
        break;
      case LocaleItem::Grouping:
        value = GroupingText(NumericItem(GROUPING));
        break;
    }
    if (out != nullptr) *out = value;
    return true;
  }

  bool GetNumberFormat(const std::string& value, const NumberFormat& format, std::string* out) override {
    if (!FormatNumberLikeWindows(value, format, out)) return Fail(kErrorInvalidParameter);
    return true;
  }

  std::string ComputerName() override {
    char host[256] = {};
    if (::gethostname(host, sizeof(host) - 1) != 0) return std::string();
    host[sizeof(host) - 1] = '\0';
    return ComputerNameFromHostName(host);
  }

  bool GetEnv(const std::string& name, std::string* value) override {
    const char* text = std::getenv(name.c_str());
    if (text == nullptr) return Fail(203);  // ERROR_ENVVAR_NOT_FOUND
    if (value != nullptr) *value = text;
    return true;
  }

  void MessageBox(const std::string& text, const std::string& caption) override {
    std::fflush(stdout);
    std::fprintf(stderr, "diskhold: message box \"%s\": %s\n", caption.c_str(), text.c_str());
    std::fflush(stderr);
  }

  uint32_t LastError() override { return *lastError_; }

  bool SystemMessageText(uint32_t code, std::string* text) override {
    std::string message;
    if (!WindowsMessageText(code, &message)) return Fail(317);  // ERROR_MR_MID_NOT_FOUND
    if (text != nullptr) *text = message;
    return true;
  }

  bool RandomBytes(void* out, size_t bytes) override {
    uint8_t* at = static_cast<uint8_t*>(out);
    size_t done = 0;
    while (done < bytes) {
      const ssize_t n = ::getrandom(at + done, bytes - done, 0);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && errno == ENOSYS) {
        // Kernels before 3.17 have only the device.
        return ReadUrandom(at + done, bytes - done);
      } else {
        return Fail(kErrorGenFailure);
      }
    }
    return true;
  }

 private:
  bool ReadUrandom(uint8_t* at, size_t bytes) {
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Fail(kErrorGenFailure);
    size_t done = 0;
    while (done < bytes) {
      const ssize_t n = ::read(fd, at + done, bytes - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (!(n < 0 && errno == EINTR)) {
        break;
      }
    }
    ::close(fd);
    return done == bytes ? true : Fail(kErrorGenFailure);
  }

  bool Fail(uint32_t code) {
    *lastError_ = code;
    return false;
  }

  // The whole disks, found once: drive numbers must not move while the
  // program runs, even when a stick is plugged in meanwhile.
  const std::vector<std::string>& Disks() {
    if (!disks_) disks_ = ListWholeDisks(roots_.sysRoot);
    return *disks_;
  }

  // The drives in the program's disk table: those among the first hundred
  // drive numbers that open for reading, as the program counts them.  The
  // registry numbers its disk values by this table, so that value d names
  // the program's disk d even where a drive is refused (a disk the user may
  // not open, or one the container does not let through).
  const std::vector<std::string>& TabledDisks() {
    if (tabled_) return *tabled_;
    constexpr size_t kDriveNumbers = 100;
    tabled_.emplace();
    const std::vector<std::string>& disks = Disks();
    for (size_t n = 0; n < disks.size() && n < kDriveNumbers; ++n) {
      std::string node = roots_.devRoot + "/" + disks[n];
      int fd = -1;
      do {
        fd = ::open(node.c_str(), O_RDONLY | O_CLOEXEC);
      } while (fd < 0 && errno == EINTR);
      if (fd < 0) continue;
      ::close(fd);
      tabled_->push_back(disks[n]);
    }
    return *tabled_;
  }

  // The registry's record of the program's disk `index`.
  const DiskIdentity& Identity(uint32_t index) {
    auto found = identities_.find(index);
    if (found != identities_.end()) return found->second;
    DiskIdentity id = IdentifyDisk(ReadDiskFacts(roots_.sysRoot, TabledDisks()[index]), index);
    return identities_.emplace(index, std::move(id)).first->second;
  }

  // A drive path becomes its /dev node; any other path is used as it is.
  bool ResolvePath(const std::string& path, std::string* target, bool* drive) {
    DrivePath parsed;
    *drive = ParsePhysicalDrivePath(path, &parsed);
    if (!*drive) {
      *target = path;
      return true;
    }
    if (!parsed.valid || parsed.number >= Disks().size()) return Fail(kErrorFileNotFound);
    *target = roots_.devRoot + "/" + Disks()[parsed.number];
    return true;
  }

  // The user's LC_NUMERIC item, never through the global locale: the
  // program's own printf must keep '.' whatever the user prefers.
  static std::string NumericItem(nl_item item) {
    locale_t user = ::newlocale(LC_NUMERIC_MASK, "", static_cast<locale_t>(nullptr));
    if (user == static_cast<locale_t>(nullptr)) {
      user = ::newlocale(LC_NUMERIC_MASK, "C", static_cast<locale_t>(nullptr));
    }
    if (user == static_cast<locale_t>(nullptr)) return std::string();
    const char* text = ::nl_langinfo_l(item, user);
    std::string value = text != nullptr ? text : "";
    ::freelocale(user);
    return value;
  }

  // The rest of a function or arrow key's sequence would otherwise be read
  // as the next answer; only bytes already typed are taken.
  static void DrainEscapeSequence(termios* raw) {
    raw->c_cc[VMIN] = 0;
    raw->c_cc[VTIME] = 0;
    if (::tcsetattr(STDIN_FILENO, TCSANOW, raw) != 0) return;
    unsigned char rest = 0;
    for (int i = 0; i < 16 && ReadStdinByte(&rest) == 1; ++i) {
    }
  }

  // Starts "systemctl <verb>" and returns as soon as it is running, without
  // waiting for it: the system then shuts down while the program ends.  A
  // grandchild is used so that it never stays behind as a zombie, and a
  // close-on-exec pipe tells whether the program could be started at all.
  bool StartDetached(const char* verb) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return Fail(WindowsErrorFromErrno(errno));
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t child = ::fork();
    if (child < 0) {
      int err = errno;
      ::close(fds[0]);
      ::close(fds[1]);
      return Fail(WindowsErrorFromErrno(err));
    }
    if (child == 0) {
      ::close(fds[0]);
      pid_t grandchild = ::fork();
      if (grandchild != 0) ::_exit(grandchild < 0 ? 1 : 0);
      ::setsid();
      int null = ::open("/dev/null", O_RDONLY);
      if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        if (null != STDIN_FILENO) ::close(null);
      }
      const char* argv[] = {"systemctl", verb, nullptr};
      ::execvp(argv[0], const_cast<char* const*>(argv));
      int err = errno;
      ssize_t ignored = ::write(fds[1], &err, sizeof(err));
      (void)ignored;
      ::_exit(127);
    }
    ::close(fds[1]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    int execError = 0;
    ssize_t n = 0;
    do {
      n = ::read(fds[0], &execError, sizeof(execError));
    } while (n < 0 && errno == EINTR);
    ::close(fds[0]);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return Fail(kErrorGenFailure);
    if (n == static_cast<ssize_t>(sizeof(execError))) return Fail(WindowsErrorFromErrno(execError));
    return true;
  }

  MachineRoots roots_;
  ErrorSlot lastError_;
  std::optional<std::vector<std::string>> disks_;
  std::optional<std::vector<std::string>> tabled_;
  std::map<uint32_t, DiskIdentity> identities_;
};

}  // namespace

std::unique_ptr<Machine> CreateLinuxMachine(const MachineRoots& roots) {
  return std::make_unique<LinuxMachine>(roots);
}

}  // namespace dh::platform::linux_native

namespace dh::platform {

std::unique_ptr<Machine> CreateNativeMachine() { return linux_native::CreateLinuxMachine({}); }

int ProcessExitStatus(int32_t exitValue) { return linux_native::ExitStatusFromValue(exitValue); }

}  // namespace dh::platform
