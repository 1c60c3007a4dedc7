#include "export/wav_export_job.h"

#include <algorithm>
#include <memory>

#include "core/com_call.h"
#include "core/sample_array.h"
#include "export/file_sink.h"
#include "export/wav_sample_writer.h"

namespace marlinda {
namespace {

WavFormat AskFormat(IAudioReader* reader, std::int16_t bits, bool is_float) {
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  // A reader that cannot tell its format has no channels, and its file no samples.
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
  __int64 total = 0;
  reader->GetSampleCount(&total);
  total_ = total;
}

void WavExportJob::SetTarget(FileHandle file) {
  file_.Attach(file ? std::make_unique<FileSink>(std::move(file)) : nullptr);
}

void WavExportJob::Run(std::int16_t bits, bool is_float) noexcept {
  const WavFormat format = AskFormat(reader_.Get(), bits, is_float);
  // Only memory can run out on the way: that ends the samples, and the rest of the file follows.
  ComCall([&] {
    WriteSamples(format);
    return S_OK;
  });
  ComCall([&] {
    file_.EndChunk();  // "data"
    const auto annotations = WithAnnotations([](const WavAnnotations& all) { return all; });
    WriteAnnotations(file_, annotations, format.BlockAlign());
    return S_OK;
  });
  file_.Close();
  reader_.Reset();
}

void WavExportJob::WriteSamples(const WavFormat& format) {
  const auto body = format.channels > 2 ? ExtensibleFormatBody(format) : PlainFormatBody(format);
  BeginWav(file_, body.bytes());

  // Without channels there is nothing to read, whatever the length.
  if (format.channels <= 0) position_ = std::max(Position(), Total());

  WavSampleWriter writer(format);
  SampleArray block;
  while (!cancelled_ && Position() < Total()) {
    // The difference is taken in 64 bits: in 32, a source of 2^31 frames or more would give
    // negative or empty blocks and no end.
    const std::int64_t frames = std::min(Total() - Position(), kFramesPerBlock);
    MakeSilent(block, static_cast<std::size_t>(frames) * format.channels);
    // Whatever a failing reader left in the block is written, so that the rest keeps its place.
    reader_->ReadAudio(Position(), block.get());
    writer.Write(file_, block.samples(), static_cast<std::size_t>(frames));
    position_ += frames;
  }
}

}  // namespace marlinda
