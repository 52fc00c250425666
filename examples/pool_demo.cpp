// Shows the shared pool at work: a few "layer steps" lease buffers of
// recurring sizes and check them back in; from the second step on every large
// buffer is a reused one and the host allocator is no longer called for them.
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "nerva/memory.hpp"

namespace {

std::size_t fresh_allocations = 0;
std::size_t fresh_bytes = 0;

void* host_allocate(std::size_t bytes) {
  ++fresh_allocations;
  fresh_bytes += bytes;
  return std::malloc(bytes);
}
void host_deallocate(void* p) { std::free(p); }
void host_error(char const* message) { throw std::runtime_error(message); }

}  // namespace

int main() {
  nerva::SharedMemoryPool pool({&host_allocate, &host_deallocate}, &host_error);
  const std::size_t sizes[] = {16 * 56 * 56 * 64 * sizeof(float), 16 * 28 * 28 * 64 * sizeof(float),
                               64 * 64 * 9 * sizeof(float), 1024};
  std::printf("%-6s %18s %18s %12s %14s\n", "step", "fresh allocations", "fresh bytes",
              "idle blocks", "idle bytes");
  for (int step = 1; step <= 5; ++step) {
    fresh_allocations = fresh_bytes = 0;
    std::vector<std::unique_ptr<nerva::CNNMemoryBlock>> held;
    for (std::size_t bytes : sizes) held.push_back(pool.lease_or_error(bytes));
    for (auto& block : held) pool.checkin(std::move(block));
    std::size_t idle_bytes = 0;
    for (auto& block : pool.blocks) idle_bytes += block->allocated_size();
    std::printf("%-6d %18zu %18zu %12zu %14zu\n", step, fresh_allocations, fresh_bytes,
                pool.blocks.size(), idle_bytes);
  }
  std::printf("Blocks under %zu bytes bypass the pool and are allocated fresh every step.\n",
              nerva::SharedMemoryPool::threshold);
  return 0;
}
