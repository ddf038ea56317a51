// astype: a copy in another dtype; the gradient goes back to the source's dtype.
#include <vector>

#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// " float32 astype float64": the part of astype's edge label after the id,
// one static text per pair of dtypes so the label can stay lazy.
const char* astype_label_tail(DType from, DType to) {
  static const std::vector<std::string> tails = [] {
    std::vector<std::string> all;
    for (int a = 0; a < kNumDTypes; ++a)
      for (int b = 0; b < kNumDTypes; ++b)
        all.push_back(std::string(" ") + dtype_name(DType(a)) + " astype " + dtype_name(DType(b)));
    return all;
  }();
  return tails[size_t(int(from) * kNumDTypes + int(to))].c_str();
}

// The gradient goes back to the source's dtype as it is when it runs.
TensorResult astype(nb::handle self, const py::DTypeArg& dtype) {
  static const Derivatives& derivatives = derivatives_of("astype");
  QTensor& s = as_qtensor(self, "astype");
  const Tensor& source = core_of(s, "astype");
  DType target = dtype.get("astype");
  DType from = source.dtype();
  nb::object y = make_result(to_dtype(source, target, true), {self}, derivatives, [&](int, Edge& e) {
    e.label = LazyLabel().id(self).then(astype_label_tail(from, target));
  }, {s.requires_grad, s.device});
  record_cast(self, y);
  return y;
}

}  // namespace

void init_astype(nb::module_&, nb::class_<QTensor>& cls) {
  cls.def("astype", &astype, nb::arg("dtype").none(),
          py::doc("A copy converted to a dtype (complex to real keeps the real part); the gradient returns in the "
                  "tensor's own dtype.",
                  {"dtype: a dtype constant."}, "A new QTensor; differentiable.").c_str());
}
TRAMEL_FAMILY(init_astype);

}  // namespace tramel::tensor
