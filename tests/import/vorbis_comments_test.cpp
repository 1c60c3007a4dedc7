#include "import/vorbis_comments.h"

#include <gtest/gtest.h>

namespace marlinda::testing {
namespace {

MetaData FromComments(std::initializer_list<std::string_view> comments) {
  MetaData data;
  for (const std::string_view comment : comments) ApplyVorbisComment(comment, data);
  return data;
}

TEST(VorbisComments, FindTheFiveKeysInAnyCase) {
  const MetaData data = FromComments(
      {"TITLE=t", "artist=a", "AlBuM=b", "Date=1998-10-02", "gENRE=g", "COMMENT=x", "TITLES=y"});
  EXPECT_EQ(data.title, "t");
  EXPECT_EQ(data.artist, "a");
  EXPECT_EQ(data.album, "b");
  EXPECT_EQ(data.year, "1998");
  EXPECT_EQ(data.genre, "g");
}

TEST(VorbisComments, ALaterOneReplacesAnEarlierOneAlsoByNothing) {
  EXPECT_EQ(FromComments({"TITLE=first", "title=second"}).title, "second");
  EXPECT_EQ(FromComments({"TITLE=first", "title="}).title, "");
  EXPECT_EQ(FromComments({"DATE=2001", "date=99"}).year, "99");
}

TEST(VorbisComments, TheValueBeginsAfterTheFirstEqualsSign) {
  EXPECT_EQ(FromComments({"TITLE=E=mc2"}).title, "E=mc2");
  EXPECT_EQ(FromComments({"TITLE==x"}).title, "=x");
  EXPECT_EQ(FromComments({"TITLE= x "}).title, " x ");
}

TEST(VorbisComments, WithoutAKeyOrAValueAreIgnored) {
  const MetaData data = FromComments({"TITLE=kept", "=TITLE", "=", "", "TITLE", "TITLE =other"});
  EXPECT_EQ(data.title, "kept");
}

TEST(VorbisComments, AYearIsAtMostFourCharacters) {
  EXPECT_EQ(FromComments({"DATE=2009"}).year, "2009");
  EXPECT_EQ(FromComments({"DATE=20091"}).year, "2009");
  EXPECT_EQ(FromComments({"DATE=7"}).year, "7");
  EXPECT_EQ(FromComments({"DATE="}).year, "");
}

}  // namespace
}  // namespace marlinda::testing
