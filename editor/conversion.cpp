#include "editor/conversion.h"

#include <algorithm>
#include <vector>

#include "core/com_call.h"
#include "host/converted_audio.h"

namespace marlinda::editor {

Conversion::Conversion(const ImportedAudio& from, const AudioFormat& to)
    : from_(from),
      format_(to),
      frames_(ConvertSampleCount(from.frames, from.format.rate, to.rate)),
      converter_(NewConverter(from.format, to)),
      pool_(NewPool()) {
  thread_ = std::thread([this] {
    result_ = ComCall([this] { return Pump(); });
    running_ = false;
  });
}

Conversion::~Conversion() {
  cancelled_ = true;
  if (thread_.joinable()) thread_.join();
}

float Conversion::progress() const {
  return static_cast<float>(written_) / static_cast<float>(std::max<std::int64_t>(1, frames_));
}

HRESULT Conversion::Pump() {
  constexpr std::int64_t kBlockFrames = 65536;
  const auto writer = Query<IAudioWriter>(pool_.Get());
  Check(writer->SetFormat(format_.rate, format_.channels));
  Check(writer->OpenDevice());
  const OpenReader open(from_.reader.Get());
  std::vector<float> output;
  for (std::int64_t at = 0; written_ < frames_ && !cancelled_; at += kBlockFrames) {
    // Silence after the end flushes the last frames from the converter's filter.
    const std::int64_t frames = std::clamp<std::int64_t>(from_.frames - at, 0, kBlockFrames);
    const FloatArray input(
        static_cast<std::size_t>((frames > 0 ? frames : kBlockFrames) * from_.format.channels));
    if (frames > 0) Check(from_.reader->ReadAudio(at, input.get()));
    Check(converter_->Convert(input.get()));
    SAFEARRAY* converted = nullptr;
    Check(converter_->GetOutput(&converted));
    if (converted == nullptr) continue;
    const FloatArray owned(converted);
    output.insert(output.end(), owned.samples().begin(), owned.samples().end());

    // Writes multiples of 256 frames. Otherwise the pool's peaks would not match the frames.
    const std::int64_t ready = static_cast<std::int64_t>(output.size()) / format_.channels;
    const std::int64_t rest = frames_ - written_;
    const std::int64_t count = ready >= rest ? rest : ready / 256 * 256;
    if (count == 0) continue;
    const FloatArray block(static_cast<std::size_t>(count * format_.channels));
    const auto end = output.begin() + count * format_.channels;
    std::copy(output.begin(), end, block.samples().begin());
    output.erase(output.begin(), end);
    Check(writer->WriteAudio(block.get()));
    written_ += count;
  }
  return writer->CloseDevice();
}

ImportedAudio Conversion::Finish() {
  thread_.join();
  // If the pool's files cannot be written, the pool returns the system's error.
  if (FAILED(result_)) throw Explain(result_, kTemporaryFolder, ExitStatus::kOutput);
  return LastTake(pool_.Get());
}

}  // namespace marlinda::editor
