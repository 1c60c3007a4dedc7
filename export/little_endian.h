// Bytes of a file that is little-endian whatever the machine is.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

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

// Collects the body of a chunk, or a part of one, field by field.
class LittleEndianBytes {
 public:
  // Appends the low `kBytes` bytes of `value`. Wider and signed values are cut, not clamped: a
  // field holds the low bits of what it was given.
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

  std::span<const std::byte> bytes() const noexcept { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
};

}  // namespace marlinda
