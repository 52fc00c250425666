// Runs a fuzz target without libFuzzer, as a plain test: every seed in the folder FUZZ_CORPUS,
// then FUZZ_RUNS byte strings drawn from a fixed seed. The target aborts on a wrong result.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

int main() {
  for (auto const& seed : std::filesystem::directory_iterator(FUZZ_CORPUS)) {
    std::ifstream file(seed.path(), std::ios::binary);
    std::vector<std::uint8_t> const bytes{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::mt19937 rng(1);
  for (int i = 0; i < FUZZ_RUNS; ++i) {
    std::vector<std::uint8_t> bytes(rng() % 48);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return 0;
}
