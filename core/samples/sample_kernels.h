// The sample converters for each instruction level. Only sample_converter and the tests call them.
// Files compiled for AVX2 include this header, so it defines no inline functions.
#pragma once

#include <cstddef>

namespace marlinda {

// Kernels accept any alignment and count, and access nothing outside the block.
using EncodeKernel = void (*)(const float* source, std::byte* destination, std::size_t count);
using DecodeKernel = void (*)(const std::byte* source, float* destination, std::size_t count);

// Indexed by bytes per sample minus one.
struct SampleKernels {
  EncodeKernel encode[4];
  DecodeKernel decode[4];
};

// The scalar form, which defines the results.
extern const SampleKernels kScalarSampleKernels;
// Give the same bits as the scalar form, which converts the samples after the last whole vector.
extern const SampleKernels kSse2SampleKernels;
extern const SampleKernels kAvx2SampleKernels;

}  // namespace marlinda
