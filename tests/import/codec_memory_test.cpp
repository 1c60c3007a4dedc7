// The codec library without the memory that it asks for. The program is linked so that the
// realloc behind import/codec_memory comes here.
#include "import/codec_memory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <new>
#include <thread>

#include "import/vorbis_stream.h"
#include "tests/import/ogg_files.h"

extern "C" {
void* marlinda_codec_malloc(std::size_t size);
void* marlinda_codec_calloc(std::size_t count, std::size_t size);
void* marlinda_codec_realloc(void* contents, std::size_t size);
void marlinda_codec_free(void* contents);
void* __real_realloc(void* block, std::size_t size);

static std::atomic<long> requests = 0;
static std::atomic<long> requests_elsewhere = 0;  // on other threads than the test's
static std::atomic<long> refused = 0;             // the number of one request; 0 for none

void* __wrap_realloc(void* block, std::size_t size) {
  static const std::thread::id tests = std::this_thread::get_id();
  requests_elsewhere += std::this_thread::get_id() != tests;
  return ++requests == refused ? nullptr : __real_realloc(block, size);
}
}

namespace marlinda::testing {
namespace {

// Reads the file on so many threads while one request fails, of as many the next time. What is
// lost, a leak checker sees.
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
      stream = VorbisStream::Open(FilePointer(std::fopen(path.string().c_str(), "rb")), threads);
      stream->Prepare();
      while (const std::size_t count = stream->Read(block)) {
        samples.insert(samples.end(), block.data(), block.data() + count);
      }
      EXPECT_EQ(samples, whole);
      EXPECT_EQ(stream->Comments().size(), 6U);
      ended = requests < n;
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(samples.size() <= whole.size() &&
                  std::equal(samples.begin(), samples.end(), whole.begin()));
      while_reading += stream != nullptr;
      EXPECT_TRUE(stream == nullptr || stream->Comments().empty());
      EXPECT_TRUE(stream == nullptr || stream->Read(block) == 0) << "it reads what is half made";
    }
    stream.reset();
    refused = 0;
  }
  EXPECT_GT(n, 100) << "the library has its memory from elsewhere";
  EXPECT_TRUE(while_reading > 0 && while_reading < n - 50);
}

TEST(CodecMemory, ThatIsRefusedEndsAFileAndHarmsNothing) {
  const TemporaryOgg chain(Chained("stereo.ogg", "other.ogg"));
  requests_elsewhere = 0;
  RefuseRequests(chain.path(), 1);
  EXPECT_EQ(requests_elsewhere, 0);
  RefuseRequests(DataFile("stereo.ogg"), 3);
  EXPECT_GT(requests_elsewhere, 0);
}

TEST(CodecMemory, IsTheLibrarysOwnHeapUpToABound) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
  CodecMemory outer;
  CodecMemory inner;
  void* nobodys = marlinda_codec_malloc(3);
  const CodecMemory::Use use(outer);
  // Left behind, for its owner to free.
  auto* kept = static_cast<char*>(marlinda_codec_calloc(3, 5));
  EXPECT_EQ(std::string(kept, 15), std::string(15, '\0'));
  std::fill_n(kept, 15, 'k');
  EXPECT_THROW(marlinda_codec_calloc(kMost / 8 + 2, 8), std::bad_alloc);
  {
    const CodecMemory::Use nested(inner);
    marlinda_codec_malloc(0);
    // Blocks stay whose they were.
    kept = static_cast<char*>(marlinda_codec_realloc(kept, 1 << 20));
    std::thread([] { marlinda_codec_free(marlinda_codec_malloc(1)); }).join();
    for (int twice = 0; twice < 2; ++twice) {
      marlinda_codec_free(marlinda_codec_malloc(CodecMemory::kMaxBytes - 1000));
      // A part counts with the whole, and takes its blocks with it.
      CodecMemory part(&inner);
      const CodecMemory::Use of_part(part);
      EXPECT_THROW(marlinda_codec_malloc(CodecMemory::kMaxBytes), std::bad_alloc);
      marlinda_codec_malloc(CodecMemory::kMaxBytes / 2);
      const CodecMemory::Use of_whole(inner);
      EXPECT_THROW(marlinda_codec_malloc(CodecMemory::kMaxBytes / 2), std::bad_alloc);
    }
  }
  // A block that grows by pages is seldom moved, and is still counted whole.
  requests = 0;
  for (std::size_t size = 1 << 20; size < 100U << 20; size += 4096) {
    kept = static_cast<char*>(marlinda_codec_realloc(kept, size));
  }
  EXPECT_LT(requests, 30);
  EXPECT_THROW(marlinda_codec_malloc(64U << 20), std::bad_alloc);
  EXPECT_THROW(marlinda_codec_realloc(kept, kMost), std::bad_alloc);
  EXPECT_EQ(std::string(kept, 15), std::string(15, 'k'));
  nobodys = marlinda_codec_realloc(nobodys, CodecMemory::kMaxBytes + 1);
  EXPECT_THROW(marlinda_codec_realloc(nobodys, kMost), std::bad_alloc);
  marlinda_codec_free(nobodys);
  marlinda_codec_free(nullptr);
}

}  // namespace
}  // namespace marlinda::testing
