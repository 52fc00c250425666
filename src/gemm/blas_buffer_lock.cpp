// The BLAS linked into this library is the single-threaded OpenBLAS: it starts no threads, so
// blocks computed on TBB workers do not oversubscribe the machine. That build hands out its
// packing buffers from one shared table without a lock, so two threads calling it at the same
// time can be given the same buffer and overwrite each other's packed operands (wrong results,
// seen within seconds at 128 x 128 on two threads). The link step redirects the BLAS's buffer
// claim and release here (ld --wrap), and both are serialized through one mutex. It is held for
// the table lookup only; the multiplication itself runs unlocked.

#include <mutex>

namespace {
std::mutex buffer_table_mutex;
}  // namespace

extern "C" {
void* __real_blas_memory_alloc(int procpos);
void __real_blas_memory_free(void* buffer);

void* __wrap_blas_memory_alloc(int procpos) {
  std::lock_guard<std::mutex> hold(buffer_table_mutex);
  return __real_blas_memory_alloc(procpos);
}

void __wrap_blas_memory_free(void* buffer) {
  std::lock_guard<std::mutex> hold(buffer_table_mutex);
  __real_blas_memory_free(buffer);
}
}
