// Sums, means, reshaping, broadcasting and tiling of _core.Tensor and
// _core.tramel. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/pair.h>

#include "bindings/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

Shape shape_from(nb::handle value, const char* op) {
  std::vector<int64_t> dims = py::ints_arg(value, op, "shape");
  if (dims.size() > size_t(kMaxRank))
    fail(ErrorKind::Value, op, "rank " + std::to_string(dims.size()) + " exceeds the largest supported rank " +
                                   std::to_string(kMaxRank));
  return Shape(dims.data(), int(dims.size()), op);
}

using AxesFn = Tensor (*)(const Tensor&, const std::vector<int64_t>&, bool);
using AllFn = Tensor (*)(const Tensor&);

void def_reduction(nb::class_<Tensor>& cls, const char* name, AllFn all, AxesFn axes) {
  cls.def(name, [all](const Tensor& t) { return py::unlocked(all, t); });
  cls.def(name, [axes, name](const Tensor& t, nb::handle dims, bool keepdims) {
    return py::unlocked(axes, t, py::ints_arg(dims, name, "axes"), keepdims);
  }, nb::arg("axes"), nb::arg("keepdims") = false);
}

}  // namespace

void init_shape(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  def_reduction(cls, "sum", sum, sum);
  def_reduction(cls, "mean", mean, mean);
  tr.def("mean_all_grad", [](const Tensor& g, nb::handle shape) {
    return mean_all_grad(g, shape_from(shape, "mean_all_grad"));
  });

  cls.def("reshape", [](const Tensor& t, nb::handle shape) {
    return reshape(t, py::ints_arg(shape, "reshape", "shape"));
  }, nb::arg("shape"));
  // The object stays; every Python reference to it sees the new shape.
  cls.def("reshape_", [](Tensor& t, nb::handle shape) {
    t.assign(reshape(t, py::ints_arg(shape, "reshape_", "shape")));
  }, nb::arg("shape"));

  cls.def("broadcast", [](const Tensor& a, const Tensor& b) {
    Shape common = broadcast_shape(a.shape(), b.shape(), "broadcast");
    return std::make_pair(broadcast_to(a, common), broadcast_to(b, common));
  }, nb::arg("other"));
  cls.def("broadcast_to", [](const Tensor& t, nb::handle shape) {
    return py::unlocked(broadcast_to, t, shape_from(shape, "broadcast_to"));
  }, nb::arg("shape"));

  tr.def("tile", [](const Tensor& t, nb::handle reps) {
    return py::unlocked(tile, t, py::ints_arg(reps, "tile", "reps"));
  });
  tr.def("TileGrad", [](const Tensor& x, nb::handle shape, nb::handle reps) {
    return py::unlocked(tile_grad, x, shape_from(shape, "TileGrad"), py::ints_arg(reps, "TileGrad", "reps"));
  });
}
