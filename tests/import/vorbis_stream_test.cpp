// The decoder against a plain loop over the same library, against oggdec, and against hostile
// files.
#include "import/vorbis_stream.h"

#include <gmock/gmock.h>

#include <limits>

#include "tests/import/ogg_files.h"

namespace marlinda::testing {
namespace {

constexpr std::size_t kBlockSamples = 16384;

std::unique_ptr<VorbisStream> OpenStream(const std::filesystem::path& path) {
  return VorbisStream::Open(FilePointer(std::fopen(path.string().c_str(), "rb")));
}

// Reads to the end with a buffer of exactly `room` samples, so that a sanitizer sees a write behind
// it. The end must stay the end.
DecodedLink ReadToEnd(VorbisStream& stream, std::size_t room = kBlockSamples) {
  DecodedLink result = {stream.samples_per_sec(), stream.channels(), {}, {}};
  std::vector<std::int16_t> buffer(room);
  while (const std::size_t count = stream.Read(buffer)) {
    EXPECT_LE(count, room);
    EXPECT_EQ(count % static_cast<std::size_t>(stream.channels()), 0U);
    result.block_sizes.push_back(count);
    result.samples.insert(result.samples.end(), buffer.begin(),
                          buffer.begin() + static_cast<std::ptrdiff_t>(count));
  }
  EXPECT_EQ(stream.Read(buffer), 0U);
  return result;
}

// Whatever the file holds: it is refused, or what comes out is what the library delivers before the
// format changes.
void ExpectLikeTheLibrary(const std::filesystem::path& path) {
  const Decoded expected = DecodeWithLibrary(path);
  const auto stream = OpenStream(path);
  ASSERT_EQ(stream != nullptr, expected.opened);
  if (stream == nullptr) return;
  EXPECT_EQ(stream->total_frames(), expected.total_frames);
  std::vector<std::int16_t> samples;
  std::vector<std::size_t> block_sizes;
  for (const DecodedLink& link : expected.links) {
    if (link.samples_per_sec != stream->samples_per_sec() || link.channels != stream->channels()) {
      break;
    }
    samples.insert(samples.end(), link.samples.begin(), link.samples.end());
    block_sizes.insert(block_sizes.end(), link.block_sizes.begin(), link.block_sizes.end());
  }
  const DecodedLink got = ReadToEnd(*stream);
  EXPECT_EQ(got.block_sizes, block_sizes);
  EXPECT_TRUE(got.samples == samples) << "other samples than the library's";
}

TEST(VorbisStream, DeliversWhatTheLibraryDecodes) {
  for (const std::string& name : WholeFiles()) {
    SCOPED_TRACE(name);
    ExpectLikeTheLibrary(DataFile(name));
  }
}

TEST(VorbisStream, IsWithinOneStepOfOggdec) {
  for (const std::string& name : WholeFiles()) {
    SCOPED_TRACE(name);
    // oggdec puts the channels of surround files into another order.
    if (name == "six_channels.ogg") continue;
    const auto stream = OpenStream(DataFile(name));
    const int difference = LargestDifference(ReadToEnd(*stream).samples, DecodedByOggdec(name));
    EXPECT_GE(difference, 0) << "another length";
    EXPECT_LE(difference, 1);
  }
}

TEST(VorbisStream, TellsTheFormatAndTheLengthOfTheFile) {
  const auto six = OpenStream(DataFile("six_channels.ogg"));
  EXPECT_EQ(six->samples_per_sec(), 48000);
  EXPECT_EQ(six->channels(), 6);
  EXPECT_EQ(six->total_frames(), 24000);
  EXPECT_EQ(six->average_bytes_per_sec(), 120000 / 8);
  const auto low = OpenStream(DataFile("rate_8000.ogg"));
  EXPECT_EQ(low->samples_per_sec(), 8000);
  EXPECT_EQ(low->channels(), 1);
  EXPECT_EQ(low->total_frames(), 8000);
  EXPECT_EQ(OpenStream(DataFile("no_samples.ogg"))->total_frames(), 0);
}

TEST(VorbisStream, GivesTheCommentsInTheirOrder) {
  const auto stream = OpenStream(DataFile("other.ogg"));
  EXPECT_THAT(stream->Comments(), ::testing::ElementsAre("date=1998-10-02", "artist=Zo\xC3\xAB",
                                                         "ARTIST=Ren\xC3\xA9"
                                                         "e",
                                                         "=nothing",
                                                         "title=\xC3\x9C"
                                                         "berraschung"));
}

TEST(VorbisComments, GiveTheFiveTexts) {
  const auto from = [](std::initializer_list<std::string_view> comments) {
    Tags tags;
    for (const std::string_view comment : comments) ApplyVorbisComment(comment, tags);
    return tags;
  };
  // Keys in any case; a date gives its year; other keys are ignored.
  EXPECT_EQ(from({"TITLE=t", "artist=a", "AlBuM=b", "Date=1998-10-02", "gENRE=g", "COMMENT=x",
                  "TITLES=y"}),
            (Tags{"t", "a", "b", "1998", "g"}));
  // A later one replaces an earlier one, also by nothing.
  EXPECT_EQ(from({"TITLE=1", "title=2", "ALBUM=1", "album=", "DATE=2001", "date=99"}),
            (Tags{"2", "", "", "99", ""}));
  // The value begins after the first equals sign; without a key there is none.
  EXPECT_EQ(from({"TITLE=E=mc2", "ARTIST== x ", "=TITLE", "=", "", "TITLE", "TITLE =other"}),
            (Tags{"E=mc2", "= x ", "", "", ""}));
}

TEST(VorbisStream, DeliversTheSameSamplesInSmallBlocks) {
  const auto whole = DecodeWithLibrary(DataFile("six_channels.ogg"));
  for (const std::size_t room : {6, 11, 500}) {
    const auto stream = OpenStream(DataFile("six_channels.ogg"));
    EXPECT_TRUE(ReadToEnd(*stream, room).samples == whole.links[0].samples) << room;
  }
  // Not even one frame fits.
  EXPECT_TRUE(ReadToEnd(*OpenStream(DataFile("six_channels.ogg")), 5).samples.empty());
}

TEST(VorbisStream, ReadsAChainUpToAChangeOfItsFormat) {
  for (const auto& [first, second, samples] :
       {std::tuple{"stereo.ogg", "other.ogg", 2U * (44100 + 22050)},
        {"stereo.ogg", "mono.ogg", 2U * 44100},
        {"stereo.ogg", "six_channels.ogg", 2U * 44100},
        {"mono.ogg", "rate_8000.ogg", 66150U}}) {
    SCOPED_TRACE(second);
    const TemporaryOgg chain(Chained(first, second));
    ExpectLikeTheLibrary(chain.path());
    EXPECT_EQ(ReadToEnd(*OpenStream(chain.path())).samples.size(), samples);
  }
}

TEST(VorbisStream, IsRefusedWhenItIsNoVorbis) {
  const std::string text(100000, 'x');
  EXPECT_EQ(OpenStream(TemporaryOgg({text.begin(), text.end()}).path()), nullptr);
  EXPECT_EQ(OpenStream(TemporaryOgg({}).path()), nullptr);
  EXPECT_EQ(OpenStream(TemporaryOgg(Truncated("stereo.ogg", 3000)).path()), nullptr);
  EXPECT_EQ(VorbisStream::Open(nullptr), nullptr);
}

TEST(VorbisStream, EndsOnEveryDamagedFile) {
  for (const std::int64_t frames :
       {std::int64_t{1000}, std::int64_t{-1}, std::int64_t{-5}, std::int64_t{1} << 40,
        std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
    SCOPED_TRACE(frames);
    ExpectLikeTheLibrary(TemporaryOgg(WithLastPosition("stereo.ogg", frames)).path());
  }
  const std::size_t size = ReadAll(DataFile("stereo.ogg")).size();
  for (std::size_t length = 0; length < size; length += length < 6000 ? 397 : 1009) {
    SCOPED_TRACE(length);
    ExpectLikeTheLibrary(TemporaryOgg(Truncated("stereo.ogg", length)).path());
  }
  for (std::size_t offset = 0; offset < size; offset += offset < 200 ? 1 : 211) {
    SCOPED_TRACE(offset);
    ExpectLikeTheLibrary(TemporaryOgg(WithByteFlipped("stereo.ogg", offset)).path());
  }
  ExpectLikeTheLibrary(TemporaryOgg(WithPageMissing(kDemoPiece)).path());
  for (unsigned seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    ExpectLikeTheLibrary(TemporaryOgg(WithPacketsScrambled("stereo.ogg", seed)).path());
    ExpectLikeTheLibrary(TemporaryOgg(WithPacketsScrambled("six_channels.ogg", seed)).path());
  }
}

}  // namespace
}  // namespace marlinda::testing
