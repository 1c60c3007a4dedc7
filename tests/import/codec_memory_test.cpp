// The codec library without the memory that it asks for. The program is linked so that the
// realloc behind import/codec_memory comes here.
#include "import/codec_memory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
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

static long requests = 0;
static long refused = 0;  // the number of one request; 0 for none

void* __wrap_realloc(void* block, std::size_t size) {
  return ++requests == refused ? nullptr : __real_realloc(block, size);
}
}

namespace marlinda::testing {
namespace {

using Samples = std::vector<std::int16_t>;

// A file opened, its comments read, decoded to its end and closed, with one request refused. False
// when that threw.
bool Decode(const std::filesystem::path& path, long refused_request, bool& opened,
            Samples& samples) {
  bool whole = false;
  FilePointer file(std::fopen(path.string().c_str(), "rb"));
  std::unique_ptr<VorbisStream> stream;
  Samples block(16384);
  requests = 0;
  refused = refused_request;
  try {
    stream = VorbisStream::Open(std::move(file));
    stream->Prepare();
    while (const std::size_t count = stream->Read(block)) {
      samples.insert(samples.end(), block.begin(),
                     block.begin() + static_cast<std::ptrdiff_t>(count));
    }
    whole = true;
  } catch (const std::bad_alloc&) {
  }
  opened = stream != nullptr;
  if (opened) {
    EXPECT_EQ(stream->Comments().empty(), !whole);
    EXPECT_EQ(stream->Read(block), 0U) << "it goes on with what is half made";
  }
  stream.reset();
  refused = 0;
  return whole;
}

// What is lost, a leak checker sees.
TEST(CodecMemory, ThatIsRefusedEndsAFileAndHarmsNothing) {
  const TemporaryOgg chain(Chained("stereo.ogg", "other.ogg"));
  bool opened = false;
  Samples whole;
  ASSERT_TRUE(Decode(chain.path(), 0, opened, whole));
  const long all = requests;
  EXPECT_GT(all, 100) << "the library has its memory from elsewhere";
  long while_reading = 0;
  for (long n = 1; n <= all; ++n) {
    SCOPED_TRACE(n);
    Samples samples;
    // Clearing the decoder may ask for more.
    EXPECT_TRUE(!Decode(chain.path(), n, opened, samples) || requests == n);
    while_reading += opened;
    ASSERT_LE(samples.size(), whole.size());
    EXPECT_TRUE(std::equal(samples.begin(), samples.end(), whole.begin()));
  }
  EXPECT_TRUE(while_reading > 0 && while_reading < all);
}

TEST(CodecMemory, IsTheLibrarysOwnHeapUpToABound) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
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
    marlinda_codec_free(marlinda_codec_malloc(CodecMemory::kMaxBytes - 1000));
  }
  // A block that grows by pages is seldom moved, and is still counted whole.
  requests = 0;
  for (std::size_t size = 1 << 20; size < 100U << 20; size += 4096) {
    kept = static_cast<char*>(marlinda_codec_realloc(kept, size));
  }
  EXPECT_LT(requests, 30);
  EXPECT_THROW(marlinda_codec_malloc(64U << 20), std::bad_alloc);
  EXPECT_THROW(marlinda_codec_malloc(kMost), std::bad_alloc);
  EXPECT_THROW(marlinda_codec_calloc(kMost / 2, 3), std::bad_alloc);
  EXPECT_THROW(marlinda_codec_realloc(kept, kMost), std::bad_alloc);
  EXPECT_EQ(kept[14], 'k');
  auto* const grown =
      static_cast<char*>(marlinda_codec_realloc(nobodys, CodecMemory::kMaxBytes + 1));
  EXPECT_EQ(std::string(grown, 3), "abc");
  marlinda_codec_free(grown);
  marlinda_codec_free(nullptr);
}

}  // namespace
}  // namespace marlinda::testing
