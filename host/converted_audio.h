// Converts imported audio to another sample rate or number of channels.
#pragma once

#include <converter.h>

#include <algorithm>
#include <string>

#include "core/constants.h"
#include "core/sample_count.h"
#include "host/engine.h"

namespace marlinda {

// Throws a HostError if Converter.dll is missing or cannot convert between the formats.
inline ComPtr<IFormatConverter> NewConverter(const AudioFormat& from, const AudioFormat& to) {
  ComPtr<IFormatConverter> converter;
  if (FAILED(CreateInstance(CLSID_CFormatConverter, converter))) {
    throw HostError(ExitStatus::kRegistration, "Converter.dll", "the format converter is missing",
                    "Keep Converter.dll beside marlinda.exe, or register it with \"regsvr32 "
                    "Converter.dll\".");
  }
  if (FAILED(converter->SetUp(from.rate, to.rate, from.channels, to.channels, kConverterMode))) {
    throw HostError(ExitStatus::kUsage, "Converter.dll",
                    Describe(from) + " cannot be converted to " + Describe(to));
  }
  return converter;
}

// Writes at most `wanted` frames of the converter's output and returns the number written.
inline __int64 WriteOutput(IFormatConverter* converter, IAudioWriter* writer, SHORT channels,
                           __int64 wanted) {
  SAFEARRAY* output = nullptr;
  Check(converter->GetOutput(&output));
  if (output == nullptr) return 0;
  const FloatArray owned(output);
  const auto ready = static_cast<__int64>(owned.samples().size()) / channels;
  const __int64 frames = std::min(ready, wanted);
  if (frames == 0) return 0;
  const FloatArray head(static_cast<std::size_t>(frames * channels));
  std::ranges::copy(owned.samples().first(head.samples().size()), head.samples().begin());
  Check(writer->WriteAudio(head.get()));
  return frames;
}

// Returns the input's format, with `rate` and `channels` replaced if they are given.
inline AudioFormat TargetFormat(const AudioFormat& from, std::optional<int> rate,
                                std::optional<int> channels) {
  return {static_cast<LONG>(rate.value_or(from.rate)),
          static_cast<SHORT>(channels.value_or(from.channels))};
}

// Converts positions from one sample rate to another.
inline Annotations AtRate(Annotations annotations, LONG from, LONG to) {
  for (Label& label : annotations.labels) {
    label.position = ConvertSampleCount(label.position, from, to);
  }
  for (SectionMarker& marker : annotations.markers) {
    marker.section.begin = ConvertSampleCount(marker.section.begin, from, to);
    marker.section.end = ConvertSampleCount(marker.section.end, from, to);
  }
  return annotations;
}

// Converts the audio into a new pool. Audio that has the format `to` is returned unchanged.
inline ImportedAudio ConvertAudio(const ImportedAudio& audio, const AudioFormat& to,
                                  const Console& console) {
  const AudioFormat& from = audio.format;
  if (from == to) return audio;
  constexpr __int64 kBlockFrames = 65536;
  const ComPtr<IFormatConverter> converter = NewConverter(from, to);
  const ComPtr<IAudioPool> pool = NewPool();
  const auto writer = Query<IAudioWriter>(pool.Get());
  Check(writer->SetFormat(to.rate, to.channels));
  Check(writer->OpenDevice());
  const OpenReader open(audio.reader.Get());
  const __int64 total = ConvertSampleCount(audio.frames, from.rate, to.rate);
  __int64 written = 0;
  for (__int64 at = 0; written < total; at += kBlockFrames) {
    if (console.Interrupted()) throw NothingWritten("");
    // Silence after the end flushes the last frames from the converter's filter.
    const __int64 frames = std::clamp<__int64>(audio.frames - at, 0, kBlockFrames);
    const FloatArray block(
        static_cast<std::size_t>((frames > 0 ? frames : kBlockFrames) * from.channels));
    if (frames > 0) Check(audio.reader->ReadAudio(at, block.get()));
    Check(converter->Convert(block.get()));
    written += WriteOutput(converter.Get(), writer.Get(), to.channels, total - written);
  }
  Check(writer->CloseDevice());
  return LastTake(pool.Get());
}

}  // namespace marlinda
