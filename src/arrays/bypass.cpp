#include <utility>

#include "nerva/output_array.hpp"

namespace nerva {

// Element counts decide, not bytes: a handed-over block at least as long as
// the output is installed as it is, whatever its size. Both branches use the
// input's pool.
template <typename T>
void bypassPoolOrAllocate(FormattedOutputArray<T>* out, FormattedInputArray<T>* in) {
  std::unique_ptr<CNNMemoryBlock> handed_over = in->RelinquishSourceIfUnused();
  const size_t n_in = in->TotalNumElem();
  const size_t n_out = out->TotalNumElem();
  if (handed_over && n_out <= n_in) {
    out->SetAllocatedBlock(std::move(handed_over));
    return;
  }
  std::unique_ptr<CNNMemoryBlock> leased = in->Pool().lease_or_error(n_out * sizeof(T));
  if (handed_over) in->Pool().checkin(std::move(handed_over));
  out->SetAllocatedBlock(std::move(leased));
}

template NERVA_API void bypassPoolOrAllocate<float>(FormattedOutputArray<float>*,
                                                    FormattedInputArray<float>*);
template NERVA_API void bypassPoolOrAllocate<double>(FormattedOutputArray<double>*,
                                                     FormattedInputArray<double>*);

}  // namespace nerva
