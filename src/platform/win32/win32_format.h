// The Windows format engine: FormatEx of "fmifs.dll", loaded at run time.
#pragma once

#include "platform/win32/win32_api.h"

namespace dh::platform::win32 {

class FormatEngine {
 public:
  FormatEngine() = default;
  ~FormatEngine();
  FormatEngine(const FormatEngine&) = delete;
  FormatEngine& operator=(const FormatEngine&) = delete;

  FormatEngineState Load(const ErrorSlot& errors);
  // Runs FormatEx when Load found it; false when it could not be called.  An
  // exception thrown by the callback stops the engine and is thrown again here
  // once FormatEx has returned.
  bool Run(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
           const std::u16string& label, bool quick, uint32_t clusterSize, const FormatCallback& callback);

 private:
  using FormatExCallback = BOOLEAN(__stdcall*)(int command, DWORD subAction, PVOID actionInfo);
  using FormatExFunction = void(__stdcall*)(PWCHAR driveRoot, DWORD mediaFlag, PWCHAR format, PWCHAR label,
                                            BOOL quick, DWORD clusterSize, FormatExCallback callback);

  HMODULE library_ = nullptr;
  FormatExFunction formatEx_ = nullptr;
};

}  // namespace dh::platform::win32
