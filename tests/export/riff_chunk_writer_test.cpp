#include "export/riff_chunk_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string_view>

#include "tests/export/memory_sink.h"

namespace marlinda::testing {
namespace {

using namespace riff;

class RiffChunkWriterTest : public ::testing::Test {
 protected:
  RiffChunkWriterTest() {
    auto sink = std::make_unique<MemorySink>(file_);
    sink_ = sink.get();
    writer_.Attach(std::move(sink));
  }
  void Write(std::string_view text) { writer_.Write(std::as_bytes(std::span(text))); }

  MemoryFile file_;
  MemorySink* sink_;
  RiffChunkWriter writer_;
};

TEST_F(RiffChunkWriterTest, PadsEveryBodyToFourBytesAndCountsThePadding) {
  const std::string_view text = "abcdefgh";
  Bytes expected;
  for (std::size_t length = 0; length <= text.size(); ++length) {
    writer_.BeginChunk(FourCC("test"));
    Write(text.substr(0, length));
    writer_.EndChunk();
    expected = expected + Chunk("test", Text(text.substr(0, length)));
  }
  EXPECT_EQ(file_.All(), expected);
}

TEST_F(RiffChunkWriterTest, ClosesOpenChunksFromTheInnermostOutAndThenTheFile) {
  writer_.BeginChunk(FourCC("RIFF"));
  Write("WAVE");
  writer_.BeginChunk(FourCC("one "));
  Write("12345");
  writer_.EndChunk();
  writer_.BeginChunk(FourCC("two "));
  writer_.BeginChunk(FourCC("in  "));
  Write("x");
  writer_.Close();
  EXPECT_EQ(file_.All(), Chunk("RIFF", Text("WAVE") + Chunk("one ", Text("12345")) +
                                           Chunk("two ", Chunk("in  ", Text("x")))));
  EXPECT_TRUE(file_.is_closed);
  EXPECT_FALSE(writer_.IsAttached());
}

TEST_F(RiffChunkWriterTest, RefusesToEndAChunkWhenNoneIsOpen) {
  EXPECT_THROW(writer_.EndChunk(), std::logic_error);
  writer_.BeginChunk(FourCC("test"));
  writer_.EndChunk();
  EXPECT_THROW(writer_.EndChunk(), std::logic_error);
  EXPECT_EQ(file_.All(), Chunk("test", {}));
  writer_.Close();
  EXPECT_THROW(writer_.EndChunk(), std::logic_error);
}

TEST_F(RiffChunkWriterTest, LeavesSizesAtZeroWhenDestroyedWithOpenChunks) {
  {
    RiffChunkWriter short_lived;
    short_lived.Attach(std::make_unique<MemorySink>(file_));
    short_lived.BeginChunk(FourCC("RIFF"));
    short_lived.Write(std::as_bytes(std::span("abc", 3)));
  }
  EXPECT_EQ(file_.All(), Text("RIFF") + U32(0) + Text("abc"));
  EXPECT_TRUE(file_.is_closed);
}

TEST_F(RiffChunkWriterTest, StartsAFreshFileWhenAnotherSinkIsAttached) {
  writer_.BeginChunk(FourCC("RIFF"));
  MemoryFile second;
  auto sink = std::make_unique<MemorySink>(second);
  ASSERT_TRUE(sink->Seek(100));
  writer_.Attach(std::move(sink));
  EXPECT_TRUE(file_.is_closed);
  EXPECT_THROW(writer_.EndChunk(), std::logic_error);
  writer_.BeginChunk(FourCC("test"));
  writer_.Close();
  EXPECT_EQ(second.All(), Chunk("test", {}));
  EXPECT_EQ(file_.All(), Text("RIFF") + U32(0));
}

TEST_F(RiffChunkWriterTest, WritesNowhereWithoutASink) {
  writer_.Close();
  writer_.BeginChunk(FourCC("RIFF"));
  Write("abc");
  writer_.EndChunk();
  writer_.Close();
  EXPECT_TRUE(file_.bytes.empty());
}

TEST_F(RiffChunkWriterTest, GoesOnWhenTheDiskIsFullAndFillsInTheSizesOfWhatFitted) {
  file_.capacity = 26;
  writer_.BeginChunk(FourCC("RIFF"));
  Write("WAVE");
  writer_.BeginChunk(FourCC("data"));
  Write("12345678");
  writer_.EndChunk();
  writer_.BeginChunk(FourCC("acid"));
  Write("lost");
  writer_.Close();
  // Six of the eight bytes fitted, and the padding that completes them is counted but not there.
  EXPECT_EQ(file_.Range(12, 14), Text("data") + U32(8) + Text("123456"));
  EXPECT_EQ(file_.All().size(), 26U);
  EXPECT_TRUE(file_.is_closed);
}

TEST_F(RiffChunkWriterTest, WrapsSizesPastFourGibibytesAndOverwritesNothing) {
  constexpr std::uint64_t kData = (std::uint64_t{5} << 30) + 3;
  writer_.BeginChunk(FourCC("RIFF"));
  Write("WAVE");
  writer_.BeginChunk(FourCC("data"));
  const std::uint64_t start = sink_->Position();
  ASSERT_TRUE(sink_->Seek(start + kData));  // as if so many samples had been written
  writer_.EndChunk();
  writer_.BeginChunk(FourCC("tail"));
  Write("abcd");
  writer_.Close();

  const std::uint64_t padded = kData + 1;
  EXPECT_EQ(file_.Range(0, 20),
            Text("RIFF") + U32(4 + 8 + padded + 12) + Text("WAVE") + Text("data") + U32(padded));
  EXPECT_EQ(file_.Range(start + padded, 12), Chunk("tail", Text("abcd")));
  // Nothing but the headers, the one byte of padding and the tail was written.
  EXPECT_EQ(file_.bytes.size(), 20U + 1U + 12U);
}

}  // namespace
}  // namespace marlinda::testing
