// Runs a fuzzer over the files of folders, whole, cut short (small ones at every byte, others at
// many places) and with bytes changed:
// what the fuzzer found once stays found, without the fuzzer's compiler.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr std::size_t kCuts = 50;
constexpr std::size_t kSmall = 4096;
constexpr int kDamages = 100;

int Replay(const std::vector<std::uint8_t>& seed) {
  int runs = 0;
  // A copy of just that size, so that a sanitizer sees a read behind the end.
  const auto run = [&](const std::vector<std::uint8_t>& input) {
    const std::vector<std::uint8_t> exact(input);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    ++runs;
  };
  run(seed);
  const std::size_t cuts = seed.size() <= kSmall ? seed.size() : kCuts;
  for (std::size_t cut = 0; cut < cuts; ++cut) {
    const auto length = static_cast<std::ptrdiff_t>(seed.size() * cut / cuts);
    run({seed.begin(), seed.begin() + length});
  }
  std::mt19937 random(static_cast<unsigned>(seed.size()));
  for (int damage = 0; damage < kDamages && !seed.empty(); ++damage) {
    std::vector<std::uint8_t> damaged = seed;
    for (int i = 0; i <= damage % 4; ++i) {
      damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
    }
    run(damaged);
  }
  return runs;
}

}  // namespace

int main(int argc, char** argv) {
  int seeds = 0;
  int runs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file() || entry.path().extension() == ".sh") continue;
      std::ifstream file(entry.path(), std::ios::binary);
      runs += Replay({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
      ++seeds;
    }
  }
  std::printf("%d seeds, %d runs\n", seeds, runs);
  return seeds > 0 ? 0 : 1;
}
