#include "host/messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace marlinda {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

HostError Explained(std::uint32_t hresult, ExitStatus otherwise) {
  return Explain(static_cast<std::int32_t>(hresult), "a.ogg", otherwise);
}

TEST(Messages, NameTheSubjectTheReasonAndTheRemedy) {
  EXPECT_STREQ(HostError(ExitStatus::kInput, "a.ogg", "it is gone", "Look again.").what(),
               "a.ogg: it is gone\n  Look again.");
  EXPECT_STREQ(HostError(ExitStatus::kUsage, "", "something is missing").what(),
               "something is missing");
  const HostError missing = Explained(0x80070002, ExitStatus::kInput);
  EXPECT_THAT(missing.what(), StartsWith("a.ogg: the file does not exist\n  "));
}

TEST(Messages, LeaveTheStatusToWhatWasBeingDoneUnlessTheCodeTellsMore) {
  EXPECT_EQ(Explained(0x80070005, ExitStatus::kInput).status(), ExitStatus::kInput);
  EXPECT_EQ(Explained(0x80070005, ExitStatus::kOutput).status(), ExitStatus::kOutput);
  EXPECT_EQ(Explained(0x80004005, ExitStatus::kFailure).status(), ExitStatus::kFailure);
  // A full disk while reading is the disk of the temporary files.
  EXPECT_EQ(Explained(0x80070070, ExitStatus::kInput).status(), ExitStatus::kOutput);
  EXPECT_EQ(Explained(0x8007000E, ExitStatus::kInput).status(), ExitStatus::kFailure);
  for (const std::uint32_t code : {0x80040154U, 0x80040111U, 0x800401F9U, 0x8007007EU}) {
    const HostError error = Explained(code, ExitStatus::kFailure);
    EXPECT_EQ(error.status(), ExitStatus::kRegistration);
    EXPECT_THAT(error.what(), HasSubstr("Tessaly.dll"));
  }
}

TEST(Messages, HaveWordsForWhateverTheEngineReturns) {
  for (const std::uint32_t code :
       {0x80004001U, 0x80004002U, 0x80004003U, 0x80004005U, 0x8000FFFFU, 0x8007000EU,
        0x80070057U, 0x80040110U, 0x80040111U, 0x80040200U, 0x80040202U, 0x80040217U,
        0x80020001U, 0x80020003U, 0x80020004U, 0x80020005U, 0x80020006U, 0x80020009U,
        0x8002000AU, 0x8002000BU, 0x8002000EU, 0x8002000FU, 0x80070006U, 0x8007000DU,
        0x80070026U, 0x80070032U, 0x80070070U, 0x80070083U, 0x800705B4U}) {
    EXPECT_THAT(Explained(code, ExitStatus::kFailure).reason(), Not(HasSubstr("0x")))
        << std::hex << code;
  }
}

TEST(Messages, ShowTheCodeThatNobodyPutIntoWords) {
  const HostError error = Explained(0x8BADF00D, ExitStatus::kInput);
  EXPECT_EQ(error.status(), ExitStatus::kInput);
  EXPECT_THAT(error.what(), HasSubstr("0x8BADF00D"));
}

TEST(Messages, HaveTheStatusesThatScriptsRelyOn) {
  EXPECT_EQ(static_cast<int>(ExitStatus::kFailure), 1);
  EXPECT_EQ(static_cast<int>(ExitStatus::kUsage), 2);
  EXPECT_EQ(static_cast<int>(ExitStatus::kInput), 3);
  EXPECT_EQ(static_cast<int>(ExitStatus::kOutput), 4);
  EXPECT_EQ(static_cast<int>(ExitStatus::kRegistration), 6);
  EXPECT_EQ(static_cast<int>(ExitStatus::kInterrupted), 130);
}

}  // namespace
}  // namespace marlinda
