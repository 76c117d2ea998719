// Result codes and messages: the first-error rule, the code and success
// texts, and the final report's lines byte for byte.
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
      {[] { return Success(kCmdHide, kCmdHide); }, " Partition(s) successfully hidden \n"},
      {[] { Options().valueText = "track0"; return Success(kCmdWipe, kCmdWipe); }, " Track 0 successfully cleared \n"},
      {[] { return Success(kCmdDelete, kStepDeleteAll); }, " All Partitions successfully deleted \n"},
      // valueText is shown as it is, '%' included.
      {[] { Options().valueText = "C:\\100%s%d%n.ini"; return Success(kCmdWriteIni, kCmdWriteIni); },
       " MBR information was successfully written to C:\\100%s%d%n.ini \n"},
      {[] { Options().valueText = "2"; return Success(kCmdBootMenu, kCmdBootMenu); },
       " \n Partition 2 successfully set to active \n"},
      // Commands without a text, and those that print their own results.
      {[] { return Success(kCmdFlashMbr, kCmdFlashMbr); }, ""},
      {[] { return Success(kCmdTabList, kCmdList); }, ""},
      {[] { return Success(kCmdList, kCmdList); }, ""},
      {[] { return Success(kCmdShow, kCmdShow); }, ""},
      {[] { Options().areaKind = kAreaMbr; Options().valueText2 = "mbr%s.bin"; return Success(kCmdSave, kCmdSave); },
       " The MBR was successfully saved to mbr%s.bin\n"},
      {[] { Options().areaKind = kAreaRange; Options().valueText2 = "f"; return Success(kCmdRestore, kCmdRestore); },
       " The specified sector range was successfully restored from f\n"},
      {[] { Options().areaKind = kAreaVbr; Options().valueText2 = "f"; return Success(kCmdSave, kCmdSave); },
       " The volume boot record was successfully saved to f\n"},
      {[] { return Success(kCmdCompare, kCmdCompare); }, " The specified items compared successfully\n"},
      {[] { State().sortedFlag = 0; return Success(kCmdIsSorted, kCmdIsSorted); }, " Partition entries are not sorted \n"},
      {[] { State().sortedFlag = 1; return Success(kCmdIsSorted, kCmdIsSorted); }, " Partition entries are sorted \n"},
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
      {[] { State().badArgument = "/wipe=foo"; return Failure(kInvalidParameter); },
       " Error 117: Invalid Parameter: /wipe=foo\n"},
      {[] { Options().valueText = "5-2"; return Failure(kInvalidSectorRange); }, "\n Invalid sector range: 5-2 \n"},
      {[] { return Failure(kAlreadySorted); }, " Partition entries already sorted. No changes have been made.\n"},
      {[] { return Failure(kNotElevated); },
       "Error 136: Diskholder is unable to access the disk(s) with current permissions,\n          please restart "
       "as Administrator.\n"},
      {[] { return Failure(kUnmountParameter2); }, " Error 115: Missing or invalid parameter for Unmount operation.\n"},
      {[] { Options().valueText2 = "Unable to open file x.bin"; return Failure(kFileError151); },
       " Error 151: Unable to open file x.bin\n"},
      {[] { Options().valueText = "out.ini"; return Failure(kIniWriteFailed); },
       " Error 104: Unable to write MBR information to file out.ini.\n"},
      // Volume failures name the /vol argument.
      {[] { Arguments().Add("/list"); Arguments().Add("-VOL=DATA"); return Failure(kVolumeNotFound); },
       " Error 147: Unable to locate the specifed partition: 'DATA' \n"},
      {[] { Arguments().Add("-VOL=DATA"); return Failure(kDriveLetterNotFound); },
       " Error 148: Unable to locate the partition assigned to drive letter: DATA \n"},
      {[] { return Failure(kVolumeNotFound); }, " Error 147: Unable to locate the specifed partition: '' \n"},
      // The others use the code text.
      {[] { return Failure(kReadFailed); }, " Error 506: Unable to read the specified sector from the selected disk\n\n"},
      {[] { return Failure(121); }, " Error 121:     \n\n"},
      {[] { return Failure(kExtendedOutside, 2); },
       " Error 570: Extended partition is located outside of boundaries on disk 2\n\n"},
      {[] { return Failure(kGptInvalid); }, " Error 200: Invalid EFI Disk\n\n"},
  });
}

TEST_F(MessagesTest, MessageNumberAndShutdownNotice) {
  Options().shutdownMode = 1;
  EXPECT_EQ(Failure(kUserCancelled), " Error 129: User cancelled process\n Shutdown aborted due to previous error!\n");
  Options().ignoreErrors = true;
  EXPECT_EQ(Failure(kUserCancelled), " Error 129: User cancelled process\n");
  Options().ignoreErrors = false;

  Options().messageNumber = 1;
  EXPECT_EQ(Failure(kUserCancelled), "");
  Options().messageNumber = 3;
  EXPECT_EQ(Failure(kUserCancelled), "");
  State().resultCode = kSuccess;
  EXPECT_EQ(Success(kCmdHide, kCmdHide), "");
  Options().messageNumber = 1;
  EXPECT_EQ(Success(kCmdHide, kCmdHide), "");
  Options().messageNumber = 2;
  EXPECT_EQ(Success(kCmdHide, kCmdHide), " Partition(s) successfully hidden \n");
}

TEST_F(MessagesTest, NoParametersExplainsAndWaitsForOneKey) {
  test::FakeMachine machine;
  test::ScopedHost host(&machine);
  machine.keys = {'x', 'y'};
  const std::string expected =
      "\n Error 102: No command line parameters specified \n\n  Diskholder is a command line application, but no "
      "command line parameters\n  were specified. Please make certain to start Diskholder from a command\n  prompt.  "
      "For example, the following will display available app options:\n\n  diskhold /?\n\n  Press any key to exit . . "
      ".\n";
  EXPECT_EQ(Failure(kNoParameters), expected);
  EXPECT_EQ(machine.keys.size(), 1u);
  machine.keys.clear();  // at the end of input the wait ends at once
  EXPECT_EQ(Failure(kNoParameters), expected);
}

}  // namespace
}  // namespace dh
