#include "edit/play_section.h"

#include <algorithm>
#include <limits>

namespace marlinda {
namespace {

constexpr std::int64_t kBlocksPerSecond = 25;
constexpr std::int64_t kSampleBytes = sizeof(float);
constexpr std::uint32_t kAllChannels = 0xFFFFFFFF;
constexpr std::size_t kMaskBits = 32;

}  // namespace

std::int64_t PlayBlockBytes(std::int64_t samples_per_sec, std::int64_t channels) noexcept {
  return channels * samples_per_sec * kSampleBytes / kBlocksPerSecond;
}

// A block may end in a part of a frame, where the bytes are no multiple of its size; only its whole
// frames count.
PlayCursor::PlayCursor(const CSection& section, bool looped, std::int64_t block_bytes,
                       std::int64_t channels) noexcept
    : section_(section), looped_(looped), channels_(channels), position_(section.begin) {
  const std::int64_t least = std::max<std::int64_t>(channels, 1);
  const std::int64_t samples = std::max(block_bytes / kSampleBytes, least);
  block_samples_ = static_cast<std::uint64_t>(samples);
  block_frames_ = static_cast<std::uint64_t>(samples / least);
}

std::size_t PlayCursor::Samples() const noexcept {
  const std::uint64_t left = FramesLeft();
  const auto channels = static_cast<std::uint64_t>(channels_);
  // Compared in frames, where nothing overflows: fewer samples are left than a block has.
  const bool last = left <= block_frames_ && left * channels < block_samples_;
  // More than memory holds stays more than memory holds, also where std::size_t has 32 bits.
  return static_cast<std::size_t>(std::min<std::uint64_t>(last ? left * channels : block_samples_,
                                                          std::numeric_limits<std::size_t>::max()));
}

void PlayCursor::Advance() noexcept {
  const std::uint64_t step = std::min(FramesLeft(), block_frames_);
  position_ = WrappingAdd(position_, static_cast<std::int64_t>(step));
  if (looped_ && position_ >= section_.end) position_ = section_.begin;
}

std::uint64_t PlayCursor::FramesLeft() const noexcept {
  return static_cast<std::uint64_t>(section_.end) - static_cast<std::uint64_t>(position_);
}

void ApplyChannelMask(std::span<float> block, std::size_t channels, std::uint32_t mask) noexcept {
  if (channels == 0) return;
  const std::uint32_t needed =
      channels >= kMaskBits ? kAllChannels : (std::uint32_t{1} << channels) - 1;
  if ((mask & needed) == needed) return;
  for (std::size_t i = 0; i < block.size(); ++i) {
    const std::size_t channel = i % channels;
    if (channel >= kMaskBits || (mask >> channel & 1) == 0) block[i] = 0.0F;
  }
}

std::int64_t PositionInSection(const CSection& section, std::int64_t played) noexcept {
  const std::int64_t length = section.Length();
  // A section longer than the largest position is never played to its end.
  return WrappingAdd(section.begin, length > 0 ? played % length : played);
}

std::int64_t ScrubBlockBegin(std::int64_t position, std::int64_t block_frames) noexcept {
  return std::max<std::int64_t>(0, SaturatingSubtract(position, block_frames / 2));
}

}  // namespace marlinda
