// The forms of the sample converters for each level of vector instructions. Only sample_converter
// and the tests call them. This header is read by files that are compiled for AVX2: nothing inline
// that another file could end up with belongs here.
#pragma once

#include <cstddef>

namespace marlinda {

// Pointers of any alignment, and any count; nothing outside of the block is read or written.
using EncodeKernel = void (*)(const float* source, std::byte* destination, std::size_t count);
using DecodeKernel = void (*)(const std::byte* source, float* destination, std::size_t count);

// By bytes per sample, less one.
struct SampleKernels {
  EncodeKernel encode[4];
  DecodeKernel decode[4];
};

// The definition of every result.
extern const SampleKernels kScalarSampleKernels;
// The same results, faster. The whole blocks of vectors are theirs, what is left the scalar form's.
extern const SampleKernels kSse2SampleKernels;
extern const SampleKernels kAvx2SampleKernels;

}  // namespace marlinda
