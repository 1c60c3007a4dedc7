// The instruction level of the kernels, chosen at run time.
#pragma once

namespace marlinda {

// All levels give the same results, bit for bit.
enum class CpuLevel { kScalar, kSse2, kAvx2 };

// The highest level of this processor. kAvx2 also requires FMA and a system that saves the AVX
// registers.
CpuLevel HighestCpuLevel() noexcept;

// The level in use: the highest unless LimitCpuLevel has lowered it.
CpuLevel CurrentCpuLevel() noexcept;

// For tests and benchmarks. From now on, kernels use no higher level than `limit`. A limit at or
// above HighestCpuLevel() removes an earlier limit.
void LimitCpuLevel(CpuLevel limit) noexcept;

}  // namespace marlinda
