// Host kernel of broadcasting: copies of the source along repeated axes.
#include <algorithm>
#include <cstring>

#include "core/kernels/host_kernels.h"
#include "core/parallel.h"

namespace tramel {
namespace {

// out (of a shape that t broadcasts to, not empty) filled with t's elements.
void broadcast(const Tensor& t, Tensor& out) {
  const Shape& in = t.shape();
  const Shape& shape = out.shape();
  int rank = shape.rank();
  // Coalesce into runs of copied dims (in == out) and repeated dims (in == 1);
  // dims of length 1 drop out.
  int64_t od[kMaxRank], rep[kMaxRank];
  int n = 0;
  for (int i = 0; i < rank; ++i) {
    int64_t o = shape[i], d = i >= rank - in.rank() ? in[i - (rank - in.rank())] : 1;
    if (o == 1) continue;
    bool repeated = d == 1;
    if (n > 0 && bool(rep[n - 1]) == repeated) od[n - 1] *= o;
    else od[n] = o, rep[n] = repeated, ++n;
  }
  size_t item = itemsize(t.dtype());
  if (n == 0) {  // every dim is 1
    std::memcpy(out.raw(), t.raw(), item);
    return;
  }
  // Element strides of the source for each coalesced dim.
  int64_t src_stride[kMaxRank], running = 1;
  for (int i = n - 1; i >= 0; --i) {
    src_stride[i] = rep[i] ? 0 : running;
    if (!rep[i]) running *= od[i];
  }
  int64_t inner = od[n - 1], rows = out.numel() / inner;
  const char* src = static_cast<const char*>(t.raw());
  char* dst = static_cast<char*>(out.raw());
  parallel_for(rows, std::max<int64_t>(1, kParallelGrain / inner), [&](int64_t b, int64_t e) {
    for (int64_t row = b; row < e; ++row) {
      int64_t offset = 0, rest = row;
      for (int i = n - 2; i >= 0; --i) {
        offset += (rest % od[i]) * src_stride[i];
        rest /= od[i];
      }
      char* d = dst + size_t(row * inner) * item;
      const char* s = src + size_t(offset) * item;
      if (!rep[n - 1]) {
        std::memcpy(d, s, size_t(inner) * item);
      } else {  // one element repeated: double the filled prefix
        std::memcpy(d, s, item);
        for (int64_t done = 1; done < inner;) {
          int64_t k = std::min(done, inner - done);
          std::memcpy(d + size_t(done) * item, d, size_t(k) * item);
          done += k;
        }
      }
    }
  });
}

}  // namespace

void add_shape_kernels(Kernels& k) { k.broadcast = broadcast; }

}  // namespace tramel
