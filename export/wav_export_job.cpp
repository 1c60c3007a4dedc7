#include "export/wav_export_job.h"

#include <algorithm>

#include "core/com_call.h"
#include "core/sample_array.h"
#include "export/wav_sample_encoder.h"

namespace marlinda {
namespace {

WavFormat AskFormat(IAudioReader* reader, std::int16_t bits, bool is_float) {
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  // A reader that does not report its format has no channels, and its file no samples.
  reader->GetFormat(&samples_per_sec, &channels);
  return {samples_per_sec, channels, bits, is_float};
}

// A block of silence. An array is reused where it has the right size: a fresh one of half a
// megabyte costs more than filling it.
void MakeSilent(SampleArray& block, std::size_t samples) {
  if (block.samples().size() == samples) {
    std::ranges::fill(block.samples(), 0.0F);
  } else {
    block = SampleArray(samples);
  }
}

}  // namespace

void WavExportJob::SetReader(IAudioReader* reader) {
  Hold(reader_, reader);
  __int64 count = 0;
  reader->GetSampleCount(&count);
  total = count;
}

void WavExportJob::Run(std::int16_t bits, bool is_float) noexcept {
  const WavFormat format = AskFormat(reader_.Get(), bits, is_float);
  // Only memory can run out on the way: that ends the samples, and the rest of the file follows.
  ComCall([&] { WriteSamples(format); });
  LittleEndianBytes trailer;
  ComCall([&] {
    const auto annotations = WithAnnotations([](const WavAnnotations& all) { return all; });
    trailer = WavTrailer(annotations, format.BlockAlign());
  });
  file_.Finish(trailer.bytes());
  reader_.Reset();
}

void WavExportJob::WriteSamples(const WavFormat& format) {
  file_.Begin(format, ManyChannels::kExtensible);

  // Without channels there is nothing to read, whatever the length.
  if (format.channels <= 0) position = std::max(position.load(), total.load());

  WavSampleEncoder encoder(format);
  SampleArray block;
  while (!cancelled && position < total) {
    // The difference is taken in 64 bits: in 32, a source of 2^31 frames or more would give
    // negative or empty blocks and no end.
    const std::int64_t frames = std::min<std::int64_t>(total - position, kFramesPerBlock);
    MakeSilent(block, static_cast<std::size_t>(frames) * format.channels);
    // Whatever a failing reader left in the block is written, so that the rest keeps its place.
    reader_->ReadAudio(position, block.get());
    file_.Write(encoder.Encode(block.samples(), static_cast<std::size_t>(frames)));
    position += frames;
  }
}

}  // namespace marlinda
