// Feeds arbitrary bytes to the parsers of sound files, and reads or decodes the samples that the
// parsers find.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "import/mpeg_stream.h"
#include "import/sound_examiner.h"
#include "tests/import/memory_source.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  marlinda::testing::MemorySource file(std::vector<unsigned char>(data, data + size));
  const marlinda::SoundFileInfo info = marlinda::ExamineSound(file);
  if (info.mpeg) {
    const auto stream = marlinda::MpegStream::Open(file, *info.mpeg);
    if (stream == nullptr) std::abort();
    stream->CountFrames();
    std::vector<std::int16_t> codes(2304);
    while (stream->Read(codes) != 0) continue;
  }
  if (!info.pcm) return 0;
  const auto channels = static_cast<std::size_t>(info.pcm->format.channels);
  std::vector<float> block(64 * channels);
  std::vector<std::byte> scratch;
  std::int64_t frames = 0;
  while (frames < info.pcm->frames) {
    const std::size_t read = marlinda::ReadSamples(file, *info.pcm, frames, block, scratch);
    // The file must hold all frames that its parser reports.
    if (read < channels || read % channels != 0) std::abort();
    frames += static_cast<std::int64_t>(read / channels);
  }
  return 0;
}
