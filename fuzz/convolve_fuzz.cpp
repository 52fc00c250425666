// The forward convolution on cases decoded from the input: 1 to 3 data
// dimensions, any window, stride, padding before and after and output
// padding, either element type, every output element against the direct loop
// (tests/convolve/forward_reference.hpp); every block made through the
// counting heap must be gone at the end.

#include <cstddef>
#include <cstdint>

#include "../tests/convolve/forward_reference.hpp"
#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  conv_check::Case c;
  std::size_t const n = in.in(1, 3);
  std::size_t room = 20000;  // multiply-adds of the direct loop, about
  c.N = in.extent(1, 4, room);
  c.C = in.extent(1, 40, room);
  c.K = in.extent(1, 80, room);
  c.strided = in.in(0, 1);
  c.zero_border = in.in(0, 1);
  c.out_pad.assign(2 * n, 0);
  for (std::size_t d = 0; d < n; ++d) {
    c.window.push_back(in.extent(1, 7, room));
    c.size.push_back(in.extent(1, 16, room));
    c.pad.push_back(in.in(0, 8));
    c.stride.push_back(c.strided ? in.in(1, 4) : 1);
    c.first.push_back(in.in(0, 3));
    c.last.push_back(in.in(0, c.size[d] + 2 * c.pad[d]));
    c.out_pad[d] = in.in(0, 2), c.out_pad[n + d] = in.in(0, 2);
  }
  bool const wide = in.in(0, 1);
  {
    nerva::SharedMemoryPool pool(counting_heap(), &abort_on_error);
    std::size_t const bad = wide ? conv_check::mismatches<double>(c, pool, unsigned(size))
                                 : conv_check::mismatches<float>(c, pool, unsigned(size));
    FUZZ_CHECK(bad == 0);
  }
  FUZZ_CHECK(live_blocks == 0);
  return 0;
}
