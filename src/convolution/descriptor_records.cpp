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

}  // namespace

ConvolutionDimensionDescriptor::ConvolutionDimensionDescriptor(std::size_t first_,
                                                               std::size_t last_,
                                                               std::size_t windowExtent_,
                                                               std::size_t inputExtent_)
    : first(first_), last(last_), windowExtent(windowExtent_), inputExtent(inputExtent_) {}

StridedConvolutionDimensionDescriptor::StridedConvolutionDimensionDescriptor(
    std::size_t first_, std::size_t last_, std::size_t windowExtent_, std::size_t inputExtent_,
    std::size_t stride_)
    : ConvolutionDimensionDescriptor(first_, last_, windowExtent_, inputExtent_), stride(stride_) {}

ConvolutionNDDescriptor::ConvolutionNDDescriptor(
    std::size_t const* firsts_, std::size_t const* lasts_, std::size_t const* windowExtents_,
    std::size_t windowCount, std::size_t const* inputExtents_, std::size_t inputCount)
    : dimensionCount(std::max(windowCount, inputCount)),
      windowDimensionCount(windowCount),
      inputDimensionCount(inputCount) {
  const std::size_t n = dimensionCount;
  // Made into holders first so that a failed allocation frees the others.
  std::unique_ptr<std::size_t[]> f(new std::size_t[n]), l(new std::size_t[n]),
      we(new std::size_t[n]), ie(new std::size_t[n]);
  std::unique_ptr<long[]> oi(new long[n]), wi(new long[n]), ii(new long[n]);
  firsts = f.release();
  lasts = l.release();
  windowExtents = we.release();
  inputExtents = ie.release();
  outputIncrements = oi.release();
  windowIncrements = wi.release();
  inputIncrements = ii.release();

  std::copy(firsts_, firsts_ + n, firsts);
  std::copy(lasts_, lasts_ + n, lasts);
  std::copy(windowExtents_, windowExtents_ + windowCount, windowExtents);
  std::fill(windowExtents + windowCount, windowExtents + n, std::size_t{1});
  std::copy(inputExtents_, inputExtents_ + inputCount, inputExtents);
  std::fill(inputExtents + inputCount, inputExtents + n, std::size_t{1});
  SetDenseIncrements(nullptr);
}

void ConvolutionNDDescriptor::SetDenseIncrements(std::size_t const* strides) {
  if (dimensionCount == 0) return;
  outputIncrements[0] = windowIncrements[0] = inputIncrements[0] = 1;
  for (std::size_t k = 1; k < dimensionCount; ++k) {
    const std::size_t outputExtent =
        detail::SampledCount(firsts[k - 1], lasts[k - 1], strides ? strides[k - 1] : 1);
    outputIncrements[k] = outputIncrements[k - 1] * static_cast<long>(outputExtent);
    windowIncrements[k] = windowIncrements[k - 1] * static_cast<long>(windowExtents[k - 1]);
    inputIncrements[k] = inputIncrements[k - 1] * static_cast<long>(inputExtents[k - 1]);
  }
}

ConvolutionNDDescriptor::~ConvolutionNDDescriptor() {
  Release(firsts);
  Release(lasts);
  Release(outputIncrements);
  Release(windowExtents);
  Release(windowIncrements);
  Release(inputExtents);
  Release(inputIncrements);
}

StridedConvolutionNDDescriptor::~StridedConvolutionNDDescriptor() { Release(strides); }

}  // namespace nerva
