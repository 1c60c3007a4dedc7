// The level of vector instructions that the kernels use, chosen at run time.
#pragma once

namespace marlinda {

// Each level gives the same results, bit for bit.
enum class CpuLevel { kScalar, kSse2, kAvx2 };

// The highest level of this processor. AVX2 counts only together with FMA and with a system that
// saves the wide registers.
CpuLevel HighestCpuLevel() noexcept;

// The level that kernels use: the highest one unless it was limited.
CpuLevel CurrentCpuLevel() noexcept;

// For tests and measurements: kernels use no higher level from now on. A limit that the processor
// does not reach has no effect.
void LimitCpuLevel(CpuLevel limit) noexcept;

}  // namespace marlinda
