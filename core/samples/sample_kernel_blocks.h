// The loops of the converters' vector forms. Each including file defines its block functions in an
// unnamed namespace. The linker then cannot merge the loops of different instruction levels.
#pragma once

#include "core/samples/sample_kernels.h"

namespace marlinda {

// `kConvertBlock` converts kBlock samples and accesses the memory of at most kReach samples. The
// scalar form converts the samples after the last block.
template <std::size_t kBytes, std::size_t kBlock, std::size_t kReach, auto kConvertBlock>
void EncodeBlocks(const float* source, std::byte* out, std::size_t count) noexcept {
  for (; count >= kReach; count -= kBlock, source += kBlock, out += kBlock * kBytes) {
    kConvertBlock(source, out);
  }
  kScalarSampleKernels.encode[kBytes - 1](source, out, count);
}

template <std::size_t kBytes, std::size_t kBlock, std::size_t kReach, auto kConvertBlock>
void DecodeBlocks(const std::byte* in, float* destination, std::size_t count) noexcept {
  for (; count >= kReach; count -= kBlock, destination += kBlock, in += kBlock * kBytes) {
    kConvertBlock(in, destination);
  }
  kScalarSampleKernels.decode[kBytes - 1](in, destination, count);
}

}  // namespace marlinda
