// Reads the formats in wave headers and converts uncompressed samples to floats.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace marlinda {

// A parsed format has positive, consistent values.
struct PcmFormat {
  std::int32_t samples_per_sec = 0;
  std::int16_t channels = 0;
  // Bits of a stored sample: 8, 16, 24 or 32 for integers, 32 or 64 for floats.
  std::int16_t bits = 0;
  bool is_float = false;

  std::size_t FrameBytes() const noexcept {
    return static_cast<std::size_t>(channels) * static_cast<std::size_t>(bits / 8);
  }
  friend bool operator==(const PcmFormat&, const PcmFormat&) = default;
};

// A wave header stores the size of a frame in 16 bits.
inline constexpr std::size_t kMaxFrameBytes = 65535;

// The fields of a "fmt " chunk, or of the format block of a DirectShow connection. In an extensible
// format, `tag` is the tag of the sub-format if the sub-format has one.
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

// Returns all zeros if the body is too short.
WaveFields ReadWaveFields(std::span<const std::byte> body) noexcept;

// Returns the format of uncompressed samples. Returns nothing if the body is too short, names a
// compressed format, contradicts itself, or has no channels or no rate.
//
// A sample that leaves bits of its bytes unused is left-justified, so only its byte width counts.
std::optional<PcmFormat> ParseWaveFormat(std::span<const std::byte> body) noexcept;

// Returns false if the system's decoders must not get this format. Some decoders crash or hang on
// values that their format does not allow.
bool IsPlausibleForDecoders(std::span<const std::byte> body) noexcept;

// Fills `samples` from `bytes`, which must hold enough samples. Copies 32-bit floats, rounds 64-bit
// floats, and converts integers with ConvertPcmToFloat.
void DecodeSamples(const PcmFormat& format, std::span<const std::byte> bytes,
                   std::span<float> samples) noexcept;

}  // namespace marlinda
