// Splitting large loops across threads. Included by kernel files only.
#pragma once
#include <cstdint>
#ifdef _OPENMP
#include <omp.h>
#endif

namespace tramel {

// Whether this processor runs AVX2 + FMA code (see Note [vector clones]).
bool wide_vectors();

// Below this many elements a loop stays on the calling thread: waking the
// thread team costs more than it saves.
constexpr int64_t kParallelGrain = 1 << 16;

// Calls body(begin, end) over [0, n) in contiguous chunks, one per thread.
template <typename F>
void parallel_for(int64_t n, int64_t grain, F&& body) {
#ifdef _OPENMP
  if (n > grain && omp_get_max_threads() > 1 && !omp_in_parallel()) {
#pragma omp parallel
    {
      int64_t threads = omp_get_num_threads(), id = omp_get_thread_num();
      int64_t chunk = (n + threads - 1) / threads;
      int64_t begin = id * chunk, end = begin + chunk < n ? begin + chunk : n;
      if (begin < end) body(begin, end);
    }
    return;
  }
#endif
  if (n > 0) body(int64_t(0), n);
}

}  // namespace tramel
