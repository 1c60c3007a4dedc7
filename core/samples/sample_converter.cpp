#include "core/samples/sample_converter.h"

#include <cassert>

#include "core/samples/cpu_level.h"
#include "core/samples/sample_kernels.h"

namespace marlinda {
namespace {

const SampleKernels& Kernels() noexcept {
  switch (CurrentCpuLevel()) {
    case CpuLevel::kAvx2:
      return kAvx2SampleKernels;
    case CpuLevel::kSse2:
      return kSse2SampleKernels;
    default:
      return kScalarSampleKernels;
  }
}

}  // namespace

std::size_t PcmBytesPerSample(int bits) noexcept {
  if (bits > 24) return 4;
  if (bits > 16) return 3;
  return bits < 9 ? 1 : 2;
}

void ConvertFloatToPcm(std::span<const float> source, std::span<std::byte> destination,
                       int bits) noexcept {
  const std::size_t width = PcmBytesPerSample(bits);
  assert(destination.size() / width >= source.size());
  Kernels().encode[width - 1](source.data(), destination.data(), source.size());
}

void ConvertPcmToFloat(std::span<const std::byte> source, std::span<float> destination,
                       int bits) noexcept {
  const std::size_t width = PcmBytesPerSample(bits);
  assert(source.size() / width >= destination.size());
  Kernels().decode[width - 1](source.data(), destination.data(), destination.size());
}

}  // namespace marlinda
