// Passes each file of the given folders to a fuzzer: whole, truncated and with changed bytes.
// Truncates small files at every byte and others at 50 places. Does not need clang.
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

using Bytes = std::vector<std::uint8_t>;

// `input` is a copy of exact size, so that a sanitizer detects reads past its end.
void Run(Bytes input) {
  input.shrink_to_fit();
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

void Replay(const Bytes& seed) {
  Run(seed);
  const std::size_t cuts = seed.size() <= 4096 ? seed.size() : 50;
  for (std::size_t cut = 0; cut < cuts; ++cut) {
    Run({seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(seed.size() * cut / cuts)});
  }
  std::mt19937 random(static_cast<unsigned>(seed.size()));
  for (int damage = 0; damage < 100 && !seed.empty(); ++damage) {
    Bytes damaged = seed;
    for (int i = 0; i <= damage % 4; ++i) {
      damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
    }
    Run(damaged);
  }
}

}  // namespace

int main(int argc, char** argv) {
  int seeds = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (entry.path().extension() == ".sh") continue;
      std::ifstream file(entry.path(), std::ios::binary);
      Replay({std::istreambuf_iterator<char>(file), {}});
      ++seeds;
    }
  }
  std::printf("%d seeds\n", seeds);
  return seeds > 0 ? 0 : 1;
}
