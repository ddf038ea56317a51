// clip: values limited to [min_val, max_val]; the gradient passes inside the bounds.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

TensorResult clip(TensorArg t, const py::Real& min_val, const py::Real& max_val) {
  static const Derivatives& derivatives = derivatives_of("clip");
  const Tensor& x = core_of(t, "clip");
  double low = min_val.get("clip", "min_val"), high = max_val.get("clip", "max_val");
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

}  // namespace

void init_clip(nb::module_& m, nb::class_<QTensor>&) {
  m.def("clip", &clip, nb::arg("t").none(), nb::arg("min_val").none(), nb::arg("max_val").none(),
        py::doc("Each element limited to [min_val, max_val]; the gradient passes where the input lies within "
                "the bounds, and is zero elsewhere.",
                {"t: a QTensor.", "min_val: the lower bound, a real number.",
                 "max_val: the upper bound, a real number."},
                "A new QTensor; differentiable.").c_str());
}
TRAMEL_FAMILY(init_clip);

}  // namespace tramel::tensor
