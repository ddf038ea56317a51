// maximum and minimum (ties share the gradient), clip, and power.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

struct ExtremumRow {
  const char* name;
  BinaryOp forward;
  const char* label1;  // edge names: label + id(t); empty: no name
  const char* label2;
  const char* opname;
  const char* opid_infix;
};

const ExtremumRow kExtrema[] = {
    {"maximum", BinaryOp::Maximum, "maximum t1 grad of tensor ", "maximum t2 grad of tensor ", "Maximum",
     "_maximum_"},
    {"minimum", BinaryOp::Minimum, "", "", "Minimum", "_minimum_"},
};

// The share of each element that goes to operand x of z = extremum(x, y):
// 1 where x alone is the result, 1/2 at a tie, 0 where it lost. Computed in
// the gradient's dtype.
Tensor selection_weights(const Tensor& x, const Tensor& z, const Tensor& y, DType dtype) {
  Tensor wins = to_dtype(compare(CompareOp::Equal, x, z), dtype, false);
  Tensor ties = binary(BinaryOp::Add, to_dtype(compare(CompareOp::Equal, x, y), dtype, false), Scalar::from_int(1));
  return binary(BinaryOp::Div, wins, ties);
}

// Held: t1, t2, the forward result.
Tensor extremum_grad(const Tensor& g, const FnGrad& f) {
  int me = f.which(), other = 1 - me;
  Tensor weights = selection_weights(f.data(me), f.data(2), f.data(other), g.dtype());
  return unbroadcast(f.grad_data(me), binary(BinaryOp::Mul, g, weights));
}

nb::object extremum(const ExtremumRow& row, nb::handle t1, nb::handle t2) {
  const Tensor& a = core_of(as_qtensor(t1, row.name), row.name);
  const Tensor& b = core_of(as_qtensor(t2, row.name), row.name);
  if (a.shape() != b.shape()) throw nb::value_error("t1 and t2 shape should be equal");
  nb::object data = wrap_core(binary(row.forward, a, b));
  nb::object y = make_result(data, {t1, t2}, [&](int i) {
    nb::handle input = i == 0 ? t1 : t2;
    const char* label = i == 0 ? row.label1 : row.label2;
    return edge(input, FnGrad(&extremum_grad, &row, i, {t1, t2, data}),
                *label ? LazyLabel(label).id(input) : LazyLabel());
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(" pow ")}, {t2, LazyLabel(" pow ")}});
    return make_record(ids(t1, row.opid_infix, t2) + "_" + id_text(y), row.opname, {t1, t2}, y, nb::dict());
  });
  return y;
}

Tensor clip_grad(const Tensor& g, const FnGrad& f) { return clamp_grad(f.data(0), g, f.bounds[0], f.bounds[1]); }

nb::object clip(nb::handle t, const py::Real& min_val, const py::Real& max_val) {
  const Tensor& x = core_of(as_qtensor(t, "clip"), "clip");
  double low = min_val.get("clip", "min_val"), high = max_val.get("clip", "max_val");
  nb::object y = make_result(clamp(x, low, high), {t}, [&](int) {
    FnGrad grad(&clip_grad, nullptr, 0, {t});
    grad.bounds[0] = low;
    grad.bounds[1] = high;
    return edge(t, std::move(grad), LazyLabel());
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t, LazyLabel(" clip ")}});
    nb::dict attribute;
    attribute["min"] = min_val;
    attribute["max"] = max_val;
    std::string opid = id_text(t) + "_clip_" + py_text(min_val) + "_" + py_text(max_val) + "_" + id_text(y);
    return make_record(opid, "Clip", {t}, y, attribute);
  });
  return y;
}

// Held: t1 (base), t2 (exponent), the forward result.
Tensor power_grad(const Tensor& g, const FnGrad& f) {
  if (f.which() == 0) return unbroadcast(f.grad_data(0), power_grad_of_base(g, f.data(0), f.data(1)));
  return unbroadcast(f.grad_data(1), power_grad_of_exp(g, f.data(0), f.data(1), f.data(2)));
}

nb::object power(nb::handle x1, nb::handle x2) {
  auto [t1, t2] = prepare_binary(x1, x2);
  const Tensor& a = core_of(as_qtensor(t1, "power"), "power");
  const Tensor& b = core_of(as_qtensor(t2, "power"), "power");
  nb::object data = wrap_core(binary(BinaryOp::Pow, a, b));
  Shape base_shape = a.shape(), out_shape = as_core(data, "power").shape();
  nb::object y = make_result(data, {t1, t2}, [&](int i) {
    LazyLabel label = LazyLabel(i == 0 ? " x^a grad: input shape " : "a^x grad: input shape ")
                          .shape(base_shape)
                          .then(" power shape ")
                          .shape(out_shape);
    return edge(i == 0 ? t1 : t2, FnGrad(&power_grad, nullptr, i, {t1, t2, data}), label);
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(" pow ")}, {t2, LazyLabel(" pow ")}});
    return make_record(ids(t1, "_pow_", t2) + "_" + id_text(y), "Pow", {t1, t2}, y, nb::dict());
  });
  return y;
}

}  // namespace

void init_extrema(nb::module_& m) {
  def_family<2>(m, "extrema", kExtrema, &extremum);
  m.def("clip", &clip, nb::arg("t").none(), nb::arg("min_val").none(), nb::arg("max_val").none());
  m.def("power", &power, nb::arg("t1").none(), nb::arg("t2").none());
  g_operators.pow = &power;  // the power slot of QTensor
}

}  // namespace tramel::tensor
