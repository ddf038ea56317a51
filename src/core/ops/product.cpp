// Matrix products on the last two axes: mult2D (rank 2), bmm (rank 3) and
// matmul (rank 4). The front checks ranks, devices and dimensions, promotes
// and hands the kernel a batch of products (kernels/product.cpp).
#include "core/ops/front.h"

namespace tramel {
namespace {

Tensor product(const char* op, int rank, const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob) {
  const bool ta = oa != OperandForm::AsIs, tb = ob != OperandForm::AsIs;
  const Shape& sa = a.shape();
  const Shape& sb = b.shape();
  if (sa.rank() != rank || sb.rank() != rank)
    fail(ErrorKind::Value, op,
         "expected two rank-" + std::to_string(rank) + " tensors, got " + sa.str() + " and " + sb.str());
  if (a.device() != b.device())
    fail(ErrorKind::Runtime, op, "tensors are on different devices: " + device_pair(a, b));
  int64_t dims[kMaxRank], batch = 1;
  for (int i = 0; i < rank - 2; ++i) {
    if (sa[i] != sb[i]) fail(ErrorKind::Value, op, "batch dimensions differ: " + sa.str() + " and " + sb.str());
    dims[i] = sa[i];
    batch *= sa[i];
  }
  int64_t rows = sa[rank - 2], cols = sa[rank - 1];
  int64_t m = ta ? cols : rows, k = ta ? rows : cols;
  int64_t kb = tb ? sb[rank - 1] : sb[rank - 2], n = tb ? sb[rank - 2] : sb[rank - 1];
  if (k != kb) fail(ErrorKind::Value, op, "inner dimensions differ: " + sa.str() + " and " + sb.str());
  DType d = promote(a.dtype(), b.dtype());
  if (d == DType::Bool) d = DType::Int64;  // numpy's bool product is a logical or of ands; ours counts
  ProductKernel kernel = need(kernels_of(a).product, a, op);
  dims[rank - 2] = m;
  dims[rank - 1] = n;
  // m * n, m * k and k * n are each bounded by an operand's or the result's
  // shape, so the kernel's products of dimensions fit in int64.
  Tensor out = Tensor::empty(Shape(dims, rank, op), d, a.device(), op);
  if (out.numel() == 0) return out;
  Tensor ha, hb;
  const Tensor& x = as_dtype(a, d, ha);
  const Tensor& y = as_dtype(b, d, hb);
  // A real operand's conjugate is itself.
  const bool complex = is_complex(d);
  kernel(x, y, out, {batch, m, n, k, ta, tb, complex && oa == OperandForm::Adjoint, complex && ob == OperandForm::Adjoint});
  return out;
}

}  // namespace

Tensor mult2D(const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob) { return product("mult2D", 2, a, b, oa, ob); }
Tensor bmm(const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob) { return product("bmm", 3, a, b, oa, ob); }
Tensor matmul(const Tensor& a, const Tensor& b, OperandForm oa, OperandForm ob) { return product("matmul", 4, a, b, oa, ob); }

}  // namespace tramel
