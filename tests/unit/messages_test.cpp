// Result codes and messages: the first-error rule, the code and success
// texts, and the final report's lines byte for byte.
#include "app/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "app/grammar.h"
#include "app/run_state.h"
#include "fake_machine.h"

namespace dh {
namespace {

class MessagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRun();
    Arguments().Clear();
  }
  void TearDown() override {
    ResetRun();
    Arguments().Clear();
  }

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

TEST_F(MessagesTest, CodeTexts) {
  EXPECT_EQ(ResultCodeText(0, 0), "Success");
  EXPECT_EQ(ResultCodeText(506, 0), "Unable to read the specified sector from the selected disk");
  EXPECT_EQ(ResultCodeText(300, 0), ResultCodeText(566, 0));
  EXPECT_EQ(ResultCodeText(504, 0), "An invalid entry was located in the boot record ");
  EXPECT_EQ(ResultCodeText(561, 0), "File does not contain a valid MBR. Use /Ignore to force write.\n");
  EXPECT_EQ(ResultCodeText(570, 3), "Extended partition is located outside of boundaries on disk 3");
  EXPECT_EQ(ResultCodeText(570, -1), "Extended partition is located outside of boundaries on disk -1");
  for (ResultCode none : {1, 99, 105, 121, 201, 301, 517, 573, -5}) EXPECT_EQ(ResultCodeText(none, 0), "    ") << none;
}

TEST_F(MessagesTest, SuccessTextsThatDependOnTheRun) {
  Options().sectorNumber = 0;
  EXPECT_STREQ(SuccessText(kCmdRepair), "MBR successfully repaired");
  Options().sectorNumber = 63;
  EXPECT_STREQ(SuccessText(kCmdRepair), "Specified sectors successfully restored");
  Options().valueText = "TRACK0";
  EXPECT_STREQ(SuccessText(kCmdWipe), "Track 0 successfully cleared");
  Options().valueText = "Mbr";
  EXPECT_STREQ(SuccessText(kCmdWipe), "MBR successfully cleared");
  Options().valueText = "range";
  EXPECT_STREQ(SuccessText(kCmdWipe), "Specified sectors successfully cleared");
  EXPECT_STREQ(SuccessText(kStepDeleteAll), "All Partitions successfully deleted");
  for (int32_t none :
       std::initializer_list<int32_t>{0, kCmdSave, kCmdList, kCmdFlashMbr, kStepSignatureRead, kCmdDiskCount, 99}) {
    EXPECT_EQ(SuccessText(none), nullptr) << none;
  }
}

TEST_F(MessagesTest, SuccessLines) {
  EXPECT_EQ(Success(kCmdHide, kCmdHide), " Partition(s) successfully hidden \n");
  ResetRun();
  Options().valueText = "track0";
  EXPECT_EQ(Success(kCmdWipe, kCmdWipe), " Track 0 successfully cleared \n");
  ResetRun();
  EXPECT_EQ(Success(kCmdDelete, kStepDeleteAll), " All Partitions successfully deleted \n");
  ResetRun();
  // valueText is shown as it is, '%' included.
  Options().valueText = "C:\\100%s%d%n.ini";
  EXPECT_EQ(Success(kCmdWriteIni, kCmdWriteIni), " MBR information was successfully written to C:\\100%s%d%n.ini \n");
  ResetRun();
  Options().valueText = "2";
  EXPECT_EQ(Success(kCmdBootMenu, kCmdBootMenu), " \n Partition 2 successfully set to active \n");
  ResetRun();
  // Commands without a text, and those that print their own results.
  EXPECT_EQ(Success(kCmdFlashMbr, kCmdFlashMbr), "");
  EXPECT_EQ(Success(kCmdTabList, kCmdList), "");
  EXPECT_EQ(Success(kCmdList, kCmdList), "");
  EXPECT_EQ(Success(kCmdShow, kCmdShow), "");
}

TEST_F(MessagesTest, SuccessLinesOfTheirOwn) {
  Options().areaKind = kAreaMbr;
  Options().valueText2 = "mbr%s.bin";
  EXPECT_EQ(Success(kCmdSave, kCmdSave), " The MBR was successfully saved to mbr%s.bin\n");
  Options().areaKind = kAreaRange;
  EXPECT_EQ(Success(kCmdRestore, kCmdRestore),
            " The specified sector range was successfully restored from mbr%s.bin\n");
  Options().areaKind = kAreaVbr;
  EXPECT_EQ(Success(kCmdSave, kCmdSave), " The volume boot record was successfully saved to mbr%s.bin\n");
  EXPECT_EQ(Success(kCmdCompare, kCmdCompare), " The specified items compared successfully\n");

  State().sortedFlag = 0;
  EXPECT_EQ(Success(kCmdIsSorted, kCmdIsSorted), " Partition entries are not sorted \n");
  State().sortedFlag = 1;
  EXPECT_EQ(Success(kCmdIsSorted, kCmdIsSorted), " Partition entries are sorted \n");
  State().statusByte = 0;
  EXPECT_EQ(Success(kCmdStatus, kCmdStatus), " Status read successfully as 0  \n");
  State().statusByte = 255;
  EXPECT_EQ(Success(kCmdStatus, kCmdStatus), " Status read successfully as 255  \n");

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

TEST_F(MessagesTest, FailureLinesOfTheirOwn) {
  State().badArgument = "/bogus%s";
  EXPECT_EQ(
      Failure(kInvalidSwitch),
      "\n Error 105: Invalid or incomplete switch: /bogus%s\n\n Note: Command line parameters may have changed in "
      "version 3.0\n Please check the latest documentation to verify the specified parameters\n");
  ResetRun();
  State().badArgument = "/wipe=foo";
  EXPECT_EQ(Failure(kInvalidParameter), " Error 117: Invalid Parameter: /wipe=foo\n");
  ResetRun();
  Options().valueText = "5-2";
  EXPECT_EQ(Failure(kInvalidSectorRange), "\n Invalid sector range: 5-2 \n");
  ResetRun();
  EXPECT_EQ(Failure(kAlreadySorted), " Partition entries already sorted. No changes have been made.\n");
  ResetRun();
  EXPECT_EQ(Failure(kNotElevated),
            "Error 136: Diskholder is unable to access the disk(s) with current permissions,\n          please restart "
            "as Administrator.\n");
  ResetRun();
  EXPECT_EQ(Failure(kUnmountParameter2), " Error 115: Missing or invalid parameter for Unmount operation.\n");
  ResetRun();
  Options().valueText2 = "Unable to open file x.bin";
  EXPECT_EQ(Failure(kFileError151), " Error 151: Unable to open file x.bin\n");
  ResetRun();
  Options().valueText = "out.ini";
  EXPECT_EQ(Failure(kIniWriteFailed), " Error 104: Unable to write MBR information to file out.ini.\n");
}

TEST_F(MessagesTest, VolumeFailuresNameTheVolArgument) {
  Arguments().Add("/list");
  Arguments().Add("-VOL=DATA");
  EXPECT_EQ(Failure(kVolumeNotFound), " Error 147: Unable to locate the specifed partition: 'DATA' \n");
  EXPECT_EQ(Failure(kDriveLetterNotFound),
            " Error 148: Unable to locate the partition assigned to drive letter: DATA \n");
  Arguments().Clear();
  EXPECT_EQ(Failure(kVolumeNotFound), " Error 147: Unable to locate the specifed partition: '' \n");
}

TEST_F(MessagesTest, OtherFailuresUseTheCodeText) {
  EXPECT_EQ(Failure(kReadFailed), " Error 506: Unable to read the specified sector from the selected disk\n\n");
  EXPECT_EQ(Failure(121), " Error 121:     \n\n");
  EXPECT_EQ(Failure(kExtendedOutside, 2),
            " Error 570: Extended partition is located outside of boundaries on disk 2\n\n");
  EXPECT_EQ(Failure(kGptInvalid), " Error 200: Invalid EFI Disk\n\n");
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
  // At the end of input the wait ends at once.
  machine.keys.clear();
  EXPECT_EQ(Failure(kNoParameters), expected);
}

}  // namespace
}  // namespace dh
