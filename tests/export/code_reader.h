// A source whose samples the engine converts to known PCM codes, with a hook before each read.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <span>

#include "tests/export/riff_builder.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {

// Returns the code of the sample with this index (frame * channels + channel). The codes cover the
// range of the bit width, except the lowest code, which samples from -1.0 to 1.0 cannot reach at 8
// and 16 bits.
inline std::int32_t CodeAt(std::uint64_t index, int bits) {
  const auto spread = static_cast<std::uint32_t>((index + 1) * 2654435761U);
  // A float holds 24 bits, so 32-bit codes have the low byte 0.
  const std::int32_t code = static_cast<std::int32_t>(spread) >> (bits == 32 ? 8 : 32 - bits);
  const std::int32_t lowest = -(1 << (std::min(bits, 24) - 1));
  return std::max(code, lowest + 1) * (bits == 32 ? 256 : 1);
}

// Returns the bytes of samples from `first` on, as the file must contain them.
inline riff::Bytes CodesAsPcm(std::uint64_t first, std::uint64_t count, int bits) {
  riff::Bytes result;
  for (std::uint64_t index = first; index < first + count; ++index) {
    // 8-bit samples are unsigned, centred on 128.
    const auto code = static_cast<std::uint32_t>(CodeAt(index, bits) + (bits == 8 ? 128 : 0));
    for (int shift = 0; shift < bits; shift += 8) {
      result.push_back(static_cast<unsigned char>(code >> shift));
    }
  }
  return result;
}

class CodeReader final : public RampSource {
 public:
  struct Setup {
    SHORT channels = 1;
    __int64 frames = 0;
    int bits = 16;
    // Called before each read with the caller's block. If read_result is a failure, the read leaves
    // the block as this function has filled it.
    std::function<void(__int64 position, std::span<float> samples)> before_read = {};
  };

  explicit CodeReader(const Setup& setup)
      : RampSource('A', setup.channels, nullptr, 44100), setup_(setup) {
    frames = setup.frames;
  }
  static ComPtr<CodeReader> Create(const Setup& setup) { return MakeObject<CodeReader>(setup); }

  STDMETHODIMP ReadAudio(__int64 position, SAFEARRAY* array) override {
    auto* const samples = static_cast<float*>(array->pvData);
    if (setup_.before_read) setup_.before_read(position, {samples, array->rgsabound[0].cElements});
    return RampSource::ReadAudio(position, array);
  }

 private:
  // Returns the float that the engine converts to the code.
  float At(__int64 frame, int channel) const override {
    const int bits = setup_.bits;
    const float scale = bits == 8 ? 127 : bits == 16 ? 32767 : bits == 24 ? 0x1p23F : 0x1p31F;
    const auto index = static_cast<std::uint64_t>(frame * channels() + channel);
    return static_cast<float>(CodeAt(index, bits)) / scale;
  }

  const Setup setup_;
};

}  // namespace marlinda::testing
