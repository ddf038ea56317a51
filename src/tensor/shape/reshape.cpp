// reshape, flatten, swapaxis, transpose and permute, as module functions and
// QTensor methods. Each gradient undoes the rearrangement on the incoming
// gradient; the in-place methods take no part in the graph.
#include <algorithm>

#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

[[noreturn]] void assertion(const std::string& text) {
  PyErr_SetString(PyExc_AssertionError, text.c_str());
  throw nb::python_error();
}

// Refuses anything but a list (or None) the way a typed argument would.
void require_list(nb::handle value, const char* name) {
  if (value.is_none() || PyList_Check(value.ptr())) return;
  throw nb::type_error(("Argument '" + std::string(name) + "' has incorrect type (expected list, got " +
                        nb::type_name(value.type()).c_str() + ")")
                           .c_str());
}

nb::object reshaped(nb::handle t, const py::IntList& shape, bool method) {
  static const Derivatives& derivatives = derivatives_of("reshape");
  QTensor& q = as_qtensor(t, "reshape");
  const Tensor& x = core_of(q, "reshape");
  std::vector<int64_t> dims = shape.get("reshape", "shape");
  Tensor data = reshape(x, dims);
  Shape new_shape = data.shape();
  // A list of the new sizes prints as the new shape does: that label can wait.
  bool as_given = PyList_Check(shape.ptr()) && std::none_of(dims.begin(), dims.end(), [](int64_t d) { return d < 0; });
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.label = as_given ? LazyLabel().shape(x.shape()).then(" reshape ").shape(new_shape)
                       : LazyLabel::formatted(x.shape().str() + " reshape " + py_text(shape));
  }, {q.requires_grad, q.device});
  record_one_input(y, t, " reshape ", "Reshape", method ? "_reshape_to_" : "_reshape_", {{"shape", shape}});
  return y;
}

// QTensor.reshape's own checks, as assertions.
void check_reshape(const QTensor& q, const py::IntList& new_shape) {
  std::vector<int64_t> dims = new_shape.get("reshape", "shape");
  int64_t size = 1;
  bool overflow = false;
  for (int64_t v : dims) {
    if (v < 0) assertion("dim should > 0");
    overflow = overflow || __builtin_mul_overflow(size, v, &size);
  }
  int64_t old = core_of(q, "reshape").numel();
  if (overflow) {
    // The exact product, a Python int (0 when a later dimension is 0).
    nb::object product = nb::int_(1);
    for (int64_t v : dims) {
      PyObject* next = PyNumber_Multiply(product.ptr(), nb::int_(v).ptr());
      if (!next) throw nb::python_error();
      product = nb::steal(next);
    }
    if (product.equal(nb::int_(old))) return;
    assertion("new size " + py_text(product) + " not equal to old size " + std::to_string(old));
  }
  if (size != old) assertion("new size " + std::to_string(size) + " not equal to old size " + std::to_string(old));
}

nb::object flattened(nb::handle t, int64_t start, int64_t end, bool method) {
  static const Derivatives& derivatives = derivatives_of("flatten");
  const Tensor& x = core_of(t, "flatten");
  nb::object y = make_result(flatten(x, start, end), {t}, derivatives, [&](int, Edge& e) {
    if (method) e.label = LazyLabel().id(t).then(" flatten ");
  });
  record_gated(y, [&](QTensor& out) {
    append_links(out, {{t, LazyLabel()}});
    nb::list attribute;
    attribute.append(start);
    attribute.append(end);
    return make_record(id_text(t) + "_flat_" + id_text(y), "flatten", {t}, y, attribute);
  });
  return y;
}

TensorResult swapaxis_op(TensorArg t, const py::Axis& axis1, const py::Axis& axis2) {
  static const Derivatives& derivatives = derivatives_of("swapaxis");
  const Tensor& x = core_of(t, "swapaxis");
  Shape shape = x.shape();
  int64_t a1 = axis1.get("swapaxis", "axis1"), a2 = axis2.get("swapaxis", "axis2");
  nb::object y = make_result(swapaxis(x, a1, a2), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = {a1, a2};
    e.label = LazyLabel("swapaxis of tensor ").shape(shape);
  });
  record_one_input(y, t, " swapaxis ", "Swapaxis", "_swapaxis_", {{"axis1", axis1}, {"axis2", axis2}});
  return y;
}


// QTensor.transpose's checks of new_dims, as assertions; the marking of
// repeated axes runs in any case.
void check_dims(const QTensor& q, nb::handle new_dims) {
  if (!PyList_Check(new_dims.ptr())) assertion("second para should be list");
  int ndim = core_of(q, "transpose").ndim();
  if (PyList_GET_SIZE(new_dims.ptr()) < ndim) assertion("second para dim not equal to tensor shape");
  std::vector<bool> seen(size_t(ndim), false);
  for (int i = 0; i < ndim; ++i) {
    int64_t d = maybe_wrap_dim(py::integer(PyList_GET_ITEM(new_dims.ptr(), i), "transpose", "axis"), ndim);
    // (sic) the trailing space.
    if (seen[size_t(d)]) assertion("repeat dim in second para is not valid ");
    seen[size_t(d)] = true;
  }
}

nb::list reversed_axes(int ndim) {
  nb::list out;
  for (int i = ndim - 1; i >= 0; --i) out.append(i);
  return out;
}

}  // namespace

TensorResult transposed(nb::handle t, const py::IntList& dim) {
  static const Derivatives& derivatives = derivatives_of("transpose");
  const Tensor& x = core_of(t, "transpose");
  std::vector<int64_t> dims = dim.get("transpose", "dim");
  nb::object y = make_result(transpose(x, dims), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = InlineInts(dims);
    // (sic) "tranpose", here and in the link: labels kept as users know them.
    e.label = LazyLabel::formatted("tranpose grad dim = " + py_text(dim));
  });
  record_gated(y, [&](QTensor& out) {
    std::string link = "tranpose link dim = " + py_text(dim);
    append_links(out, {{t, LazyLabel(), &link}});
    nb::dict attribute;
    attribute["dim"] = dim;
    // (sic) the double underscore of the opid.
    return make_record(id_text(t) + "_transpose__" + id_text(y), "Transpose", {t}, y, attribute);
  });
  return y;
}

// Positions ordered by the axis they hold.
std::vector<int64_t> inverse_permutation(const InlineInts& dims) {
  std::vector<int64_t> order(dims.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = int64_t(i);
  std::stable_sort(order.begin(), order.end(), [&](int64_t a, int64_t b) { return dims[size_t(a)] < dims[size_t(b)]; });
  return order;
}

void init_reshape(nb::module_& m, nb::class_<QTensor>& cls) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  constexpr const char* kDifferentiable = "A new QTensor; differentiable.";
  constexpr const char* kStart = "start: the first axis to merge.";
  constexpr const char* kEnd = "end: the last axis to merge; negative ones count from the end.";
  m.def("reshape", [](TensorArg t, const py::IntList& shape) -> TensorResult { return reshaped(t, shape, false); },
        arg("t"), arg("shape"),
        py::doc("The values in a new shape.",
                {"t: a QTensor.", "shape: the new dimensions, a list or tuple of ints; one may be -1, for the rest."},
                kDifferentiable).c_str());
  m.def("flatten", [](TensorArg t, int64_t start, int64_t end) -> TensorResult {
    return flattened(t, start, end, false);
  }, arg("t"), nb::arg("start") = 0, nb::arg("end") = -1,
     py::doc("The tensor with the axes from start to end merged into one.", {"t: a QTensor.", kStart, kEnd},
             kDifferentiable).c_str());
  m.def("swapaxis", &swapaxis_op, arg("t"), arg("axis1"), arg("axis2"),
        py::doc("The tensor with two axes exchanged.", {"t: a QTensor.", "axis1: an axis.", "axis2: an axis."},
                kDifferentiable).c_str());
  m.def("transpose", [](TensorArg t, const py::IntList& dim) { return transposed(t, dim); }, arg("t"), arg("dim"),
        py::doc("The tensor with its axes in a new order.",
                {"t: a QTensor.", "dim: the new order, an axis number for each place."}, kDifferentiable).c_str());
  m.def("permute", [](TensorArg t, const py::IntList& dim) {
    require_list(dim, "dim");
    return transposed(t, dim);
  }, arg("t"), arg("dim"),
     py::doc("The tensor with its axes in a new order.",
             {"t: a QTensor.", "dim: the new order, a list of an axis number for each place."}, kDifferentiable)
         .c_str());

  constexpr const char* kNewShape =
      "new_shape: the new dimensions, a list or tuple of non-negative ints with the tensor's number of elements.";
  cls.def("reshape", [](nb::handle self, const py::IntList& new_shape) -> TensorResult {
    check_reshape(as_qtensor(self, "reshape"), new_shape);
    return reshaped(self, new_shape, true);
  }, arg("new_shape"), py::doc("The values in a new shape.", {kNewShape}, kDifferentiable).c_str());
  cls.def("reshape_", [](nb::handle self, const py::IntList& new_shape) {
    QTensor& q = as_qtensor(self, "reshape_");
    Tensor& x = core_of(q, "reshape_");
    if (PyList_Check(new_shape.ptr())) {
      std::vector<int64_t> dims = new_shape.get("reshape_", "new_shape");
      if (dims.size() == size_t(x.ndim()) && std::equal(dims.begin(), dims.end(), x.shape().begin())) return;
    }
    if (!PyList_Check(new_shape.ptr()) && !PyTuple_Check(new_shape.ptr()))
      assertion("second para should be list or tuple");
    check_reshape(q, new_shape);
    x.assign(reshape(x, new_shape.get("reshape_", "new_shape")));
  }, arg("new_shape"), py::doc("Reshapes the tensor itself, in place, outside the graph.", {kNewShape}).c_str());
  cls.def("unsqueeze", [](nb::handle self, const py::Axis& axis) -> TensorResult { return unsqueeze_op(self, axis); },
          arg("axis"),
          py::doc("The tensor with an axis of length one inserted.", {kInsertedAxis}, kDifferentiable).c_str());
  cls.def("flatten", [](nb::handle self, int64_t start, int64_t end) -> TensorResult {
    return flattened(self, start, end, true);
  }, nb::arg("start") = 0, nb::arg("end") = -1,
     py::doc("The tensor with the axes from start to end merged into one.", {kStart, kEnd}, kDifferentiable)
         .c_str());
  cls.def("transpose", [](nb::handle self, const py::IntList& new_dims) -> TensorResult {
    QTensor& q = as_qtensor(self, "transpose");
    if (!new_dims.is_none()) {
      check_dims(q, new_dims);
      return transposed(self, new_dims);
    }
    // All axes reversed: a new leaf, cut off from the graph.
    const Tensor& x = core_of(q, "transpose");
    nb::object result = to_tensor(wrap_core(transpose(x, py::IntList(reversed_axes(x.ndim())).get("transpose", "dims"))));
    if (is_true(q.requires_grad)) {
      as_qtensor(result, "transpose").requires_grad = nb::borrow(Py_True);
      zero_grad(result);
    }
    return result;
  }, arg("new_dims") = nb::none(),
     py::doc("The tensor with its axes in a new order.",
             {"new_dims: the new order, a list of an axis number for each place; None reverses the axes, in a new "
              "leaf outside the graph (with a zero grad when requires_grad is True)."},
             "A new QTensor; differentiable when new_dims is given.").c_str());
  cls.def("transpose_", [](nb::handle self, const py::IntList& new_dims) {
    QTensor& q = as_qtensor(self, "transpose_");
    Tensor& x = core_of(q, "transpose_");
    nb::object dims = new_dims.is_none() ? nb::object(reversed_axes(x.ndim())) : nb::borrow(new_dims);
    if (!new_dims.is_none()) check_dims(q, new_dims);
    x.assign(transpose(x, py::IntList(dims).get("transpose_", "new_dims")));
  }, arg("new_dims") = nb::none(),
     py::doc("Puts the axes of the tensor itself in a new order, in place, outside the graph.",
             {"new_dims: the new order, a list of an axis number for each place; None reverses the axes."}).c_str());
}

TRAMEL_FAMILY(init_reshape);

}  // namespace tramel::tensor
