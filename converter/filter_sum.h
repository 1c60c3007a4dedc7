// The order in which a polyphase filter adds its products. All instruction levels share it, so
// their results have the same bits.
//
// `Lanes` holds eight sums. Each source file defines Lanes in an unnamed namespace. The linker then
// cannot merge the template instances of different instruction levels.
#pragma once

#include "converter/filter_kernels.h"

namespace marlinda {

// Sums one channel, with eight parallel sums for each half of the taps. Both halves are added from
// the small outer taps to the large middle taps, so rounding loses little. Each product is rounded
// before it is added.
template <class Lanes>
void FilterOne(const float* taps, std::size_t count, const float* samples, float* frame) noexcept {
  Lanes left;
  Lanes right;
  for (std::size_t begin = 0, end = count - 8; begin < end; begin += 8, end -= 8) {
    left.Add(taps + begin, samples + begin);
    right.Add(taps + end, samples + end);
  }
  *frame = Sum(left, right);
}

// Sums two channels with the same taps.
template <class Lanes>
void FilterTwo(const float* taps, std::size_t count, const float* first, const float* second,
               float* frame) noexcept {
  Lanes first_left;
  Lanes first_right;
  Lanes second_left;
  Lanes second_right;
  for (std::size_t begin = 0, end = count - 8; begin < end; begin += 8, end -= 8) {
    first_left.Add(taps + begin, first + begin);
    first_right.Add(taps + end, first + end);
    second_left.Add(taps + begin, second + begin);
    second_right.Add(taps + end, second + end);
  }
  frame[0] = Sum(first_left, first_right);
  frame[1] = Sum(second_left, second_right);
}

template <class Lanes>
void FilterFrame(const float* taps, std::size_t count, const float* samples, std::size_t stride,
                 std::size_t channels, float* frame) noexcept {
  for (; channels >= 2; channels -= 2, samples += 2 * stride, frame += 2) {
    FilterTwo<Lanes>(taps, count, samples, samples + stride, frame);
  }
  if (channels > 0) FilterOne<Lanes>(taps, count, samples, frame);
}

}  // namespace marlinda
