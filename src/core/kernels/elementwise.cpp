// Element-wise kernels over operands of one shape (broadcasting happens above).
#include "core/ops.h"
#include "core/parallel.h"

namespace tramel {
namespace {

struct AddOp {
  template <typename T> T operator()(T a, T b) const {
    if constexpr (std::is_same_v<T, bool>) return a || b;
    else return T(a + b);
  }
};

void check_same_placement(const char* op, const Tensor& a, const Tensor& b) {
  if (a.shape() != b.shape())
    fail(ErrorKind::Value, op, "shapes differ: " + a.shape().str() + " and " + b.shape().str());
  if (a.device() != b.device())
    fail(ErrorKind::Runtime, op,
         "tensors are on different devices: " + std::to_string(a.device()) + " and " + std::to_string(b.device()));
}

// a[i] = op(a[i], b[i]), with b converted to a's dtype first.
template <typename Op, DTypeSet Allowed>
void binary_inplace(const char* name, Tensor& a, const Tensor& b) {
  check_same_placement(name, a, b);
  require_host_addressable(a.device(), name);
  Tensor rhs = to_dtype(b, a.dtype(), false);
  a.make_storage_unique();
  dispatch<Allowed>(a.dtype(), name, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* x = a.data<T>();
    const T* y = rhs.data<T>();
    Op op;
    parallel_for(a.numel(), kParallelGrain, [&](int64_t begin, int64_t end) {
      for (int64_t i = begin; i < end; ++i) x[i] = op(x[i], y[i]);
    });
  });
}

}  // namespace

void add_(Tensor& t, const Tensor& other) { binary_inplace<AddOp, kAllTypes>("add_", t, other); }

}  // namespace tramel
