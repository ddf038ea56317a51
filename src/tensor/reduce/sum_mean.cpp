// sums and mean, with the axis helpers that every axis-taking operator uses.
// Their gradients expand the reduced gradient back over the input's shape.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

[[noreturn]] void bare_assertion() {
  PyErr_SetNone(PyExc_AssertionError);
  throw nb::python_error();
}

int64_t wrap_dim(int64_t dim, int64_t ndim, bool wrap_scalar, bool for_unsqueeze) {
  if (ndim <= 0) {
    if (!wrap_scalar) bare_assertion();
    ndim = 1;
  }
  if (dim < -ndim || dim > ndim - 1) bare_assertion();
  if (dim < 0) {  // dim + ndim first: ndim + 1 may not fit
    dim += ndim;
    if (for_unsqueeze) dim += 1;
  }
  return dim;
}

TensorResult sums(TensorArg t, const py::Axes& axis, nb::handle keepdims) {
  static const Derivatives& over_all = derivatives_of("sums");
  static const Derivatives& along_axes = derivatives_of("sums along axes");
  QTensor& q = as_qtensor(t, "sums");
  const Tensor& x = core_of(q, "sums");
  Shape shape = x.shape();
  // An int axis becomes a one-element list before anything else sees it; a
  // bool is the int it is (True is axis 1).
  nb::object axes_given = nb::borrow(axis);
  if (!axis.is_none() && axis.alone()) {
    nb::list one;
    one.append(axis);
    axes_given = one;
  }
  std::vector<int64_t> axes;
  if (!axis.is_none()) axes = axis.get("sums", "axis", py::Bools::Counted);
  Tensor data = axis.is_none() ? sum(x) : sum(x, axes, truthy(keepdims));
  nb::object y = make_result(std::move(data), {t}, axis.is_none() ? over_all : along_axes, [&](int, Edge& e) {
    e.derivative.axes = InlineInts(axes);
    e.label = LazyLabel("sums grad ").shape(shape);
  }, {q.requires_grad, q.device});
  record_one_input(y, t, " sums ", "Sum", "_sums_", {{"axes", axes_given}, {"keepdims", keepdims}});
  return y;
}

// _mean_match_shape: x expanded over `shape` along `axis`, and the length of that axis.
std::pair<Tensor, int64_t> mean_match_shape(const Tensor& x, const Shape& shape, int64_t axis) {
  int64_t wrapped = maybe_wrap_dim(axis, shape.rank());
  return {expand_reduced(x, shape, {axis}), shape[int(wrapped)]};
}

}  // namespace

Tensor expand_reduced(const Tensor& x, const Shape& shape, const InlineInts& axes) {
  Shape kept = shape;
  for (int64_t axis : axes) kept[int(maybe_wrap_dim(axis, shape.rank()))] = 1;
  return broadcast_to(reshape(x, kept), shape);
}

Tensor sum_all_grad(const Tensor& g, const Shape& shape) {
  if (g.numel() != 1) throw nb::value_error("can only convert an array of size 1 to a Python scalar");
  Tensor value = g.device() == kCpuDevice ? g : to_device(g, kCpuDevice, "sums");
  Scalar s = dispatch<kAllTypes>(g.dtype(), "sums", [&](auto tag) {
    using T = typename decltype(tag)::type;
    T v = value.data<T>()[0];
    if constexpr (is_complex_v<T>) return Scalar::from_complex(double(v.real()), double(v.imag()));
    else if constexpr (std::is_floating_point_v<T>) return Scalar::from_double(double(v));
    else return Scalar::from_int(int64_t(v));
  });
  return full(shape, s, g.device(), g.dtype(), "sums");
}

nb::object mean_of(nb::handle t, nb::handle axis, nb::handle keepdims) {
  static const Derivatives& derivatives = derivatives_of("mean");
  QTensor& q = as_qtensor(t, "mean");
  const Tensor& x = core_of(q, "mean");
  auto name = [](int, Edge& e) { e.label = LazyLabel("mean grad"); };
  nb::object y;
  if (axis.is_none()) {
    // Only the object True asks for a gradient on this path.
    nb::handle requires_grad = is_true(q.requires_grad) ? Py_True : Py_False;
    y = make_result(mean(x), {t}, derivatives, name, {requires_grad, q.device});
  } else {
    int64_t a = py::integer(axis, "mean", "axis");
    y = make_result(mean(x, {a}, truthy(keepdims)), {t}, derivatives, [&](int i, Edge& e) {
      e.derivative.axes = {a};
      name(i, e);
    });
  }
  // (sic) the link of a mean is labelled " var ".
  record_one_input(y, t, " var ", "Mean", "_mean_", {{"axes", axis}, {"keepdims", keepdims}});
  return y;
}

int64_t maybe_wrap_dim(int64_t dim, int64_t ndim, bool wrap_scalar) { return wrap_dim(dim, ndim, wrap_scalar, false); }
int64_t maybe_wrap_dim_unsqueeze(int64_t dim, int64_t ndim) { return wrap_dim(dim, ndim, true, true); }

void init_sum_mean(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("sums", &sums, arg("t"), arg("axis") = nb::none(), arg("keepdims") = false,
        py::doc("Sum of elements, over all of them or along axes.",
                {"t: a QTensor.", "axis: None for all elements (a one-element result), an int or a list of ints.",
                 "keepdims: keep reduced axes as length one; any object, read by its truth."},
                "A new QTensor; differentiable.").c_str());
  m.def("mean", [](TensorArg t, const py::Axis& axis, nb::handle keepdims) -> TensorResult {
    return mean_of(t, axis, keepdims);
  }, arg("t"), arg("axis") = nb::none(), arg("keepdims") = false,
     py::doc("The mean, of all elements or along one axis.", {"t: a QTensor.", kOneAxis, kKeepAxis},
             "A new QTensor; differentiable.").c_str());
  m.def("_mean_match_shape", [](nb::handle x, const py::IntList& shape, int64_t axis) {
    auto [grad, n] = mean_match_shape(as_core(x, "_mean_match_shape"), shape.shape("_mean_match_shape"), axis);
    return nb::make_tuple(wrap_core(std::move(grad)), n);
  }, arg("x"), arg("shape"), nb::arg("axis"),
     py::doc("A tensor reduced along one axis, spread back over a shape, and the length of that axis.",
             {"x: a _core.Tensor, reduced along axis.", "shape: the shape to spread over.",
              "axis: the reduced axis; negative counts from the end."},
             "A tuple: a new _core.Tensor of the shape, and the axis's length.").c_str());
  constexpr const char* kDim = "dim: the axis; negative ones count from the end.";
  constexpr const char* kNdim = "dim_post_expr: the number of dimensions, n.";
  constexpr const char* kWrapScalar = "wrap_scalar: take no dimensions as one; if false, n = 0 is refused.";
  m.def("maybe_wrap_dim", [](int64_t dim, int64_t n, bool wrap_scalar) { return wrap_dim(dim, n, wrap_scalar, false); },
        nb::arg("dim"), nb::arg("dim_post_expr"), nb::arg("wrap_scalar") = true,
        py::doc("An axis of n dimensions made non-negative.", {kDim, kNdim, kWrapScalar},
                "An int in [0, n); AssertionError when dim is outside [-n, n - 1].").c_str());
  m.def("maybe_wrap_dim_unsqueeze",
        [](int64_t dim, int64_t n, bool wrap_scalar) { return wrap_dim(dim, n, wrap_scalar, true); }, nb::arg("dim"),
        nb::arg("dim_post_expr"), nb::arg("wrap_scalar") = true,
        py::doc("The place to insert an axis into n dimensions, made non-negative.",
                {"dim: where the new axis goes; a negative one counts from one past the end.", kNdim, kWrapScalar},
                "An int; AssertionError when dim is outside [-n, n - 1].").c_str());
  m.def("_helper_func_parse_dims", [](const py::IntList& dims, int64_t ndim) {
    nb::list out;
    for (int64_t d : dims.get("_helper_func_parse_dims", "axis")) out.append(wrap_dim(d, ndim, true, false));
    return out;
  }, arg("dim"), nb::arg("ndim"),
     py::doc("Axes of ndim dimensions made non-negative.",
             {"dim: an axis or a sequence of axes; negative ones count from the end.",
              "ndim: the number of dimensions."},
             "A new list of ints; AssertionError for an axis out of range.").c_str());
  m.def("_helper_func_fill_dims", [](int64_t dim1, int64_t dim2, int64_t ndim) {
    if (dim1 < 0 || dim2 < 0 || dim1 >= ndim || dim2 >= ndim) throw nb::index_error("list assignment index out of range");
    // The list itself is the only allocation: a huge ndim fails there with MemoryError.
    nb::list out = nb::steal<nb::list>(PyList_New(Py_ssize_t(ndim)));
    if (!out.is_valid()) throw nb::python_error();
    for (int64_t i = 0; i < ndim; ++i) {
      int64_t d = i == dim1 ? dim2 : i == dim2 ? dim1 : i;
      PyObject* item = PyLong_FromLongLong(d);
      if (!item) throw nb::python_error();
      PyList_SET_ITEM(out.ptr(), Py_ssize_t(i), item);
    }
    return out;
  }, nb::arg("dim1"), nb::arg("dim2"), nb::arg("ndim"),
     py::doc("The order of ndim axes with two of them exchanged.",
             {"dim1: an axis, 0 to ndim - 1.", "dim2: an axis, 0 to ndim - 1.", "ndim: the number of dimensions."},
             "A new list of ints; IndexError for an axis out of range.").c_str());
}

TRAMEL_FAMILY(init_sum_mean);

}  // namespace tramel::tensor
