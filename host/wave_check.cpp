#include "host/wave_check.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace marlinda {
namespace {

using Bytes = std::array<unsigned char, 24>;

// Reads `count` bytes at `position`. Returns false if the file ends earlier.
bool ReadAt(std::istream& file, std::int64_t position, std::size_t count, Bytes& bytes) {
  file.clear();
  file.seekg(position);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
  return static_cast<bool>(file);
}

bool IsTag(const Bytes& bytes, std::size_t offset, std::string_view tag) {
  return std::equal(tag.begin(), tag.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

std::int64_t Number(const Bytes& bytes, std::size_t offset, std::size_t count) {
  std::int64_t value = 0;
  for (std::size_t i = count; i-- > 0;) value = value << 8 | bytes[offset + i];
  return value;
}

}  // namespace

std::optional<WaveFileFacts> ExamineWaveFile(std::istream& file) {
  WaveFileFacts facts;
  file.seekg(0, std::ios::end);
  facts.bytes = static_cast<std::int64_t>(file.tellg());
  Bytes bytes{};
  if (!ReadAt(file, 0, 12, bytes) || !IsTag(bytes, 0, "RIFF") || !IsTag(bytes, 8, "WAVE")) {
    return std::nullopt;
  }
  if (Number(bytes, 4, 4) + 8 != facts.bytes) return std::nullopt;

  bool has_data = false;
  std::int64_t position = 12;
  while (position < facts.bytes) {
    if (!ReadAt(file, position, 8, bytes)) return std::nullopt;
    const std::int64_t size = Number(bytes, 4, 4);
    if (IsTag(bytes, 0, "data")) {
      has_data = true;
      facts.data_bytes = size;
    } else if (IsTag(bytes, 0, "fmt ")) {
      if (size < 16 || !ReadAt(file, position, 24, bytes)) return std::nullopt;
      facts.block_align = static_cast<int>(Number(bytes, 8 + 12, 2));
    }
    position += 8 + size;
  }
  if (position != facts.bytes || !has_data || facts.block_align == 0) return std::nullopt;
  return facts;
}

bool HoldsFrames(const WaveFileFacts& facts, std::int64_t frames) {
  return facts.data_bytes == (frames * facts.block_align + 3) / 4 * 4;
}

bool FitsWaveFile(std::int64_t frames, int channels, int bits) {
  constexpr std::int64_t kMaxDataBytes = 0xFFFFFFFF - (16 << 20);
  return frames <= kMaxDataBytes / std::max(1, channels * (bits / 8));
}

}  // namespace marlinda
