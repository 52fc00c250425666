#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "forward_reference.hpp"
#include "nerva/convolve.hpp"
#include "support/counting_allocator.hpp"

namespace {

using conv_check::Case;
using conv_check::Sizes;
using namespace nerva;

struct Pooled {
  counting::LeakCheck check;
  SharedMemoryPool pool{counting::functions(), &counting::throwing_error};
};

// Random shapes of 1 to 3 data dimensions: windows 1 to 7, strides 1 to 3,
// padding before and after of its own, windows that start past the first
// input element, output padding left untouched or zeroed, channel counts on
// both sides of a block, every element against the direct loop.
TEST(ConvolutionForward, RandomShapesMatchTheDirectLoop) {
  Pooled p;
  std::mt19937 rng(11);
  for (int i = 0; i < 300; ++i) {
    Case const c = conv_check::random_case(rng, 400000);
    SCOPED_TRACE(testing::Message() << "case " << i << ": C " << c.C << " K " << c.K << " N " << c.N
                                    << " dims " << c.size.size());
    if (i % 2)
      EXPECT_EQ(conv_check::mismatches<float>(c, p.pool, unsigned(i)), 0u);
    else
      EXPECT_EQ(conv_check::mismatches<double>(c, p.pool, unsigned(i)), 0u);
  }
}

// The shapes of real layers, where the tiles take their fast paths: a long
// row of observations and positions, strided layers with many and with one
// observation, the 7 x 7 stem, a 1 x 1 on many channels (several channel
// blocks per product).
TEST(ConvolutionForward, LayerShapes) {
  Pooled p;
  auto layer = [](std::size_t C, std::size_t K, std::size_t N, std::size_t X, std::size_t R,
                  std::size_t S, std::size_t P) {
    Case c;
    c.C = C, c.K = K, c.N = N, c.strided = S > 1;
    for (int d = 0; d < 2; ++d) {
      c.size.push_back(X), c.window.push_back(R), c.pad.push_back(P);
      c.first.push_back(0), c.last.push_back(X + 2 * P - R + 1), c.stride.push_back(S);
    }
    c.out_pad = {1, 1, 1, 1};
    c.zero_border = true;
    return c;
  };
  for (Case const& c : {layer(16, 64, 4, 20, 3, 1, 1), layer(16, 24, 9, 15, 3, 2, 1),
                        layer(5, 16, 1, 17, 3, 2, 1), layer(3, 64, 2, 30, 7, 2, 3),
                        layer(600, 70, 2, 5, 1, 1, 0), layer(300, 66, 3, 6, 3, 1, 1)}) {
    EXPECT_EQ(conv_check::mismatches<float>(c, p.pool, 1), 0u) << c.C << " -> " << c.K;
    EXPECT_EQ(conv_check::mismatches<double>(c, p.pool, 2), 0u) << c.C << " -> " << c.K;
  }
}

// Packing keeps every weight: unpacking gives the host's order back, also
// when the output channels end in a short block.
TEST(ConvolutionWeights, PackingIsReversible) {
  Pooled p;
  Sizes const window{3, 2};
  for (std::size_t K : {1u, 64u, 70u, 129u}) {
    std::vector<float> host(K * 5 * 6), back(host.size());
    for (std::size_t i = 0; i < host.size(); ++i) host[i] = float(i);
    ConvolutionWeights<float> w(p.pool, host.data(), K, 5, 2, window.data());
    EXPECT_EQ(w.NumTaps(), 6u);
    w.CopyToHost(back.data());
    EXPECT_EQ(back, host) << K;
  }
}

// The pass itself leases nothing; the weights lease one block and give it
// back to the pool; a failed lease of the weights leaves nothing behind.
TEST(ConvolutionForward, PoolTraffic) {
  Pooled p;
  Case c;
  c.C = 32, c.K = 32, c.N = 2, c.size = {10, 10}, c.window = {3, 3}, c.pad = {1, 1};
  c.first = {0, 0}, c.last = {10, 10}, c.stride = {1, 1}, c.out_pad = {0, 0, 0, 0};
  std::vector<float> in(32 * 2 * 100, 1.0f), host(32 * 32 * 9, 1.0f);
  Sizes const sizes{32, 2, 10, 10};
  FormattedInputArray<float> input(p.pool, in.data(), sizes.data(), 4, 2, 0, 1, nullptr);
  FormattedOutputArray<float> output(p.pool, c.first.data(), c.last.data(), nullptr, 2, 32, 2, 0, 1,
                                     nullptr, Uninitialized);
  {
    ConvolutionWeights<float> w(p.pool, host.data(), 32, 32, 2, c.window.data());
    std::size_t const before = counting::stats().allocations, idle = p.pool.blocks.size();
    convolution_forward(input, w, c.pad.data(), output);
    EXPECT_EQ(counting::stats().allocations, before);
    EXPECT_EQ(p.pool.blocks.size(), idle);
    EXPECT_EQ(output.UnpaddedData()[0], 32.0f * 4);  // a corner sees 2 x 2 taps
  }
  ASSERT_EQ(p.pool.blocks.size(), 1u);
  EXPECT_EQ(p.pool.blocks[0]->allocated_size(), host.size() * sizeof(float));

  counting::fail_above(16 * 1024);
  p.pool.blocks.clear();
  std::size_t const live = counting::live_blocks();
  EXPECT_THROW(ConvolutionWeights<float>(p.pool, host.data(), 32, 32, 2, c.window.data()),
               std::runtime_error);
  EXPECT_EQ(counting::live_blocks(), live);
  counting::fail_above(SIZE_MAX);
}

}  // namespace
