// The Windows headers as the win32 backend sees them.
//
// Every file of the backend includes this header before anything else.  The
// Windows headers define some of their function names as macros (MessageBox
// becomes MessageBoxA, ExitWindows becomes a call of ExitWindowsEx...), and the
// platform interface uses those same names for its methods; they are undefined
// here, once, so that the methods keep their names in every file that follows.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <winioctl.h>

#undef MessageBox
#undef GetVersionEx
#undef GetLocaleInfo
#undef GetNumberFormat
#undef ExitWindows
#undef FormatMessage
#undef GetEnvironmentVariable

#include <cstdint>
#include <memory>

#include "platform/platform.h"

namespace dh::platform::win32 {

// Where the backend keeps GetLastError of its last failed call.  Files share
// it with the machine that opened them, so a failed transfer is visible through
// Machine::LastError like every other failure; a file may outlive its machine.
using ErrorSlot = std::shared_ptr<uint32_t>;

inline bool Fail(const ErrorSlot& slot) {
  *slot = static_cast<uint32_t>(::GetLastError());
  return false;
}

// Opens a path with one of the program's CreateFileA calls; null on failure
// with the error stored in the slot.
std::unique_ptr<File> OpenFile(const std::string& path, OpenMode mode, const ErrorSlot& errors);

}  // namespace dh::platform::win32
