// The decoder against a plain loop over the same library, against oggdec, and against hostile and
// huge files.
#include "import/vorbis_stream.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <limits>
#include <new>

#include "tests/import/ogg_files.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

constexpr std::size_t kBlockSamples = 16384;

std::unique_ptr<VorbisStream> OpenStream(const std::filesystem::path& path) {
  return VorbisStream::Open(FilePointer(std::fopen(path.string().c_str(), "rb")));
}

// A file made for one test, and its decoder, which ends before it.
struct Made {
  template <class... Parts>
  explicit Made(const Parts&... parts) : file(parts...) {}
  const TemporaryOgg file;
  const std::unique_ptr<VorbisStream> stream = OpenStream(file.path());
};

// Reads to the end with a buffer of exactly `room` samples, so that a sanitizer sees a write behind
// it. The end must stay the end.
Decoded ReadToEnd(VorbisStream& stream, std::size_t room = kBlockSamples) {
  Decoded result;
  std::vector<std::int16_t> buffer(room);
  while (const std::size_t count = stream.Read(buffer)) {
    result.block_sizes.push_back(count);
    result.samples.insert(result.samples.end(), buffer.begin(),
                          buffer.begin() + static_cast<std::ptrdiff_t>(count));
  }
  EXPECT_EQ(stream.Read(buffer), 0U);
  return result;
}

// Whatever the file holds: it is refused, or what comes out is what the library delivers.
void ExpectLikeTheLibrary(const Bytes& file, bool prepared = false) {
  const Made made(file);
  const auto& stream = made.stream;
  const Decoded expected = DecodeWithLibrary(made.file.path());
  ASSERT_EQ(stream != nullptr, expected.opened);
  if (stream == nullptr) return;
  EXPECT_EQ(stream->samples_per_sec(), expected.samples_per_sec);
  EXPECT_EQ(stream->channels(), expected.channels);
  EXPECT_EQ(stream->total_frames(), expected.total_frames);
  if (prepared) stream->Prepare();
  const Decoded got = ReadToEnd(*stream);
  EXPECT_EQ(got.block_sizes, expected.block_sizes);
  EXPECT_TRUE(got.samples == expected.samples) << "other samples than the library's";
}

TEST(VorbisStream, DeliversWhatTheLibraryDecodesAndWithinOneStepWhatOggdecDoes) {
  for (const std::string& name : WholeFiles()) {
    SCOPED_TRACE(name);
    ExpectLikeTheLibrary(ReadData(name));
    ExpectLikeTheLibrary(ReadData(name), true);
    // oggdec puts the channels of surround files into another order.
    if (name == "six_channels.ogg") continue;
    const Decoded ours = ReadToEnd(*OpenStream(DataFile(name)));
    const std::vector<std::int16_t> theirs = DecodedByOggdec(name);
    ASSERT_EQ(ours.samples.size(), theirs.size());
    for (std::size_t i = 0; i < theirs.size(); ++i) {
      ASSERT_LE(std::abs(ours.samples[i] - theirs[i]), 1) << i;
    }
  }
  const Decoded six = DecodeWithLibrary(DataFile("six_channels.ogg"));
  for (const std::size_t room : {6, 11, 500}) {
    EXPECT_TRUE(ReadToEnd(*OpenStream(DataFile("six_channels.ogg")), room).samples == six.samples);
  }
  EXPECT_TRUE(ReadToEnd(*OpenStream(DataFile("six_channels.ogg")), 5).samples.empty());
}

TEST(VorbisStream, ReportsLengthRateOfBytesAndComments) {
  EXPECT_EQ(OpenStream(DataFile("six_channels.ogg"))->average_bytes_per_sec(), 120000 / 8);
  const auto stream = OpenStream(DataFile("other.ogg"));
  EXPECT_EQ(stream->readable_frames(), 22050);
  EXPECT_THAT(stream->Comments(), ElementsAre("date=1998-10-02", "artist=Zo\xC3\xAB",
                                              "ARTIST=Ren\xC3\xA9"
                                              "e",
                                              "=nothing",
                                              "title=\xC3\x9C"
                                              "berraschung"));
  const auto from = [](std::initializer_list<std::string_view> comments) {
    Tags tags;
    for (const std::string_view comment : comments) ApplyVorbisComment(comment, tags);
    return tags;
  };
  EXPECT_EQ(from({"TITLE=t", "artist=a", "AlBuM=b", "Date=1998-10-02", "gENRE=g", "TITLES=y"}),
            (Tags{"t", "a", "b", "1998", "g"}));
  // A later one replaces an earlier one, also by nothing. Without a key there is none.
  EXPECT_EQ(from({"TITLE=1", "title=E=mc2", "ALBUM=1", "album=", "DATE=2001", "date=99", "=TITLE",
                  "=", "", "TITLE", "TITLE =other"}),
            (Tags{"E=mc2", "", "", "99", ""}));
}

TEST(VorbisStream, AnnouncesAndReadsAChainUpToAChangeOfItsFormat) {
  for (const auto& [first, second, readable] : {std::tuple{"stereo.ogg", "other.ogg", 66150},
                                                {"stereo.ogg", "mono.ogg", 44100},
                                                {"mono.ogg", "rate_8000.ogg", 66150},
                                                {"no_samples.ogg", "stereo.ogg", 44100}}) {
    SCOPED_TRACE(second);
    const Bytes chain = Chained(first, second);
    ExpectLikeTheLibrary(chain);
    const Made made(chain);
    EXPECT_EQ(made.stream->readable_frames(), readable);
    EXPECT_EQ(ReadToEnd(*made.stream).samples.size(),
              static_cast<std::size_t>(readable * made.stream->channels()));
  }
}

TEST(VorbisStream, EndsOnEveryDamagedFile) {
  const Bytes whole = ReadData("stereo.ogg");
  const std::size_t size = whole.size();
  for (std::size_t length = 0; length < size; length += length < 6000 ? 397 : 1009) {
    SCOPED_TRACE(length);
    ExpectLikeTheLibrary({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
  }
  for (std::size_t offset = 0; offset < size; offset += offset < 200 ? 1 : 211) {
    SCOPED_TRACE(offset);
    Bytes file = whole;
    file[offset] ^= 0x55;
    ExpectLikeTheLibrary(file, true);
  }
  Bytes hole = ReadData(kDemoPiece);
  const auto [begin, end] = MiddlePage(hole);
  hole.erase(hole.begin() + begin, hole.begin() + end);
  ExpectLikeTheLibrary(hole);
  for (unsigned seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    ExpectLikeTheLibrary(WithPacketsScrambled("stereo.ogg", seed));
    ExpectLikeTheLibrary(WithPacketsScrambled("six_channels.ogg", seed), true);
  }
  EXPECT_EQ(Made(Bytes(100000, 'x')).stream, nullptr);
  EXPECT_EQ(VorbisStream::Open(nullptr), nullptr);
}

TEST(VorbisStream, AnnouncesNoMoreThanAFileOfItsSizeCanHold) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  const std::int64_t most = static_cast<std::int64_t>(ReadData("stereo.ogg").size()) * 2048 / 4;
  for (const auto& [position, total] :
       {std::pair{std::int64_t{1000}, std::int64_t{1000}}, {-1, 0}, {kMost, most}}) {
    SCOPED_TRACE(position);
    const Made made(WithLastPosition("stereo.ogg", position));
    EXPECT_EQ(made.stream->total_frames(), total);
    EXPECT_GT(ReadToEnd(*made.stream).samples.size(), 2U * 10000);
  }
}

TEST(VorbisStream, OpensAFileWithMuchBehindItAndOneOfMoreThanTwoGigabytes) {
  const Bytes file = ReadData("stereo.ogg");
  const Decoded whole = DecodeWithLibrary(DataFile("stereo.ogg"));
  EXPECT_TRUE(ReadToEnd(*Made(file, 100'000'000U).stream).samples == whole.samples);
  const auto middle = file.begin() + MiddlePage(file).first;
  const Made huge(Bytes(file.begin(), middle), 2'200'000'000U, Bytes(middle, file.end()));
  EXPECT_EQ(huge.stream->readable_frames(), 44100);
  EXPECT_TRUE(ReadToEnd(*huge.stream).samples == whole.samples);
}

TEST(VorbisStream, BoundsMemoryAndLinks) {
  EXPECT_THROW(Made(WithCodebooks(100, 8191, 10)).stream->Prepare(), std::bad_alloc);
  EXPECT_THROW(Made(WithCodebooks(1, 1, 0, Bytes(70'000'000))), std::bad_alloc);
  EXPECT_EQ(Made(WithCodebooks(1, 1, 0, Bytes(40'000'000))).stream->Comments().size(), 1U);
  // Many codewords need much memory for a moment, which a stack does not have.
  EXPECT_EQ(ReadToEnd(*Made(WithCodebooks(1, 1, 22)).stream).samples.size(), 64U);
  const Made chain(ManyLinks(ReadData("rate_8000.ogg"), 400));
  EXPECT_EQ(ReadToEnd(*chain.stream).samples.size(), 3'200'000U);
  EXPECT_NE(Made(ManyLinks(WithCodebooks(1, 1, 0), 1000)).stream, nullptr);
  EXPECT_EQ(Made(ManyLinks(WithCodebooks(1, 1, 0), 1001)).stream, nullptr);
}

}  // namespace
}  // namespace marlinda::testing
