// Uncompressed audio as wave headers describe it, and its samples as the engine's floats.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace marlinda {

// All values are positive and fit each other.
struct PcmFormat {
  std::int32_t samples_per_sec = 0;
  std::int16_t channels = 0;
  std::int16_t bits =
      0;  // of the bytes that a sample takes: 8, 16, 24, 32, and for floats 32 or 64
  bool is_float = false;

  std::size_t FrameBytes() const noexcept {
    return static_cast<std::size_t>(channels) * static_cast<std::size_t>(bits / 8);
  }
  friend bool operator==(const PcmFormat&, const PcmFormat&) = default;
};

// Reads the body of a "fmt " chunk, or the format block of a DirectShow connection. Nothing when it
// is too short, compressed, contradicts itself, or has no channels or no rate.
//
// Samples that use fewer bits than their bytes hold are left-justified in them, so the width of the
// bytes is all that counts.
std::optional<PcmFormat> ParseWaveFormat(std::span<const std::byte> body) noexcept;

// Turns whole samples into floats, as many as `samples` takes; `bytes` holds as many. Floats pass
// unchanged, 64-bit ones rounded; integers go by the engine's own rules (ConvertPcmToFloat).
void DecodeSamples(const PcmFormat& format, std::span<const std::byte> bytes,
                   std::span<float> samples) noexcept;

}  // namespace marlinda
