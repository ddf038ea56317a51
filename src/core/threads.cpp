// The number of threads that large loops split across.
#include <algorithm>
#include <thread>

#include "core/kernels/blas.h"
#include "core/ops.h"
#include "core/parallel.h"
#ifdef _OPENMP
#include <omp.h>
#endif

namespace tramel {

namespace {

// The thread count the process started with (OMP_NUM_THREADS, or one per
// processor), read when the library loads, so that the count get_num_threads
// reports can always be set again.
const int kInitialThreads = get_num_threads();

// The most threads set_num_threads takes: a few per processor (or the count
// the process started with, up to 1024). Beyond that a team only
// oversubscribes the processors, and far beyond it the creation of its
// threads fails inside a parallel region, which ends the process.
int max_threads() {
#ifdef _OPENMP
  int processors = omp_get_num_procs();
#else
  int processors = int(std::thread::hardware_concurrency());
#endif
  return std::max(4 * std::max(processors, 1), std::min(kInitialThreads, 1024));
}

}  // namespace

void set_num_threads(int n) {
  const char* op = "set_num_threads";
  if (n < 1) fail(ErrorKind::Value, op, "the number of threads must be at least 1, got " + std::to_string(n));
  int limit = max_threads();
  if (n > limit)
    fail(ErrorKind::Value, op,
         "the number of threads must be at most " + std::to_string(limit) + " on this machine, got " +
             std::to_string(n));
#ifdef _OPENMP
  omp_set_num_threads(n);
#endif
  scipy_openblas_set_num_threads(n);  // BLAS keeps its own thread pool
}

bool wide_vectors() {
#if defined(__x86_64__) && defined(__GNUC__)
  static const bool wide = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  }();
  return wide;
#else
  return false;
#endif
}

int get_num_threads() {
#ifdef _OPENMP
  return omp_get_max_threads();
#else
  return 1;
#endif
}

}  // namespace tramel
