#pragma once

#include <oneapi/tbb/task_group.h>

// Runs `f` inside a task group that has already been cancelled. A TBB
// parallel_for started by `f` inherits the cancellation and runs none of its
// sub-ranges, while work done directly on the calling thread still happens:
// the test tells a kernel's serial path from its parallel one by whether the
// output was written.
template <class F>
void run_in_cancelled_group(F&& f) {
  tbb::task_group group;
  group.run_and_wait([&] {
    group.cancel();
    f();
  });
}
