// Fills, whole-tensor queries and the read-only views of a tensor.
#include "interop/args.h"
#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace {

nb::object arg_extremum(nb::handle self, const py::Axes& dim, nb::handle keepdims, bool max) {
  const char* op = max ? "argmax" : "argmin";
  const Tensor& data = core_of(as_qtensor(self, op), op);
  if (dim.is_none() && keepdims.is_none()) return to_tensor(wrap_core(max ? argmax(data) : argmin(data)));
  if (dim.is_none() || keepdims.is_none())
    throw nb::value_error(max ? "Not valid parameters, use argmax() or argmax(axis,keepdims)."
                              : "Not valid parameters, use argmin() or argmin(axis,keepdims).");
  std::vector<int64_t> axes = dim.get(op, "axis");
  bool keep = truthy(keepdims);
  return to_tensor(wrap_core(max ? argmax(data, axes, keep) : argmin(data, axes, keep)));
}

int64_t numel(const QTensor& q) {
  int64_t n = 1;
  for (int64_t d : core_of(q, "numel").shape()) n *= d;
  return n;
}

bool is_nonzero(nb::handle t) {
  QTensor& q = as_qtensor(t, "is_nonzero");
  if (numel(q) != 1) {
    PyErr_SetNone(PyExc_AssertionError);
    throw nb::python_error();
  }
  return tramel::is_nonzero(core_of(q, "is_nonzero"));
}

nb::object repr(const QTensor& q) {
  static nb::handle set_printoptions = imported("numpy", "set_printoptions");
  static nb::handle array2string = imported("numpy", "array2string");
  nb::dict options;
  options["suppress"] = true;
  options["precision"] = 7;
  set_printoptions(**options);
  nb::object data = host_copy(core_of(q, "__repr__"), "__repr__");
  return array2string(data, nb::none(), nb::none(), nb::none(), " ", "");
}

}  // namespace

void init_query(nb::module_& m, nb::class_<QTensor>& cls) {
  // Fills, in place; requires_grad, nodes and grad stay as they are.
  cls.def("fill_", [](QTensor& q, const py::HostScalar& v) { fill_(core_of(q, "fill_"), v.get("fill_")); },
          nb::arg("v").none(),
          py::doc("Sets every element to one value, in place.", {"v: a host number, converted to the dtype."})
              .c_str());
  cls.def("fill_rand_uniform_with_bound_",
          [](QTensor& q, double lo, double hi) { fill_uniform_(core_of(q, "fill_rand_uniform_withbound_"), lo, hi); },
          nb::arg("min_value"), nb::arg("max_value"),
          py::doc("Fills with uniform random draws in [min_value, max_value), in place.",
                  {"min_value: the lower bound.", "max_value: the upper bound."}).c_str());
  cls.def("fill_rand_uniform_", [](QTensor& q, double v) { fill_uniform_(core_of(q, "fill_rand_uniform_"), 0.0, v); },
          nb::arg("v") = 1,
          py::doc("Fills with uniform random draws in [0, v), in place.", {"v: the scale of the draws."}).c_str());
  cls.def("fill_rand_signed_uniform_",
          [](QTensor& q, double v) { fill_uniform_(core_of(q, "fill_rand_signed_uniform_"), -v, v); }, nb::arg("v") = 1,
          py::doc("Fills with uniform random draws in [-v, v), in place.", {"v: the scale of the draws."}).c_str());
  cls.def("fill_rand_normal_",
          [](QTensor& q, double mean, double s, bool fast) { fill_normal_(core_of(q, "fill_rand_normal_"), mean, s, fast); },
          nb::arg("m") = 0, nb::arg("s") = 1, nb::arg("fast_math") = true,
          py::doc("Fills with normal random draws, in place.",
                  {"m: the mean.", "s: the standard deviation.",
                   "fast_math: draw float32 tensors in single precision."}).c_str());
  cls.def("fill_rand_binary_", [](QTensor& q, double v) { fill_binary_(core_of(q, "fill_rand_binary_"), v); },
          nb::arg("v") = 0.5,
          py::doc("Fills with random zeros and ones, in place: one where a uniform draw in [0, 1) is at least v.",
                  {"v: the threshold."}).c_str());

  // Reductions to a value or an index; no graph.
  auto arg_doc = [](const char* summary) {
    return py::doc(summary,
                   {"dim: None for all elements, or an axis or a list of axes (negative ones count from the end), "
                    "given together with keepdims.",
                    "keepdims: None when dim is None; else keep the reduced axes with length one."},
                   "A new int64 QTensor outside the graph: a one-element one over all elements, else the indices "
                   "within the block of the axes.");
  };
  cls.def("argmax", [](nb::handle self, const py::Axes& dim, nb::handle keepdims) -> TensorResult {
    return arg_extremum(self, dim, keepdims, true);
  }, nb::arg("dim").none() = nb::none(), nb::arg("keepdims").none() = nb::none(),
     arg_doc("The index of the first largest element.").c_str());
  cls.def("argmin", [](nb::handle self, const py::Axes& dim, nb::handle keepdims) -> TensorResult {
    return arg_extremum(self, dim, keepdims, false);
  }, nb::arg("dim").none() = nb::none(), nb::arg("keepdims").none() = nb::none(),
     arg_doc("The index of the first smallest element.").c_str());
  cls.def("all", [](QTensor& q) { return all(core_of(q, "all")); },
          py::doc("Whether every element is nonzero.", {}, "A bool.").c_str());
  cls.def("any", [](QTensor& q) { return any(core_of(q, "any")); },
          py::doc("Whether any element is nonzero.", {}, "A bool.").c_str());
  cls.def("l2_norm", [](QTensor& q) -> TensorResult { return to_tensor(nb::float_(l2_norm(core_of(q, "l2_norm")))); },
          py::doc("The Euclidean norm of all elements.", {},
                  "A one-element QTensor on the processor, outside the graph.").c_str());
  constexpr const char* kTruth = "A bool; AssertionError for any other size.";
  cls.def("__bool__", &is_nonzero, py::doc("The truth of a one-element tensor.", {}, kTruth).c_str());
  m.def("is_nonzero", [](TensorArg t) { return is_nonzero(t); }, nb::arg("t").none(),
        py::doc("The truth of a one-element tensor.", {"t: a QTensor of one element."}, kTruth).c_str());

  // Views of the description and contents.
  cls.def_prop_ro("dtype", [](const QTensor& q) { return int(core_of(q, "dtype").dtype()); },
                  "The element type, a dtype constant.");
  cls.def_prop_ro("dtype_str", [](const QTensor& q) { return dtype_name(core_of(q, "dtype_str").dtype()); },
                  "The element type's numpy name, such as 'float32'.");
  cls.def_prop_ro("ndim", [](const QTensor& q) { return core_of(q, "ndim").ndim(); }, "The number of dimensions.");
  cls.def("dim", [](const QTensor& q) { return core_of(q, "dim").ndim(); },
          py::doc("The number of dimensions.", {}, "An int.").c_str());
  cls.def_prop_ro("shape", [](const QTensor& q) { return py::shape_list(core_of(q, "shape").shape()); },
                  "The dimensions, as a new list of ints.");
  cls.def_prop_ro("size", &numel, "The number of elements.");
  cls.def("numel", &numel, py::doc("The number of elements.", {}, "An int.").c_str());
  cls.def_prop_ro("pdata", [](const QTensor& q) { return host_copy(core_of(q, "pdata"), "to_numpy"); },
                  "A numpy copy of the values, from any device.");
  cls.def_prop_ro("print_prev_node", [](QTensor& q) -> nb::object {
    if (!has_edges(q)) return nb::str("");
    nb::object first = nodes_of(q)[0];
    return graphnode_name(as_graphnode(first, "print_prev_node"));
  }, "The label of the first edge in nodes; the empty string for a leaf.");
  cls.def("info", [](QTensor& q) { nb::print(core_of(q, "info").describe().c_str()); },
          "Prints the shape, dtype, device and storage of the values.");
  cls.def("item", [](const QTensor& q) {
    const Tensor& data = core_of(q, "item");
    if (data.numel() != 1) throw std::runtime_error("Cannot call item() on QTensor has more than one element!");
    return host_copy(data, "item").attr("item")();
  }, py::doc("The value of a one-element tensor as a Python number.", {},
             "A bool, int, float or complex; RuntimeError for any other size.").c_str());
  cls.def("__repr__", &repr,
          py::doc("The values as numpy prints them, after setting numpy's print options (suppress=True, "
                  "precision=7) for the process.",
                  {}, "A str.").c_str());
}

}  // namespace tramel::tensor
