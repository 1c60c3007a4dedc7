// The vector forms of the sample converters held against the scalar form, over patterns of 32 bits:
// read as floats for one direction and as codes for the other. The tests take a part of the
// patterns, the soak program all of them.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "core/samples/cpu_level.h"
#include "core/samples/sample_kernels.h"

namespace marlinda::testing {

// The vector forms that this processor runs, with their names.
inline std::vector<std::pair<const char*, const SampleKernels*>> VectorForms() {
  std::vector<std::pair<const char*, const SampleKernels*>> forms;
  if (HighestCpuLevel() >= CpuLevel::kSse2) forms.emplace_back("SSE2", &kSse2SampleKernels);
  if (HighestCpuLevel() >= CpuLevel::kAvx2) forms.emplace_back("AVX2", &kAvx2SampleKernels);
  return forms;
}

class KernelComparison {
 public:
  KernelComparison(const SampleKernels& form, std::size_t width) : form_(form), width_(width) {}

  // The first of the patterns first, first + stride, ... below `end` that the form treats otherwise
  // than the definition.
  std::optional<std::uint32_t> FirstDifference(std::uint64_t first, std::uint64_t end,
                                               std::uint64_t stride) {
    for (std::uint64_t next = first; next < end; next += kBlock * stride) {
      const std::uint64_t left = (end - next + stride - 1) / stride;
      const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, left));
      for (std::size_t i = 0; i < count; ++i) {
        patterns_[i] = static_cast<std::uint32_t>(next + i * stride);
      }
      for (const std::size_t different : {Encode(count), Decode(count)}) {
        if (different < count) return patterns_[different];
      }
    }
    return std::nullopt;
  }

 private:
  static constexpr std::size_t kBlock = 8192;

  std::size_t Encode(std::size_t count) {
    std::memcpy(floats_.data(), patterns_.data(), count * sizeof(float));
    kScalarSampleKernels.encode[width_ - 1](floats_.data(), codes_.data(), count);
    form_.encode[width_ - 1](floats_.data(), form_codes_.data(), count);
    return FirstDifferent(codes_.data(), form_codes_.data(), count, width_);
  }

  // The lowest bytes of the patterns are the codes.
  std::size_t Decode(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(&codes_[i * width_], &patterns_[i], width_);
    }
    kScalarSampleKernels.decode[width_ - 1](codes_.data(), floats_.data(), count);
    form_.decode[width_ - 1](codes_.data(), form_floats_.data(), count);
    return FirstDifferent(floats_.data(), form_floats_.data(), count, sizeof(float));
  }

  static std::size_t FirstDifferent(const void* expected, const void* actual, std::size_t count,
                                    std::size_t size) {
    if (std::memcmp(expected, actual, count * size) == 0) return count;
    const auto* const left = static_cast<const std::byte*>(expected);
    const auto* const right = static_cast<const std::byte*>(actual);
    std::size_t i = 0;
    while (std::memcmp(left + i * size, right + i * size, size) == 0) ++i;
    return i;
  }

  const SampleKernels& form_;
  std::size_t width_;
  std::vector<std::uint32_t> patterns_ = std::vector<std::uint32_t>(kBlock);
  std::vector<float> floats_ = std::vector<float>(kBlock);
  std::vector<float> form_floats_ = std::vector<float>(kBlock);
  std::vector<std::byte> codes_ = std::vector<std::byte>(kBlock * 4);
  std::vector<std::byte> form_codes_ = std::vector<std::byte>(kBlock * 4);
};

}  // namespace marlinda::testing
