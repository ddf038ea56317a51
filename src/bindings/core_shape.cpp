// Reshaping, views, axis order, broadcasting and tiling of _core.Tensor and
// _core.tramel, and the gradient of the mean. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/pair.h>

#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

void init_shape(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

  tr.def("mean_all_grad", [](const Tensor& g, const py::IntList& shape) {
    return mean_all_grad(g, shape.shape("mean_all_grad"));
  });

  cls.def("reshape", [](const Tensor& t, const py::IntList& shape) {
    return reshape(t, shape.get("reshape", "shape"));
  }, nb::arg("shape"));
  // The object stays; every Python reference to it sees the new shape.
  cls.def("reshape_", [](Tensor& t, const py::IntList& shape) {
    t.assign(reshape(t, shape.get("reshape_", "shape")));
  }, nb::arg("shape"));

  cls.def("flatten", [](const Tensor& t) { return flatten(t, 0, -1); });
  cls.def("flatten", [](const Tensor& t, const py::Axis& start, const py::Axis& end) {
    return flatten(t, start.get("flatten", "start"), end.get("flatten", "end"));
  }, nb::arg("start"), nb::arg("end"));
  cls.def("squeeze", [](const Tensor& t) { return squeeze(t); });
  cls.def("squeeze", [](const Tensor& t, const py::Axes& axis) {
    return squeeze(t, axis.get("squeeze", "axis"));
  }, nb::arg("axis"));
  cls.def("squeeze_", [](Tensor& t, const py::Axis& axis) {
    t.assign(squeeze(t, {axis.get("squeeze_")}));
  }, nb::arg("axis"));
  cls.def("unsqueeze", [](const Tensor& t, const py::Axis& axis) {
    return unsqueeze(t, axis.get("unsqueeze"));
  }, nb::arg("axis"));

  cls.def("transpose", [](const Tensor& t, const py::Axes& dims) {
    return py::unlocked(transpose, t, dims.get("transpose", "dims"));
  }, nb::arg("dims"));
  // The object stays; every Python reference to it sees the new order.
  cls.def("transpose_", [](Tensor& t, const py::Axes& dims) {
    t.assign(py::unlocked(transpose, t, dims.get("transpose_", "dims")));
  }, nb::arg("dims"));
  cls.def("swapaxis", [](const Tensor& t, const py::Axis& axis1, const py::Axis& axis2) {
    return py::unlocked(swapaxis, t, axis1.get("swapaxis", "axis1"), axis2.get("swapaxis", "axis2"));
  }, nb::arg("axis1"), nb::arg("axis2"));
  cls.def("flip", [](const Tensor& t, const py::Axes& dims) {
    return py::unlocked(flip, t, dims.get("flip", "flip_dims"));
  }, nb::arg("flip_dims"));

  cls.def("broadcast", [](const Tensor& a, const Tensor& b) {
    Shape common = broadcast_shape(a.shape(), b.shape(), "broadcast");
    return std::make_pair(broadcast_to(a, common), broadcast_to(b, common));
  }, nb::arg("other"));
  cls.def("broadcast_to", [](const Tensor& t, const py::IntList& shape) {
    return py::unlocked(broadcast_to, t, shape.shape("broadcast_to"));
  }, nb::arg("shape"));

  tr.def("tile", [](const Tensor& t, const py::IntList& reps) {
    return py::unlocked(tile, t, reps.get("tile", "reps"));
  });
  tr.def("TileGrad", [](const Tensor& x, const py::IntList& shape, const py::IntList& reps) {
    return py::unlocked(tile_grad, x, shape.shape("TileGrad"), reps.get("TileGrad", "reps"));
  });
}
