// The parallel form of the loop nest: the outer loops, and when they are too
// few the kernel call itself, are cut into units that write disjoint parts
// of the destination, and a blocking parallel_for hands ranges of units to
// the TBB workers of the calling arena.
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>
#include <oneapi/tbb/task_arena.h>
#include <xmmintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "permute/execute.hpp"

namespace qel_permute::detail {
namespace {

// The axis along which a unit takes part of one call: for transposes the
// destination columns (A), rows (B) or planes of the batch (C); for run
// copies the runs of the call or, for one single run, its bytes.
enum class Axis { None, A, B, C, Runs, Bytes };

struct Split {
  std::size_t top;  // outermost loops whose indices units take
  Axis axis;
  std::size_t extent;  // of the axis
  std::size_t least;   // slices start at multiples of this
  std::size_t slices;  // per call

  // Slice k: [bound(k), bound(k + 1)); each at least `least` long.
  std::size_t bound(std::size_t k) const {
    return k == slices ? extent : k * extent / slices / least * least;
  }
};

// Cuts of a call stay multiples of what every kernel moves whole: 512
// destination bytes across (a chunk of a batch, eight 64-byte lines, wider
// than any micro-tile) and 64 rows down (the tallest micro-tile). A cut at a
// line boundary keeps whole lines for the streaming stores. Run copies are
// cut into whole runs or pages.
constexpr std::size_t kCutBytes = 512;
constexpr std::size_t kCutRows = 64;
constexpr std::size_t kCutRunBytes = 4096;

// Units smaller than this cost more in task overhead than a worker saves.
constexpr std::size_t kMinTaskBytes = std::size_t{64} << 10;

// The index of the top loops that a unit belongs to, as source and
// destination offsets, advanced in order with carries. A loop that goes into
// units has an extent of at least 2 and the loops go in only while their
// product is below the unit count aimed at, so 64 indices always suffice.
constexpr std::size_t kMaxTop = 64;

class Walk {
 public:
  Walk(Dim const* dims, std::size_t n, std::size_t width, std::size_t index)
      : dims_(dims), n_(n), width_(width) {
    for (std::size_t j = 0; j < n; ++j) {
      idx_[j] = index % dims[j].extent;
      index /= dims[j].extent;
      src += idx_[j] * dims[j].srcStride * width;
      dst += idx_[j] * dims[j].dstStride * width;
    }
  }

  void next() {
    for (std::size_t j = 0; j < n_; ++j) {
      std::size_t const ss = dims_[j].srcStride * width_, ds = dims_[j].dstStride * width_;
      if (++idx_[j] < dims_[j].extent) {
        src += ss;
        dst += ds;
        return;
      }
      src -= (idx_[j] - 1) * ss;
      dst -= (idx_[j] - 1) * ds;
      idx_[j] = 0;
    }
  }

  std::size_t src = 0, dst = 0;

 private:
  Dim const* dims_;
  std::size_t n_, width_;
  std::size_t idx_[kMaxTop];
};

// Part [lo, hi) along `axis` of the call at s, d.
void call(Nest const& nest, Axis axis, std::size_t lo, std::size_t hi, Byte const* s, Byte* d) {
  std::size_t const w = nest.width;
  if (nest.transpose != nullptr) {
    TransposeShape shape = nest.shape;
    if (axis == Axis::A) {
      shape.A = hi - lo;
      s += lo * shape.sA * w;
      d += lo * w;
    } else if (axis == Axis::B) {
      shape.B = hi - lo;
      s += lo * w;
      d += lo * shape.dB * w;
    } else if (axis == Axis::C) {
      shape.count = hi - lo;
      s += lo * shape.sC * w;
      d += lo * shape.dC * w;
    }
    nest.transpose(s, d, shape);
    return;
  }
  std::size_t const run = nest.run;
  if (nest.rank == 0) {
    if (axis == Axis::None) hi = run;
    std::memcpy(d + lo, s + lo, hi - lo);
    return;
  }
  if (axis == Axis::None) hi = nest.loops[0].extent;
  std::size_t const step = nest.loops[0].srcStride * w;
  for (std::size_t i = lo; i < hi; ++i) std::memcpy(d + i * run, s + i * step, run);
}

// Which loops and which cut of the call make about `pieces` units.
Split plan_split(Nest const& nest, std::size_t pieces, std::size_t minSlices) {
  bool const runs = nest.transpose == nullptr;
  std::size_t const first = runs && nest.rank > 0 ? 1 : 0;
  Split split{0, Axis::None, 1, 1, 1};
  std::size_t outer = 1;
  while (first + split.top < nest.rank && split.top < kMaxTop && outer < pieces) {
    outer *= nest.loops[nest.rank - 1 - split.top].extent;
    ++split.top;
  }
  if (outer >= pieces) return split;
  // Too few calls: cut each. Candidates in order of preference, each with
  // its extent and the least slice.
  struct Cut {
    Axis axis;
    std::size_t extent, least;
  } cuts[3];
  std::size_t n = 0;
  if (runs) {
    if (nest.rank == 0) {
      cuts[n++] = {Axis::Bytes, nest.run, kCutRunBytes};
    } else {
      cuts[n++] = {Axis::Runs, nest.loops[0].extent,
                   std::max<std::size_t>(1, kCutRunBytes / nest.run)};
    }
  } else {
    TransposeShape const& s = nest.shape;
    cuts[n++] = {Axis::A, s.A, std::max<std::size_t>(1, kCutBytes / nest.width)};
    cuts[n++] = {Axis::B, s.B, kCutRows};
    cuts[n++] = {Axis::C, s.count, 1};
  }
  std::size_t const want = (pieces + outer - 1) / outer;
  std::size_t const enough = std::min(want, (minSlices + outer - 1) / outer);
  Cut const* best = nullptr;
  for (std::size_t i = 0; i < n; ++i) {
    std::size_t const most = cuts[i].extent / cuts[i].least;
    if (most >= enough) {
      best = &cuts[i];
      break;
    }
    if (best == nullptr || most > best->extent / best->least) best = &cuts[i];
  }
  std::size_t const most = best->extent / best->least;
  if (most < 2) return split;
  split.axis = best->axis;
  split.extent = best->extent;
  split.least = best->least;
  split.slices = std::min(want, most);
  return split;
}

void execute_parallel(Plan plan, std::size_t width, Isa isa, Byte const* src, Byte* dst,
                      std::size_t streamBytes, std::size_t parallelBytes, std::size_t taskBytes) {
  std::size_t bytes = width;
  for (std::size_t i = 0; i < plan.rank && !plan.empty; ++i) bytes *= plan.dims[i].extent;
  // Threads that can take part: the arena's, within any global limit.
  std::size_t const workers =
      std::min(static_cast<std::size_t>(tbb::this_task_arena::max_concurrency()),
               tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism));
  if (plan.empty || plan.rank == 0 || bytes < parallelBytes || workers < 2) {
    execute(plan, width, isa, src, dst, streamBytes);
    return;
  }
  // Streaming pays once each worker's share outgrows the caches (measured on
  // two workers: 6 MB moved 1.1x to 2.2x faster with plain stores, 14 MB
  // 1.4x faster streamed).
  std::size_t const shared = streamBytes > SIZE_MAX / workers ? SIZE_MAX : streamBytes * workers;
  Nest const nest = make_nest(plan, width, isa, shared);
  // Units aimed at: one per task's bytes, but at least two per worker and,
  // while units stay above kMinTaskBytes, up to eight per worker.
  std::size_t const pieces =
      std::max(bytes / std::max<std::size_t>(taskBytes, 1),
               std::min(8 * workers, std::max(2 * workers, bytes / kMinTaskBytes)));
  Split const split = plan_split(nest, pieces, 4 * workers);
  std::size_t outer = 1;
  for (std::size_t j = nest.rank - split.top; j < nest.rank; ++j) outer *= nest.loops[j].extent;
  std::size_t const units = outer * split.slices;
  // Loops below the top ones run inside each unit, as in the serial walk; for
  // run copies loops[0] belongs to the call.
  std::size_t const first = nest.transpose == nullptr && nest.rank > 0 ? 1 : 0;
  Dim const* const inner = nest.loops + first;
  std::size_t const innerRank = nest.rank - first - split.top;
  bool const stream = nest.transpose != nullptr && nest.shape.stream;
  auto body = [&](tbb::blocked_range<std::size_t> const& r) {
    Walk walk(nest.loops + nest.rank - split.top, split.top, nest.width, r.begin() / split.slices);
    std::size_t slice = r.begin() % split.slices;
    for (std::size_t u = r.begin(); u < r.end(); ++u) {
      std::size_t const lo = split.bound(slice), hi = split.bound(slice + 1);
      auto part = [&](Byte const* s, Byte* d) { call(nest, split.axis, lo, hi, s, d); };
      for_each_index(inner, innerRank, nest.width, src + walk.src, dst + walk.dst, part);
      if (++slice == split.slices) {
        slice = 0;
        walk.next();
      }
    }
    // Non-temporal stores are weakly ordered: they must be globally visible
    // before the task reports itself done to the waiting thread.
    if (stream) _mm_sfence();
  };
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, units, std::max<std::size_t>(1, units / pieces)), body,
      tbb::auto_partitioner());
}

}  // namespace

void permute_parallel(Isa isa, std::size_t width, void const* src, void* dst, std::size_t numDims,
                      std::size_t const* sizes, std::size_t const* permutation,
                      std::size_t streamBytes, std::size_t parallelBytes, std::size_t taskBytes) {
  DimStorage storage(numDims);
  execute_parallel(make_plan(numDims, sizes, permutation, storage.get()), width, isa,
                   static_cast<Byte const*>(src), static_cast<Byte*>(dst), streamBytes,
                   parallelBytes, taskBytes);
}

}  // namespace qel_permute::detail
