// maximum and minimum of two tensors of one shape; ties share the gradient.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

struct ExtremumRow {
  const char* name;
  RowDoc doc;
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
    {"maximum", {"Element-wise maximum of two tensors of one shape; a NaN on either side wins."}, {BinaryOp::Maximum},
     {"maximum t1 grad of tensor ", "maximum t2 grad of tensor ", "Maximum", "_maximum_"}},
    {"minimum", {"Element-wise minimum of two tensors of one shape; a NaN on either side wins."}, {BinaryOp::Minimum},
     {"", "", "Minimum", "_minimum_"}},
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
    // (sic) the links of maximum and minimum are labelled " pow ".
    replace_links(out, {{t1, LazyLabel(" pow ")}, {t2, LazyLabel(" pow ")}});
    return make_record(ids(t1, row.trace.opid_infix, t2) + "_" + id_text(y), row.trace.opname, {t1, t2}, y,
                       nb::dict());
  });
  return y;
}

}  // namespace

Tensor selection_weights(const Tensor& x, const Tensor& z, const Tensor& y, DType dtype) {
  Tensor wins = to_dtype(compare(CompareOp::Equal, x, z), dtype, false);
  Tensor ties = binary(BinaryOp::Add, to_dtype(compare(CompareOp::Equal, x, y), dtype, false), Scalar::from_int(1));
  return binary(BinaryOp::Div, wins, ties);
}

void init_maximum_minimum(nb::module_& m, nb::class_<QTensor>&) {
  def_family<2>(m, "extrema", kExtrema, &extremum, {"t1: a QTensor.", "t2: a QTensor of t1's shape."},
                "A new QTensor; differentiable, tied elements share the gradient equally.");
}
TRAMEL_FAMILY(init_maximum_minimum);

}  // namespace tramel::tensor
