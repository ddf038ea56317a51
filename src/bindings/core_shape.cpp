// Reshaping, views, axis order, broadcasting and tiling of _core.Tensor and
// _core.tramel, and the gradient of the mean. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/pair.h>

#include "interop/docs.h"
#include "interop/args.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

void init_shape(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));
  nb::module_ tr = nb::borrow<nb::module_>(m.attr("tramel"));
  const char* axis_doc = "axis: the axis; negative counts from the end.";

  tr.def("mean_all_grad", [](const Tensor& g, const py::IntList& shape) {
    return mean_all_grad(g, shape.shape("mean_all_grad"));
  }, nb::arg("g"), nb::arg("shape"),
     py::doc("The gradient of the mean of all elements: g / n in every element of a shape of n elements.",
             {"g: a one-element core tensor.", "shape: the forward input's shape."}, "A new core tensor.").c_str());

  cls.def("reshape", [](const Tensor& t, const py::IntList& shape) {
    return reshape(t, shape.get("reshape", "shape"));
  }, nb::arg("shape"),
     py::doc("The same elements in a new shape, sharing storage.",
             {"shape: the dimensions; one of them may be -1, inferred from the others."}, "A new core tensor.")
         .c_str());
  // The object stays; every Python reference to it sees the new shape.
  cls.def("reshape_", [](Tensor& t, const py::IntList& shape) {
    t.assign(reshape(t, shape.get("reshape_", "shape")));
  }, nb::arg("shape"),
     py::doc("Gives the tensor itself a new shape; every reference to it sees the change.",
             {"shape: the dimensions; one of them may be -1."}).c_str());

  cls.def("flatten", [](const Tensor& t) { return flatten(t, 0, -1); },
          py::doc("All elements in one dimension, sharing storage.", {}, "A new one-dimensional core tensor.").c_str());
  cls.def("flatten", [](const Tensor& t, const py::Axis& start, const py::Axis& end) {
    return flatten(t, start.get("flatten", "start"), end.get("flatten", "end"));
  }, nb::arg("start"), nb::arg("end"),
     py::doc("Axes start to end merged into one, sharing storage.",
             {"start: the first axis merged.", "end: the last axis merged; -1 for the last."}, "A new core tensor.")
         .c_str());
  cls.def("squeeze", [](const Tensor& t) { return squeeze(t); },
          py::doc("Every axis of length one dropped, sharing storage.", {}, "A new core tensor.").c_str());
  cls.def("squeeze", [](const Tensor& t, const py::Axes& axis) {
    return squeeze(t, axis.get("squeeze", "axis"));
  }, nb::arg("axis"),
     py::doc("The given axes dropped, sharing storage; each must have length one.",
             {"axis: an axis or a sequence of axes."}, "A new core tensor.").c_str());
  cls.def("squeeze_", [](Tensor& t, const py::Axis& axis) {
    t.assign(squeeze(t, {axis.get("squeeze_")}));
  }, nb::arg("axis"),
     py::doc("Drops an axis of length one from the tensor itself; every reference to it sees the change.", {axis_doc})
         .c_str());
  cls.def("unsqueeze", [](const Tensor& t, const py::Axis& axis) {
    return unsqueeze(t, axis.get("unsqueeze"));
  }, nb::arg("axis"),
     py::doc("An axis of length one inserted, sharing storage.",
             {"axis: its position, 0 to ndim; negative counts from the end."}, "A new core tensor.").c_str());

  cls.def("transpose", [](const Tensor& t, const py::Axes& dims) {
    return py::unlocked(transpose, t, dims.get("transpose", "dims"));
  }, nb::arg("dims"),
     py::doc("A copy with its axes permuted: axis i of the result is axis dims[i].",
             {"dims: a permutation of the axes; negative entries count from the end."}, "A new core tensor.").c_str());
  // The object stays; every Python reference to it sees the new order.
  cls.def("transpose_", [](Tensor& t, const py::Axes& dims) {
    t.assign(py::unlocked(transpose, t, dims.get("transpose_", "dims")));
  }, nb::arg("dims"),
     py::doc("Permutes the axes of the tensor itself; every reference to it sees the change.",
             {"dims: a permutation of the axes."}).c_str());
  cls.def("swapaxis", [](const Tensor& t, const py::Axis& axis1, const py::Axis& axis2) {
    return py::unlocked(swapaxis, t, axis1.get("swapaxis", "axis1"), axis2.get("swapaxis", "axis2"));
  }, nb::arg("axis1"), nb::arg("axis2"),
     py::doc("A copy with two axes exchanged.", {"axis1: one axis.", "axis2: the other axis."}, "A new core tensor.")
         .c_str());
  cls.def("flip", [](const Tensor& t, const py::Axes& dims) {
    return py::unlocked(flip, t, dims.get("flip", "flip_dims"));
  }, nb::arg("flip_dims"),
     py::doc("A copy reversed along the given axes.", {"flip_dims: an axis or a sequence of axes."},
             "A new core tensor.").c_str());

  cls.def("broadcast", [](const Tensor& a, const Tensor& b) {
    Shape common = broadcast_shape(a.shape(), b.shape(), "broadcast");
    return std::make_pair(broadcast_to(a, common), broadcast_to(b, common));
  }, nb::arg("other"),
     py::doc("Both tensors expanded to their common shape by numpy's rule.", {"other: a core tensor."},
             "A tuple of two new core tensors.").c_str());
  cls.def("broadcast_to", [](const Tensor& t, const py::IntList& shape) {
    return py::unlocked(broadcast_to, t, shape.shape("broadcast_to"));
  }, nb::arg("shape"),
     py::doc("A copy expanded to a shape by numpy's rule.", {"shape: the target dimensions."}, "A new core tensor.")
         .c_str());

  tr.def("tile", [](const Tensor& t, const py::IntList& reps) {
    return py::unlocked(tile, t, reps.get("tile", "reps"));
  }, nb::arg("t"), nb::arg("reps"),
     py::doc("A tensor repeated along its axes, as numpy.tile.",
             {"t: a core tensor.", "reps: the repeats per axis."}, "A new core tensor.").c_str());
  tr.def("TileGrad", [](const Tensor& x, const py::IntList& shape, const py::IntList& reps) {
    return py::unlocked(tile_grad, x, shape.shape("TileGrad"), reps.get("TileGrad", "reps"));
  }, nb::arg("x"), nb::arg("shape"), nb::arg("reps"),
     py::doc("The gradient of tile: x summed over the repeats back to the source's shape.",
             {"x: the gradient of tile's result.", "shape: the shape of tile's input.", "reps: the repeats of tile."},
             "A new core tensor of that shape.").c_str());
}
