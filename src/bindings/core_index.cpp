// Indexing of _core.Tensor: selection by index texts, gather and scatter by
// coordinates, nonzero. Convert, call, return.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "interop/args.h"
#include "interop/docs.h"
#include "interop/interop.h"

namespace nb = nanobind;
using namespace tramel;

namespace {

GatherSpec gather_runs_of(const char* op, const py::Axis& n, const py::Axis& m, const py::Axis& k,
                          const py::IntList& mshape, const py::IntList& strides) {
  GatherSpec s;
  s.n = n.get(op, "n");
  s.m = m.get(op, "m");
  s.k = k.get(op, "k");
  s.mshape = mshape.get(op, "mshape");
  s.strides = strides.get(op, "strides");
  return s;
}

std::vector<int64_t> dims_of(const py::Dims& shape, const char* op) {
  Shape s = shape.get(op);
  return std::vector<int64_t>(s.begin(), s.end());
}

constexpr const char* kIndexList =
    "index_list: one index text per leading axis: a position ('2', '-1'), a range ('1:5:2', '::-1') or a list "
    "of positions ('0,3,'); axes past the list are taken whole.";
constexpr const char* kN = "n: the number of coordinate columns (runs).";
constexpr const char* kM = "m: the number of leading axes the coordinates address.";
constexpr const char* kK = "k: the number of elements of each run, the size of the remaining axes.";
constexpr const char* kMShape = "mshape: the m leading dimensions.";
constexpr const char* kStrides = "strides: the element strides of the m leading axes.";
constexpr const char* kIndices =
    "c_indice: a core tensor of an integer dtype holding m * n coordinates, row j for axis j; negative ones "
    "count from the end.";

}  // namespace

void init_index(nb::module_& m) {
  auto cls = nb::borrow<nb::class_<Tensor>>(m.attr("Tensor"));

  cls.def("select", [](const Tensor& t, const py::Texts& index) {
    return py::unlocked(tramel::select, t, index.get("select", "index_list"));
  }, nb::arg("index_list"),
     py::doc("A copy of the region that index texts pick; axes picked by one position are dropped.", {kIndexList},
             "A new core tensor on the same device.").c_str());
  cls.def("set_select", [](Tensor& t, const py::Texts& index, const Tensor& value) {
    set_select(t, index.get("set_select", "index_list"), value);
  }, nb::arg("index_list"), nb::arg("value"),
     py::doc("Writes a value into the region that index texts pick, in place.",
             {kIndexList,
              "value: a core tensor on the same device that broadcasts to the region (or has one element); "
              "converted to the tensor's dtype."}).c_str());
  cls.def("select_bp", [](const Tensor& t, const py::Texts& index, const Tensor& g) {
    return py::unlocked(select_bp, t, index.get("select_bp", "index_list"), g);
  }, nb::arg("index_list"), nb::arg("x"),
     py::doc("The gradient of select: x placed at the region in zeros of the tensor's shape.",
             {kIndexList, "x: the gradient of select's result; positions picked twice sum."},
             "A new core tensor of the tensor's shape, with x's dtype and device.").c_str());
  cls.def("set_select_bp", [](const Tensor& t, const py::Texts& index, const Tensor& g) {
    return py::unlocked(set_select_bp, t, index.get("set_select_bp", "index_list"), g);
  }, nb::arg("index_list"), nb::arg("x"),
     py::doc("The gradient of set_select's value: the region of x.",
             {kIndexList, "x: the gradient of the written tensor, of its shape."}, "A new core tensor.").c_str());

  cls.def("adv_indexing", [](const Tensor& t, const py::Axis& n, const py::Axis& mm, const py::Axis& k,
                             const py::IntList& mshape, const py::IntList& strides, const Tensor& indices,
                             const py::Dims& oshape) {
    const char* op = "adv_indexing";
    return py::unlocked(adv_indexing, t, gather_runs_of(op, n, mm, k, mshape, strides), indices, dims_of(oshape, op));
  }, nb::arg("n"), nb::arg("m"), nb::arg("k"), nb::arg("mshape"), nb::arg("strides"), nb::arg("c_indice"),
     nb::arg("oshape"),
     py::doc("Gathers the runs of k elements that n coordinate columns pick (advanced indexing).",
             {kN, kM, kK, kMShape, kStrides, kIndices, "oshape: the result's shape, of n * k elements."},
             "A new core tensor on the same device.").c_str());
  cls.def("adv_indexing_grad", [](const Tensor& g, const py::Axis& n, const py::Axis& mm, const py::Axis& k,
                                  const py::IntList& mshape, const py::IntList& strides, const Tensor& indices,
                                  const py::Dims& input_shape) {
    const char* op = "adv_indexing_grad";
    return py::unlocked(adv_indexing_grad, g, gather_runs_of(op, n, mm, k, mshape, strides), indices,
                        dims_of(input_shape, op));
  }, nb::arg("n"), nb::arg("m"), nb::arg("k"), nb::arg("mshape"), nb::arg("strides"), nb::arg("c_indice"),
     nb::arg("inputshape"),
     py::doc("The gradient of adv_indexing: the runs of this tensor added at their coordinates into zeros;\n"
             "repeated coordinates sum, in column order, the same on any number of threads.",
             {kN, kM, kK, kMShape, kStrides, kIndices, "inputshape: the shape of adv_indexing's input."},
             "A new core tensor of that shape.").c_str());
  cls.def("set_adv_indexing", [](Tensor& t, const py::Axis& n, const py::Axis& mm, const py::Axis& k,
                                 const py::IntList& mshape, const py::IntList& strides, const Tensor& indices,
                                 const Tensor& value) {
    set_adv_indexing(t, gather_runs_of("set_adv_indexing", n, mm, k, mshape, strides), indices, value);
  }, nb::arg("n"), nb::arg("m"), nb::arg("k"), nb::arg("mshape"), nb::arg("strides"), nb::arg("c_indice"),
     nb::arg("value"),
     py::doc("Writes the runs that n coordinate columns pick, in place; for repeated coordinates the last wins.",
             {kN, kM, kK, kMShape, kStrides, kIndices,
              "value: a core tensor on the same device of n * k elements, or one element for all; converted to "
              "the tensor's dtype."}).c_str());
  cls.def("set_adv_indexing_grad", [](const Tensor& g, const py::Axis& n, const py::Axis& mm, const py::Axis& k,
                                      const py::IntList& mshape, const py::IntList& strides, const Tensor& indices,
                                      const py::Dims& out_shape) {
    const char* op = "set_adv_indexing_grad";
    return py::unlocked(set_adv_indexing_grad, g, gather_runs_of(op, n, mm, k, mshape, strides), indices,
                        dims_of(out_shape, op));
  }, nb::arg("n"), nb::arg("m"), nb::arg("k"), nb::arg("mshape"), nb::arg("strides"), nb::arg("c_indice"),
     nb::arg("out_shape"),
     py::doc("The gradient of set_adv_indexing's value: the runs of this tensor (of the written tensor's shape).",
             {kN, kM, kK, kMShape, kStrides, kIndices, "out_shape: the value's shape, of n * k elements."},
             "A new core tensor.").c_str());

  cls.def("nonzero", [](const Tensor& t) { return py::unlocked(nonzero, t); },
          py::doc("The coordinates of the nonzero elements, numpy.nonzero's arrays stacked.", {},
                  "A new int64 core tensor of shape (ndim, count) on the same device.").c_str());
}
