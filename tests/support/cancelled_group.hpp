#pragma once

#include <oneapi/tbb/task_group.h>

namespace support {

// Runs `f` inside an already cancelled task group: a parallel_for started by
// `f` runs none of its sub-ranges, while work done directly on the calling
// thread still happens, so the output tells the serial path from the parallel.
template <class F>
void run_in_cancelled_group(F&& f) {
  tbb::task_group group;
  group.run_and_wait([&] {
    group.cancel();
    f();
  });
}

}  // namespace support
