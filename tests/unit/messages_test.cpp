// Result codes and messages: the first-error rule, the code and success
// texts, and the final report's lines byte for byte where no end-to-end run
// shows them (texts that carry arguments with '%' in them among them).
#include "app/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "app/grammar.h"
#include "app/run_state.h"
#include "fake_machine.h"

namespace dh {
namespace {

class MessagesTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetRun(); }
  void TearDown() override { ResetRun(); }

  static std::string Report(int32_t currentDisk = 0) {
    ::testing::internal::CaptureStdout();
    PrintFinalReport(currentDisk);
    return ::testing::internal::GetCapturedStdout();
  }
  // A failed run with the code pending.
  static std::string Failure(ResultCode code, int32_t currentDisk = 0) {
    State().resultCode = code;
    return Report(currentDisk);
  }
  // A run whose command succeeded at `step`.
  static std::string Success(int32_t command, int32_t step) {
    Options().command = command;
    State().completedStep = step;
    return Report();
  }

  struct Case {
    std::function<std::string()> run;  // sets up a fresh run and reports
    std::string expected;
  };
  static void Check(const std::vector<Case>& cases) {
    for (size_t i = 0; i < cases.size(); ++i) {
      ResetRun();
      EXPECT_EQ(cases[i].run(), cases[i].expected) << "case " << i;
    }
  }
};

TEST_F(MessagesTest, RecordOutcomeKeepsTheFirstFailure) {
  EXPECT_EQ(RecordOutcome(kSuccess, kCmdHide), kSuccess);
  EXPECT_EQ(State().completedStep, kCmdHide);
  EXPECT_EQ(RecordOutcome(kReadFailed, kCmdSort), kReadFailed);
  EXPECT_EQ(State().completedStep, kCmdHide);
  EXPECT_EQ(RecordOutcome(kWriteFailed, kCmdSort), kReadFailed);
  // A later success still moves the step on; the pending code stays.
  EXPECT_EQ(RecordOutcome(kSuccess, kStepSignatureRead), kReadFailed);
  EXPECT_EQ(State().completedStep, kStepSignatureRead);
}

TEST_F(MessagesTest, CodeAndSuccessTexts) {
  EXPECT_EQ(ResultCodeText(0, 0), "Success");
  EXPECT_EQ(ResultCodeText(300, 0), ResultCodeText(566, 0));
  EXPECT_EQ(ResultCodeText(504, 0), "An invalid entry was located in the boot record ");
  EXPECT_EQ(ResultCodeText(561, 0), "File does not contain a valid MBR. Use /Ignore to force write.\n");
  EXPECT_EQ(ResultCodeText(570, -1), "Extended partition is located outside of boundaries on disk -1");
  for (ResultCode none : {1, 99, 105, 121, 201, 301, 517, 573, -5}) EXPECT_EQ(ResultCodeText(none, 0), "    ") << none;

  Options().sectorNumber = 0;
  EXPECT_STREQ(SuccessText(kCmdRepair), "MBR successfully repaired");
  Options().sectorNumber = 63;
  EXPECT_STREQ(SuccessText(kCmdRepair), "Specified sectors successfully restored");
  Options().valueText = "Mbr";
  EXPECT_STREQ(SuccessText(kCmdWipe), "MBR successfully cleared");
  Options().valueText = "range";
  EXPECT_STREQ(SuccessText(kCmdWipe), "Specified sectors successfully cleared");
  for (int32_t none :
       std::initializer_list<int32_t>{0, kCmdSave, kCmdList, kCmdFlashMbr, kStepSignatureRead, kCmdDiskCount, 99}) {
    EXPECT_EQ(SuccessText(none), nullptr) << none;
  }
}

TEST_F(MessagesTest, SuccessLines) {
  Check({
      // valueText is shown as it is, '%' included.
      {[] { Options().valueText = "C:\\100%s%d%n.ini"; return Success(kCmdWriteIni, kCmdWriteIni); },
       " MBR information was successfully written to C:\\100%s%d%n.ini \n"},
      {[] { Options().valueText = "2"; return Success(kCmdBootMenu, kCmdBootMenu); },
       " \n Partition 2 successfully set to active \n"},
      // Commands without a text, and those that print their own results.
      {[] { return Success(kCmdFlashMbr, kCmdFlashMbr); }, ""},
      {[] { Options().areaKind = kAreaMbr; Options().valueText2 = "mbr%s.bin"; return Success(kCmdSave, kCmdSave); },
       " The MBR was successfully saved to mbr%s.bin\n"},
      {[] { State().statusByte = 0; return Success(kCmdStatus, kCmdStatus); }, " Status read successfully as 0  \n"},
      {[] { State().statusByte = 255; return Success(kCmdStatus, kCmdStatus); }, " Status read successfully as 255  \n"},
  });

  Options().diskNumber = 1;
  const uint8_t signature[4] = {0x12, 0x34, 0xAB, 0x0C};
  std::copy(signature, signature + 4, State().signatureBytes);
  EXPECT_EQ(Success(kStepSignatureRead, kStepSignatureRead), " Disk 1 signature: 0x1234AB0C  \n");
  Options().partNumber = 2;
  State().volumeIdText = "1A2B-3C4D";
  EXPECT_EQ(Success(kStepVolumeIdRead, kStepVolumeIdRead), " Disk 1 Part 2 VolumeID: 1A2B-3C4D  \n");
  Options().silent = true;
  EXPECT_EQ(Success(kStepSignatureRead, kStepSignatureRead), "1234AB0C");
  State().volumeIdText = "50%d";
  EXPECT_EQ(Success(kStepVolumeIdRead, kStepVolumeIdRead), "50%d");
}

TEST_F(MessagesTest, FailureLines) {
  Check({
      {[] { State().badArgument = "/bogus%s"; return Failure(kInvalidSwitch); },
       "\n Error 105: Invalid or incomplete switch: /bogus%s\n\n Note: Command line parameters may have changed in "
       "version 3.0\n Please check the latest documentation to verify the specified parameters\n"},
      {[] { Options().valueText = "5-2"; return Failure(kInvalidSectorRange); }, "\n Invalid sector range: 5-2 \n"},
      {[] { return Failure(kUnmountParameter2); }, " Error 115: Missing or invalid parameter for Unmount operation.\n"},
      {[] { Options().valueText = "out.ini"; return Failure(kIniWriteFailed); },
       " Error 104: Unable to write MBR information to file out.ini.\n"},
      // Volume failures name the /vol argument.
      {[] { Arguments().Add("/list"); Arguments().Add("-VOL=DATA"); return Failure(kVolumeNotFound); },
       " Error 147: Unable to locate the specifed partition: 'DATA' \n"},
      {[] { Arguments().Add("-VOL=DATA"); return Failure(kDriveLetterNotFound); },
       " Error 148: Unable to locate the partition assigned to drive letter: DATA \n"},
      {[] { return Failure(kVolumeNotFound); }, " Error 147: Unable to locate the specifed partition: '' \n"},
      // The others use the code text.
      {[] { return Failure(121); }, " Error 121:     \n\n"},
      {[] { return Failure(kExtendedOutside, 2); },
       " Error 570: Extended partition is located outside of boundaries on disk 2\n\n"},
      {[] { return Failure(kGptInvalid); }, " Error 200: Invalid EFI Disk\n\n"},
  });
}

TEST_F(MessagesTest, MessageNumberAndShutdownNotice) {
  Options().shutdownMode = 1;
  Options().ignoreErrors = true;  // no notice of an aborted shutdown
  EXPECT_EQ(Failure(kUserCancelled), " Error 129: User cancelled process\n");
  ResetRun();
  Options().messageNumber = 3;
  EXPECT_EQ(Failure(kUserCancelled), "");
  // 1 hides successes too, 2 only failures.
  for (auto [number, text] : {std::pair{1, ""}, {2, " Partition(s) successfully hidden \n"}}) {
    ResetRun();
    Options().messageNumber = number;
    EXPECT_EQ(Success(kCmdHide, kCmdHide), text) << number;
  }
}

// The text itself is compared end to end (e2e/run_control_test).
TEST_F(MessagesTest, NoParametersWaitsForOneKey) {
  test::FakeMachine machine;
  test::ScopedHost host(&machine);
  machine.keys = {'x', 'y'};
  const std::string text = Failure(kNoParameters);
  EXPECT_EQ(machine.keys.size(), 1u);
  machine.keys.clear();  // at the end of input the wait ends at once
  EXPECT_EQ(Failure(kNoParameters), text);
}

}  // namespace
}  // namespace dh
