// Compares the decoder with a plain loop over the same library. Also tests hostile and huge files,
// and failing allocations. The linker redirects the realloc of import/codec_memory to this program.
#include "import/vorbis_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <new>
#include <span>

#include "bench/ogg_music.h"
#include "import/vorbis_samples.h"
#include "tests/import/ogg_files.h"

extern "C" {
void* __real_realloc(void* block, std::size_t size);

static std::atomic<long> requests = 0;
static std::atomic<long> refused = 0;  // the number of the request that fails; 0 for none

void* __wrap_realloc(void* block, std::size_t size) {
  return ++requests == refused ? nullptr : __real_realloc(block, size);
}
}

namespace marlinda::testing {
namespace {

std::unique_ptr<VorbisStream> OpenStream(const std::filesystem::path& path, unsigned threads = 3) {
  return VorbisStream::Open(FilePointer(std::fopen(path.string().c_str(), "rb")), threads);
}

// Reads to the end with a buffer of exactly `room` samples, so that a sanitizer detects writes past
// the buffer. A further Read must return nothing.
Decoded ReadToEnd(VorbisStream& stream, std::size_t room = 16384) {
  Decoded result;
  std::vector<std::int16_t> buffer(room);
  while (const std::size_t count = stream.Read(buffer)) {
    result.block_sizes.push_back(count);
    result.samples.insert(result.samples.end(), buffer.data(), buffer.data() + count);
  }
  EXPECT_EQ(stream.Read(buffer), 0U);
  return result;
}

// Expects the result of the library: the same samples, or a refused file. Returns the number of
// readable frames, or -1 for a refused file.
std::int64_t ExpectLikeTheLibrary(const std::filesystem::path& path, unsigned threads = 3,
                                  bool prepared = false) {
  const auto stream = OpenStream(path, threads);
  const Decoded expected = DecodeWithLibrary(path);
  EXPECT_EQ(stream != nullptr, expected.opened);
  if (stream == nullptr) return -1;
  EXPECT_EQ(stream->samples_per_sec(), expected.samples_per_sec);
  EXPECT_EQ(stream->channels(), expected.channels);
  EXPECT_EQ(stream->total_frames(), expected.total_frames);
  if (prepared) stream->Prepare();
  const Decoded got = ReadToEnd(*stream);
  EXPECT_EQ(got.block_sizes, expected.block_sizes) << threads;
  EXPECT_TRUE(got.samples == expected.samples) << threads << " threads: other samples";
  return stream->readable_frames();
}

TEST(VorbisStream, DeliversTheLibrarysSamplesUpToAFormatChange) {
  for (const auto& [first, second, readable] : {std::tuple{"stereo.ogg", "other.ogg", 66150},
                                                {"stereo.ogg", "mono.ogg", 44100},
                                                {"mono.ogg", "rate_8000.ogg", 66150},
                                                {"no_samples.ogg", "stereo.ogg", 44100}}) {
    SCOPED_TRACE(second);
    const TemporaryOgg chain(ReadData(first) + ReadData(second));
    EXPECT_EQ(ExpectLikeTheLibrary(chain.path()), readable);
    ExpectLikeTheLibrary(DataFile(first), 3, true);
    ExpectLikeTheLibrary(DataFile(second));
  }
  const auto six = DataFile("six_channels.ogg");
  const Decoded expected = DecodeWithLibrary(six);
  for (const std::size_t room : {6, 11, 500}) {
    EXPECT_TRUE(ReadToEnd(*OpenStream(six), room).samples == expected.samples);
  }
  EXPECT_TRUE(ReadToEnd(*OpenStream(six), 5).samples.empty());
  EXPECT_EQ(VorbisCode(std::numeric_limits<float>::quiet_NaN()), -32768);
}

TEST(VorbisStream, ReadsTheTextsOfItsComments) {
  Tags tags;
  // A later comment replaces an earlier one, even with an empty text. The decoder ignores a comment
  // without a key.
  for (const char* comment : {"TITLE=1", "title=E=mc2", "ALBUM=1", "album=", "Date=2001-10-02",
                              "gENRE=g", "artist=a", "=TITLE", "TITLE", "TITLES=x"}) {
    ApplyVorbisComment(comment, tags);
  }
  EXPECT_EQ(tags, (Tags{"E=mc2", "a", "", "2001", "g"}));
}

TEST(VorbisStream, DeliversPartsWithTheSameSamplesAsTheWholeFile) {
  const TemporaryOgg chain(ReadData("stereo.ogg") + ReadData("other.ogg"));
  for (const auto& path : {DataFile("six_channels.ogg"), DataFile("rate_8000.ogg"),
                           DataFile(kDemoPiece), chain.path()}) {
    SCOPED_TRACE(path);
    const Decoded whole = DecodeWithLibrary(path);
    const auto frames = static_cast<std::int64_t>(whole.samples.size()) / whole.channels;
    for (std::int64_t first = 0; first < frames; first = first * 17 / 16 + 61) {
      const std::int64_t count = std::min<std::int64_t>(frames - first, first % 3000 + 1);
      const auto stream = OpenStream(path);
      stream->Prepare();
      ASSERT_TRUE(stream->Select(first, count));
      const std::span begin(whole.samples.begin() + first * whole.channels, whole.samples.end());
      EXPECT_TRUE(std::ranges::equal(
          ReadToEnd(*stream).samples,
          begin.first(static_cast<std::size_t>(count) * static_cast<std::size_t>(whole.channels))))
          << first;
    }
  }
}

TEST(VorbisStream, DeliversTheSameBlocksOnAnyNumberOfThreads) {
  for (const auto& [channels, samples_per_sec, quality] :
       {std::tuple{1, 44100, -0.1F}, {2, 44100, 1.0F}, {6, 48000, 0.3F}}) {
    SCOPED_TRACE(channels);
    const Bytes music = EncodeMusic(channels, samples_per_sec, quality, 4 * samples_per_sec);
    const auto [begin, end] = MiddlePage(music);
    const Bytes cut(music.begin(), music.begin() + begin);
    std::vector<Bytes> files = {
        music, cut, WithoutMiddlePage(music), cut + ManyLinks(music, 3),
        Bytes(music.begin(), music.begin() + end) + Bytes(music.begin() + begin, music.end())};
    // Changes the flags, the position, the serial number and the page number.
    for (const auto& [field, bits] :
         {std::pair{5, 1}, {5, 2}, {5, 4}, {6, 64}, {7, 16}, {13, 128}, {14, 1}, {18, 1}}) {
      files.push_back(WithBitsFlipped(music, begin + field, bits));
    }
    for (const Bytes& bytes : files) {
      SCOPED_TRACE(&bytes - files.data());
      const TemporaryOgg file(bytes);
      for (const unsigned threads : {1U, 3U}) ExpectLikeTheLibrary(file.path(), threads);
    }
  }
  // Reads short blocks, then closes the stream while threads decode.
  std::vector<std::int16_t> block(500 * 8);
  const auto stream = OpenStream(DataFile(kDemoPiece));
  for (int i = 0; i < 100; ++i) EXPECT_GT(stream->Read(block), 0U);
}

TEST(VorbisStream, LimitsTheAnnouncedLengthByTheFileSize) {
  const TemporaryOgg endless(
      WithLastPosition("stereo.ogg", std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(OpenStream(endless.path())->total_frames(),
            std::ssize(ReadData("stereo.ogg")) * 2048 / 4);
}

TEST(VorbisStream, LimitsMemoryAndTheNumberOfLinks) {
  EXPECT_THROW(OpenStream(DataFile(kManyCodebooks))->Prepare(), std::bad_alloc);
  // Many codewords briefly need more memory than a stack has.
  EXPECT_EQ(ReadToEnd(*OpenStream(DataFile(kManyCodewords))).samples.size(), 64U);
  // The tables of all links together exceed the limit. The decoder must free those of past links.
  const TemporaryOgg links(ManyLinks(ReadData("six_channels.ogg"), 600));
  const auto chain = OpenStream(links.path(), 1);
  std::vector<std::int16_t> block(16384);
  std::size_t samples = 0;
  while (const std::size_t count = chain->Read(block)) samples += count;
  EXPECT_EQ(samples, 600U * 24000 * 6);
  for (const unsigned count : {1000U, 1001U}) {
    const TemporaryOgg many(ManyLinks(ReadData(kSmallest), count));
    EXPECT_EQ(OpenStream(many.path()) != nullptr, count == 1000);
  }
}

// Reads the file repeatedly. In round i, allocation number i * `threads` fails. A leak checker
// detects lost memory.
void RefuseRequests(const std::filesystem::path& path, unsigned threads) {
  const std::vector<std::int16_t> whole = DecodeWithLibrary(path).samples;
  long while_reading = 0;
  long n = 0;
  for (bool ended = false; !ended; n += threads) {
    SCOPED_TRACE(n);
    std::unique_ptr<VorbisStream> stream;
    std::vector<std::int16_t> samples, block(16384);
    requests = 0;
    refused = n;
    try {
      stream = OpenStream(path, threads);
      stream->Prepare();
      while (const std::size_t count = stream->Read(block)) {
        samples.insert(samples.end(), block.data(), block.data() + count);
      }
      EXPECT_EQ(samples, whole);
      ended = requests < n;
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(samples.size() <= whole.size() &&
                  std::equal(samples.begin(), samples.end(), whole.begin()));
      while_reading += stream != nullptr;
      EXPECT_TRUE(stream == nullptr || stream->Read(block) == 0) << "it reads what is half made";
    }
    stream.reset();
    refused = 0;
  }
  EXPECT_TRUE(while_reading > 0 && while_reading < n - 50) << "its memory comes from elsewhere";
}

TEST(CodecMemory, AFailedAllocationEndsTheFileAndLeaksNothing) {
  const TemporaryOgg chain(ReadData("stereo.ogg") + ReadData("other.ogg"));
  RefuseRequests(chain.path(), 1);
  RefuseRequests(DataFile("stereo.ogg"), 3);
}

}  // namespace
}  // namespace marlinda::testing
