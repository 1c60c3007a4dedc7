#include "import/adpcm.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "import/byte_reader.h"

namespace marlinda {
namespace {

using Bytes = std::span<const std::byte>;

// Bytes per channel at the start of a block.
constexpr std::size_t kImaHeaderBytes = 4;
constexpr std::size_t kMsHeaderBytes = 7;

constexpr int kImaSteps[] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,   21,    23,
    25,    28,    31,    34,    37,    41,    45,    50,    55,    60,    66,   73,    80,
    88,    97,    107,   118,   130,   143,   157,   173,   190,   209,   230,  253,   279,
    307,   337,   371,   408,   449,   494,   544,   598,   658,   724,   796,  876,   963,
    1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,  2272,  2499,  2749, 3024,  3327,
    3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,  9493, 10442, 11487,
    12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};
constexpr int kLastImaStep = static_cast<int>(std::size(kImaSteps)) - 1;
constexpr int kImaStepChanges[] = {-1, -1, -1, -1, 2, 4, 6, 8};

constexpr int kMsWeights[][2] = {{256, 0}, {512, -256}, {0, 0},     {192, 64},
                                 {240, 0}, {460, -208}, {392, -232}};
constexpr int kMsDeltaFactors[] = {230, 230, 230, 230, 307, 409, 512, 614,
                                   768, 614, 512, 409, 307, 230, 230, 230};
constexpr int kMinMsDelta = 16;
constexpr int kMaxMsDelta = std::numeric_limits<int>::max() / 768;

std::int16_t Clamp(int value) noexcept {
  return static_cast<std::int16_t>(std::clamp<int>(value, std::numeric_limits<std::int16_t>::min(),
                                                   std::numeric_limits<std::int16_t>::max()));
}

int Signed16(Bytes bytes, std::size_t offset) noexcept {
  return static_cast<std::int16_t>(LittleU16(bytes, offset));
}

int Nibble(std::byte byte, bool high) noexcept {
  return std::to_integer<int>(high ? byte >> 4 : byte & std::byte{15});
}

// The channels alternate every four bytes, which hold eight 4-bit codes.
void DecodeIma(std::size_t channels, Bytes block, std::span<std::int16_t> samples) noexcept {
  const std::size_t frames = samples.size() / channels;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    const std::size_t header = kImaHeaderBytes * channel;
    int value = Signed16(block, header);
    int index = std::min(std::to_integer<int>(block[header + 2]), kLastImaStep);
    samples[channel] = static_cast<std::int16_t>(value);
    for (std::size_t frame = 1; frame < frames; ++frame) {
      const std::size_t nibble = frame - 1;
      const std::size_t group = kImaHeaderBytes * (channels + nibble / 8 * channels + channel);
      const int code = Nibble(block[group + nibble % 8 / 2], nibble % 2 != 0);
      const int step = kImaSteps[index];
      int change = step >> 3;
      if ((code & 4) != 0) change += step;
      if ((code & 2) != 0) change += step >> 1;
      if ((code & 1) != 0) change += step >> 2;
      value = Clamp((code & 8) != 0 ? value - change : value + change);
      index = std::clamp(index + kImaStepChanges[code & 7], 0, kLastImaStep);
      samples[frame * channels + channel] = static_cast<std::int16_t>(value);
    }
  }
}

// The channels alternate after each code. A block with an unknown predictor becomes silence.
void DecodeMs(std::size_t channels, Bytes block, std::span<std::int16_t> samples) noexcept {
  const std::size_t frames = samples.size() / channels;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    const auto predictor = std::to_integer<std::size_t>(block[channel]);
    if (predictor >= std::size(kMsWeights)) {
      std::ranges::fill(samples, std::int16_t{0});
      return;
    }
    const auto& weights = kMsWeights[predictor];
    const auto field = [&](std::size_t number) {
      return Signed16(block, channels * (2 * number - 1) + 2 * channel);
    };
    int delta = field(1);
    int latest = field(2);
    int before = field(3);
    samples[channel] = static_cast<std::int16_t>(before);
    if (frames > 1) samples[channels + channel] = static_cast<std::int16_t>(latest);
    for (std::size_t frame = 2; frame < frames; ++frame) {
      const std::size_t nibble = (frame - 2) * channels + channel;
      const int code = Nibble(block[kMsHeaderBytes * channels + nibble / 2], nibble % 2 == 0);
      const int expected = (latest * weights[0] + before * weights[1]) / 256;
      before = latest;
      latest = Clamp(expected + (code < 8 ? code : code - 16) * delta);
      delta = std::clamp(kMsDeltaFactors[code] * delta >> 8, kMinMsDelta, kMaxMsDelta);
      samples[frame * channels + channel] = static_cast<std::int16_t>(latest);
    }
  }
}

}  // namespace

std::size_t AdpcmFrames(Coding coding, std::size_t channels, std::size_t bytes) noexcept {
  const bool is_ima = coding == Coding::kImaAdpcm;
  const std::size_t header = channels * (is_ima ? kImaHeaderBytes : kMsHeaderBytes);
  if (bytes < header) return 0;
  const std::size_t codes = bytes - header;
  return is_ima ? 1 + codes / (kImaHeaderBytes * channels) * 8 : 2 + codes * 2 / channels;
}

void DecodeAdpcm(Coding coding, std::size_t channels, std::span<const std::byte> block,
                 std::span<std::int16_t> samples) noexcept {
  if (coding == Coding::kImaAdpcm) {
    DecodeIma(channels, block, samples);
  } else {
    DecodeMs(channels, block, samples);
  }
}

}  // namespace marlinda
