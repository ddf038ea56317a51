// Matrix parts: the Kronecker product kron, the triangles triu and tril, and
// trace, each a differentiable shell round its engine call.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult kron_op(TensorArg t1, TensorArg t2) {
  static const Derivatives& derivatives = derivatives_of("kron");
  const Tensor& a = core_of(t1, "kron");
  const Tensor& b = core_of(t2, "kron");
  Shape sa = a.shape(), sb = b.shape();
  // No export record: an exported graph holds the product as a constant.
  return make_result(kron(a, b), {t1, t2}, derivatives, [&](int i, Edge& e) {
    e.label = LazyLabel(i == 0 ? "kron t1 " : "kron t2 ").shape(i == 0 ? sa : sb).then(" grad");
  });
}

TensorResult triangle_op(TensorArg t, const py::Axis& diagonal, bool upper) {
  const char* op = upper ? "triu" : "tril";
  static const Derivatives& triu_row = derivatives_of("triu");
  static const Derivatives& tril_row = derivatives_of("tril");
  const Tensor& x = core_of(t, op);
  if (x.ndim() < 2) throw nb::value_error("Only support a matrix (2-D tensor) or batch of matrices input");
  int64_t d = diagonal.get(op, "diagonal");
  nb::object y = make_result(upper ? triu(x, d) : tril(x, d), {t}, upper ? triu_row : tril_row,
                             [&](int, Edge& e) { e.derivative.axes = {d}; });
  // (sic) the record's k is always 0: the recording is not handed the call's
  // diagonal and keeps its own default.
  nb::object k = nb::int_(0);
  if (upper) record_one_input(y, t, " triu ", "Triu", "_triu_", {{"k", k}});
  else record_one_input(y, t, " tril ", "Tril", "_tril_", {{"k", k}});
  return y;
}

TensorResult trace_op(TensorArg t, const py::Axis& k) {
  static const Derivatives& derivatives = derivatives_of("trace");
  int64_t offset = k.get("trace", "k");
  nb::object y = make_result(trace(core_of(t, "trace"), offset), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = {offset};
    e.label = LazyLabel("trace grad of ").id(t);
  });
  record_one_input(y, t, " trace ", "Trace", "_trace_", {});
  return y;
}

}  // namespace

void init_parts(nb::module_& m, nb::class_<QTensor>&) {
  using nb::arg;
  constexpr const char* kMatrices = "t: a QTensor of rank 2 or more: a matrix, or a batch of them on the last two axes.";
  constexpr const char* kDiagonal = "diagonal: the diagonal that bounds the triangle: 0 the main one, positive above it.";
  m.def("kron", &kron_op, arg("t1").none(), arg("t2").none(),
        py::doc("The Kronecker product; the operand of lower rank gets leading axes of length one.",
                {"t1: a QTensor.", "t2: a QTensor on t1's device."},
                "A new QTensor, axis i t1.shape[i] * t2.shape[i] long; differentiable in both operands.").c_str());
  m.def("triu", [](TensorArg t, const py::Axis& diagonal) { return triangle_op(t, diagonal, true); },
        arg("t").none(), arg("diagonal").none() = 0,
        py::doc("The upper triangle of the last two axes: elements below the diagonal set to zero.",
                {kMatrices, kDiagonal},
                "A new QTensor; differentiable. ValueError for a tensor of rank below 2.").c_str());
  m.def("tril", [](TensorArg t, const py::Axis& diagonal) { return triangle_op(t, diagonal, false); },
        arg("t").none(), arg("diagonal").none() = 0,
        py::doc("The lower triangle of the last two axes: elements above the diagonal set to zero.",
                {kMatrices, kDiagonal},
                "A new QTensor; differentiable. ValueError for a tensor of rank below 2.").c_str());
  m.def("trace", &trace_op, arg("t").none(), arg("k").none() = 0,
        py::doc("The sum along diagonal k of the last two axes, for each leading index.",
                {kMatrices, "k: the diagonal: 0 the main one, positive above it, negative below."},
                "A new QTensor of the leading shape (0-d for a matrix); differentiable.").c_str());
}
TRAMEL_FAMILY(init_parts);

}  // namespace tramel::tensor
