#include "import/vorbis_samples.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace marlinda {
namespace {

constexpr float kFullScale = 32768.0F;
constexpr float kLowestInt = -2147483648.0F;
constexpr std::size_t kAtOnce = 8;

// Converts eight samples. _mm_cvtps_epi32 and _mm_packs_epi32 clip values as VorbisCode does.
__m128i EightCodes(const float* samples) noexcept {
  const __m128 scale = _mm_set1_ps(kFullScale);
  const __m128i low = _mm_cvtps_epi32(_mm_mul_ps(_mm_loadu_ps(samples), scale));
  const __m128i high = _mm_cvtps_epi32(_mm_mul_ps(_mm_loadu_ps(samples + 4), scale));
  return _mm_packs_epi32(low, high);
}

void Store(std::int16_t* to, __m128i codes) noexcept {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), codes);
}

}  // namespace

std::int16_t VorbisCode(float sample) noexcept {
  constexpr std::int16_t kLowest = std::numeric_limits<std::int16_t>::min();
  constexpr std::int16_t kHighest = std::numeric_limits<std::int16_t>::max();
  const float scaled = sample * kFullScale;
  if (!(scaled >= kLowestInt && scaled < -kLowestInt)) return kLowest;
  return static_cast<std::int16_t>(std::clamp<long>(std::lrint(scaled), kLowest, kHighest));
}

void PackVorbisFrames(const float* const* planes, std::size_t channels, std::size_t frames,
                      std::int16_t* codes) noexcept {
  std::size_t frame = 0;
  for (; frame + kAtOnce <= frames; frame += kAtOnce) {
    std::int16_t* const block = codes + frame * channels;
    if (channels == 1) {
      Store(block, EightCodes(planes[0] + frame));
    } else if (channels == 2) {
      const __m128i left = EightCodes(planes[0] + frame);
      const __m128i right = EightCodes(planes[1] + frame);
      Store(block, _mm_unpacklo_epi16(left, right));
      Store(block + kAtOnce, _mm_unpackhi_epi16(left, right));
    } else {
      std::int16_t eight[kAtOnce];
      for (std::size_t channel = 0; channel < channels; ++channel) {
        Store(eight, EightCodes(planes[channel] + frame));
        for (std::size_t i = 0; i < kAtOnce; ++i) block[i * channels + channel] = eight[i];
      }
    }
  }
  for (; frame < frames; ++frame) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      codes[frame * channels + channel] = VorbisCode(planes[channel][frame]);
    }
  }
}

}  // namespace marlinda
