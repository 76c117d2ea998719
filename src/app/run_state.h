// The two program-wide records of a run: the options read from the command
// line (RunOptions) and the results gathered while running (RunState).
#pragma once

#include <cstdint>
#include <string>

#include "base/result_codes.h"

namespace dh {

// Special selector values.
constexpr int32_t kDiskNotGiven = -9999;
constexpr int32_t kAllDisks = -1;
constexpr int32_t kVirtualDiskNumber = 999;
constexpr int32_t kPartNotGiven = 1000;
constexpr int32_t kAllPartitions = -1;
constexpr int32_t kPartSystem = 1001;
constexpr int32_t kPartBoot = 1002;
constexpr int32_t kPartUtility = 1003;
constexpr int32_t kPartVolumeLabel = 1004;
constexpr int32_t kPartDriveLetter = 1005;
constexpr int32_t kSectorNotGiven = -9999;
constexpr int32_t kSectorDisk = -3;

// areaKind values.
constexpr int32_t kAreaNotGiven = -9999;
constexpr int32_t kAreaMbr = -1;
constexpr int32_t kAreaTrack0 = -2;
constexpr int32_t kAreaDisk = -3;
constexpr int32_t kAreaGpt = -4;
constexpr int32_t kAreaVbr = -5;
constexpr int32_t kAreaRange = -6;

// Capacity of the value texts, terminator included: longer values are cut.
constexpr size_t kValueTextSize = 1024;

struct RunOptions {
  int32_t command = 0;  // a CommandId (app/command_table.h); 0: none
  int32_t diskNumber = kDiskNotGiven;
  bool diskExplicit = true;
  int32_t partNumber = kPartNotGiven;
  std::string partArgument;
  int32_t sectorNumber = kSectorNotGiven;
  int32_t areaKind = kAreaNotGiven;
  int32_t typeValue = -2;
  int64_t rangeFirst = -9999;
  int64_t rangeLast = -9999;
  std::string diskFileName;
  std::string valueText;
  std::string valueText2;
  std::string valueText3;
  bool silent = false;
  bool noHeader = false;
  bool asciiMap = false;
  bool showFreeSpace = false;
  bool showLogical = false;
  bool showResult = false;
  bool confirmed = false;
  bool ignoreErrors = false;
  int32_t messageNumber = 0;
  int32_t shutdownMode = 0;
  bool helpRequested = false;
  // `text`: the plain-text frame set whatever the console.
  bool textFrame = false;
};

struct RunState {
  ResultCode resultCode = kSuccess;
  int32_t completedStep = 0;
  bool usageError = false;
  std::string badArgument;
  uint8_t statusByte = 0;
  int32_t sortedFlag = 0;
  std::string volumeIdText;
  uint8_t signatureBytes[4] = {0, 0, 0, 0};
  int32_t locatedDisk = -1;
  int32_t locatedPart = -1;
};

// The run's records; one of each per process.
RunOptions& Options();
RunState& State();
// Back to the values at program start, argument list included (used by
// tests that run several invocations in one process).
void ResetRun();

// Stores a code as the run's result unless one is already pending.
inline void SetResultIfNone(ResultCode code) {
  if (State().resultCode == kSuccess) State().resultCode = code;
}

// Copies text into a value field, cut to the field's capacity.
void AssignValueText(std::string& field, const std::string& text);

}  // namespace dh
