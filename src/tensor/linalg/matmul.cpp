// matmul and its three paths by rank (2: mult2D, 3: bmm, 4: the engine's
// matmul), and tensordot, a plan of module operators around one 2d matmul.
// The gradients are the conjugate transposes: g times conj(t2)^T for t1,
// conj(t1)^T times g for t2 (derivatives table).
#include <nanobind/stl/optional.h>

#include <optional>

#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

using Product = Tensor (*)(const Tensor&, const Tensor&, bool, bool);

struct ProductRow {
  const char* name;
  RowDoc doc;
  struct {
    Product forward;
    int rank;
  } math;
  struct {
    const char* label1;  // edge names: label + str(shape) + " grad"
    const char* label2;
  } trace;
};

// (sic) the 2d path's edges say "dot" and the rank-4 path's "mm".
const ProductRow kProducts[] = {
    {"helper_function_matmul2d", {"The product of two matrices (rank 2): the 2d path of matmul."}, {mult2D, 2},
     {"dot t1 ", "dot t2 "}},
    {"helper_function_bmm",
     {"The products of two batches of matrices (rank 3), pair by pair: the 3d path of matmul.",
      "A new QTensor; differentiable. None when either operand is not of rank 3."},
     {bmm, 3},
     {"bmm t1 ", "bmm t2 "}},
    {"helper_function_matmul4d",
     {"The products of two double batches of matrices (rank 4), pair by pair: the 4d path of matmul."},
     {matmul, 4},
     {"mm t1 ", "mm t2 "}},
};

nb::object product(Bound<ProductRow> op, nb::handle t1, nb::handle t2) {
  const ProductRow& row = op.row;
  const Tensor& a = core_of(t1, row.name);
  const Tensor& b = core_of(t2, row.name);
  nb::object y = make_result(row.math.forward(a, b, false, false), {t1, t2}, *op.derivatives, [&](int i, Edge& e) {
    e.label = LazyLabel(i == 0 ? row.trace.label1 : row.trace.label2).shape(i == 0 ? a.shape() : b.shape()).then(" grad");
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(" matmul ")}, {t2, LazyLabel(" matmul ")}});
    return make_record(ids(t1, "_matmul_", t2) + "_" + id_text(y), "MatMul", {t1, t2}, y, nb::dict());
  });
  return y;
}

const Bound<ProductRow>& path(int rank) {
  static const Bound<ProductRow> paths[] = {bound_row(kProducts, "helper_function_matmul2d"),
                                            bound_row(kProducts, "helper_function_bmm"),
                                            bound_row(kProducts, "helper_function_matmul4d")};
  return paths[rank - 2];
}

TensorResult matmul_op(TensorArg t1, TensorArg t2) {
  int r1 = core_of(t1, "matmul").ndim(), r2 = core_of(t2, "matmul").ndim();
  if (r1 == r2 && r1 >= 2 && r1 <= 4) return product(path(r1), t1, t2);
  throw nb::builtin_exception(nb::exception_type::runtime_error,
                              "Matmul only supports 2d matrix product or 4d batch matrix product.");
}

[[noreturn]] void assertion(const std::string& text) {
  PyErr_SetString(PyExc_AssertionError, text.c_str());
  throw nb::python_error();
}

nb::list list_of(const std::vector<int64_t>& v) {
  nb::list out;
  for (int64_t x : v) out.append(x);
  return out;
}

// The module, for the operators tensordot is written in.
nb::handle tensor_module;

TensorResult tensordot(TensorArg x_in, TensorArg y_in, nb::handle dim1, nb::handle dim2) {
  const char* op = "tensordot";
  nb::object x = nb::borrow(x_in), y = nb::borrow(y_in);
  int64_t ndim_x = core_of(x, op).ndim(), ndim_y = core_of(y, op).ndim();
  std::vector<int64_t> axes_x, axes_y;
  for (nb::handle ax : dim1) axes_x.push_back(maybe_wrap_dim(py::integer(ax, op, "axis"), ndim_x));
  for (nb::handle ax : dim2) axes_y.push_back(maybe_wrap_dim(py::integer(ax, op, "axis"), ndim_y));
  // Surplus axes of the longer list are taken as they are for the other tensor.
  size_t len_x = axes_x.size(), len_y = axes_y.size();
  if (len_x < len_y) axes_x.insert(axes_x.end(), axes_y.begin() + long(len_x), axes_y.end());
  if (len_y < len_x) axes_y.insert(axes_y.end(), axes_x.begin() + long(len_y), axes_x.end());
  const Shape& sx0 = core_of(x, op).shape();
  const Shape& sy0 = core_of(y, op).shape();
  std::vector<int64_t> shape_x(sx0.begin(), sx0.end()), shape_y(sy0.begin(), sy0.end());
  std::vector<bool> contracted_x(size_t(ndim_x), false), contracted_y(size_t(ndim_y), false);
  int64_t contraction_size = 1;
  nb::object sums = tensor_module.attr("sums");
  for (size_t i = 0; i < axes_x.size(); ++i) {
    int64_t dim_x = axes_x[i], dim_y = axes_y[i];
    // A surplus axis taken over from the other list may not exist here.
    if (size_t(dim_x) >= shape_x.size() || size_t(dim_y) >= shape_y.size())
      throw nb::index_error("list index out of range");
    int64_t sx = shape_x[size_t(dim_x)], sy = shape_y[size_t(dim_y)];
    // An axis of length one on one side is summed away on the other.
    if (sx == 1) {
      shape_y[size_t(dim_y)] = 1;
      y = sums(y, dim_y).attr("reshape")(list_of(shape_y));
    } else if (sy == 1) {
      shape_x[size_t(dim_x)] = 1;
      x = sums(x, dim_x).attr("reshape")(list_of(shape_x));
    } else if (sx != sy) {
      // (sic) the double space after "in".
      assertion("The dimensional size for 'x' and 'y' in  should match each other, but 'x' has size " +
                std::to_string(sx) + " in dim " + std::to_string(dim_x) + " while 'y' has size " +
                std::to_string(sy) + " in dim " + std::to_string(dim_y) + ".");
    }
    contracted_x[size_t(dim_x)] = true;
    contracted_y[size_t(dim_y)] = true;
    contraction_size *= shape_x[size_t(dim_x)];
  }
  std::vector<int64_t> perm_x, perm_y, shape_out;
  int64_t free_x = 1, free_y = 1;
  for (int64_t i = 0; i < ndim_x; ++i)
    if (!contracted_x[size_t(i)]) perm_x.push_back(i), shape_out.push_back(shape_x[size_t(i)]), free_x *= shape_x[size_t(i)];
  perm_x.insert(perm_x.end(), axes_x.begin(), axes_x.end());  // contracted axes last, x's order
  perm_y = axes_y;                                            // contracted axes first
  for (int64_t i = 0; i < ndim_y; ++i)
    if (!contracted_y[size_t(i)]) perm_y.push_back(i), shape_out.push_back(shape_y[size_t(i)]), free_y *= shape_y[size_t(i)];
  nb::object permute = tensor_module.attr("permute");
  x = permute(x, list_of(perm_x)).attr("reshape")(list_of({free_x, contraction_size}));
  y = permute(y, list_of(perm_y)).attr("reshape")(list_of({contraction_size, free_y}));
  return matmul_op(x, y).attr("reshape")(list_of(shape_out));
}

}  // namespace

void init_matmul(nb::module_& m, nb::class_<QTensor>&) {
  tensor_module = m;
  const char* t1 = "t1: a QTensor.";
  const char* t2 = "t2: a QTensor of t1's rank, with t1's leading axes.";
  const char* returns = "A new QTensor; differentiable.";
  for (const ProductRow& row : kProducts) {
    Bound<ProductRow> b = bound_row(kProducts, row.name);
    std::string doc = py::doc(row.doc.summary, {t1, t2}, row.doc.returns ? row.doc.returns : returns);
    if (b.row.math.rank == 3) {
      // Any other rank gives None, not the engine's refusal.
      m.def(row.name, [b](TensorArg a, TensorArg c) -> std::optional<TensorResult> {
        if (core_of(a, b.row.name).ndim() != 3 || core_of(c, b.row.name).ndim() != 3) return std::nullopt;
        return TensorResult(product(b, a, c));
      }, nb::arg("t1").none(), nb::arg("t2").none(), doc.c_str());
    } else {
      m.def(row.name, [b](TensorArg a, TensorArg c) -> TensorResult { return product(b, a, c); },
            nb::arg("t1").none(), nb::arg("t2").none(), doc.c_str());
    }
  }
  m.def("matmul", &matmul_op, nb::arg("t1").none(), nb::arg("t2").none(),
        py::doc("The matrix product on the last two axes of two tensors of rank 2, 3 or 4 (the same rank; batch "
                "axes equal).",
                {t1, t2}, returns).c_str());
  m.def("tensordot", &tensordot, nb::arg("x").none(), nb::arg("y").none(), nb::arg("dim1"), nb::arg("dim2"),
        py::doc("The contraction of two tensors over pairs of axes, as one 2d matmul of the flattened tensors.",
                {"x: a QTensor.", "y: a QTensor.", "dim1: an iterable of axes of x; negative ones count from the end.",
                 "dim2: an iterable of axes of y, paired with dim1; the surplus of the longer list serves both."},
                "A new QTensor of x's free axes, then y's; differentiable.").c_str());
}
TRAMEL_FAMILY(init_matmul);

}  // namespace tramel::tensor
