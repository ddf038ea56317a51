// tile, squeeze, unsqueeze, broadcast_to and flip: single-input operators
// that repeat, drop or add axes, expand, or reverse.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

// A form-C record with a link labelled `link` and {key: value}.
template <typename Value>
void record_appended(nb::handle t, nb::handle y, const char* opname, const char* opid_infix, const std::string& link,
                     const char* key, Value&& value) {
  record_gated(y, [&](QTensor& out) {
    append_links(out, {{t, LazyLabel(), &link}});
    nb::dict attribute;
    attribute[key] = value;
    return make_record(id_text(t) + opid_infix + id_text(y), opname, {t}, y, attribute);
  });
}

nb::object tile_op(nb::handle t, const py::IntList& reps) {
  if (!reps.is_none() && !PyList_Check(reps.ptr()))
    throw nb::type_error(("Argument 'reps' has incorrect type (expected list, got " +
                          std::string(nb::type_name(reps.type()).c_str()) + ")")
                             .c_str());
  static const Derivatives& derivatives = derivatives_of("tile");
  const Tensor& x = core_of(t, "tile");
  std::vector<int64_t> repeats = reps.get("tile", "reps");
  Shape shape = x.shape();
  nb::object y = make_result(tile(x, repeats), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = Dims(repeats);
    e.label = LazyLabel("tile grad dim = ").shape(shape);
  });
  record_appended(t, y, "Tile", "_tile_", "_tile_ link dim = " + py_text(reps), "reps", reps);
  return y;
}

nb::object squeeze_op(nb::handle t, const py::Axes& axis) {
  static const Derivatives& derivatives = derivatives_of("squeeze");
  const Tensor& x = core_of(t, "squeeze");
  int ndim = x.ndim();
  nb::object wrap_axis = nb::none();
  Tensor data;
  if (axis.is_none()) {
    data = squeeze(x);
  } else if (PyLong_Check(axis.ptr())) {
    int64_t w = maybe_wrap_dim(axis.get("squeeze", "axis", py::Bools::CountedAlone)[0], ndim);
    wrap_axis = nb::int_(w);
    data = squeeze(x, {w});
  } else if (PyList_Check(axis.ptr()) || PyTuple_Check(axis.ptr())) {
    nb::list wrapped;
    std::vector<int64_t> axes;
    for (int64_t a : axis.get("squeeze", "axis", py::Bools::CountedAlone)) {
      axes.push_back(maybe_wrap_dim(a, ndim));
      wrapped.append(axes.back());
    }
    wrap_axis = wrapped;
    data = squeeze(x, axes);
  } else {
    throw nb::value_error("Not supported input parameter for squeeze()'s axis");
  }
  Shape shape = x.shape();
  nb::object y = make_result(std::move(data), {t}, derivatives,
                             [&](int, Edge& e) { e.label = LazyLabel("squeeze grad of tensor ").shape(shape); });
  record_appended(t, y, "Squeeze", "_squeeze_", "_squeeze_ link dim = " + py_text(axis), "axis", wrap_axis);
  return y;
}

}  // namespace

nb::object unsqueeze_op(nb::handle t, nb::handle axis) {
  static const Derivatives& derivatives = derivatives_of("unsqueeze");
  const Tensor& x = core_of(t, "unsqueeze");
  int64_t a = py::integer(axis, "unsqueeze", "axis");
  int64_t w = maybe_wrap_dim_unsqueeze(a, x.ndim());
  Shape shape = x.shape();
  nb::object y = make_result(unsqueeze(x, w), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = {w};
    e.label = LazyLabel("unsqueeze grad tensor of ").shape(shape);
  });
  record_appended(t, y, "Unsqueeze", "_unsqueeze_", "_unsqueeze_ link dim = " + py_text(axis), "axis", w);
  return y;
}

namespace {

nb::object broadcast_to_op(nb::handle t, const py::IntList& ref) {
  static const Derivatives& derivatives = derivatives_of("broadcast_to");
  const Tensor& x = core_of(t, "broadcast_to");
  Shape shape = x.shape();
  Shape target = ref.shape("broadcast_to", "ref");
  nb::object y = make_result(broadcast_to(x, target), {t}, derivatives, [&](int, Edge& e) {
    e.label = LazyLabel::formatted("A grad " + shape.str() + " broadcast_to " + py_text(ref));
  });
  Shape out_shape = core_of(y, "broadcast_to").shape();
  record_always_linked(y, {{t, "link "}}, LazyLabel().shape(shape).then(" broadcast_to ").shape(out_shape), [&] {
    // (sic) the "+" of the opid.
    return make_record(id_text(t) + "_broadcast_to_+" + id_text(y), "Broadcast", {t}, y, nb::list());
  });
  return y;
}

nb::object flip_op(nb::handle t, const py::Axes& flip_dims) {
  static const Derivatives& derivatives = derivatives_of("flip");
  const Tensor& x = core_of(t, "flip");
  std::vector<int64_t> dims = flip_dims.get("flip", "flip_dims");
  for (int64_t d : dims) maybe_wrap_dim(d, x.ndim());  // a check only: the core takes them as given
  Tensor data = flip(x, dims);
  Shape shape = data.shape();
  nb::object y = make_result(std::move(data), {t}, derivatives, [&](int, Edge& e) {
    e.derivative.axes = Dims(dims);
    e.label = LazyLabel("input grad ").shape(shape).then(" flip grad ").shape(shape);
  });
  // (sic) the double underscore of the opid.
  record_one_input(y, t, " flip ", "Flip", "_flip__", {{"dims", flip_dims}});
  return y;
}

}  // namespace

void init_tile(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("tile", &tile_op, arg("t"), arg("reps"));
  m.def("squeeze", &squeeze_op, arg("t"), arg("axis") = nb::none());
  m.def("unsqueeze", [](nb::handle t, const py::Axis& axis) { return unsqueeze_op(t, axis); }, arg("t"),
        arg("axis") = 0);
  m.def("broadcast_to", &broadcast_to_op, arg("t"), arg("ref"));
  m.def("flip", &flip_op, arg("t"), arg("flip_dims"));
}

TRAMEL_FAMILY(init_tile);

}  // namespace tramel::tensor
