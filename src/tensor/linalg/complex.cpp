// Complex and spectral operators: conj, real, imag and adjoint; the
// Hermitian eigen-decompositions eigvalsh and eigh; frobenius_norm.
// conj, real, imag, eigvalsh and eigh keep no export record: an exported
// graph holds their results as constants.
#include <nanobind/stl/optional.h>

#include <memory>
#include <optional>

#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

Tensor float_to_complex(const Tensor& t) {
  switch (t.dtype()) {
    case DType::Float32: return to_dtype(t, DType::Complex64, true);
    case DType::Float64: return to_dtype(t, DType::Complex128, true);
    case DType::Complex64:
    case DType::Complex128: return t;
    default: throw nb::value_error("data type of complex or float is supported");
  }
}

Tensor frobenius_grad(const Tensor& g, const Tensor& x, const Tensor& norm) {
  Tensor grad = binary(BinaryOp::Div, x, broadcast_to(norm, x.shape()));
  binary_(BinaryOp::Mul, grad, broadcast_to(g, x.shape()));
  return grad;
}

namespace {

// conj, real and imag: one plan. The result lives where t says it does
// (t.device), and its edge is named by the table.
struct PartRow {
  const char* name;
  Tensor (*forward)(const Tensor&);
  const char* label;  // + id(t)
  RowDoc doc;
};
const PartRow kParts[] = {
    {"conj", [](const Tensor& x) { return unary(UnaryOp::Conj, x); }, "conj grad of ",
     {"The element-wise complex conjugate; a real tensor gives a copy.", "A new QTensor of t's dtype; differentiable."}},
    {"real", [](const Tensor& x) { return real(x); }, "real of ",
     {"The real parts.",
      "A new QTensor of the real dtype (a copy for a real tensor); differentiable, the gradient returning in the\n"
      "    complex dtype."}},
    {"imag", [](const Tensor& x) { return imag(x); }, "imag of ",
     {"The imaginary parts.",
      "A new QTensor of the real dtype (zeros for a real tensor); differentiable, the gradient being the incoming\n"
      "    one times 1j."}},
};

TensorResult complex_part(const PartRow& row, const Derivatives& derivatives, nb::handle t) {
  QTensor& q = as_qtensor(t, row.name);
  return make_result(row.forward(core_of(q, row.name)), {t}, derivatives,
                     [&](int, Edge& e) { e.label = LazyLabel(row.label).id(t); }, {q.requires_grad, q.device});
}

TensorResult conj_op(nb::handle t) {
  static const Derivatives& derivatives = derivatives_of("conj");
  static const PartRow& row = row_named(kParts, "conj");
  return complex_part(row, derivatives, t);
}

// The conjugate transpose of the last two axes, built from transpose and
// conj (their nodes are the graph); a vector is only conjugated, and a 0-d
// tensor gives None.
std::optional<TensorResult> adjoint_op(TensorArg t) {
  int ndim = core_of(t, "adjoint").ndim();
  if (ndim == 1) return conj_op(t);
  if (ndim < 2) return std::nullopt;
  nb::list dims;
  for (int i = 0; i < ndim; ++i) dims.append(i == ndim - 2 ? ndim - 1 : i == ndim - 1 ? ndim - 2 : i);
  return conj_op(transposed(t, py::IntList(dims)));
}

// eigvalsh and eigh copy the input's requires_grad, whatever object it is,
// and make their edge only when it is True itself.
template <typename Describe>
TensorResult spectral(TensorArg t, Tensor (*forward)(const Tensor&), const char* op, Describe&& describe) {
  QTensor& q = as_qtensor(t, op);
  Tensor data = forward(core_of(q, op));
  ResultFields fields{q.requires_grad, {}};
  if (!is_true(q.requires_grad)) return make_leaf_result(std::move(data), {t}, fields);
  return make_result(std::move(data), {t}, derivatives_of(op), describe, fields);
}

TensorResult eigvalsh_op(TensorArg t) {
  return spectral(t, eigvalsh, "eigvalsh", [&](int, Edge& e) { e.label = LazyLabel("t1 eigvalsh grad ").id(t); });
}

TensorResult eigh_op(TensorArg t) {
  Shape shape = core_of(t, "eigh").shape();
  return spectral(t, eigh, "eigh", [&](int, Edge& e) { e.label = LazyLabel("t1 eigh grad ").shape(shape); });
}

TensorResult frobenius_norm_op(TensorArg t, const py::Axis& axis, nb::handle keepdims) {
  QTensor& q = as_qtensor(t, "frobenius_norm");
  const Tensor& x = core_of(q, "frobenius_norm");
  nb::object y, axis_value = nb::borrow(axis);
  if (axis.is_none()) {
    // The norm as a new tensor holds a Python float: 0-d, of the default dtype.
    static const Derivatives& derivatives = derivatives_of("frobenius_norm");
    int device = py::DeviceArg(q.device).get("frobenius_norm");
    Tensor data = full(Shape(), Scalar::from_double(l2_norm(x)), device, default_dtype(), "frobenius_norm");
    y = make_result(std::move(data), {t}, derivatives, [](int, Edge&) {}, {q.requires_grad, q.device});
  } else {
    static const Derivatives& derivatives = derivatives_of("frobenius_norm along axis");
    int64_t a = maybe_wrap_dim(axis.get("frobenius_norm"), x.ndim());
    NormAlongAxis norm = l2_norm(x, a, truthy(keepdims));
    auto state = std::make_shared<NormState>();
    state->square_sum = std::move(norm.square_sum);
    y = make_result(std::move(norm.norm), {t}, derivatives, [&](int, Edge& e) {
      e.derivative.axes = {a};
      e.derivative.state = state;
    });
    axis_value = nb::int_(a);
  }
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(" frobenius_norm ")}});
    nb::dict attribute;
    attribute["axes"] = axis_value;
    attribute["keepdims"] = keepdims;
    return make_record(id_text(t) + "_frobenius_norm_" + py_text(axis_value) + "_" + id_text(y), "Frobenius_Norm", {t},
                       y, attribute);
  });
  return y;
}

}  // namespace

void init_complex(nb::module_& m, nb::class_<QTensor>&) {
  using nb::arg;
  constexpr const char* kT = "t: a QTensor.";
  constexpr const char* kHermitian =
      "t: a QTensor holding a Hermitian (real symmetric) matrix, or a batch of them on the last two axes; only the\n"
      "    lower triangle is read. Integers and bools compute in the default float dtype.";
  for (const PartRow& row : kParts) {
    const Derivatives* derivatives = &derivatives_of(row.name);
    m.def(row.name, [&row, derivatives](TensorArg t) { return complex_part(row, *derivatives, t); }, arg("t").none(),
          py::doc(row.doc.summary, {kT}, row.doc.returns).c_str());
  }
  m.def("adjoint", &adjoint_op, arg("t").none(),
        py::doc("The conjugate transpose of the last two axes, made of transpose and conj; a 1-d tensor is conjugated.",
                {kT}, "A new QTensor, or None for a 0-d tensor.").c_str());
  m.def("eigvalsh", &eigvalsh_op, arg("t").none(),
        py::doc("The eigenvalues of Hermitian matrices, ascending.", {kHermitian},
                "A new QTensor [..., n] of the real dtype. It copies t's requires_grad and is differentiable when\n"
                "    that is True.").c_str());
  m.def("eigh", &eigh_op, arg("t").none(),
        py::doc("The eigen-decomposition of Hermitian matrices, packed in one tensor.", {kHermitian},
                "A new QTensor [..., n + 1, n] of t's floating dtype: row 0 the eigenvalues, ascending; rows 1..n\n"
                "    the matrix V whose columns are the eigenvectors. It copies t's requires_grad; its gradient is\n"
                "    zero (zeros of t's shape).").c_str());
  m.def("frobenius_norm", &frobenius_norm_op, arg("t").none(), arg("axis").none() = nb::none(),
        arg("keepdims").none() = false,
        py::doc("The Frobenius (Euclidean) norm of all elements, or along one axis.",
                {kT, "axis: None for all elements, or one axis; negative ones count from the end.",
                 "keepdims: along an axis, keep it with length one; any object, read by its truth."},
                "A new QTensor of the real dtype; over all elements a 0-d tensor of the default dtype on\n"
                "    t.device. Differentiable.").c_str());
}
TRAMEL_FAMILY(init_complex);

}  // namespace tramel::tensor
