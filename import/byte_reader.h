// Reads numbers from the bytes of a file, independent of the machine's byte order.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace marlinda {

// A reader stops after this many chunks, so that a crafted file cannot keep the reader busy.
inline constexpr int kMaxChunks = 65536;
// A size field holds this value if the size is stored elsewhere or unknown, as in piped files.
inline constexpr std::uint32_t kUnknownSize = 0xFFFFFFFF;

// Functions with an `offset` do not check that the bytes there exist. The caller must check.
template <int kBytes>
constexpr std::uint64_t ReadLittle(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = kBytes; i > 0; --i) {
    value = value << 8 | std::to_integer<std::uint64_t>(bytes[offset + i - 1]);
  }
  return value;
}

template <int kBytes>
constexpr std::uint64_t ReadBig(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < kBytes; ++i) {
    value = value << 8 | std::to_integer<std::uint64_t>(bytes[offset + i]);
  }
  return value;
}

constexpr std::uint16_t LittleU16(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  return static_cast<std::uint16_t>(ReadLittle<2>(bytes, offset));
}
constexpr std::uint32_t LittleU32(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  return static_cast<std::uint32_t>(ReadLittle<4>(bytes, offset));
}
constexpr std::uint32_t BigU32(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  return static_cast<std::uint32_t>(ReadBig<4>(bytes, offset));
}

inline float LittleF32(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  return std::bit_cast<float>(LittleU32(bytes, offset));
}
inline double LittleF64(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  return std::bit_cast<double>(ReadLittle<8>(bytes, offset));
}

inline std::string_view AsText(std::span<const std::byte> bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The four characters that name a chunk.
inline std::string_view IdAt(std::span<const std::byte> bytes, std::size_t offset) noexcept {
  return AsText(bytes.subspan(offset, 4));
}

}  // namespace marlinda
