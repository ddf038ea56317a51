// Reshaping, views, axis order, broadcasting and tiling of _core.Tensor and
// _core.tramel, and the gradient of the mean. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/pair.h>

#include "interop/interop.h"

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

}  // namespace

void init_shape(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));

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

  cls.def("flatten", [](const Tensor& t) { return flatten(t, 0, -1); });
  cls.def("flatten", [](const Tensor& t, nb::handle start, nb::handle end) {
    return flatten(t, py::int_arg(start, "flatten", "start"), py::int_arg(end, "flatten", "end"));
  }, nb::arg("start"), nb::arg("end"));
  cls.def("squeeze", [](const Tensor& t) { return squeeze(t); });
  cls.def("squeeze", [](const Tensor& t, nb::handle axis) {
    return squeeze(t, py::ints_arg(axis, "squeeze", "axis"));
  }, nb::arg("axis"));
  cls.def("squeeze_", [](Tensor& t, nb::handle axis) {
    t.assign(squeeze(t, {py::int_arg(axis, "squeeze_", "axis")}));
  }, nb::arg("axis"));
  cls.def("unsqueeze", [](const Tensor& t, nb::handle axis) {
    return unsqueeze(t, py::int_arg(axis, "unsqueeze", "axis"));
  }, nb::arg("axis"));

  cls.def("transpose", [](const Tensor& t, nb::handle dims) {
    return py::unlocked(transpose, t, py::ints_arg(dims, "transpose", "dims"));
  }, nb::arg("dims"));
  // The object stays; every Python reference to it sees the new order.
  cls.def("transpose_", [](Tensor& t, nb::handle dims) {
    t.assign(py::unlocked(transpose, t, py::ints_arg(dims, "transpose_", "dims")));
  }, nb::arg("dims"));
  cls.def("swapaxis", [](const Tensor& t, nb::handle axis1, nb::handle axis2) {
    return py::unlocked(swapaxis, t, py::int_arg(axis1, "swapaxis", "axis1"), py::int_arg(axis2, "swapaxis", "axis2"));
  }, nb::arg("axis1"), nb::arg("axis2"));
  cls.def("flip", [](const Tensor& t, nb::handle dims) {
    return py::unlocked(flip, t, py::ints_arg(dims, "flip", "flip_dims"));
  }, nb::arg("flip_dims"));

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
