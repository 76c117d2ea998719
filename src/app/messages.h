// Result codes turned into words: the rule by which an operation's outcome
// is recorded, the texts of the codes and of the successful steps, and the
// one final report printed at the end of a run.
#pragma once

#include <cstdint>
#include <string>

#include "base/result_codes.h"

namespace dh {

// Records an operation's outcome: 0 makes `step` the completed step; a
// failure becomes the run's resultCode unless one is pending.  Returns the
// run's resultCode.
ResultCode RecordOutcome(ResultCode outcome, int32_t step);

// The text of a code; four blanks for a code without one.  `currentDisk`
// (the DiskSet's current disk) is named by the text of 570.
std::string ResultCodeText(ResultCode code, int32_t currentDisk);

// The success text of a step, or null when the step has none.  Steps 2 and
// 5 depend on Options().sectorNumber and Options().valueText.
const char* SuccessText(int32_t step);

// Prints the run's one final message from Options() and State(); waits for
// a key after the explanation of 102.  `currentDisk` is the DiskSet's
// current disk (-1 when there is none).
void PrintFinalReport(int32_t currentDisk);

}  // namespace dh
