#include <utility>

#include "detail/sampled_count.hpp"
#include "nerva/copy.hpp"
#include "nerva/input_array.hpp"

namespace nerva {

template <typename T>
void FormattedInputArray<T>::Subsample(const size_t* firsts, const size_t* lasts,
                                       const size_t* increments, const size_t* mapping) {
  // Gathers from the array's own block whenever it holds one (the flag is not
  // looked at), else from the source; the old own block goes back to the pool.
  const T* from = reformatted ? static_cast<const T*>(reformatted->data) : source;
  std::unique_ptr<CNNMemoryBlock> gathered = strided_copy<T>(
      *pool, from, sizes, firsts, lasts, increments, num_data_dims, ChannelDimension(), mapping);
  if (reformatted) pool->checkin(std::move(reformatted));
  reformatted = std::move(gathered);

  for (size_t d = 0; d < num_data_dims; ++d)
    sizes[d] = detail::SampledCount(firsts[d], lasts[d], increments[d]);
  UpdateDataIncrements();
  uses_reformatted = reformatted != nullptr;
}

template void FormattedInputArray<float>::Subsample(const size_t*, const size_t*, const size_t*,
                                                    const size_t*);
template void FormattedInputArray<double>::Subsample(const size_t*, const size_t*, const size_t*,
                                                     const size_t*);
template void FormattedInputArray<unsigned char>::Subsample(const size_t*, const size_t*,
                                                            const size_t*, const size_t*);

}  // namespace nerva
