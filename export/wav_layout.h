// The bytes of WAV files except the samples. docs/files.md lists the chunks.
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "core/records.h"

namespace marlinda {

// The four characters that name a chunk or a list.
class FourCC {
 public:
  consteval explicit FourCC(const char (&text)[5]) noexcept
      : text_{text[0], text[1], text[2], text[3]} {}
  std::string_view text() const noexcept { return {text_, sizeof(text_)}; }

 private:
  char text_[4];
};

// Collects the bytes of chunks field by field.
class LittleEndianBytes {
 public:
  // Appends the low `kBytes` bytes of `value`. Values out of range are truncated, not clamped.
  template <int kBytes, std::integral Integer>
  LittleEndianBytes& Low(Integer value) {
    for (int i = 0; i < kBytes; ++i) {
      bytes_.push_back(static_cast<std::byte>(static_cast<std::uint64_t>(value) >> (8 * i)));
    }
    return *this;
  }
  template <std::integral Integer>
  LittleEndianBytes& U16(Integer value) {
    return Low<2>(value);
  }
  template <std::integral Integer>
  LittleEndianBytes& U32(Integer value) {
    return Low<4>(value);
  }
  LittleEndianBytes& F32(float value) { return U32(std::bit_cast<std::uint32_t>(value)); }

  LittleEndianBytes& Text(std::string_view text) {
    const auto bytes = std::as_bytes(std::span(text));
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  LittleEndianBytes& TextWithNul(std::string_view text) { return Text(text).Low<1>(0); }
  LittleEndianBytes& Id(FourCC id) { return Text(id.text()); }

  // Appends a chunk with the body that `write_body` appends. The size includes the padding.
  template <class Body>
  LittleEndianBytes& Chunk(FourCC id, Body&& write_body) {
    Id(id).U32(0);
    const std::size_t start = bytes_.size();
    std::forward<Body>(write_body)();
    while ((bytes_.size() - start) % 4 != 0) Low<1>(0);
    const LittleEndianBytes size = LittleEndianBytes().U32(bytes_.size() - start);
    std::ranges::copy(size.bytes_, bytes_.begin() + static_cast<std::ptrdiff_t>(start) - 4);
    return *this;
  }

  std::span<const std::byte> bytes() const noexcept { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
};

// The values are not validated. A header field holds the low bits of a value that does not fit.
struct WavFormat {
  std::int32_t samples_per_sec = 0;
  std::int16_t channels = 0;
  std::int16_t bits = 16;
  bool is_float = false;

  // Bytes of one frame in the file: bits / 8 bytes for each sample, rounded toward zero.
  std::int32_t BlockAlign() const noexcept { return channels * (bits / 8); }
};

// Labels, markers, metadata and loop data of the file. Names contain no NUL.
struct WavAnnotations {
  std::vector<Label> labels = {};
  std::vector<SectionMarker> markers = {};
  Tags tags = {};
  std::optional<AcidData> acid = {};
};

// Whether files with more than two channels get the 40-byte extensible format.
enum class ManyChannels { kExtensible, kPlain };

// Everything before the samples: "RIFF", "fmt " and the header of "data". The sizes of "RIFF" and
// "data" are 0 until the file is finished.
LittleEndianBytes WavHeader(const WavFormat& format, ManyChannels many_channels);

// Everything after the samples: "cue " and "adtl" if there are labels or markers, always "INFO",
// and "acid" if it was set.
LittleEndianBytes WavTrailer(const WavAnnotations& annotations, std::int32_t block_align);

}  // namespace marlinda
