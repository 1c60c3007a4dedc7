// Reads the samples of an Ogg Vorbis file, all or a part, on three threads and on one. Both runs
// must return the same samples. The input's last byte selects the part and the block size.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <vector>

#include "import/vorbis_stream.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

// Returns a hash of the samples that were read, or 0 if the stream cannot be opened.
std::size_t ReadWhole(const std::uint8_t* data, std::size_t size, unsigned threads) {
  const std::size_t choice = data[size - 1];
  // fmemopen takes a pointer to writable memory.
  std::vector<std::uint8_t> copy(data, data + size);
  const auto stream = marlinda::VorbisStream::Open(
      marlinda::FilePointer(fmemopen(copy.data(), size, "rb")), threads);
  if (stream == nullptr) return 0;
  Require(stream->channels() > 0 && stream->samples_per_sec() > 0);
  Require(stream->average_bytes_per_sec() >= 0);
  Require(stream->total_frames() <= 0 || stream->readable_frames() <= stream->total_frames());
  const auto channels = static_cast<std::size_t>(stream->channels());
  marlinda::Tags texts;
  for (const auto comment : stream->Comments()) marlinda::ApplyVorbisComment(comment, texts);
  Require(texts.year.size() <= 4);

  if (choice % 2 == 0) stream->Prepare();
  const std::int64_t frames = stream->total_frames();
  std::int64_t left = std::numeric_limits<std::int64_t>::max();
  if (choice % 4 >= 2 && frames > 0) {
    const std::int64_t first = frames / 256 * static_cast<std::int64_t>(choice);
    left = stream->Select(first, frames - first) ? frames - first : 0;
  }
  // The block holds at least one frame. The sanitizer detects writes past the block.
  std::vector<std::int16_t> block(channels * (1 + choice * choice / 8));
  std::size_t sum = 1;
  try {
    while (const std::size_t samples = stream->Read(block)) {
      Require(samples <= block.size() && samples % channels == 0);
      left -= static_cast<std::int64_t>(samples / channels);
      Require(left >= 0);
      for (std::size_t i = 0; i < samples; ++i)
        sum = 31 * sum + static_cast<std::uint16_t>(block[i]);
    }
  } catch (const std::bad_alloc&) {
    ++sum;
  }
  Require(stream->Read(block) == 0);
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    if (size > 0) Require(ReadWhole(data, size, 3) == ReadWhole(data, size, 1));
  } catch (const std::bad_alloc&) {
    // The input needs more memory than a decoder may use.
  }
  return 0;
}
