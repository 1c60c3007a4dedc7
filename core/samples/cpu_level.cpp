#include "core/samples/cpu_level.h"

#include <immintrin.h>
#ifdef _MSC_VER
#include <intrin.h>
#else
#include <cpuid.h>
#endif

#include <algorithm>
#include <atomic>

namespace marlinda {
namespace {

enum Register { kEax, kEbx, kEcx, kEdx };

void AskCpu(int leaf, int (&registers)[4]) noexcept {
#ifdef _MSC_VER
  __cpuidex(registers, leaf, 0);
#else
  __cpuid_count(leaf, 0, registers[kEax], registers[kEbx], registers[kEcx], registers[kEdx]);
#endif
}

bool HasBit(int value, int bit) noexcept { return (static_cast<unsigned>(value) >> bit & 1U) != 0; }

CpuLevel Detect() noexcept {
  int registers[4] = {};
  AskCpu(0, registers);
  const int highest_leaf = registers[kEax];
  AskCpu(1, registers);
  const bool sse2 = HasBit(registers[kEdx], 26);
  const bool fma = HasBit(registers[kEcx], 12);
  const bool reads_saved_state = HasBit(registers[kEcx], 27);
  if (!sse2) return CpuLevel::kScalar;
  // XCR0 bits of the SSE registers and of the upper halves of the AVX registers. If the system does
  // not save these registers, a thread switch destroys their values.
  constexpr unsigned kWideRegisters = 0x6;
  if (!fma || !reads_saved_state || highest_leaf < 7 ||
      (static_cast<unsigned>(_xgetbv(0)) & kWideRegisters) != kWideRegisters) {
    return CpuLevel::kSse2;
  }
  AskCpu(7, registers);
  return HasBit(registers[kEbx], 5) ? CpuLevel::kAvx2 : CpuLevel::kSse2;
}

std::atomic<CpuLevel>& Current() noexcept {
  static std::atomic<CpuLevel> current = HighestCpuLevel();
  return current;
}

}  // namespace

CpuLevel HighestCpuLevel() noexcept {
  static const CpuLevel highest = Detect();
  return highest;
}

CpuLevel CurrentCpuLevel() noexcept { return Current().load(std::memory_order_relaxed); }

void LimitCpuLevel(CpuLevel limit) noexcept { Current() = std::min(limit, HighestCpuLevel()); }

}  // namespace marlinda
