#include "host/cut_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace marlinda {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr std::int32_t kRate = 1000;
constexpr std::int64_t kFrames = 10000;

// The refusal's text; empty when the plan was made.
std::string RefusalOf(const CutRequest& request) {
  try {
    PlanCut(request, kFrames, kRate);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

TEST(CutPlan, JoinsPiecesInTheOrderGivenAndCountsSilenceInTheResultSoFar) {
  const CutPlan plan = PlanCut({.keep = {"8:", "0:1500f", ":"},
                                .silences = {"2:0.5", "14:1f"},
                                .labels = {"14001f:End", "0:Start"},
                                .markers = {"2:2.5:Pause", "::All"}},
                               kFrames, kRate);
  ASSERT_EQ(plan.pieces.size(), 3U);
  EXPECT_EQ(plan.pieces[0].begin, 8000);
  EXPECT_EQ(plan.pieces[0].end, 10000);
  EXPECT_EQ(plan.pieces[1].end, 1500);
  EXPECT_EQ(plan.pieces[2].end, 10000);
  ASSERT_EQ(plan.silences.size(), 2U);
  EXPECT_EQ(plan.silences[0].at, 2000);
  EXPECT_EQ(plan.silences[0].length, 500);
  EXPECT_EQ(plan.silences[1].at, 14000);  // the end of the result only after the first silence
  EXPECT_EQ(plan.length, 14001);
  EXPECT_EQ(plan.annotations.labels[0].position, 14001);
  EXPECT_EQ(plan.annotations.labels[1].name, "Start");
  EXPECT_EQ(plan.annotations.markers[0].section.begin, 2000);
  EXPECT_EQ(plan.annotations.markers[0].section.end, 2500);
  EXPECT_EQ(plan.annotations.markers[1].section.end, 14001);
}

TEST(CutPlan, RefusesPositionsOutsideTheAudioAndNamesTheOption) {
  EXPECT_THAT(RefusalOf({.keep = {"0:10.001"}}),
              AllOf(HasSubstr("--keep 0:10.001"), HasSubstr("past the end"),
                    HasSubstr("10000 frames, 0:00:10.000")));
  EXPECT_THAT(RefusalOf({.keep = {"2:2"}}), HasSubstr("holds no frame"));
  EXPECT_THAT(RefusalOf({.keep = {"0:1"}, .silences = {"1.001:1"}}), HasSubstr("--silence"));
  EXPECT_THAT(RefusalOf({.keep = {"0:1"}, .silences = {"1:0"}}), HasSubstr("holds no frame"));
  EXPECT_THAT(RefusalOf({.keep = {"0:1"}, .silences = {"0:9223372036854775807f"}}),
              HasSubstr("too long"));
  EXPECT_THAT(RefusalOf({.keep = {"0:1"}, .labels = {"1001f:x"}}), HasSubstr("--label"));
  EXPECT_THAT(RefusalOf({.keep = {"0:1"}, .markers = {"0:1001f:x"}}), HasSubstr("--marker"));
  EXPECT_EQ(RefusalOf({.keep = {"0:1"}, .silences = {"1:1"}, .labels = {"2:x"}}), "");
}

TEST(CutPlan, FindsMalformedOptionsBeforeTheAudioIsKnown) {
  EXPECT_NO_THROW(CheckSyntax({{"0:99999"}, {"5:1"}, {"1:a"}, {"1:2:b"}}));
  EXPECT_THROW(CheckSyntax({.keep = {"0:1", "1"}}), std::invalid_argument);
  EXPECT_THROW(CheckSyntax({.silences = {"5"}}), std::invalid_argument);
  EXPECT_THROW(CheckSyntax({.labels = {"a"}}), std::invalid_argument);
  EXPECT_THROW(CheckSyntax({.markers = {"1:a"}}), std::invalid_argument);
}

}  // namespace
}  // namespace marlinda
