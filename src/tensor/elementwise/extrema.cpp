// maximum and minimum (ties share the gradient), clip, and power.
#include "bindings/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

struct ExtremumRow {
  const char* name;
  struct {
    BinaryOp forward;
  } math;
  struct {
    const char* label1;  // edge names: label + id(t); empty: no name
    const char* label2;
    const char* opname;
    const char* opid_infix;
  } trace;
};

const ExtremumRow kExtrema[] = {
    {"maximum", {BinaryOp::Maximum}, {"maximum t1 grad of tensor ", "maximum t2 grad of tensor ", "Maximum", "_maximum_"}},
    {"minimum", {BinaryOp::Minimum}, {"", "", "Minimum", "_minimum_"}},
};

nb::object extremum(Bound<ExtremumRow> op, nb::handle t1, nb::handle t2) {
  const ExtremumRow& row = op.row;
  const Tensor& a = core_of(t1, row.name);
  const Tensor& b = core_of(t2, row.name);
  if (a.shape() != b.shape()) throw nb::value_error("t1 and t2 shape should be equal");
  nb::object y = make_result(binary(row.math.forward, a, b), {t1, t2}, *op.derivatives, [&](int i, Edge& e) {
    const char* label = i == 0 ? row.trace.label1 : row.trace.label2;
    e.label = *label ? LazyLabel(label).id(i == 0 ? t1 : t2) : LazyLabel();
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(" pow ")}, {t2, LazyLabel(" pow ")}});
    return make_record(ids(t1, row.trace.opid_infix, t2) + "_" + id_text(y), row.trace.opname, {t1, t2}, y,
                       nb::dict());
  });
  return y;
}

nb::object clip(nb::handle t, nb::handle min_val, nb::handle max_val) {
  static const Derivatives& derivatives = derivatives_of("clip");
  const Tensor& x = core_of(t, "clip");
  double low = py::float_arg(min_val, "clip", "min_val"), high = py::float_arg(max_val, "clip", "max_val");
  nb::object y = make_result(clamp(x, low, high), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.bounds[0] = low;
    e.derivative.bounds[1] = high;
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

nb::object power(nb::handle x1, nb::handle x2) {
  static const Derivatives& derivatives = derivatives_of("power");
  auto [t1, t2] = prepare_binary(x1, x2);
  const Tensor& a = core_of(t1, "power");
  const Tensor& b = core_of(t2, "power");
  Tensor data = binary(BinaryOp::Pow, a, b);
  Shape base_shape = a.shape(), out_shape = data.shape();
  nb::object y = make_result(std::move(data), {t1, t2}, derivatives, [&](int i, Edge& e) {
    e.label = LazyLabel(i == 0 ? " x^a grad: input shape " : "a^x grad: input shape ")
                  .shape(base_shape)
                  .then(" power shape ")
                  .shape(out_shape);
  });
  record_gated(y, [&](QTensor& out) {
    replace_links(out, {{t1, LazyLabel(" pow ")}, {t2, LazyLabel(" pow ")}});
    return make_record(ids(t1, "_pow_", t2) + "_" + id_text(y), "Pow", {t1, t2}, y, nb::dict());
  });
  return y;
}

}  // namespace

Tensor selection_weights(const Tensor& x, const Tensor& z, const Tensor& y, DType dtype) {
  Tensor wins = to_dtype(compare(CompareOp::Equal, x, z), dtype, false);
  Tensor ties = binary(BinaryOp::Add, to_dtype(compare(CompareOp::Equal, x, y), dtype, false), Scalar::from_int(1));
  return binary(BinaryOp::Div, wins, ties);
}

void init_extrema(nb::module_& m) {
  def_family<2>(m, "extrema", kExtrema, &extremum);
  m.def("clip", &clip, nb::arg("t").none(), nb::arg("min_val").none(), nb::arg("max_val").none());
  m.def("power", &power, nb::arg("t1").none(), nb::arg("t2").none());
  g_operators.pow = &power;  // the power slot of QTensor
}

}  // namespace tramel::tensor
