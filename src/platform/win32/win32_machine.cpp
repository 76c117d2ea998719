// The native machine on Windows: every service of the platform interface is
// the Windows call it is named after.
#include "platform/win32/win32_api.h"

#include <conio.h>
#include <ntsecapi.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/win32/win32_format.h"

namespace dh::platform::win32 {
namespace {

// Registry texts and volume names are read into buffers of this size.
constexpr DWORD kTextBuffer = 4096;
// Binary registry values are sized by a first query; a value larger than this
// is not one the program reads, and must not decide an allocation.
constexpr DWORD kBinaryValueLimit = 1 << 20;
// A line of standard input beyond this length is cut; the rest of the line is
// read and dropped so that the next read starts on the next line.
constexpr size_t kLineLimit = 1 << 16;

// Opens a key under HKEY_LOCAL_MACHINE for reading and closes it on scope exit.
class RegistryKey {
 public:
  RegistryKey(const std::string& path, const ErrorSlot& errors) {
    const LSTATUS status = ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key_);
    if (status != ERROR_SUCCESS) {
      *errors = static_cast<uint32_t>(status);
      key_ = nullptr;
    }
  }
  ~RegistryKey() {
    if (key_ != nullptr) ::RegCloseKey(key_);
  }
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;

  HKEY get() const { return key_; }

 private:
  HKEY key_ = nullptr;
};

DWORD LocaleTypeOf(LocaleItem item) {
  switch (item) {
    case LocaleItem::LeadingZero:
      return LOCALE_ILZERO;
    case LocaleItem::Grouping:
      return LOCALE_SGROUPING;
    case LocaleItem::DecimalSep:
      return LOCALE_SDECIMAL;
    case LocaleItem::ThousandSep:
      return LOCALE_STHOUSAND;
    case LocaleItem::NegativeNumber:
      return LOCALE_INEGNUMBER;
  }
  return LOCALE_SDECIMAL;
}

// Standard input is a console when the console accepts a mode query on it;
// redirected input (a file, a pipe, the null device) is not.
bool InputIsConsole() {
  DWORD mode = 0;
  return ::GetConsoleMode(::GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

class Win32Machine final : public Machine {
 public:
  Win32Machine() : errors_(std::make_shared<uint32_t>(0)) {}

  // ---- files and devices ------------------------------------------------
  std::unique_ptr<File> Open(const std::string& path, OpenMode mode) override {
    return OpenFile(path, mode, errors_);
  }

  bool PathExists(const std::string& path) override {
    if (::GetFileAttributesA(path.c_str()) == INVALID_FILE_ATTRIBUTES) return Fail(errors_);
    return true;
  }

  // ---- registry ---------------------------------------------------------
  bool RegQueryString(const std::string& key, const std::string& value, std::string* out) override {
    RegistryKey opened(key, errors_);
    if (opened.get() == nullptr) return false;
    std::vector<char> buffer(kTextBuffer + 1, '\0');
    DWORD type = 0;
    DWORD size = kTextBuffer;
    const LSTATUS status = ::RegQueryValueExA(opened.get(), value.c_str(), nullptr, &type,
                                              reinterpret_cast<BYTE*>(buffer.data()), &size);
    if (status != ERROR_SUCCESS) return Stored(status);
    // Only text values are texts; a number read as text would be garbage.
    if (type != REG_SZ && type != REG_EXPAND_SZ && type != REG_MULTI_SZ) return Stored(ERROR_INVALID_DATATYPE);
    // A stored text need not end in a zero: take the bytes up to the first
    // zero within the size read (the extra byte of the buffer stays zero).
    out->assign(buffer.data(), strnlen(buffer.data(), size < kTextBuffer ? size : kTextBuffer));
    return true;
  }

  bool RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) override {
    RegistryKey opened(key, errors_);
    if (opened.get() == nullptr) return false;
    DWORD type = 0;
    DWORD size = 0;
    LSTATUS status = ::RegQueryValueExA(opened.get(), value.c_str(), nullptr, &type, nullptr, &size);
    if (status != ERROR_SUCCESS) return Stored(status);
    if (size > kBinaryValueLimit) return Stored(ERROR_MORE_DATA);
    std::vector<uint8_t> data(size);
    // The value may change between the two queries; a grown value fails the
    // second one with ERROR_MORE_DATA, a shrunk one reports its new size.
    status = ::RegQueryValueExA(opened.get(), value.c_str(), nullptr, &type, data.empty() ? nullptr : data.data(),
                                &size);
    if (status != ERROR_SUCCESS) return Stored(status);
    data.resize(size < data.size() ? size : data.size());
    *out = std::move(data);
    return true;
  }

  // ---- mount manager ----------------------------------------------------
  std::vector<std::string> LogicalDriveStrings() override {
    std::vector<std::string> roots;
    const DWORD needed = ::GetLogicalDriveStringsA(0, nullptr);
    if (needed == 0) {
      Fail(errors_);
      return roots;
    }
    std::vector<char> buffer(static_cast<size_t>(needed) + 2, '\0');
    const DWORD length = ::GetLogicalDriveStringsA(static_cast<DWORD>(buffer.size()), buffer.data());
    if (length == 0) {
      Fail(errors_);
      return roots;
    }
    // A drive added between the two calls makes the second one ask for more
    // room without filling the buffer; what was filled ends at the buffer.
    const size_t filled = length < buffer.size() ? length : 0;
    size_t at = 0;
    while (at < filled && buffer[at] != '\0') {
      const size_t end = strnlen(buffer.data() + at, filled - at);
      roots.emplace_back(buffer.data() + at, end);
      at += end + 1;
    }
    return roots;
  }

  bool VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) override {
    std::vector<char> buffer(kTextBuffer + 1, '\0');
    if (!::GetVolumeNameForVolumeMountPointA(mountPoint.c_str(), buffer.data(), kTextBuffer)) return Fail(errors_);
    volumeName->assign(buffer.data(), strnlen(buffer.data(), kTextBuffer));
    return true;
  }

  // ---- format engine ----------------------------------------------------
  FormatEngineState LoadFormatEngine() override { return formatEngine_.Load(errors_); }

  bool FormatEx(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
                const std::u16string& label, bool quick, uint32_t clusterSize, const FormatCallback& callback,
                const FormatPlace&) override {
    // FormatEx finds the volume by its name alone.
    return formatEngine_.Run(driveRoot, mediaFlag, fileSystem, label, quick, clusterSize, callback);
  }

  void PumpOneMessage() override {
    // Only a message that is already queued: a console program usually has
    // none, and waiting for one would stop the format.
    MSG message;
    if (::PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) ::DispatchMessageA(&message);
  }

  // Windows formats through FormatEx; mkntfs is not part of it.
  bool NtfsFormatterPresent() override {
    *errors_ = ERROR_MOD_NOT_FOUND;
    return false;
  }
  bool RunNtfsFormatter(const NtfsFormatJob&, const FormatCallback&) override {
    *errors_ = ERROR_MOD_NOT_FOUND;
    return false;
  }

  // ---- version, rights, shutdown -----------------------------------------
  bool GetVersionEx(OsVersion* out) override {
    OSVERSIONINFOA info;
    std::memset(&info, 0, sizeof info);
    info.dwOSVersionInfoSize = 148;
    static_assert(sizeof(OSVERSIONINFOA) == 148);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const BOOL ok = ::GetVersionExA(&info);
#pragma GCC diagnostic pop
    if (!ok) return Fail(errors_);
    out->majorVersion = info.dwMajorVersion;
    out->minorVersion = info.dwMinorVersion;
    out->platformId = info.dwPlatformId;
    return true;
  }

  uint32_t GetVersion() override {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return static_cast<uint32_t>(::GetVersion());
#pragma GCC diagnostic pop
  }

  bool QueryElevation(bool* elevated) override {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) return Fail(errors_);
    DWORD elevation = 0;
    DWORD returned = 0;
    const BOOL ok = ::GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &returned);
    if (!ok) Fail(errors_);
    ::CloseHandle(token);
    if (!ok) return false;
    *elevated = elevation != 0;
    return true;
  }

  bool EnableShutdownPrivilege() override {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
      return Fail(errors_);
    }
    TOKEN_PRIVILEGES privileges;
    std::memset(&privileges, 0, sizeof privileges);
    // Without the privilege's LUID there is nothing sound to enable.
    if (!::LookupPrivilegeValueA(nullptr, "SeShutdownPrivilege", &privileges.Privileges[0].Luid)) {
      Fail(errors_);
      ::CloseHandle(token);
      return false;
    }
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    ::AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
    // AdjustTokenPrivileges succeeds even when it could not grant the
    // privilege; only the last error (ERROR_NOT_ALL_ASSIGNED) tells.
    const DWORD error = ::GetLastError();
    ::CloseHandle(token);
    if (error != ERROR_SUCCESS) return Stored(error);
    return true;
  }

  bool ExitWindows(uint32_t flags) override {
    if (!::ExitWindowsEx(flags, 0)) return Fail(errors_);
    return true;
  }

  // ---- console ----------------------------------------------------------
  uint32_t ConsoleOutputCodePage() override { return ::GetConsoleOutputCP(); }

  void ClearScreen() override {
    std::fflush(stdout);
    HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    CONSOLE_SCREEN_BUFFER_INFO info;
    // Output to a file or pipe has no screen buffer to clear.
    if (!::GetConsoleScreenBufferInfo(output, &info)) return;
    if (info.dwSize.X <= 0 || info.dwSize.Y <= 0) return;
    const DWORD cells = static_cast<DWORD>(info.dwSize.X) * static_cast<DWORD>(info.dwSize.Y);
    DWORD written = 0;
    const COORD origin = {0, 0};
    ::FillConsoleOutputCharacterA(output, ' ', cells, origin, &written);
  }

  void SetCursorPosition(int column, int row) override {
    std::fflush(stdout);
    // A console coordinate is a 16-bit number; a position outside it is not
    // one the console could show.
    if (column < 0 || row < 0 || column > SHRT_MAX || row > SHRT_MAX) return;
    COORD position;
    position.X = static_cast<SHORT>(column);
    position.Y = static_cast<SHORT>(row);
    ::SetConsoleCursorPosition(::GetStdHandle(STD_OUTPUT_HANDLE), position);
  }

  int ReadKey() override {
    std::fflush(stdout);
    // _getch reads the console itself and ignores redirected input (and may
    // report no key at once when there is no console), so keys piped in by a
    // script are read from the standard input stream instead.
    if (InputIsConsole()) return _getch();
    const int key = std::getchar();
    return key == EOF ? -1 : key;
  }

  bool ReadLine(std::string* line) override {
    std::fflush(stdout);
    line->clear();
    char chunk[1024];
    bool readAny = false;
    while (std::fgets(chunk, sizeof chunk, stdin) != nullptr) {
      readAny = true;
      const size_t length = strnlen(chunk, sizeof chunk);
      const bool ended = length > 0 && chunk[length - 1] == '\n';
      if (line->size() < kLineLimit) line->append(chunk, std::min(length, kLineLimit - line->size()));
      if (ended) break;
    }
    if (!readAny) return false;
    while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
    return true;
  }

  // ---- locale, names, environment, messages ------------------------------
  bool GetLocaleInfo(LocaleItem item, std::string* out) override {
    char buffer[9] = {};
    if (::GetLocaleInfoA(LOCALE_USER_DEFAULT, LocaleTypeOf(item), buffer, sizeof buffer) == 0) return Fail(errors_);
    out->assign(buffer, strnlen(buffer, sizeof buffer));
    return true;
  }

  bool GetNumberFormat(const std::string& value, const NumberFormat& format, std::string* out) override {
    // NUMBERFMTA points to writable separator texts.
    std::vector<char> decimal(format.decimalSep.begin(), format.decimalSep.end());
    decimal.push_back('\0');
    std::vector<char> thousand(format.thousandSep.begin(), format.thousandSep.end());
    thousand.push_back('\0');
    NUMBERFMTA numberFormat;
    numberFormat.NumDigits = format.numDigits;
    numberFormat.LeadingZero = format.leadingZero;
    numberFormat.Grouping = format.grouping;
    numberFormat.lpDecimalSep = decimal.data();
    numberFormat.lpThousandSep = thousand.data();
    numberFormat.NegativeOrder = format.negativeOrder;
    // Room for a separator between every pair of digits and then some, as
    // the program has always offered.
    if (value.size() > (static_cast<size_t>(INT_MAX) - 99) / 3) return Stored(ERROR_INVALID_PARAMETER);
    const int size = static_cast<int>(value.size() * 3 + 99);
    std::vector<char> buffer(static_cast<size_t>(size) + 1, '\0');
    const int written = ::GetNumberFormatA(LOCALE_USER_DEFAULT, 0, value.c_str(), &numberFormat, buffer.data(), size);
    if (written == 0) return Fail(errors_);
    out->assign(buffer.data(), strnlen(buffer.data(), static_cast<size_t>(size)));
    return true;
  }

  std::string ComputerName() override {
    // The backup header has room for 15 bytes; a longer name does not fit the
    // buffer, the call fails, and the name is left empty.
    char buffer[15] = {};
    DWORD size = sizeof buffer;
    if (!::GetComputerNameA(buffer, &size)) {
      Fail(errors_);
      return std::string();
    }
    return std::string(buffer, strnlen(buffer, std::min<size_t>(size, sizeof buffer - 1)));
  }

  bool GetEnv(const std::string& name, std::string* value) override {
    // A missing variable and an empty one both answer 0; only the last error
    // tells them apart, so it must not hold an older failure.
    ::SetLastError(ERROR_SUCCESS);
    DWORD size = ::GetEnvironmentVariableA(name.c_str(), nullptr, 0);
    // The value may change between calls; a few tries settle it.
    for (int attempt = 0; attempt < 4 && size != 0; ++attempt) {
      std::vector<char> buffer(static_cast<size_t>(size) + 1, '\0');
      ::SetLastError(ERROR_SUCCESS);
      const DWORD length = ::GetEnvironmentVariableA(name.c_str(), buffer.data(), size);
      if (length == 0) break;
      if (length < size) {
        value->assign(buffer.data(), length);
        return true;
      }
      size = length;
    }
    const DWORD error = ::GetLastError();
    if (error == ERROR_SUCCESS) {
      value->clear();
      return true;
    }
    return Stored(error);
  }

  void MessageBox(const std::string& text, const std::string& caption) override {
    std::fflush(stdout);
    ::MessageBoxA(nullptr, text.c_str(), caption.c_str(), MB_OK);
  }

  uint32_t LastError() override { return *errors_; }

  bool SystemMessageText(uint32_t code, std::string* text) override {
    char* message = nullptr;
    // Without inserts to give, a message with placeholders must keep them as
    // written rather than have FormatMessageA read arguments that are not
    // there.
    const DWORD length = ::FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
        0x400, reinterpret_cast<LPSTR>(&message), 0, nullptr);
    if (length == 0 || message == nullptr) {
      Fail(errors_);
      if (message != nullptr) ::LocalFree(message);
      return false;
    }
    text->assign(message, length);
    ::LocalFree(message);
    return true;
  }

  // ---- entropy ------------------------------------------------------------
  bool RandomBytes(void* out, size_t bytes) override {
    // RtlGenRandom rather than BCryptGenRandom: it is in advapi32, which
    // every build links, and it is there on the systems before Vista too.
    uint8_t* at = static_cast<uint8_t*>(out);
    while (bytes > 0) {
      const ULONG chunk = bytes > 0x10000 ? 0x10000 : static_cast<ULONG>(bytes);
      if (!::RtlGenRandom(at, chunk)) return Stored(ERROR_GEN_FAILURE);
      at += chunk;
      bytes -= chunk;
    }
    return true;
  }

 private:
  bool Stored(DWORD error) {
    *errors_ = static_cast<uint32_t>(error);
    return false;
  }

  ErrorSlot errors_;
  FormatEngine formatEngine_;
};

}  // namespace
}  // namespace dh::platform::win32

namespace dh::platform {

std::unique_ptr<Machine> CreateNativeMachine() { return std::make_unique<win32::Win32Machine>(); }

// ERRORLEVEL carries the whole 32-bit value.
int ProcessExitStatus(int32_t exitValue) { return exitValue; }

}  // namespace dh::platform
