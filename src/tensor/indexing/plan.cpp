// The classification of keys and the plan of advanced indexing, and the
// module-level functions that show them to Python (numpy arrays in and out).
// See Note [two ways of a key] in indexing.h.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>

#include "interop/docs.h"
#include "interop/interop.h"
#include "tensor/indexing/indexing.h"
#include "tensor/operator.h"

namespace tramel::tensor {

// ---- IndexArray ----

IndexArray IndexArray::dense(Tensor data) {
  IndexArray a;
  a.shape.assign(data.shape().begin(), data.shape().end());
  a.strides.resize(a.shape.size());
  int64_t stride = 1;
  for (size_t i = a.shape.size(); i-- > 0;) {
    a.strides[i] = stride;
    stride *= a.shape[i];
  }
  a.data = std::move(data);
  return a;
}

IndexArray IndexArray::copy_of(const int64_t* values, int64_t n) {
  Tensor t = Tensor::empty(Shape(&n, 1, "indexing"), DType::Int64, kCpuDevice, "indexing");
  if (n) std::memcpy(t.raw(), values, size_t(n) * sizeof(int64_t));
  return dense(std::move(t));
}

int64_t IndexArray::size() const {
  int64_t n = 1;
  for (int64_t d : shape) n *= d;
  return n;
}

bool IndexArray::is_dense() const {
  int64_t stride = 1;
  for (size_t i = shape.size(); i-- > 0;) {
    if (shape[i] != 1 && strides[i] != stride) return false;
    stride *= shape[i];
  }
  return data.numel() == stride;
}

void IndexArray::copy_to(int64_t* out) const {
  int64_t n = size();
  const int64_t* src = data.data<int64_t>();
  if (is_dense()) {
    if (n) std::memcpy(out, src, size_t(n) * sizeof(int64_t));
    return;
  }
  std::vector<int64_t> coords(shape.size(), 0);
  for (int64_t i = 0; i < n; ++i) {
    int64_t offset = 0;
    for (size_t d = 0; d < coords.size(); ++d) offset += coords[d] * strides[d];
    out[i] = src[offset];
    for (size_t d = coords.size(); d-- > 0;) {
      if (++coords[d] < shape[d]) break;
      coords[d] = 0;
    }
  }
}

namespace {

// str() of a tuple of ints: "()", "(2,)", "(2, 3)".
std::string tuple_text(const std::vector<int64_t>& shape) {
  std::string s = "(";
  for (size_t i = 0; i < shape.size(); ++i) s += (i ? ", " : "") + std::to_string(shape[i]);
  return s + (shape.size() == 1 ? ",)" : ")");
}

}  // namespace

IndexArray IndexArray::broadcast_to(const std::vector<int64_t>& target) const {
  if (target.size() < shape.size())
    throw nb::value_error(("cannot broadcast an index array of shape " + tuple_text(shape) + " to " +
                           tuple_text(target)).c_str());
  IndexArray a;
  a.data = data;
  a.shape = target;
  a.strides.assign(target.size(), 0);
  size_t lead = target.size() - shape.size();
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == target[lead + i]) a.strides[lead + i] = strides[i];
    else if (shape[i] != 1)
      throw nb::value_error(("cannot broadcast an index array of shape " + tuple_text(shape) + " to " +
                             tuple_text(target)).c_str());
  }
  return a;
}

IndexArray IndexArray::reshaped(const std::vector<int64_t>& target) const {
  // The plan only inserts or removes axes of length one: the other axes pair
  // up in order.
  IndexArray a;
  a.data = data;
  a.shape = target;
  a.strides.assign(target.size(), 0);
  size_t j = 0;
  for (size_t i = 0; i < target.size(); ++i) {
    if (target[i] == 1) continue;
    while (j < shape.size() && shape[j] == 1) ++j;
    if (j >= shape.size() || shape[j] != target[i])
      throw std::logic_error("index array reshaped from " + tuple_text(shape) + " to " + tuple_text(target));
    a.strides[i] = strides[j++];
  }
  return a;
}

bool KeyEntry::full_slice() const {
  if (kind != Kind::Slice) return false;
  auto* s = reinterpret_cast<PySliceObject*>(object.ptr());
  return s->start == Py_None && s->stop == Py_None && s->step == Py_None;
}

namespace {

// np.array(x) of a list or tuple, as integers: plain lists of ints directly,
// anything else through numpy (nested lists, floats truncated, bools as 0/1).
IndexArray array_of_sequence(nb::handle seq) {
  PyObject* fast = seq.ptr();
  Py_ssize_t n = PySequence_Fast_GET_SIZE(fast);
  PyObject** items = PySequence_Fast_ITEMS(fast);
  std::vector<int64_t> values;
  values.reserve(size_t(n));
  bool plain = n > 0;
  for (Py_ssize_t i = 0; i < n && plain; ++i) {
    if (!PyLong_Check(items[i])) {
      plain = false;
      break;
    }
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(items[i], &overflow);
    if (overflow) plain = false;
    values.push_back(v);
  }
  if (plain) return IndexArray::copy_of(values.data(), n);
  static nb::handle np_array = imported("numpy", "array");
  nb::object array = np_array(seq);
  return IndexArray::dense(py::tensor_from_array(array, kCpuDevice, DType::Int64, "indexing"));
}

// A QTensor entry as integers on the processor: the tensor's own buffer when
// it already is one (no copy), else converted (floats truncated).
IndexArray array_of_qtensor(nb::handle it) {
  Tensor t = core_of(it, "indexing");
  if (t.device() != kCpuDevice) t = to_device(t, kCpuDevice, "indexing");
  if (t.dtype() != DType::Int64) t = to_dtype(t, DType::Int64, true);
  return IndexArray::dense(std::move(t));
}

// slice(None), made once and held for the process.
nb::handle whole_slice() {
  static PyObject* full = PySlice_New(nullptr, nullptr, nullptr);
  return full;
}

[[noreturn]] void illegal_index_type(nb::handle idx) {
  throw std::runtime_error("illegal index type " + py_text(nb::handle(reinterpret_cast<PyObject*>(Py_TYPE(idx.ptr())))));
}

}  // namespace

// The kind of a key entry as the planner sees it (lists and tuples reach the
// planner only through its Python faces; the classifier turns them into arrays).
KeyEntry::Kind kind_of(nb::handle it) {
  if (it.is_none()) return KeyEntry::Kind::None;
  if (PyLong_Check(it.ptr())) return KeyEntry::Kind::Int;
  if (PySlice_Check(it.ptr())) return KeyEntry::Kind::Slice;
  if (PyRange_Check(it.ptr())) return KeyEntry::Kind::Range;
  if (PyObject_TypeCheck(it.ptr(), ndarray_type()) || PyList_Check(it.ptr()) || PyTuple_Check(it.ptr()))
    return KeyEntry::Kind::Array;
  return KeyEntry::Kind::Other;
}

// A key entry that the classifier leaves as it is (ints, slices, arrays,
// ranges and anything else), with its integers read.
KeyEntry plain_entry(nb::handle it) {
  KeyEntry e;
  e.object = nb::borrow(it);
  e.kind = kind_of(it);
  if (e.kind == KeyEntry::Kind::Int) {
    e.value = PyLong_AsLongLong(it.ptr());
    if (e.value == -1 && PyErr_Occurred()) throw nb::python_error();
  } else if (e.kind == KeyEntry::Kind::Array && PyObject_TypeCheck(it.ptr(), ndarray_type())) {
    e.array = IndexArray::dense(py::tensor_from_array(it, kCpuDevice, DType::Int64, "indexing"));
  } else if (e.kind == KeyEntry::Kind::Array) {
    e.object = nb::object();  // shown as the array np.array makes of it
    nb::object fast = nb::steal(PySequence_Fast(it.ptr(), "indexing"));
    e.array = array_of_sequence(fast);
  }
  return e;
}

namespace {

// The entries of a boolean QTensor key: the coordinates of its true
// elements, one array per axis it covers (numpy's rule), starting at `axis`.
void append_mask(Key& key, nb::handle it, const Shape& shape, int64_t axis) {
  const Tensor& mask = core_of(it, "indexing");
  int d = mask.ndim();
  if (d == 0) throw nb::index_error("a boolean QTensor index needs at least one axis");
  for (int j = 0; j < d; ++j) {
    int64_t have = axis + j < shape.rank() ? shape[int(axis + j)] : -1;
    if (have != mask.shape()[j])
      throw nb::index_error(("boolean index did not match indexed array along axis " + std::to_string(axis + j) +
                             "; size of axis is " + (have < 0 ? std::string("missing") : std::to_string(have)) +
                             " but size of corresponding boolean axis is " + std::to_string(mask.shape()[j]))
                                .c_str());
  }
  Tensor coords = nonzero(mask);
  if (coords.device() != kCpuDevice) coords = to_device(coords, kCpuDevice, "indexing");
  int64_t count = coords.shape()[1];
  if (d == 1) {  // the coordinates themselves, no copy
    KeyEntry e;
    e.kind = KeyEntry::Kind::Array;
    e.array = IndexArray::dense(coords.view_as(Shape(&count, 1, "indexing")));
    key.push_back(std::move(e));
    return;
  }
  const int64_t* rows = coords.data<int64_t>();
  for (int j = 0; j < d; ++j) {
    KeyEntry e;
    e.kind = KeyEntry::Kind::Array;
    e.array = IndexArray::copy_of(rows + j * count, count);
    key.push_back(std::move(e));
  }
}

}  // namespace

Key expand_key(nb::handle item, const Shape& shape, bool* use_advance) {
  Key key;
  key.reserve(size_t(shape.rank()) + 2);
  int64_t num_none = 0, axes_taken = 0;
  *use_advance = false;
  nb::object iterator = nb::steal(PyObject_GetIter(item.ptr()));
  if (!iterator.is_valid()) throw nb::python_error();
  while (PyObject* raw = PyIter_Next(iterator.ptr())) {
    nb::object it = nb::steal(raw);
    if (is_qtensor(it)) {
      *use_advance = true;
      if (const Tensor& t = core_of(it, "indexing"); t.dtype() == DType::Bool) {
        append_mask(key, it, shape, axes_taken);
        axes_taken += t.ndim();
        continue;
      }
      KeyEntry e;
      e.kind = KeyEntry::Kind::Array;
      e.array = array_of_qtensor(it);
      key.push_back(std::move(e));
    } else if (PyList_Check(it.ptr()) || PyTuple_Check(it.ptr())) {
      *use_advance = true;
      key.push_back(plain_entry(it));  // np.array(it)
    } else if (it.ptr() == Py_Ellipsis) {
      // (sic) the run of blanks inside the message.
      throw nb::index_error(
          "Cannot use ellipsis (`...`) for QTensor indexing,                         use (`:`) instead.");
    } else {
      KeyEntry e = plain_entry(it);
      if (e.kind == KeyEntry::Kind::None) ++num_none;
      else ++axes_taken;
      key.push_back(std::move(e));
      continue;
    }
    ++axes_taken;
  }
  if (PyErr_Occurred()) throw nb::python_error();
  int64_t ell_ndim = shape.rank() + num_none - int64_t(key.size());
  for (int64_t i = 0; i < ell_ndim; ++i) {
    KeyEntry e;
    e.kind = KeyEntry::Kind::Slice;
    e.object = nb::borrow(whole_slice());
    key.push_back(std::move(e));
  }
  return key;
}

namespace {

bool is_advanced(KeyEntry::Kind kind, nb::handle object) {
  switch (kind) {
    case KeyEntry::Kind::Array:
    case KeyEntry::Kind::Int:
    case KeyEntry::Kind::Range:
      return true;
    case KeyEntry::Kind::Slice:
    case KeyEntry::Kind::None:
      return false;
    case KeyEntry::Kind::Other:
      break;
  }
  illegal_index_type(object);
}
bool is_advanced(const KeyEntry& e) { return is_advanced(e.kind, e.object); }

// np.arange(start, stop, step) of integers, allocated as a tensor (a huge
// range fails there, as numpy's MemoryError, instead of growing a vector).
IndexArray arange(int64_t start, int64_t stop, int64_t step) {
  if (step == 0) throw nb::value_error("range() arg 3 must not be zero");
  __int128 span = step > 0 ? __int128(stop) - start : __int128(start) - stop;
  __int128 n128 = span <= 0 ? 0 : (span + (step > 0 ? step : -__int128(step)) - 1) / (step > 0 ? step : -__int128(step));
  if (n128 > kMaxElements) throw nb::value_error("the range has too many elements");
  int64_t n = int64_t(n128);
  Tensor t = Tensor::empty(Shape(&n, 1, "indexing"), DType::Int64, kCpuDevice, "indexing");
  int64_t* out = t.data<int64_t>();
  for (int64_t i = 0; i < n; ++i) out[i] = int64_t(__int128(start) + __int128(i) * step);
  return IndexArray::dense(std::move(t));
}

// _advanced_index_to_array: the entry as an integer array; only a slice is
// resolved against the axis.
IndexArray to_array(const KeyEntry& e, int64_t ax_len) {
  switch (e.kind) {
    case KeyEntry::Kind::Array:
      return e.array;
    case KeyEntry::Kind::Int:
      return IndexArray::copy_of(&e.value, 1);
    case KeyEntry::Kind::Slice: {
      Py_ssize_t start, stop, step;
      if (PySlice_Unpack(e.object.ptr(), &start, &stop, &step) < 0) throw nb::python_error();
      PySlice_AdjustIndices(Py_ssize_t(std::max<int64_t>(ax_len, 0)), &start, &stop, step);
      return arange(start, stop, step);
    }
    case KeyEntry::Kind::Range: {
      int64_t start = nb::cast<int64_t>(e.object.attr("start")), stop = nb::cast<int64_t>(e.object.attr("stop")),
              step = nb::cast<int64_t>(e.object.attr("step"));
      return arange(start, stop, step);
    }
    default:
      illegal_index_type(e.object);
  }
}

// _get_broadcast_shape: numpy's right-aligned rule; the message shows the
// shapes as tuples.
std::vector<int64_t> broadcast_pair(const std::vector<int64_t>& s1, const std::vector<int64_t>& s2) {
  if (s1 == s2) return s1;
  std::vector<int64_t> shape = s1.size() > s2.size() ? s1 : s2;
  size_t common = std::min(s1.size(), s2.size());
  for (size_t j = 0; j < common; ++j) {
    int64_t a = s1[s1.size() - 1 - j], b = s2[s2.size() - 1 - j];
    if (a != 1 && b != 1 && a != b)
      throw nb::value_error(("shape1=" + tuple_text(s1) + " is not broadcastable to shape2=" + tuple_text(s2)).c_str());
    shape[shape.size() - 1 - j] = a == 1 ? b : a;
  }
  return shape;
}

std::vector<int64_t> broadcast_all(const std::vector<const std::vector<int64_t>*>& shapes) {
  std::vector<int64_t> shape;
  for (const auto* s : shapes) shape = broadcast_pair(shape, *s);
  return shape;
}

// _broadcast_advanced_indices: the block arrays broadcast together and put
// at the block's place; every other (one-dimensional) array along its own axis.
std::vector<IndexArray> broadcast_indices(const std::vector<IndexArray>& arrays, const std::vector<int64_t>& block,
                                          std::vector<int64_t>* block_shape_out = nullptr) {
  if (block.empty()) throw nb::index_error("list index out of range");  // block_axes[0]
  for (size_t i = 0; i < block.size(); ++i) {
    if (block[i] < 0 || block[i] >= int64_t(arrays.size()))
      throw nb::index_error(("block axis " + std::to_string(block[i]) + " is out of range for " +
                             std::to_string(arrays.size()) + " index arrays").c_str());
    if (i && block[i] != block[i - 1] + 1) throw nb::value_error("the block axes must be consecutive");
  }
  std::vector<const std::vector<int64_t>*> block_shapes;
  for (int64_t ax : block) block_shapes.push_back(&arrays[size_t(ax)].shape);
  std::vector<int64_t> block_shape = broadcast_all(block_shapes);
  int64_t ndim_blk = int64_t(block_shape.size());
  int64_t ndim_blk_delta = ndim_blk - int64_t(block.size());
  int64_t ndim_lead = block.front();
  int64_t ndim_trail = int64_t(arrays.size()) - (block.back() + 1);
  std::vector<int64_t> bcast_shape;
  for (int64_t ax = 0; ax < ndim_lead; ++ax) bcast_shape.push_back(arrays[size_t(ax)].shape.at(0));
  bcast_shape.insert(bcast_shape.end(), block_shape.begin(), block_shape.end());
  for (size_t ax = size_t(block.back() + 1); ax < arrays.size(); ++ax) bcast_shape.push_back(arrays[ax].shape.at(0));
  std::vector<IndexArray> out(arrays.size());
  std::vector<int64_t> shp(size_t(ndim_lead), 1);
  shp.insert(shp.end(), block_shape.begin(), block_shape.end());
  shp.insert(shp.end(), size_t(ndim_trail), 1);
  std::vector<bool> in_block(arrays.size(), false);
  for (int64_t ax : block) {
    in_block[size_t(ax)] = true;
    out[size_t(ax)] = arrays[size_t(ax)].broadcast_to(block_shape).reshaped(shp).broadcast_to(bcast_shape);
  }
  for (size_t ax = 0; ax < arrays.size(); ++ax) {
    if (in_block[ax]) continue;
    std::vector<int64_t> own(bcast_shape.size(), 1);
    size_t at = int64_t(ax) < ndim_lead ? ax : size_t(int64_t(ax) + ndim_blk_delta);
    own.at(at) = arrays[ax].shape.at(0);
    out[ax] = arrays[ax].reshaped(own).broadcast_to(bcast_shape);
  }
  if (block_shape_out) *block_shape_out = std::move(block_shape);
  return out;
}

// _fun_new_axes_after_advanced_indexing.
std::vector<int64_t> new_axes_after(const std::vector<bool>& none_at, const std::vector<bool>& advanced_at,
                                    int64_t bcast_adv_ndim, bool adjacent) {
  std::vector<int64_t> positions;
  int64_t cum = adjacent ? 0 : bcast_adv_ndim;
  for (size_t ax = 0; ax < none_at.size(); ++ax) {  // entries before ax count
    if (none_at[ax]) positions.push_back(cum);
    cum += advanced_at[ax] ? 0 : 1;
  }
  return positions;
}

}  // namespace

AdvancedPlan plan_advanced(const Key& key, const Shape& data_shape) {
  // The usual key, one index array for axis 0 and every other axis whole,
  // plans to that array itself (what the steps below give it).
  if (int64_t(key.size()) == data_shape.rank() && !key.empty() && key.front().kind == KeyEntry::Kind::Array &&
      std::all_of(key.begin() + 1, key.end(), [](const KeyEntry& e) { return e.full_slice(); }))
    return AdvancedPlan{{key.front().array}, {}};
  std::vector<const KeyEntry*> key_nd;
  for (const KeyEntry& e : key)
    if (e.kind != KeyEntry::Kind::None) key_nd.push_back(&e);
  int64_t ndim = int64_t(key_nd.size()), rank = data_shape.rank();
  if (ndim < rank)
    throw std::runtime_error("too few indices after normalization: expected `ndim` (" + std::to_string(rank) +
                             ") but got " + std::to_string(ndim) + ". This is a bug, please report it!");
  if (ndim > rank)
    throw nb::index_error(("too many indices (" + std::to_string(ndim) + ") for array with " + std::to_string(rank) +
                           " dimensions").c_str());
  std::vector<int64_t> adv_axs, adv_axs_nd, nonadv_axs_nd;
  std::vector<bool> none_at(key.size()), advanced_at(key.size());
  for (size_t ax = 0; ax < key.size(); ++ax) {
    none_at[ax] = key[ax].kind == KeyEntry::Kind::None;
    advanced_at[ax] = is_advanced(key[ax]);
    if (advanced_at[ax]) adv_axs.push_back(int64_t(ax));
  }
  for (int64_t ax = 0; ax < ndim; ++ax) (is_advanced(*key_nd[size_t(ax)]) ? adv_axs_nd : nonadv_axs_nd).push_back(ax);
  bool adjacent = true;
  for (size_t i = 1; i < adv_axs.size(); ++i) adjacent = adjacent && adv_axs[i] - adv_axs[i - 1] == 1;
  // _drop_slice_none_at_end: trailing whole axes are taken through k.
  int64_t short_len = ndim;
  while (short_len > 0 && key_nd[size_t(short_len - 1)]->full_slice()) --short_len;
  if (short_len == 0) throw nb::index_error("list index out of range");  // a key without an advanced entry
  std::vector<const KeyEntry*> permuted;
  std::vector<int64_t> block, axs_permut;
  if (adjacent) {
    permuted.assign(key_nd.begin(), key_nd.begin() + short_len);
    block = adv_axs_nd;
    axs_permut.resize(size_t(ndim));
    std::iota(axs_permut.begin(), axs_permut.end(), 0);
  } else {
    for (int64_t ax : adv_axs_nd) permuted.push_back(key_nd[size_t(ax)]);
    for (int64_t ax : nonadv_axs_nd)
      if (ax < short_len) permuted.push_back(key_nd[size_t(ax)]);
    for (size_t i = 0; i < adv_axs_nd.size(); ++i) block.push_back(int64_t(i));
    axs_permut = adv_axs_nd;
    axs_permut.insert(axs_permut.end(), nonadv_axs_nd.begin(), nonadv_axs_nd.end());
  }
  std::vector<IndexArray> converted;
  for (size_t i = 0; i < permuted.size(); ++i) converted.push_back(to_array(*permuted[i], data_shape[int(axs_permut[i])]));
  // The block's arrays are the advanced entries, so its shape is theirs broadcast.
  std::vector<int64_t> bcast_advanced_shape;
  std::vector<IndexArray> bcast = broadcast_indices(converted, block, &bcast_advanced_shape);
  // Back in the order of the tensor's axes, dropped axes left out.
  std::vector<int64_t> inverse(axs_permut.size());
  for (size_t i = 0; i < axs_permut.size(); ++i) inverse[size_t(axs_permut[i])] = int64_t(i);
  AdvancedPlan plan;
  for (int64_t ax : inverse)
    if (axs_permut[size_t(ax)] < short_len) plan.arrays.push_back(bcast[size_t(ax)]);
  plan.new_axes = new_axes_after(none_at, advanced_at, int64_t(bcast_advanced_shape.size()), adjacent);
  return plan;
}

void fill_gather_fields(const std::vector<int64_t>& ishape, const Shape& dshape, int64_t m, GatherLayout& layout,
                        std::vector<int64_t>& oshape) {
  if (ishape.empty()) throw nb::index_error("tuple index out of range");  // ishape[0]
  if (m < 0 || m > dshape.rank() || ishape[0] < 0)
    throw nb::index_error(("m = " + std::to_string(m) + " and ishape[0] = " + std::to_string(ishape[0]) +
                           " must be indexed axes of a shape of " + std::to_string(dshape.rank()) + " axes")
                              .c_str());
  int64_t k = 1;
  for (int i = int(m); i < dshape.rank(); ++i) k *= dshape[i];
  layout.m = m;
  layout.k = k;
  layout.strides.assign(size_t(m), 0);
  layout.mshape.assign(size_t(m), 0);
  int64_t stride = k;
  for (int64_t i = m - 1; i >= 0; --i) {
    layout.strides[size_t(i)] = stride;
    layout.mshape[size_t(i)] = dshape[int(i)];
    stride *= dshape[int(i)];
  }
  // The result has room for 15 axes; numpy's words for the slot past them.
  constexpr int64_t kMaxResultAxes = 15;
  int64_t axes = int64_t(ishape.size()) - 1 + std::max<int64_t>(dshape.rank() - ishape[0], 0);
  if (axes > kMaxResultAxes)
    throw nb::index_error("index 15 is out of bounds for axis 0 with size 15");
  oshape.assign(ishape.begin() + 1, ishape.end());
  for (int64_t i = ishape[0]; i < dshape.rank(); ++i) oshape.push_back(dshape[int(i)]);
}

Gather gather_of(const AdvancedPlan& plan, const Shape& data_shape) {
  Gather g;
  int64_t m = int64_t(plan.arrays.size());
  const IndexArray& first = plan.arrays.front();
  std::vector<int64_t> ishape{m};
  ishape.insert(ishape.end(), first.shape.begin(), first.shape.end());
  fill_gather_fields(ishape, data_shape, m, g.layout, g.oshape);
  int64_t n = first.size();
  g.layout.n = n;
  Shape stacked(ishape.data(), int(ishape.size()), "indexing");
  if (m == 1 && first.is_dense()) {
    g.indices = first.data.view_as(stacked);  // the key's own buffer: no copy
    return g;
  }
  g.indices = Tensor::empty(stacked, DType::Int64, kCpuDevice, "indexing");
  int64_t* out = g.indices.data<int64_t>();
  for (const IndexArray& a : plan.arrays) {  // np.stack
    a.copy_to(out);
    out += n;
  }
  return g;
}

// ---- Python faces ----

nb::tuple shape_tuple(const std::vector<int64_t>& shape) {
  nb::tuple t = nb::steal<nb::tuple>(PyTuple_New(Py_ssize_t(shape.size())));
  for (size_t i = 0; i < shape.size(); ++i) PyTuple_SET_ITEM(t.ptr(), Py_ssize_t(i), PyLong_FromLongLong(shape[i]));
  return t;
}

nb::object numpy_of(const IndexArray& a) {
  Shape shape(a.shape.data(), int(a.shape.size()), "indexing");
  if (a.is_dense()) return py::numpy_copy(a.data.view_as(shape), "indexing");
  Tensor t = Tensor::empty(shape, DType::Int64, kCpuDevice, "indexing");
  a.copy_to(t.data<int64_t>());
  return py::numpy_copy(t, "indexing");
}

nb::object key_object(const KeyEntry& entry) {
  if (entry.kind == KeyEntry::Kind::Array && !entry.object.is_valid()) return numpy_of(entry.array);
  return entry.object;
}

nb::tuple key_tuple(const Key& key) {
  nb::tuple t = nb::steal<nb::tuple>(PyTuple_New(Py_ssize_t(key.size())));
  for (size_t i = 0; i < key.size(); ++i) PyTuple_SET_ITEM(t.ptr(), Py_ssize_t(i), key_object(key[i]).release().ptr());
  return t;
}

namespace {

Key key_from(nb::handle seq) {
  Key key;
  for (nb::handle it : nb::iter(seq)) key.push_back(plain_entry(it));
  return key;
}

// Integers as Python indexes them: ints and numpy integers, not floats.
std::vector<int64_t> ints_of(nb::handle seq) {
  std::vector<int64_t> v;
  for (nb::handle it : nb::iter(seq)) {
    nb::object index = nb::steal(PyNumber_Index(it.ptr()));
    if (!index.is_valid()) throw nb::python_error();
    v.push_back(nb::cast<int64_t>(index));
  }
  return v;
}

Shape shape_from(nb::handle seq) {
  std::vector<int64_t> v = ints_of(seq);
  return Shape(v.data(), int(v.size()), "indexing");
}

nb::list numpy_list(const std::vector<IndexArray>& arrays) {
  nb::list out;
  for (const IndexArray& a : arrays) out.append(numpy_of(a));
  return out;
}

nb::list int_list(const std::vector<int64_t>& v) { return nb::list(shape_tuple(v)); }

void init_plan(nb::module_& m, nb::class_<QTensor>&) {
  m.attr("slice_none_Placeholder") = kSliceNonePlaceholder;
  m.def("_just_if_advance_index", [](nb::handle item, nb::handle shape) {
    bool use_advance = false;
    Key key = expand_key(item, shape_from(shape), &use_advance);
    return nb::make_tuple(key_tuple(key), use_advance);
  }, nb::arg("item"), nb::arg("shape"),
     py::doc("Classifies the entries of a key and pads it with whole slices to the tensor's rank.",
             {"item: an iterable of key entries.", "shape: the tensor's shape."},
             "(expanded key, use_advance): the key as a tuple, and whether it takes the advanced way.").c_str());
  m.def("_is_advanced_index", [](nb::handle idx) { return is_advanced(kind_of(idx), idx); }, nb::arg("idx").none(),
        py::doc("Whether one entry of an expanded key is an advanced index.",
                {"idx: an entry: arrays, ints, lists, tuples and ranges are; slices and None are not."},
                "A bool; RuntimeError for an entry of another type.").c_str());
  m.def("_advanced_index_to_array", [](nb::handle idx, int64_t ax_len) {
    return numpy_of(to_array(plain_entry(idx), ax_len));
  }, nb::arg("idx").none(), nb::arg("ax_len"),
     py::doc("One advanced entry as an integer array; only a slice is resolved against the axis.",
             {"idx: an array, list, tuple, int, slice or range.", "ax_len: the length of the entry's axis."},
             "A numpy integer array.").c_str());
  m.def("_drop_slice_none_at_end", [](nb::handle key) {
    nb::list items = nb::list(key);
    nb::handle full = whole_slice();
    while (true) {
      if (nb::len(items) == 0) throw nb::index_error("list index out of range");
      nb::handle last = items[nb::len(items) - 1];
      if (!PySlice_Check(last.ptr()) || !last.equal(full)) break;
      PyList_SetSlice(items.ptr(), Py_ssize_t(nb::len(items) - 1), Py_ssize_t(nb::len(items)), nullptr);
    }
    return nb::tuple(items);
  }, nb::arg("key"),
     py::doc("The key without its run of trailing slice(None) entries.", {"key: a sequence of entries."},
             "A tuple.").c_str());
  m.def("get_bdshape_for_slice", [](nb::handle key, nb::handle data_shape) {
    AdvancedPlan plan = plan_advanced(key_from(key), shape_from(data_shape));
    return nb::make_tuple(numpy_list(plan.arrays), shape_tuple(plan.new_axes));
  }, nb::arg("key"), nb::arg("data_shape"),
     py::doc("Plans an advanced key: one integer array per indexed axis, all of one broadcast shape.",
             {"key: an expanded key (a tuple of entries, None entries included).",
              "data_shape: the shape of the indexed tensor."},
             "(bcast_idcs_short, new_axes_positions): the arrays in axis order, trailing whole axes left out, and "
             "where the None entries stand in the axes of a value for assignment.").c_str());
  m.def("_broadcast_advanced_indices", [](nb::handle arrays, nb::handle block_axes) {
    std::vector<IndexArray> converted;
    for (nb::handle a : nb::iter(arrays)) {
      KeyEntry e = plain_entry(a);
      if (e.kind != KeyEntry::Kind::Array)
        throw nb::type_error(("_broadcast_advanced_indices expects integer arrays, got " +
                              py_text(nb::handle(reinterpret_cast<PyObject*>(Py_TYPE(a.ptr()))))).c_str());
      converted.push_back(std::move(e.array));
    }
    return nb::tuple(numpy_list(broadcast_indices(converted, ints_of(block_axes))));
  }, nb::arg("arrays"), nb::arg("block_axes"),
     py::doc("Broadcasts the index arrays of a plan to one shape: the block together, the others each along its axis.",
             {"arrays: integer arrays in planning order; those outside the block are one-dimensional.",
              "block_axes: the consecutive positions of the advanced arrays."},
             "A tuple of arrays of one shape.").c_str());
  m.def("_get_broadcast_shape", [](nb::handle shape1, nb::handle shape2) -> nb::object {
    if (shape1.equal(shape2)) return nb::borrow(shape1);
    return shape_tuple(broadcast_pair(ints_of(shape1), ints_of(shape2)));
  }, nb::arg("shape1"), nb::arg("shape2"),
     py::doc("The broadcast of two shapes by numpy's rule.", {"shape1: a shape.", "shape2: a shape."},
             "A tuple, or shape1 itself when the two are equal; ValueError when they do not broadcast.").c_str());
  m.def("_broadcast_shapes", [](nb::handle seq) {
    std::vector<std::vector<int64_t>> shapes;
    for (nb::handle a : nb::iter(seq)) shapes.push_back(ints_of(a.attr("shape")));
    std::vector<const std::vector<int64_t>*> ptrs;
    for (const auto& s : shapes) ptrs.push_back(&s);
    return shape_tuple(broadcast_all(ptrs));
  }, nb::arg("seq"),
     py::doc("The broadcast of the shapes of some arrays, starting from ().", {"seq: numpy arrays."}, "A tuple.")
         .c_str());
  m.def("_get_indices_for_adv_indexing", [](nb::handle ishape, nb::handle dshape, int64_t m_axes) {
    GatherLayout layout;
    std::vector<int64_t> oshape;
    fill_gather_fields(ints_of(ishape), shape_from(dshape), m_axes, layout, oshape);
    return nb::make_tuple(int_list(oshape), int_list(layout.mshape), int_list(layout.strides), layout.k);
  }, nb::arg("ishape"), nb::arg("dshape"), nb::arg("m"),
     py::doc("The numeric fields of a gather from the shape of its stacked index array.",
             {"ishape: the shape of the index array, (m, ...).", "dshape: the shape of the indexed tensor.",
              "m: the number of indexed leading axes."},
             "(oshape, mshape, strides, k): the result's shape (at most 15 axes), the indexed axes' lengths, their "
             "element strides, and the length of one contiguous run.").c_str());
  m.def("_fun_get_oshape_of_gather_nd_op", [](nb::handle dshape, nb::handle ishape) {
    std::vector<int64_t> d = ints_of(dshape), i = ints_of(ishape);
    if (d.empty() || i.empty()) {
      PyErr_SetNone(PyExc_AssertionError);  // a bare assertion
      throw nb::python_error();
    }
    std::vector<int64_t> out(i.begin() + 1, i.end());
    if (i[0] < int64_t(d.size())) {  // dshape[ishape[0]:], a negative start counting from the end
      int64_t start = i[0] < 0 ? std::max<int64_t>(int64_t(d.size()) + i[0], 0) : i[0];
      out.insert(out.end(), d.begin() + start, d.end());
    }
    return shape_tuple(out);
  }, nb::arg("dshape"), nb::arg("ishape"),
     py::doc("The shape of a gather's result: the index array's axes after the first, then the axes not indexed.",
             {"dshape: the indexed tensor's shape.", "ishape: the index array's shape."}, "A tuple.").c_str());
  m.def("_fun_new_axes_after_advanced_indexing",
        [](nb::handle key, nb::handle adv_axs, int64_t bcast_adv_ndim, bool adjacent) {
          size_t n = nb::len(key);
          std::vector<bool> none_at(n), advanced_at(n, false);
          size_t i = 0;
          for (nb::handle it : nb::iter(key)) none_at[i++] = it.is_none();
          for (int64_t ax : ints_of(adv_axs))
            if (ax >= 0 && size_t(ax) < n) advanced_at[size_t(ax)] = true;
          return shape_tuple(new_axes_after(none_at, advanced_at, bcast_adv_ndim, adjacent));
        },
        nb::arg("key"), nb::arg("adv_axs"), nb::arg("bcast_adv_ndim"), nb::arg("adv_are_adjacent"),
        py::doc("Where the None entries of a key stand among the axes of a value for assignment.",
                {"key: the expanded key.", "adv_axs: the positions of its advanced entries.",
                 "bcast_adv_ndim: the number of axes of the broadcast advanced block.",
                 "adv_are_adjacent: whether the advanced entries stand side by side."},
                "A tuple of ints.").c_str());
}

}  // namespace

TRAMEL_FAMILY(init_plan);

}  // namespace tramel::tensor
