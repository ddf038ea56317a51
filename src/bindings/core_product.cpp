// The matrix products of _core.Tensor, functions of the class: mult2D, bmm
// and matmul. Convert, call, return.
#include <nanobind/nanobind.h>

#include "interop/args.h"
#include "interop/docs.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

// A transposition flag: the integer 0 or 1.
bool flag(const py::Axis& value, const char* op, const char* what) {
  int64_t v = value.get(op, what);
  if (v != 0 && v != 1) fail(ErrorKind::Value, op, std::string(what) + " must be 0 or 1, got " + std::to_string(v));
  return v == 1;
}

using Product = Tensor (*)(const Tensor&, const Tensor&, bool, bool);

template <Product F>
void def_product(nb::class_<Tensor>& cls, const char* name, const char* summary) {
  const char* a = "a: a core tensor; the matrices are its last two axes.";
  const char* b = "b: a core tensor of the same rank and leading axes.";
  const char* returns = "A new core tensor of the promoted dtype (int64 for bools).";
  cls.def_static(name, [](const Tensor& x, const Tensor& y) { return py::unlocked(F, x, y, false, false); },
                 nb::arg("a"), nb::arg("b"), py::doc(summary, {a, b}, returns).c_str());
  cls.def_static(name, [name](const Tensor& x, const Tensor& y, const py::Axis& ta, const py::Axis& tb) {
    bool a_t = flag(ta, name, "ta");
    bool b_t = flag(tb, name, "tb");
    return py::unlocked(F, x, y, a_t, b_t);
  }, nb::arg("a"), nb::arg("b"), nb::arg("ta"), nb::arg("tb"),
     py::doc(summary, {a, b, "ta: 1 to take a with its last two axes exchanged (no conjugate), 0 as it is.",
                       "tb: the same for b."}, returns).c_str());
}

}  // namespace

void init_product(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  def_product<mult2D>(cls, "mult2D", "The product of two matrices.");
  def_product<bmm>(cls, "bmm", "The products of two batches of matrices (rank 3), pair by pair; batch sizes must be equal.");
  def_product<matmul>(cls, "matmul",
                      "The products of two double batches of matrices (rank 4), pair by pair; the batch axes must be "
                      "equal.");
}
