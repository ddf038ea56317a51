// Reductions of _core.Tensor (sums, means, extrema, medians, spreads) and the
// running sums of _core.tramel. Convert, call, return.
#include <nanobind/nanobind.h>

#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

using AxesFn = Tensor (*)(const Tensor&, const std::vector<int64_t>&, bool);
using AllFn = Tensor (*)(const Tensor&);
using SpreadAxesFn = Tensor (*)(const Tensor&, const std::vector<int64_t>&, bool, bool);
using SpreadAllFn = Tensor (*)(const Tensor&, bool);

void def_reduction(nb::class_<Tensor>& cls, const char* name, AllFn all, AxesFn axes) {
  cls.def(name, [all](const Tensor& t) { return py::unlocked(all, t); });
  cls.def(name, [axes, name](const Tensor& t, const py::Axes& dims, bool keepdims) {
    return py::unlocked(axes, t, dims.get(name), keepdims);
  }, nb::arg("axes"), nb::arg("keepdims") = false);
}

// Python's truth value of any object.
bool truth(nb::handle h) {
  int v = PyObject_IsTrue(h.ptr());
  if (v < 0) nb::raise_python_error();
  return v == 1;
}

// `unbiased` is taken with Python's truthiness, whatever object it is.
void def_spread(nb::class_<Tensor>& cls, const char* name, SpreadAllFn all, SpreadAxesFn axes) {
  cls.def(name, [all](const Tensor& t, nb::handle unbiased) { return py::unlocked(all, t, truth(unbiased)); },
          nb::arg("unbiased").none());
  cls.def(name, [axes, name](const Tensor& t, const py::Axes& dims, bool keepdims, nb::handle unbiased) {
    return py::unlocked(axes, t, dims.get(name), keepdims, truth(unbiased));
  }, nb::arg("axes"), nb::arg("keepdims"), nb::arg("unbiased").none());
}

}  // namespace

void init_reduce(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  def_reduction(cls, "sum", sum, sum);
  def_reduction(cls, "mean", mean, mean);
  def_reduction(cls, "min", min, min);
  def_reduction(cls, "max", max, max);
  def_reduction(cls, "median", median, median);
  def_spread(cls, "var", var, var);
  def_spread(cls, "std", tramel::std, tramel::std);

  tr.def("cumsum", [](const Tensor& t, const py::Axis& axis) {
    return py::unlocked(cumsum, t, axis.get("cumsum"));
  }, nb::arg("data"), nb::arg("axis"));
  tr.def("cumsumgrad", [](const Tensor& g, const py::Axis& axis) {
    return py::unlocked(cumsum_grad, g, axis.get("cumsumgrad"));
  }, nb::arg("g"), nb::arg("axis"));
}
