#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "nerva/memory.hpp"

int main() {
  nerva::SharedMemoryPool pool({&std::malloc, &std::free},
                               [](char const* m) { throw std::runtime_error(m); });
  auto block = pool.lease_or_error(1 << 16);
  void* data = block->data;
  pool.checkin(std::move(block));
  auto again = pool.lease(1 << 16);
  if (again->data != data) {
    std::puts("consumer: the pool did not reuse the block");
    return 1;
  }
  std::puts("consumer: leased, checked in and reused a block from the installed nerva");
  return 0;
}
