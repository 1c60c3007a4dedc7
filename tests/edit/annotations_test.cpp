#include "edit/annotations.h"

#include <gtest/gtest.h>

#include "tests/edit/plain_document.h"

namespace marlinda {
namespace {

std::string Text(const Annotations& annotations) {
  using testing::PlainDocument;
  return PlainDocument::Text(annotations.labels) + " " + PlainDocument::Text(annotations.markers);
}

// By hand, so that the rules do not rest on the reference of the random edits alone.
TEST(Annotations, FollowEditsByTheRules) {
  Annotations annotations{
      {{500, "b"}, {100, "a"}, {99, "c"}},
      {{{0, 100}, "before"}, {{100, 200}, "at"}, {{50, 101}, "around"}, {{120, 30}, "backward"}}};
  annotations.MoveForInsertion(100, 10);
  EXPECT_EQ(Text(annotations),
            "b@510 a@110 c@99 before[0,100) at[110,210) around[50,100) backward[130,40) "
            "around[110,111)");
  EXPECT_EQ(Text(annotations.Part({90, 200}, -90)),
            "a@20 c@9 before[0,10) at[20,110) around[0,10) around[20,21)");
  annotations.Delete({80, 150}, 511);
  EXPECT_EQ(Text(annotations), "b@440 before[0,80) around[50,80) at[80,140)");
  annotations.Delete({75, 60}, 441);
  EXPECT_EQ(Text(annotations),
            "b@455 before[0,75) around[50,75) before[75,95) around[75,95) at[95,155)");
}

}  // namespace
}  // namespace marlinda
