// Converts imported audio to another sample rate or number of channels.
#pragma once

#include <converter.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

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

// Converts the audio into a pool. Calls `progress` before each block; an exception of `progress`
// ends the conversion.
inline void ConvertInto(IAudioPool* pool, IFormatConverter* converter, const ImportedAudio& audio,
                        const AudioFormat& to,
                        const std::function<void(__int64 written)>& progress) {
  constexpr __int64 kBlockFrames = 65536;
  const AudioFormat& from = audio.format;
  const auto writer = Query<IAudioWriter>(pool);
  Check(writer->SetFormat(to.rate, to.channels));
  Check(writer->OpenDevice());
  const OpenReader open(audio.reader.Get());
  const __int64 total = ConvertSampleCount(audio.frames, from.rate, to.rate);
  __int64 written = 0;
  std::vector<float> output;
  for (__int64 at = 0; written < total; at += kBlockFrames) {
    progress(written);
    // Silence after the end flushes the last frames from the converter's filter.
    const __int64 frames = std::clamp<__int64>(audio.frames - at, 0, kBlockFrames);
    const FloatArray input(
        static_cast<std::size_t>((frames > 0 ? frames : kBlockFrames) * from.channels));
    if (frames > 0) Check(audio.reader->ReadAudio(at, input.get()));
    Check(converter->Convert(input.get()));
    SAFEARRAY* converted = nullptr;
    Check(converter->GetOutput(&converted));
    if (converted == nullptr) continue;
    const FloatArray owned(converted);
    output.insert(output.end(), owned.samples().begin(), owned.samples().end());

    // The pool's peaks are right only if every block but the last is a multiple of 256 frames.
    const __int64 ready = static_cast<__int64>(output.size()) / to.channels;
    const __int64 rest = total - written;
    const __int64 count = ready >= rest ? rest : ready / kFramesPerPeak * kFramesPerPeak;
    if (count == 0) continue;
    const FloatArray block(static_cast<std::size_t>(count * to.channels));
    const auto end = output.begin() + count * to.channels;
    std::copy(output.begin(), end, block.samples().begin());
    output.erase(output.begin(), end);
    Check(writer->WriteAudio(block.get()));
    written += count;
  }
  Check(writer->CloseDevice());
}

// Converts the audio into a new pool. Audio that has the format `to` is returned unchanged.
inline ImportedAudio ConvertAudio(const ImportedAudio& audio, const AudioFormat& to,
                                  const Console& console) {
  if (audio.format == to) return audio;
  const ComPtr<IFormatConverter> converter = NewConverter(audio.format, to);
  const ComPtr<IAudioPool> pool = NewPool();
  ConvertInto(pool.Get(), converter.Get(), audio, to, [&console](__int64) {
    if (console.Interrupted()) throw NothingWritten("");
  });
  return LastTake(pool.Get());
}

}  // namespace marlinda
