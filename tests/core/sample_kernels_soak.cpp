// Holds every vector form of the converters against the scalar form over all 2^32 patterns, with as
// many threads as there are processors. The status is 0 if no bit differs.
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "tests/core/kernel_comparison.h"

namespace {

// Differences found in all patterns for one form and width, told as they are met.
int Soak(const char* name, const marlinda::SampleKernels& form, std::size_t width) {
  constexpr std::uint64_t kSlice = std::uint64_t{1} << 24;
  constexpr std::uint64_t kSlices = (std::uint64_t{1} << 32) / kSlice;
  std::atomic<std::uint64_t> next = 0;
  std::atomic<int> differences = 0;
  std::vector<std::thread> threads(std::max(1U, std::thread::hardware_concurrency()));
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      marlinda::testing::KernelComparison comparison(form, width);
      for (std::uint64_t slice = next++; slice < kSlices; slice = next++) {
        const auto pattern = comparison.FirstDifference(slice * kSlice, (slice + 1) * kSlice, 1);
        if (!pattern) continue;
        ++differences;
        std::printf("%s, %zu bytes: 0x%08X differs\n", name, width,
                    static_cast<unsigned>(*pattern));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::printf("%s, %zu bytes: %s\n", name, width, differences == 0 ? "the same bits" : "DIFFERS");
  std::fflush(stdout);
  return differences;
}

}  // namespace

int main() {
  int differences = 0;
  for (const auto& [name, form] : marlinda::testing::VectorForms()) {
    for (std::size_t width = 1; width <= 4; ++width) differences += Soak(name, *form, width);
  }
  return differences == 0 ? 0 : 1;
}
