// Happens-before edges of the TBB scheduler for ThreadSanitizer builds.
//
// The TBB library of the system is not instrumented: a task handed from one
// thread to another goes through its task pools, and a finished parallel_for
// is noticed by its waiting thread through loads inside the library, so the
// sanitizer sees neither edge and reports every write before a spawn and
// every result read after a wait as a race. This file, linked into the test
// programs of a thread-sanitized build only, interposes the library's entry
// points (the program's definitions take precedence over those of libtbb for
// the test program and for libnerva alike) and declares exactly those edges:
//
//  - spawn: the task is wrapped, the spawning thread releases the wrapper and
//    whichever thread runs it acquires the wrapper first;
//  - execute_and_wait / wait: on return the waiting thread acquires the
//    wait context's reference count, which every finishing task decrements
//    with an (instrumented) atomic read-modify-write;
//  - the small-object pool that recycles task memory between threads: a
//    deallocation releases the block and an allocation acquires it.
//
// Nothing else is hidden: races between tasks, or between a task and the
// calling thread outside these hand-overs, are still reported.

#include <dlfcn.h>
#include <oneapi/tbb/detail/_small_object_pool.h>
#include <oneapi/tbb/detail/_task.h>
#include <sanitizer/tsan_interface.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

namespace d1 = tbb::detail::d1;

template <class F>
F next_definition(char const* mangled) {
  void* f = dlsym(RTLD_NEXT, mangled);
  if (f == nullptr) {
    std::fprintf(stderr, "tsan_tbb_bridge: %s not found in libtbb\n", mangled);
    std::abort();
  }
  return reinterpret_cast<F>(f);
}

// The reference count follows one 64-bit word of version and traits.
static_assert(sizeof(d1::wait_context) == 16, "wait_context layout changed");
void* reference_count(d1::wait_context& w) { return reinterpret_cast<char*>(&w) + 8; }

// Runs the wrapped task after acquiring what its spawner released.
class HandOff final : public d1::task {
 public:
  explicit HandOff(d1::task& inner) : inner_(inner) {}

  d1::task* execute(d1::execution_data& ed) override {
    std::unique_ptr<HandOff> self(this);
    __tsan_acquire(this);
    return inner_.execute(ed);
  }
  d1::task* cancel(d1::execution_data& ed) override {
    std::unique_ptr<HandOff> self(this);
    __tsan_acquire(this);
    return inner_.cancel(ed);
  }

 private:
  d1::task& inner_;
};

}  // namespace

// Exported from the test program so that libnerva's calls bind here too.
#define BRIDGE_EXPORT __attribute__((visibility("default")))

namespace tbb::detail::r1 {

BRIDGE_EXPORT void spawn(d1::task& t, d1::task_group_context& ctx) {
  using F = void (*)(d1::task&, d1::task_group_context&);
  static F const real =
      next_definition<F>("_ZN3tbb6detail2r15spawnERNS0_2d14taskERNS2_18task_group_contextE");
  HandOff* wrapped = new HandOff(t);
  __tsan_release(wrapped);
  real(*wrapped, ctx);
}

BRIDGE_EXPORT void spawn(d1::task& t, d1::task_group_context& ctx, d1::slot_id id) {
  using F = void (*)(d1::task&, d1::task_group_context&, d1::slot_id);
  static F const real =
      next_definition<F>("_ZN3tbb6detail2r15spawnERNS0_2d14taskERNS2_18task_group_contextEt");
  HandOff* wrapped = new HandOff(t);
  __tsan_release(wrapped);
  real(*wrapped, ctx, id);
}

BRIDGE_EXPORT void execute_and_wait(d1::task& t, d1::task_group_context& t_ctx,
                                    d1::wait_context& wait_ctx, d1::task_group_context& w_ctx) {
  using F =
      void (*)(d1::task&, d1::task_group_context&, d1::wait_context&, d1::task_group_context&);
  static F const real = next_definition<F>(
      "_ZN3tbb6detail2r116execute_and_waitERNS0_2d14taskERNS2_18task_group_contextERNS2_12wait_"
      "contextES6_");
  real(t, t_ctx, wait_ctx, w_ctx);
  __tsan_acquire(reference_count(wait_ctx));
}

BRIDGE_EXPORT void wait(d1::wait_context& wait_ctx, d1::task_group_context& ctx) {
  using F = void (*)(d1::wait_context&, d1::task_group_context&);
  static F const real = next_definition<F>(
      "_ZN3tbb6detail2r14waitERNS0_2d112wait_contextERNS2_18task_group_contextE");
  real(wait_ctx, ctx);
  __tsan_acquire(reference_count(wait_ctx));
}

BRIDGE_EXPORT void* allocate(d1::small_object_pool*& pool, std::size_t bytes,
                             d1::execution_data const& ed) {
  using F = void* (*)(d1::small_object_pool*&, std::size_t, d1::execution_data const&);
  static F const real = next_definition<F>(
      "_ZN3tbb6detail2r18allocateERPNS0_2d117small_object_poolEmRKNS2_14execution_dataE");
  void* p = real(pool, bytes, ed);
  __tsan_acquire(p);
  return p;
}

BRIDGE_EXPORT void* allocate(d1::small_object_pool*& pool, std::size_t bytes) {
  using F = void* (*)(d1::small_object_pool*&, std::size_t);
  static F const real =
      next_definition<F>("_ZN3tbb6detail2r18allocateERPNS0_2d117small_object_poolEm");
  void* p = real(pool, bytes);
  __tsan_acquire(p);
  return p;
}

BRIDGE_EXPORT void deallocate(d1::small_object_pool& pool, void* p, std::size_t bytes,
                              d1::execution_data const& ed) {
  using F = void (*)(d1::small_object_pool&, void*, std::size_t, d1::execution_data const&);
  static F const real = next_definition<F>(
      "_ZN3tbb6detail2r110deallocateERNS0_2d117small_object_poolEPvmRKNS2_14execution_dataE");
  __tsan_release(p);
  real(pool, p, bytes, ed);
}

BRIDGE_EXPORT void deallocate(d1::small_object_pool& pool, void* p, std::size_t bytes) {
  using F = void (*)(d1::small_object_pool&, void*, std::size_t);
  static F const real =
      next_definition<F>("_ZN3tbb6detail2r110deallocateERNS0_2d117small_object_poolEPvm");
  __tsan_release(p);
  real(pool, p, bytes);
}

}  // namespace tbb::detail::r1
