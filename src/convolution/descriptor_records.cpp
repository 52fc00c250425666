#include <algorithm>
#include <memory>

#include "detail/sampled_count.hpp"
#include "nerva/convolution.hpp"

namespace nerva {
namespace {

template <typename T>
void Release(T*& array) {
  delete[] array;
  array = nullptr;
}

// The plain and the strided N-D records share their fields by name, not by
// inheritance; these bodies serve both.
template <typename Record>
void Build(Record& r, std::size_t const* firsts, std::size_t const* lasts,
           std::size_t const* windowExtents, std::size_t windowCount,
           std::size_t const* inputExtents, std::size_t inputCount) {
  const std::size_t n = r.dimensionCount;
  // Made into holders first so that a failed allocation frees the others.
  std::unique_ptr<std::size_t[]> f(new std::size_t[n]), l(new std::size_t[n]),
      we(new std::size_t[n]), ie(new std::size_t[n]);
  std::unique_ptr<long[]> oi(new long[n]), wi(new long[n]), ii(new long[n]);
  r.firsts = f.release();
  r.lasts = l.release();
  r.windowExtents = we.release();
  r.inputExtents = ie.release();
  r.outputIncrements = oi.release();
  r.windowIncrements = wi.release();
  r.inputIncrements = ii.release();

  std::copy(firsts, firsts + n, r.firsts);
  std::copy(lasts, lasts + n, r.lasts);
  std::copy(windowExtents, windowExtents + windowCount, r.windowExtents);
  std::fill(r.windowExtents + windowCount, r.windowExtents + n, std::size_t{1});
  std::copy(inputExtents, inputExtents + inputCount, r.inputExtents);
  std::fill(r.inputExtents + inputCount, r.inputExtents + n, std::size_t{1});
  r.SetDenseIncrements(nullptr);
}

// The products run in size_t, where an overflow wraps instead of being
// undefined; each entry is then the two's-complement reading of its product,
// the same value as a signed product wherever that one does not overflow.
template <typename Record>
void DenseIncrements(Record& r, std::size_t const* strides) {
  std::size_t output = 1, window = 1, input = 1;
  for (std::size_t k = 0; k < r.dimensionCount; ++k) {
    if (k > 0) {
      output *= detail::SampledCount(r.firsts[k - 1], r.lasts[k - 1], strides ? strides[k - 1] : 1);
      window *= r.windowExtents[k - 1];
      input *= r.inputExtents[k - 1];
    }
    r.outputIncrements[k] = static_cast<long>(output);
    r.windowIncrements[k] = static_cast<long>(window);
    r.inputIncrements[k] = static_cast<long>(input);
  }
}

template <typename Record>
void ReleaseAll(Record& r) {
  Release(r.firsts);
  Release(r.lasts);
  Release(r.outputIncrements);
  Release(r.windowExtents);
  Release(r.windowIncrements);
  Release(r.inputExtents);
  Release(r.inputIncrements);
}

}  // namespace

ConvolutionDimensionDescriptor::ConvolutionDimensionDescriptor(std::size_t first_,
                                                               std::size_t last_,
                                                               std::size_t windowExtent_,
                                                               std::size_t inputExtent_)
    : first(first_), last(last_), windowExtent(windowExtent_), inputExtent(inputExtent_) {}

StridedConvolutionDimensionDescriptor::StridedConvolutionDimensionDescriptor(
    std::size_t first_, std::size_t last_, std::size_t windowExtent_, std::size_t inputExtent_,
    std::size_t stride_)
    : first(first_),
      last(last_),
      windowExtent(windowExtent_),
      inputExtent(inputExtent_),
      stride(stride_) {}

ConvolutionNDDescriptor::ConvolutionNDDescriptor(
    std::size_t const* firsts_, std::size_t const* lasts_, std::size_t const* windowExtents_,
    std::size_t windowCount, std::size_t const* inputExtents_, std::size_t inputCount)
    : dimensionCount(std::max(windowCount, inputCount)),
      windowDimensionCount(windowCount),
      inputDimensionCount(inputCount) {
  Build(*this, firsts_, lasts_, windowExtents_, windowCount, inputExtents_, inputCount);
}

StridedConvolutionNDDescriptor::StridedConvolutionNDDescriptor(
    std::size_t const* firsts_, std::size_t const* lasts_, std::size_t const* windowExtents_,
    std::size_t windowCount, std::size_t const* inputExtents_, std::size_t inputCount)
    : dimensionCount(std::max(windowCount, inputCount)),
      windowDimensionCount(windowCount),
      inputDimensionCount(inputCount) {
  Build(*this, firsts_, lasts_, windowExtents_, windowCount, inputExtents_, inputCount);
}

void ConvolutionNDDescriptor::SetDenseIncrements(std::size_t const* strides) {
  DenseIncrements(*this, strides);
}

void StridedConvolutionNDDescriptor::SetDenseIncrements(std::size_t const* strides_) {
  DenseIncrements(*this, strides_);
}

ConvolutionNDDescriptor::~ConvolutionNDDescriptor() { ReleaseAll(*this); }

StridedConvolutionNDDescriptor::~StridedConvolutionNDDescriptor() {
  Release(strides);
  ReleaseAll(*this);
}

}  // namespace nerva
