// Matrix parts, complex parts, spectra and norms along an axis: methods of
// _core.Tensor and functions of _core.tramel. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/pair.h>

#include "interop/docs.h"
#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

constexpr const char* kNew = "A new core tensor.";
constexpr const char* kProductGrad = "g: the gradient of the product, of its shape.";
constexpr const char* kFactorA = "a: the first factor of the forward call.";
constexpr const char* kFactorB = "b: the second factor of the forward call.";
constexpr const char* kHermitian =
    "data: a Hermitian (real symmetric) matrix or a batch of them on the last two axes; only the lower triangle\n"
    "    is read. Integers and bools compute in the default float dtype.";

}  // namespace

void init_linalg(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  tr.def("kron", [](const Tensor& a, const Tensor& b) { return py::unlocked(kron, a, b); }, nb::arg("a"), nb::arg("b"),
         py::doc("The Kronecker product, numpy's kron: the operand of lower rank gets leading axes of length one.",
                 {"a: a core tensor.", "b: a core tensor on a's device."},
                 "A new core tensor of the promoted dtype; axis i is a.shape[i] * b.shape[i] long.").c_str());
  tr.def("kron_t1grad", [](const Tensor& g, const Tensor& a, const Tensor& b) {
    return py::unlocked(kron_grad_a, g, a, b);
  }, nb::arg("g"), nb::arg("a"), nb::arg("b"),
     py::doc("The gradient of kron for its first factor: g over each block, times the conjugate of b, summed.",
             {kProductGrad, kFactorA, kFactorB}, "A new core tensor of a's shape.").c_str());
  tr.def("kron_t2grad", [](const Tensor& g, const Tensor& a, const Tensor& b) {
    return py::unlocked(kron_grad_b, g, a, b);
  }, nb::arg("g"), nb::arg("a"), nb::arg("b"),
     py::doc("The gradient of kron for its second factor: each block of g times the conjugate of its element of a,\n"
             "summed over the blocks.",
             {kProductGrad, kFactorA, kFactorB}, "A new core tensor of b's shape.").c_str());

  cls.def("triu", [](const Tensor& t, int64_t diagonal) { return py::unlocked(triu, t, diagonal); },
          nb::arg("diagonal") = 0,
          py::doc("The upper triangle of the last two axes: elements below diagonal number `diagonal` set to zero.",
                  {"diagonal: 0 the main diagonal, positive above it, negative below."}, kNew).c_str());
  cls.def("tril", [](const Tensor& t, int64_t diagonal) { return py::unlocked(tril, t, diagonal); },
          nb::arg("diagonal") = 0,
          py::doc("The lower triangle of the last two axes: elements above diagonal number `diagonal` set to zero.",
                  {"diagonal: 0 the main diagonal, positive above it, negative below."}, kNew).c_str());
  cls.def("trace", [](const Tensor& t, int64_t k) { return py::unlocked(trace, t, k); }, nb::arg("k") = 0,
          py::doc("The sum of diagonal number k of the last two axes, for each leading index.",
                  {"k: 0 the main diagonal, positive above it, negative below; past the matrix the sum is zero."},
                  "A new core tensor of the leading shape (0-d for a matrix); integers and bools sum in int64.")
              .c_str());
  cls.def("trace_grad", [](const Tensor& g, const py::IntList& shape, int64_t offset) {
    return py::unlocked(trace_grad, g, shape.shape("trace_grad"), offset);
  }, nb::arg("shape"), nb::arg("offset"),
     py::doc("The gradient of trace, called on the incoming gradient: zeros of `shape` with g's values on diagonal\n"
             "number `offset` of each matrix.",
             {"shape: the shape of trace's input.", "offset: the diagonal that trace summed."},
             "A new core tensor of g's dtype.").c_str());

  tr.def("real", [](const Tensor& t) { return py::unlocked(real, t); }, nb::arg("data"),
         py::doc("The real parts.", {"data: a core tensor."},
                 "A new core tensor of the real dtype (a copy for a real tensor).").c_str());
  tr.def("imag", [](const Tensor& t) { return py::unlocked(imag, t); }, nb::arg("data"),
         py::doc("The imaginary parts.", {"data: a core tensor."},
                 "A new core tensor of the real dtype (zeros of its dtype for a real tensor).").c_str());

  tr.def("eigvalsh", [](const Tensor& t) { return py::unlocked(eigvalsh, t); }, nb::arg("data"),
         py::doc("The eigenvalues of Hermitian matrices, ascending, through LAPACK ?syevd/?heevd.", {kHermitian},
                 "A new core tensor [..., n] of the real dtype.").c_str());
  tr.def("eigvalsh_grad", [](const Tensor& g, const Tensor& t) { return py::unlocked(eigvalsh_grad, g, t); },
         nb::arg("g"), nb::arg("data"),
         py::doc("The gradient of eigvalsh: V diag(g) V^H, V the eigenvectors of data.",
                 {"g: the gradient of the eigenvalues, [..., n].", "data: the input of the forward call."},
                 "A new core tensor of data's shape and floating dtype.").c_str());
  tr.def("eigh", [](const Tensor& t) { return py::unlocked(eigh, t); }, nb::arg("data"),
         py::doc("The eigen-decomposition of Hermitian matrices, packed in one tensor.", {kHermitian},
                 "A new core tensor [..., n + 1, n] of data's floating dtype: row 0 the eigenvalues, ascending;\n"
                 "    rows 1..n the matrix V whose columns are the eigenvectors (data = V diag(w) V^H).").c_str());

  cls.def("l2_norm", [](const Tensor& t, int64_t axis, bool keepdims) {
    NormAlongAxis r = py::unlocked(static_cast<NormAlongAxis (*)(const Tensor&, int64_t, bool)>(l2_norm), t, axis,
                                   keepdims);
    return std::make_pair(std::move(r.norm), std::move(r.square_sum));
  }, nb::arg("axis"), nb::arg("keepdims"),
     py::doc("The Euclidean norm along one axis, with the sum of squared magnitudes it was taken from.",
             {"axis: the axis; negative counts from the end.", "keepdims: keep the axis with length one."},
             "A tuple (norm, square_sum) of new core tensors of the real dtype; integers and bools compute in the\n"
             "    default float dtype.").c_str());
  cls.def("l2_norm_grad", [](const Tensor& x, const Tensor& square_sum, const Tensor& g, int64_t axis) {
    return py::unlocked(l2_norm_grad, x, square_sum, g, axis);
  }, nb::arg("reduce_square_sum"), nb::arg("g"), nb::arg("axis"),
     py::doc("The gradient of the norm along an axis, called on its input x: g * x / norm, spread along the axis\n"
             "(zero where the norm is zero).",
             {"reduce_square_sum: the sums of squares that l2_norm(x, axis, keepdims) returned.",
              "g: the gradient of the norm, of the norm's shape.", "axis: the axis of the forward call."},
             "A new core tensor of x's shape and floating dtype.").c_str());
}
