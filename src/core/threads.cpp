// The number of threads that large loops split across.
#include "core/ops.h"
#include "core/parallel.h"
#ifdef _OPENMP
#include <omp.h>
#endif

namespace tramel {

void set_num_threads(int n) {
  if (n < 1) fail(ErrorKind::Value, "set_num_threads", "the number of threads must be at least 1, got " + std::to_string(n));
#ifdef _OPENMP
  omp_set_num_threads(n);
#endif
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
