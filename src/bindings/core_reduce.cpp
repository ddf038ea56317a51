// Reductions of _core.Tensor (sums, means, extrema, medians, spreads) and the
// running sums of _core.tramel. Convert, call, return.
#include <nanobind/nanobind.h>

#include <string>

#include "interop/docs.h"
#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

using AxesFn = Tensor (*)(const Tensor&, const std::vector<int64_t>&, bool);
using AllFn = Tensor (*)(const Tensor&);
using SpreadAxesFn = Tensor (*)(const Tensor&, const std::vector<int64_t>&, bool, bool);
using SpreadAllFn = Tensor (*)(const Tensor&, bool);

constexpr const char* kAxes = "axes: an axis or a sequence of axes; negative ones count from the end.";
constexpr const char* kKeep = "keepdims: keep the reduced axes with length one.";
constexpr const char* kUnbiased = "unbiased: divide by n - 1 when true (Python truth), else by n.";

// The summary lines read "The <what> of all elements.<note>" and "The <what>
// along axes.<note>".
std::string summary(const char* what, const char* where, const char* note) {
  return std::string("The ") + what + where + note;
}

void def_reduction(nb::class_<Tensor>& cls, const char* name, AllFn all, AxesFn axes, const char* what,
                   const char* note) {
  cls.def(name, [all](const Tensor& t) { return py::unlocked(all, t); },
          py::doc(summary(what, " of all elements.", note).c_str(), {},
                  "A new one-element core tensor of shape [1].").c_str());
  cls.def(name, [axes, name](const Tensor& t, const py::Axes& dims, bool keepdims) {
    return py::unlocked(axes, t, dims.get(name), keepdims);
  }, nb::arg("axes"), nb::arg("keepdims") = false,
     py::doc(summary(what, " along axes.", note).c_str(), {kAxes, kKeep}, "A new core tensor.").c_str());
}

// Python's truth value of any object.
bool truth(nb::handle h) {
  int v = PyObject_IsTrue(h.ptr());
  if (v < 0) nb::raise_python_error();
  return v == 1;
}

// `unbiased` is taken with Python's truthiness, whatever object it is.
void def_spread(nb::class_<Tensor>& cls, const char* name, SpreadAllFn all, SpreadAxesFn axes, const char* what) {
  cls.def(name, [all](const Tensor& t, nb::handle unbiased) { return py::unlocked(all, t, truth(unbiased)); },
          nb::arg("unbiased").none(),
          py::doc(summary(what, " of all elements.", "").c_str(), {kUnbiased},
                  "A new one-element real core tensor of shape [1].").c_str());
  cls.def(name, [axes, name](const Tensor& t, const py::Axes& dims, bool keepdims, nb::handle unbiased) {
    return py::unlocked(axes, t, dims.get(name), keepdims, truth(unbiased));
  }, nb::arg("axes"), nb::arg("keepdims"), nb::arg("unbiased").none(),
     py::doc(summary(what, " along axes.", "").c_str(), {kAxes, kKeep, kUnbiased},
             "A new real core tensor.").c_str());
}

}  // namespace

void init_reduce(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  def_reduction(cls, "sum", sum, sum, "sum", " Integers and bools sum to int64.");
  def_reduction(cls, "mean", mean, mean, "mean", "");
  def_reduction(cls, "min", min, min, "smallest value", " Real dtypes; NaN propagates.");
  def_reduction(cls, "max", max, max, "largest value", " Real dtypes; NaN propagates.");
  def_reduction(cls, "median", median, median, "median", " Real dtypes; an even count gives the mean of the middle two.");
  def_spread(cls, "var", var, var, "variance");
  def_spread(cls, "std", tramel::std, tramel::std, "standard deviation");

  tr.def("cumsum", [](const Tensor& t, const py::Axis& axis) {
    return py::unlocked(cumsum, t, axis.get("cumsum"));
  }, nb::arg("data"), nb::arg("axis"),
     py::doc("Running sums along an axis.", {"data: a core tensor.", "axis: the axis; negative counts from the end."},
             "A new core tensor of data's shape.").c_str());
  tr.def("cumsumgrad", [](const Tensor& g, const py::Axis& axis) {
    return py::unlocked(cumsum_grad, g, axis.get("cumsumgrad"));
  }, nb::arg("g"), nb::arg("axis"),
     py::doc("The gradient of cumsum: the running sums of g from the end of the axis.",
             {"g: the gradient of cumsum's result.", "axis: the axis of the forward call."},
             "A new core tensor of g's shape.").c_str());
}
