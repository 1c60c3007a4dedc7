// The codec library without the memory that it asks for. The program is linked so that the
// realloc behind import/codec_memory comes here.
#include "import/codec_memory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "import/vorbis_stream.h"
#include "tests/import/ogg_files.h"

extern "C" {
void* marlinda_codec_malloc(std::size_t size);
void* marlinda_codec_calloc(std::size_t count, std::size_t size);
void* marlinda_codec_realloc(void* contents, std::size_t size);
void marlinda_codec_free(void* contents);

void* __real_realloc(void* block, std::size_t size);

static long requests = 0;
static long refused = 0;  // the number of one request; 0 for none

void* __wrap_realloc(void* block, std::size_t size) {
  return ++requests == refused ? nullptr : __real_realloc(block, size);
}
}

namespace marlinda::testing {
namespace {

using Samples = std::vector<std::int16_t>;

constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();

struct Outcome {
  bool opened = false;
  bool failed = false;  // with an exception
  std::vector<std::string> comments;
  Samples samples;
};

// A file opened, its comments read, decoded to its end and closed, with one request refused.
Outcome Decode(const std::filesystem::path& path, long refused_request) {
  Outcome outcome;
  FilePointer file(std::fopen(path.string().c_str(), "rb"));
  std::unique_ptr<VorbisStream> stream;
  Samples block(16384);
  requests = 0;
  refused = refused_request;
  try {
    stream = VorbisStream::Open(std::move(file));
    outcome.opened = true;
    for (const std::string_view comment : stream->Comments())
      outcome.comments.emplace_back(comment);
    while (const std::size_t count = stream->Read(block)) {
      outcome.samples.insert(outcome.samples.end(), block.begin(),
                             block.begin() + static_cast<std::ptrdiff_t>(count));
    }
  } catch (const std::bad_alloc&) {
    outcome.failed = true;
  }
  if (stream != nullptr && outcome.failed) {
    EXPECT_EQ(stream->Read(block), 0U) << "it goes on with what is half made";
    EXPECT_TRUE(stream->Comments().empty());
  }
  stream.reset();
  refused = 0;
  return outcome;
}

// What is lost, a leak checker sees.
void RefuseEachRequest(const std::filesystem::path& path) {
  const Outcome whole = Decode(path, 0);
  ASSERT_FALSE(whole.samples.empty());
  const long all = requests;
  EXPECT_GT(all, 100) << "the library has its memory from elsewhere";
  long while_opening = 0;
  long while_reading = 0;
  for (long n = 1; n <= all; ++n) {
    SCOPED_TRACE(n);
    const Outcome outcome = Decode(path, n);
    ++(outcome.opened ? while_reading : while_opening);
    ASSERT_GE(requests, n);
    EXPECT_TRUE(outcome.failed || requests == n) << "the library asked for more";
    EXPECT_TRUE(outcome.failed || outcome.samples == whole.samples);
    EXPECT_TRUE(!outcome.opened || outcome.comments == whole.comments);
    ASSERT_LE(outcome.samples.size(), whole.samples.size());
    EXPECT_TRUE(std::equal(outcome.samples.begin(), outcome.samples.end(), whole.samples.begin()))
        << "other samples before the end";
  }
  EXPECT_GT(while_opening, 0);
  EXPECT_GT(while_reading, 0);
}

TEST(CodecMemory, ThatIsRefusedEndsAFileAndHarmsNothing) {
  RefuseEachRequest(DataFile("other.ogg"));
  RefuseEachRequest(DataFile("six_channels.ogg"));
  RefuseEachRequest(TemporaryOgg(Chained("stereo.ogg", "other.ogg")).path());
}

TEST(CodecMemory, IsTheLibrarysOwnHeap) {
  CodecMemory outer;
  CodecMemory inner;
  auto* const nobodys = static_cast<char*>(marlinda_codec_malloc(3));
  std::memcpy(nobodys, "abc", 3);
  const CodecMemory::Use use(outer);
  // Left behind, for its owner to free.
  auto* kept = static_cast<char*>(marlinda_codec_calloc(3, 5));
  EXPECT_EQ(std::string(kept, 15), std::string(15, '\0'));
  std::memset(kept, 'k', 15);
  {
    const CodecMemory::Use nested(inner);
    marlinda_codec_malloc(0);
    // Blocks stay whose they were, and keep what they hold.
    kept = static_cast<char*>(marlinda_codec_realloc(kept, 1 << 20));
    EXPECT_EQ(std::string(kept, 15), std::string(15, 'k'));
    std::thread([] { marlinda_codec_free(marlinda_codec_malloc(1)); }).join();
  }
  marlinda_codec_malloc(100);
  EXPECT_THROW(marlinda_codec_malloc(kMost), std::bad_alloc);
  EXPECT_THROW(marlinda_codec_calloc(kMost / 2, 3), std::bad_alloc);
  EXPECT_THROW(marlinda_codec_realloc(kept, kMost), std::bad_alloc);
  EXPECT_EQ(kept[14], 'k');
  auto* const grown = static_cast<char*>(marlinda_codec_realloc(nobodys, 1 << 20));
  EXPECT_EQ(std::string(grown, 3), "abc");
  marlinda_codec_free(grown);
  marlinda_codec_free(nullptr);
}

}  // namespace
}  // namespace marlinda::testing
