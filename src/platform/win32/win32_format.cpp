// The Windows format engine (see win32_format.h).  FormatEx reports through a
// plain function pointer with no user data, so the bridge to the program's
// callback goes through file-scope state that lives for one FormatEx call.
#include "platform/win32/win32_format.h"

#include <exception>
#include <vector>

#include "platform/win32/win32_records.h"

namespace dh::platform::win32 {
namespace {

const FormatCallback* g_callback = nullptr;
std::exception_ptr g_thrown;

BOOLEAN __stdcall FormatExBridge(int command, DWORD subAction, PVOID actionInfo) {
  if (g_callback == nullptr || g_thrown) return FALSE;
  // An exception must not unwind through the engine's frames: keep it, tell
  // the engine to stop, and let Run throw it again.
  try {
    return (*g_callback)(command, subAction, DecodeFormatCallback(command, actionInfo)) ? TRUE : FALSE;
  } catch (...) {
    g_thrown = std::current_exception();
    return FALSE;
  }
}

// FormatEx wants writable, zero-terminated UTF-16 texts.
std::vector<WCHAR> WideText(const std::u16string& text) {
  std::vector<WCHAR> out(text.begin(), text.end());
  out.push_back(0);
  return out;
}

}  // namespace

FormatEngine::~FormatEngine() {
  if (library_ != nullptr) ::FreeLibrary(library_);
}

FormatEngineState FormatEngine::Load(const ErrorSlot& errors) {
  if (library_ == nullptr) {
    library_ = ::LoadLibraryA("fmifs.dll");
    if (library_ == nullptr) {
      Fail(errors);
      return FormatEngineState::LibraryMissing;
    }
  }
  FARPROC entry = ::GetProcAddress(::GetModuleHandleA("fmifs.dll"), "FormatEx");
  if (entry == nullptr) {
    Fail(errors);
    formatEx_ = nullptr;
    return FormatEngineState::EntryMissing;
  }
  formatEx_ = reinterpret_cast<FormatExFunction>(reinterpret_cast<void*>(entry));
  return FormatEngineState::Ready;
}

bool FormatEngine::Run(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
                       const std::u16string& label, bool quick, uint32_t clusterSize,
                       const FormatCallback& callback) {
  if (formatEx_ == nullptr || g_callback != nullptr) return false;
  std::vector<WCHAR> root = WideText(driveRoot);
  std::vector<WCHAR> format = WideText(fileSystem);
  std::vector<WCHAR> name = WideText(label);
  g_callback = &callback;
  g_thrown = nullptr;
  formatEx_(root.data(), mediaFlag, format.data(), name.data(), quick ? TRUE : FALSE, clusterSize, FormatExBridge);
  g_callback = nullptr;
  if (g_thrown) {
    std::exception_ptr thrown = g_thrown;
    g_thrown = nullptr;
    std::rethrow_exception(thrown);
  }
  return true;
}

}  // namespace dh::platform::win32
