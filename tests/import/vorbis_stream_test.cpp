// The decoder against a plain loop over the same library, against oggdec, and against hostile and
// huge files.
#include "import/vorbis_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <span>

#include "bench/ogg_music.h"
#include "import/vorbis_samples.h"
#include "tests/import/ogg_files.h"

namespace marlinda::testing {
namespace {

std::unique_ptr<VorbisStream> OpenStream(const std::filesystem::path& path, unsigned threads = 3) {
  return VorbisStream::Open(FilePointer(std::fopen(path.string().c_str(), "rb")), threads);
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
Decoded ReadToEnd(VorbisStream& stream, std::size_t room = 16384) {
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

// Whatever the file holds: it is refused, or what comes out is what the library delivers. Returns
// the announced frames.
std::int64_t ExpectLikeTheLibrary(const Bytes& file, bool prepared = false) {
  const Made made(file);
  const auto& stream = made.stream;
  const Decoded expected = DecodeWithLibrary(made.file.path());
  EXPECT_EQ(stream != nullptr, expected.opened);
  if (stream == nullptr) return -1;
  EXPECT_EQ(stream->samples_per_sec(), expected.samples_per_sec);
  EXPECT_EQ(stream->channels(), expected.channels);
  EXPECT_EQ(stream->total_frames(), expected.total_frames);
  if (prepared) stream->Prepare();
  const Decoded got = ReadToEnd(*stream);
  EXPECT_EQ(got.block_sizes, expected.block_sizes);
  EXPECT_TRUE(got.samples == expected.samples) << "other samples than the library's";
  return stream->readable_frames();
}

TEST(VorbisStream, DeliversWhatTheLibraryDecodesAndWithinOneStepWhatOggdecDoes) {
  for (const std::string name : kFiles) {
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

TEST(VorbisStream, ReportsTheRateOfItsBytesAndTheTextsOfItsComments) {
  EXPECT_EQ(OpenStream(DataFile("six_channels.ogg"))->average_bytes_per_sec(), 120000 / 8);
  Tags tags;
  // A later one replaces an earlier one, also by nothing. Without a key there is none.
  for (const char* comment :
       {"TITLE=1", "title=E=mc2", "ALBUM=1", "album=", "Date=2001-10-02", "gENRE=g", "artist=a",
        "=TITLE", "=", "", "TITLE", "TITLES=x", "TITLE =other"}) {
    ApplyVorbisComment(comment, tags);
  }
  EXPECT_EQ(tags, (Tags{"E=mc2", "a", "", "2001", "g"}));
}

TEST(VorbisStream, AnnouncesAndReadsAChainUpToAChangeOfItsFormat) {
  for (const auto& [first, second, readable] : {std::tuple{"stereo.ogg", "other.ogg", 66150},
                                                {"stereo.ogg", "mono.ogg", 44100},
                                                {"mono.ogg", "rate_8000.ogg", 66150},
                                                {"no_samples.ogg", "stereo.ogg", 44100}}) {
    SCOPED_TRACE(second);
    EXPECT_EQ(ExpectLikeTheLibrary(Chained(first, second)), readable);
  }
}

TEST(VorbisStream, SelectsTheSameSamplesThatTheWholeFileHasThere) {
  const auto expect = [](const std::filesystem::path& path) {
    SCOPED_TRACE(path);
    const Decoded whole = DecodeWithLibrary(path);
    const auto channels = whole.channels;
    const auto frames = static_cast<std::int64_t>(whole.samples.size()) / channels;
    for (std::int64_t first = 0; first < frames; first = first * 17 / 16 + 61) {
      const std::int64_t count = std::min<std::int64_t>(frames - first, first % 3000 + 1);
      const auto stream = OpenStream(path);
      stream->Prepare();
      ASSERT_TRUE(stream->Select(first, count));
      const auto begin = whole.samples.begin() + first * channels;
      EXPECT_TRUE(std::ranges::equal(ReadToEnd(*stream).samples,
                                     std::span(begin, begin + count * channels)))
          << first;
    }
  };
  for (const std::string name : kFiles) expect(DataFile(name));
  expect(DataFile(kDemoPiece));
  expect(TemporaryOgg(Chained("stereo.ogg", "other.ogg")).path());
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
  EXPECT_EQ(Made(Bytes(100000, 'x')).stream, nullptr);
  EXPECT_EQ(VorbisStream::Open(nullptr), nullptr);
}

TEST(VorbisStream, DeliversTheSameBlocksOnAnyNumberOfThreads) {
  for (const auto& [channels, samples_per_sec, quality] : {std::tuple{1, 44100, -0.1F},
                                                           {2, 44100, 0.4F},
                                                           {2, 44100, 1.0F},
                                                           {3, 22050, 0.2F},
                                                           {4, 11025, 0.6F},
                                                           {5, 32000, 0.0F},
                                                           {6, 48000, 0.3F},
                                                           {7, 8000, 0.9F},
                                                           {8, 96000, 0.1F}}) {
    SCOPED_TRACE(std::to_string(channels) + " channels at " + std::to_string(samples_per_sec));
    const Bytes music = EncodeMusic(channels, samples_per_sec, quality, 4 * samples_per_sec);
    const Bytes cut(music.begin(), music.begin() + static_cast<std::ptrdiff_t>(music.size() / 2));
    std::vector<Bytes> files = {music, cut, Joined(cut, ManyLinks(music, 3))};
    for (unsigned seed = 0; seed < 6; ++seed) files.push_back(WithPagesMangled(music, seed));
    for (const Bytes& bytes : files) {
      SCOPED_TRACE(&bytes - files.data());
      const TemporaryOgg file(bytes);
      const Decoded expected = DecodeWithLibrary(file.path());
      for (const unsigned threads : {1U, 3U}) {
        const auto stream = OpenStream(file.path(), threads);
        ASSERT_EQ(stream != nullptr, expected.opened);
        if (stream == nullptr) continue;
        const Decoded got = ReadToEnd(*stream);
        EXPECT_EQ(got.block_sizes, expected.block_sizes) << threads;
        EXPECT_TRUE(got.samples == expected.samples) << threads << " threads: other samples";
      }
    }
    // Closed while threads decode, and in blocks that are cut.
    std::vector<std::int16_t> block(500 * 8);
    const auto stream = OpenStream(DataFile(kDemoPiece));
    for (int i = 0; i < 100; ++i) EXPECT_GT(stream->Read(block), 0U);
  }
}

TEST(VorbisStream, AnnouncesNoMoreThanAFileOfItsSizeCanHoldAndReadsMoreThanTwoGigabytes) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  const Bytes file = ReadData("stereo.ogg");
  const std::int64_t most = static_cast<std::int64_t>(file.size()) * 2048 / 4;
  for (const auto& [position, total] :
       {std::pair{std::int64_t{-1}, std::int64_t{0}}, {kMost, most}}) {
    const Made made(WithLastPosition("stereo.ogg", position));
    EXPECT_EQ(made.stream->total_frames(), total);
    EXPECT_GT(ReadToEnd(*made.stream).samples.size(), 2U * 10000);
  }
  const Decoded whole = DecodeWithLibrary(DataFile("stereo.ogg"));
  EXPECT_TRUE(ReadToEnd(*Made(file, 100'000'000U).stream).samples == whole.samples);
  const auto middle = file.begin() + MiddlePage(file).first;
  const Made huge(Bytes(file.begin(), middle), 2'200'000'000U, Bytes(middle, file.end()));
  ASSERT_NE(huge.stream, nullptr);
  EXPECT_EQ(huge.stream->readable_frames(), 44100);
  EXPECT_TRUE(ReadToEnd(*huge.stream).samples == whole.samples);
}

TEST(VorbisSamples, AreRoundedToTheNearestAndClippedForAnyChannelsAndLength) {
  constexpr float kStep = 1.0F / 32768;
  const std::pair<float, int> table[] = {
      {0.5F * kStep, 0},   {1.5F * kStep, 2},
      {-2.6F * kStep, -3}, {1.0F, 32767},
      {-1.5F, -32768},     {65535.0F, 32767},
      {65536.0F, -32768},  {-1e30F, -32768},
      {0.25F, 8192},       {std::numeric_limits<float>::quiet_NaN(), -32768}};
  for (std::size_t channels = 1; channels <= 4; ++channels) {
    for (std::size_t frames = 0; frames <= 40; ++frames) {
      std::vector<std::vector<float>> samples(channels, std::vector<float>(frames));
      std::vector<const float*> planes;
      std::vector<std::int16_t> expected(channels * frames);
      for (std::size_t channel = 0; channel < channels; ++channel) {
        for (std::size_t frame = 0; frame < frames; ++frame) {
          const auto& [sample, code] = table[(7 * channel + 5 * frame) % std::size(table)];
          EXPECT_EQ(VorbisCode(sample), code) << sample;
          samples[channel][frame] = sample;
          expected[frame * channels + channel] = static_cast<std::int16_t>(code);
        }
        planes.push_back(samples[channel].data());
      }
      std::vector<std::int16_t> codes(expected.size());
      PackVorbisFrames(planes.data(), channels, frames, codes.data());
      ASSERT_EQ(codes, expected) << channels << " channels, " << frames << " frames";
    }
  }
}

TEST(VorbisStream, BoundsMemoryAndLinks) {
  EXPECT_THROW(Made(WithCodebooks(100, 8191, 10)).stream->Prepare(), std::bad_alloc);
  EXPECT_THROW(Made(WithCodebooks(1, 1, 0, Bytes(70'000'000))), std::bad_alloc);
  EXPECT_EQ(Made(WithCodebooks(1, 1, 0, Bytes(40'000'000))).stream->Comments().size(), 1U);
  // Many codewords need much memory for a moment, which a stack does not have.
  EXPECT_EQ(ReadToEnd(*Made(WithCodebooks(1, 1, 22)).stream).samples.size(), 64U);
  // Their tables together take more than the bound.
  const TemporaryOgg links(ManyLinks(ReadData("six_channels.ogg"), 600));
  const auto chain = OpenStream(links.path(), 1);
  std::vector<std::int16_t> block(16384);
  std::size_t samples = 0;
  while (const std::size_t count = chain->Read(block)) samples += count;
  EXPECT_EQ(samples, 600U * 24000 * 6);
  EXPECT_NE(Made(ManyLinks(WithCodebooks(1, 1, 0), 1000)).stream, nullptr);
  EXPECT_EQ(Made(ManyLinks(WithCodebooks(1, 1, 0), 1001)).stream, nullptr);
}

}  // namespace
}  // namespace marlinda::testing
