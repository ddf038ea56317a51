// Bringing two operands to one device and one shape, and undoing the
// expansion in their gradients.
#include "interop/args.h"
#include "interop/interop.h"
#include "tensor/operator.h"

namespace tramel::tensor {

namespace {

int64_t size_of(const QTensor& q) { return core_of(q, "broadcast").numel(); }

// One operand's half of broadcast(t1, t2): its expanded tensor, edge and record.
nb::object expanded(nb::handle t, Tensor data, const Shape& s1, const Shape& s2, bool first) {
  static const Derivatives& derivatives = derivatives_of("broadcast");
  nb::object e = make_result(std::move(data), {t}, derivatives, [&](int, Edge& edge) {
    edge.label = LazyLabel(first ? "t1 grad " : "t2 grad ").shape(s1).then(" broadcast ").shape(s2);
  });
  // The link shows the operand's shape, then the second operand's.
  const Shape& own = first ? s1 : s2;
  record_always_linked(e, {{t, "link "}}, LazyLabel().shape(own).then(" broadcast ").shape(s2), [&] {
    return make_record(id_text(t) + "_broadcast_" + id_text(e), "Broadcast", {t}, e, nb::list());
  });
  return e;
}

nb::list infer_size_expand(nb::handle sa, nb::handle sb) {
  nb::object a = sa.attr("shape"), b = sb.attr("shape");
  int64_t dims_a = py::integer(sa.attr("ndim"), "infer_size_expand", "ndim");
  int64_t dims_b = py::integer(sb.attr("ndim"), "infer_size_expand", "ndim");
  int64_t ndim = std::max(dims_a, dims_b);
  std::vector<int64_t> sizes(size_t(ndim), 0);
  for (int64_t i = ndim - 1; i >= 0; --i) {
    int64_t offset = ndim - 1 - i, dim_a = dims_a - 1 - offset, dim_b = dims_b - 1 - offset;
    int64_t size_a = dim_a >= 0 ? py::integer(a[dim_a], "infer_size_expand", "a dimension") : 1;
    int64_t size_b = dim_b >= 0 ? py::integer(b[dim_b], "infer_size_expand", "a dimension") : 1;
    if (size_a != size_b && size_a != 1 && size_b != 1) throw nb::value_error("Can not broadcast.");
    sizes[size_t(i)] = size_a == 1 ? size_b : size_a;
  }
  nb::list out;
  for (int64_t s : sizes) out.append(s);
  return out;
}

}  // namespace

Tensor zeros_shaped_like(const Tensor& t) { return full(t.shape(), Scalar::from_int(0), t.device(), t.dtype(), "zeros_like"); }

Tensor unbroadcast(const Tensor& own_grad, const Tensor& g) {
  if (own_grad.shape() == g.shape()) return to_dtype(g, own_grad.dtype(), true);
  // Pad the operand's shape with leading ones to g's rank; each axis is
  // repeated g's size over the operand's size times.
  int pad = g.ndim() - own_grad.ndim();
  int64_t padded[kMaxRank];
  std::vector<int64_t> reps(size_t(g.ndim()));
  for (int i = 0; i < g.ndim(); ++i) {
    padded[i] = i < pad ? 1 : own_grad.shape()[i - pad];
    reps[size_t(i)] = padded[i] == 0 ? 1 : g.shape()[i] / padded[i];
  }
  Tensor summed = tile_grad(g, Shape(padded, g.ndim(), "_broadcast"), reps);
  return to_dtype(reshape(summed, own_grad.shape()), own_grad.dtype(), false);
}

std::pair<nb::object, nb::object> broadcast_pair(nb::handle t1, nb::handle t2) {
  const Tensor& a = core_of(t1, "broadcast");
  const Tensor& b = core_of(t2, "broadcast");
  Shape s1 = a.shape(), s2 = b.shape();
  Shape common = broadcast_shape(s1, s2, "broadcast");
  // An operand that already has the common shape shares its storage with
  // its new tensor instead of being copied (see Note [copy-on-write storage]).
  Tensor r1 = a.shape() == common ? a : broadcast_to(a, common);
  Tensor r2 = b.shape() == common ? b : broadcast_to(b, common);
  nb::object e1 = expanded(t1, std::move(r1), s1, s2, true);
  nb::object e2 = expanded(t2, std::move(r2), s1, s2, false);
  return {e1, e2};
}

std::pair<nb::object, nb::object> prepare_binary(nb::handle t1, nb::handle t2) {
  nb::object a = nb::borrow(t1), b = nb::borrow(t2);
  QTensor& qa = as_qtensor(a, "broadcast");
  QTensor& qb = as_qtensor(b, "broadcast");
  // Only a one-element processor operand follows the other to its accelerator.
  int da = device_of(qa.device, "broadcast"), db = device_of(qb.device, "broadcast");
  if (size_of(qa) == 1 && da == kCpuDevice && db >= kFirstAccelerator) {
    move_to_device(a, db);
    da = db;
  }
  if (size_of(qb) == 1 && db == kCpuDevice && da >= kFirstAccelerator) move_to_device(b, da);
  if (core_of(qa, "broadcast").shape() != core_of(qb, "broadcast").shape()) return broadcast_pair(a, b);
  return {a, b};
}

void init_broadcast(nb::module_& m, nb::class_<QTensor>&) {
  auto arg = [](const char* name) { return nb::arg(name).none(); };
  m.def("_broadcast_function_before_binary_op",
        [](TensorArg t1, TensorArg t2) {
          auto [a, b] = prepare_binary(t1, t2);
          return nb::make_tuple(a, b);
        },
        arg("t1"), arg("t2"),
        py::doc("The operands of an element-wise operator, brought to one device and one shape.",
                {"t1: a QTensor.", kSecondOperand},
                "A tuple of two QTensors: the operands themselves when their shapes agree, else as broadcast() "
                "gives them.").c_str());
  m.def("broadcast",
        [](TensorArg t1, TensorArg t2) {
          auto [a, b] = broadcast_pair(t1, t2);
          return nb::make_tuple(a, b);
        },
        arg("t1"), arg("t2"),
        py::doc("Two tensors expanded to their common broadcast shape.", {"t1: a QTensor.", "t2: a QTensor."},
                "A tuple of two new QTensors; differentiable, the gradient sums over the expansion.").c_str());
  m.def("_broadcast",
        [](nb::handle own, nb::handle g) { return wrap_core(unbroadcast(as_core(own, "_broadcast"), as_core(g, "_broadcast"))); },
        arg("un_broadcast_grad"), arg("broadcast_grad"),
        py::doc("A gradient summed back over a broadcast, to an operand's shape and dtype.",
                {"un_broadcast_grad: a _core.Tensor of the operand's shape and dtype (its grad).",
                 "broadcast_grad: a _core.Tensor of the broadcast shape."},
                "A new _core.Tensor.").c_str());
  m.def("infer_size_expand", &infer_size_expand, arg("sa"), arg("sb"),
        py::doc("The common broadcast shape of two tensors.",
                {"sa: a QTensor or _core.Tensor (any object with shape and ndim).", "sb: likewise."},
                "A list of ints; ValueError when the shapes do not broadcast.").c_str());
}

TRAMEL_FAMILY(init_broadcast);

}  // namespace tramel::tensor
