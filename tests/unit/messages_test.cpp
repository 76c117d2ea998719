// Result codes and the final report: the first-error rule, and the report's
// lines byte for byte where no end-to-end run shows them (texts that carry
// arguments with '%' in them among them).
#include "app/messages.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "app/grammar.h"
#include "app/run_state.h"

namespace dh {
namespace {

std::string Report(int32_t currentDisk = 0) {
  ::testing::internal::CaptureStdout();
  PrintFinalReport(currentDisk);
  return ::testing::internal::GetCapturedStdout();
}
std::string Failure(ResultCode code, int32_t currentDisk = 0) {
  State().resultCode = code;
  return Report(currentDisk);
}
std::string Success(int32_t command) {
  Options().command = command;
  State().completedStep = command;
  return Report();
}

TEST(Messages, TheFirstFailureStaysAndLaterSuccessesMoveTheStepOn) {
  ResetRun();
  EXPECT_EQ(RecordOutcome(kSuccess, kCmdHide), kSuccess);
  EXPECT_EQ(RecordOutcome(kReadFailed, kCmdSort), kReadFailed);
  EXPECT_EQ(State().completedStep, kCmdHide);
  EXPECT_EQ(RecordOutcome(kWriteFailed, kCmdSort), kReadFailed);
  EXPECT_EQ(RecordOutcome(kSuccess, kStepSignatureRead), kReadFailed);
  EXPECT_EQ(State().completedStep, kStepSignatureRead);
  ResetRun();
}

TEST(Messages, FinalReportLines) {
  const std::pair<std::function<std::string()>, std::string> cases[] = {
      {[] { Options().valueText = "C:\\100%s%d%n.ini"; return Success(kCmdWriteIni); },
       " MBR information was successfully written to C:\\100%s%d%n.ini \n"},
      {[] { Options().valueText = "2"; return Success(kCmdBootMenu); }, " \n Partition 2 successfully set to active \n"},
      {[] { return Success(kCmdFlashMbr); }, ""},
      {[] { Options().areaKind = kAreaMbr; Options().valueText2 = "mbr%s.bin"; return Success(kCmdSave); },
       " The MBR was successfully saved to mbr%s.bin\n"},
      {[] { State().statusByte = 255; return Success(kCmdStatus); }, " Status read successfully as 255  \n"},
      {[] { Options().silent = true; State().volumeIdText = "50%d"; return Success(kStepVolumeIdRead); }, "50%d"},
      {[] { Options().messageNumber = 2; return Success(kCmdHide); }, " Partition(s) successfully hidden \n"},
      {[] { Options().messageNumber = 1; return Success(kCmdHide); }, ""},
      {[] { Options().messageNumber = 3; return Failure(kUserCancelled); }, ""},
      {[] { State().badArgument = "/bogus%s"; return Failure(kInvalidSwitch); },
       "\n Error 105: Invalid or incomplete switch: /bogus%s\n\n Note: Command line parameters may have changed in "
       "version 3.0\n Please check the latest documentation to verify the specified parameters\n"},
      {[] { Options().valueText = "5-2"; return Failure(kInvalidSectorRange); }, "\n Invalid sector range: 5-2 \n"},
      {[] { Arguments().Add("/list"); Arguments().Add("-VOL=DATA"); return Failure(kVolumeNotFound); },
       " Error 147: Unable to locate the specifed partition: 'DATA' \n"},
      {[] { Arguments().Add("-VOL=D%s"); return Failure(kDriveLetterNotFound); },
       " Error 148: Unable to locate the partition assigned to drive letter: D%s \n"},
      {[] { return Failure(121); }, " Error 121:     \n\n"},
      {[] { return Failure(kExtendedOutside, 2); },
       " Error 570: Extended partition is located outside of boundaries on disk 2\n\n"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    ResetRun();
    EXPECT_EQ(cases[i].first(), cases[i].second) << "case " << i;
  }
  ResetRun();
}

}  // namespace
}  // namespace dh
