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

// A wave header has 16 bits for the size of a frame.
inline constexpr std::size_t kMaxFrameBytes = 65535;

// The body of a "fmt " chunk, or the format block of a DirectShow connection, as it is written.
// `tag` is that of the sub-format where an extensible format names one.
struct WaveFields {
  static constexpr unsigned kPcm = 1;
  static constexpr unsigned kMsAdpcm = 2;
  static constexpr unsigned kFloat = 3;
  static constexpr unsigned kALaw = 6;
  static constexpr unsigned kMuLaw = 7;
  static constexpr unsigned kImaAdpcm = 0x11;
  static constexpr unsigned kMpeg = 0x50;
  static constexpr unsigned kMpegLayer3 = 0x55;

  unsigned tag = 0;
  unsigned channels = 0;
  std::uint32_t samples_per_sec = 0;
  unsigned block_align = 0;
  unsigned bits = 0;
};

// All zeros when the body is too short.
WaveFields ReadWaveFields(std::span<const std::byte> body) noexcept;

// The format of uncompressed samples. Nothing when the body is too short, names a compressed
// format, contradicts itself, or has no channels or no rate.
//
// Samples that use fewer bits than their bytes hold are left-justified in them, so the width of the
// bytes is all that counts.
std::optional<PcmFormat> ParseWaveFormat(std::span<const std::byte> body) noexcept;

// False when a decoder of the system must not get to see the format: some crash or hang on numbers
// that their format does not allow.
bool IsPlausibleForDecoders(std::span<const std::byte> body) noexcept;

// Turns whole samples into floats, as many as `samples` takes; `bytes` holds as many. Floats pass
// unchanged, 64-bit ones rounded; integers go by the engine's own rules (ConvertPcmToFloat).
void DecodeSamples(const PcmFormat& format, std::span<const std::byte> bytes,
                   std::span<float> samples) noexcept;

}  // namespace marlinda
