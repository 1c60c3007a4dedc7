// The arithmetic of playing a section: the next block, looping, the channel mask, and the device's
// position in the section.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "core/section.h"

namespace marlinda {

inline constexpr std::int64_t kBlocksPerSecond = 25;
inline constexpr std::int64_t kSampleBytes = sizeof(float);
inline constexpr std::uint32_t kAllChannels = 0xFFFFFFFF;
inline constexpr std::size_t kMaskBits = 32;

// The byte count of 40 milliseconds of 32-bit float frames, or 0 or less for an invalid format.
inline std::int64_t PlayBlockBytes(std::int64_t samples_per_sec, std::int64_t channels) noexcept {
  return channels * samples_per_sec * kSampleBytes / kBlocksPerSecond;
}

// Walks through a section block by block. Each block has at least one frame, even at very low
// rates, so that the walk ends. Without channels the walk is empty.
class PlayCursor {
 public:
  // If `block_bytes` is not a multiple of the frame size, each block ends within a frame. The
  // position then advances by the block's whole frames only.
  PlayCursor(const CSection& section, bool looped, std::int64_t block_bytes,
             std::int64_t channels) noexcept
      : section_(section), looped_(looped), channels_(channels), position_(section.begin) {
    const std::int64_t least = std::max<std::int64_t>(channels, 1);
    const std::int64_t samples = std::max(block_bytes / kSampleBytes, least);
    block_samples_ = static_cast<std::uint64_t>(samples);
    block_frames_ = static_cast<std::uint64_t>(samples / least);
  }

  // A looped section has an end only if it is empty or there are no channels.
  bool AtEnd() const noexcept { return channels_ <= 0 || position_ >= section_.end; }

  // The first frame and the number of samples of the next block. The last block of the section may
  // be shorter than the others. Call both methods only while AtEnd() is false.
  std::int64_t Position() const noexcept { return position_; }
  std::size_t Samples() const noexcept {
    const std::uint64_t left = FramesLeft();
    const auto channels = static_cast<std::uint64_t>(channels_);
    // Compares frames first, so that the product with the channels cannot overflow.
    const bool last = left <= block_frames_ && left * channels < block_samples_;
    // Saturates, so that a 32-bit std::size_t does not wrap to a smaller block.
    return static_cast<std::size_t>(std::min<std::uint64_t>(
        last ? left * channels : block_samples_, std::numeric_limits<std::size_t>::max()));
  }

  // Moves to the next block. At the end of a looped section, moves to the start of the section.
  void Advance() noexcept {
    const std::uint64_t step = std::min(FramesLeft(), block_frames_);
    position_ = WrappingAdd(position_, static_cast<std::int64_t>(step));
    if (looped_ && position_ >= section_.end) position_ = section_.begin;
  }

 private:
  // Unsigned, because a section that begins below 0 may be longer than the largest position.
  std::uint64_t FramesLeft() const noexcept {
    return static_cast<std::uint64_t>(section_.end) - static_cast<std::uint64_t>(position_);
  }

  CSection section_;
  bool looped_;
  std::int64_t channels_;
  std::uint64_t block_samples_;
  std::uint64_t block_frames_;
  std::int64_t position_;
};

// Silences channel i if bit i is clear, and channels from 32 on if any of the 32 bits is clear.
inline void ApplyChannelMask(std::span<float> block, std::size_t channels,
                             std::uint32_t mask) noexcept {
  if (channels == 0) return;
  const std::uint32_t needed =
      channels >= kMaskBits ? kAllChannels : (std::uint32_t{1} << channels) - 1;
  if ((mask & needed) == needed) return;
  for (std::size_t i = 0; i < block.size(); ++i) {
    const std::size_t channel = i % channels;
    if (channel >= kMaskBits || (mask >> channel & 1) == 0) block[i] = 0.0F;
  }
}

// Returns the frame that is heard after `played` frames. After the last frame of the section, the
// first frame follows, even if the section is not looped.
inline std::int64_t PositionInSection(const CSection& section, std::int64_t played) noexcept {
  const std::int64_t length = section.Length();
  // If a section is longer than the largest position, its Length() wraps to a negative number. Such
  // a section is never played to its end.
  return WrappingAdd(section.begin, length > 0 ? played % length : played);
}

// The start of a scrub block centred on `position`, at least 0.
inline std::int64_t ScrubBlockBegin(std::int64_t position, std::int64_t block_frames) noexcept {
  return std::max<std::int64_t>(0, SaturatingSubtract(position, block_frames / 2));
}

}  // namespace marlinda
