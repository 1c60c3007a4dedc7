#include "host/messages.h"

#include <gtest/gtest.h>

#include <string>

namespace marlinda {
namespace {

TEST(Messages, NameSubjectReasonAndRemedyAndShowAnUnknownCode) {
  const auto explain = [](std::uint32_t hresult) {
    return Explain(static_cast<std::int32_t>(hresult), "a.ogg", ExitStatus::kInput);
  };
  EXPECT_STREQ(explain(0x80070002).what(),
               "a.ogg: the file does not exist\n  Check the name and the folder.");
  EXPECT_EQ(explain(0x80070002).status(), ExitStatus::kInput);
  // A full disk while reading is the disk of the temporary files.
  EXPECT_EQ(explain(0x80070070).status(), ExitStatus::kOutput);
  EXPECT_STREQ(explain(0x8BADF00D).what(), "a.ogg: the system reports error 0x8BADF00D");
}

}  // namespace
}  // namespace marlinda
