// The arithmetic of playing a section: which block comes next, looping, the channel mask, and where
// in the section the device is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/section.h"

namespace marlinda {

// Bytes of 40 milliseconds of 32-bit float frames; 0 or less for formats that are none.
std::int64_t PlayBlockBytes(std::int64_t samples_per_sec, std::int64_t channels) noexcept;

// Walks through a section block by block. A block is never shorter than one frame, whatever the
// rate, so that a walk ends; without channels there is nothing to walk through.
class PlayCursor {
 public:
  PlayCursor(const CSection& section, bool looped, std::int64_t block_bytes,
             std::int64_t channels) noexcept;

  // True in a looped section only when there is nothing in it.
  bool AtEnd() const noexcept { return channels_ <= 0 || position_ >= section_.end; }

  // The frame at which the next block begins, and its samples: those that fit the block's bytes, or
  // as many as are left of the section. Only while not at the end.
  std::int64_t Position() const noexcept { return position_; }
  std::size_t Samples() const noexcept;

  // Steps over the block; in a looped section from its end to its begin.
  void Advance() noexcept;

 private:
  // Counted without sign: a section may be longer than the largest position.
  std::uint64_t FramesLeft() const noexcept;

  CSection section_;
  bool looped_;
  std::int64_t channels_;
  std::uint64_t block_samples_;
  std::uint64_t block_frames_;
  std::int64_t position_;
};

// Silences the channels whose bits are clear; bit i stands for channel i. Channels beyond the
// mask's 32 bits are heard only when all of these are set.
void ApplyChannelMask(std::span<float> block, std::size_t channels, std::uint32_t mask) noexcept;

// The frame that is heard after `played` frames of a section that is repeated.
// After the last frame that is the first one, also when the section is not looped.
std::int64_t PositionInSection(const CSection& section, std::int64_t played) noexcept;

// Where a scrub block begins that is centred on `position`: never before the document.
std::int64_t ScrubBlockBegin(std::int64_t position, std::int64_t block_frames) noexcept;

}  // namespace marlinda
