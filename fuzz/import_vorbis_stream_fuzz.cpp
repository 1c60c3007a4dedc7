// Opens bytes as an Ogg Vorbis file and reads it to its end, in blocks of a size that the bytes
// choose.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "import/vorbis_stream.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t choice = data[size - 1];
  // The library's stream wants memory that can be written to.
  std::vector<std::uint8_t> copy(data, data + size);
  marlinda::FilePointer file(fmemopen(copy.data(), copy.size(), "rb"));
  Require(file != nullptr);
  const auto stream = marlinda::VorbisStream::Open(std::move(file));
  if (stream == nullptr) return 0;
  Require(stream->channels() > 0 && stream->samples_per_sec() > 0);
  Require(stream->average_bytes_per_sec() >= 0);
  const auto channels = static_cast<std::size_t>(stream->channels());

  marlinda::Tags texts;
  for (const std::string_view comment : stream->Comments()) {
    marlinda::ApplyVorbisComment(comment, texts);
  }
  Require(texts.year.size() <= 4);

  // At least a frame; what lies behind the block is watched by the sanitizer.
  std::vector<std::int16_t> block(channels * (1 + choice * choice / 8));
  while (const std::size_t samples = stream->Read(block)) {
    Require(samples <= block.size() && samples % channels == 0);
  }
  Require(stream->Read(block) == 0);
  return 0;
}
