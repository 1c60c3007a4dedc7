// The sample converters for each instruction level. Only sample_converter and the tests call them.
// The header has no inline functions, because the linker could use an AVX2 version in all files.
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
// Produce the same bits as the scalar form, and use it for samples after the last whole vector.
extern const SampleKernels kSse2SampleKernels;
extern const SampleKernels kAvx2SampleKernels;

}  // namespace marlinda
