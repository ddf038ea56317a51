// The subscript protocol of QTensor: the classification of keys, the plan of
// advanced indexing, and the states the indexing gradients keep.
//
// Note [two ways of a key]
// A key takes one of two ways. The basic way writes one text per axis
// ("3", "0:5:1", "0,2,") and lets the engine's select/set_select parse them.
// The advanced way classifies the key's entries, expands it to one entry per
// axis, plans one integer array per axis, all of one broadcast shape, and
// calls the engine's gather or scatter with them stacked (the gather
// description: n, m, k, mshape, strides, the index array, oshape). Keys inside
// a container that fail on the advanced way are retried on the basic way, so
// the user sees the basic way's message. The plan runs in C++ on IndexArray
// views; the module-level planning functions are its Python faces, taking and
// giving numpy arrays.
#pragma once
#include <nanobind/nanobind.h>

#include <string>
#include <vector>

#include "core/ops.h"
#include "tensor/autograd/derivative.h"
#include "tensor/qtensor.h"

namespace tramel::tensor {

namespace nb = nanobind;

// The stop text of a slice with no stop and a step below one.
constexpr int64_t kSliceNonePlaceholder = 2147483646;

// An integer array on the processor: an int64 buffer seen through a shape and
// element strides (a broadcast view has stride 0 on its expanded axes).
struct IndexArray {
  Tensor data;  // int64, contiguous, device 0
  std::vector<int64_t> shape, strides;

  static IndexArray dense(Tensor data);  // data's own shape, row-major
  static IndexArray copy_of(const int64_t* values, int64_t n);  // a vector
  int64_t size() const;
  // Whether the view is data's buffer itself, in row-major order.
  bool is_dense() const;
  // The view's elements in row-major order.
  void copy_to(int64_t* out) const;
  // numpy's broadcast_to and reshape for the views the plan makes.
  IndexArray broadcast_to(const std::vector<int64_t>& target) const;
  IndexArray reshaped(const std::vector<int64_t>& target) const;
};

// One entry of a key after classification.
struct KeyEntry {
  enum class Kind : uint8_t { None, Slice, Int, Array, Range, Other };
  Kind kind = Kind::Other;
  nb::object object;  // the entry as Python gave it (Slice, Range, Other; Array: null until asked for)
  int64_t value = 0;  // Int
  IndexArray array;   // Array
  bool full_slice() const;  // slice(None)
};
using Key = std::vector<KeyEntry>;

// _just_if_advance_index: the expanded key, and whether it is advanced.
Key expand_key(nb::handle item, const Shape& shape, bool* use_advance);
// The plan of an advanced key (get_bdshape_for_slice): one array per indexed
// axis, all of one shape, and the positions of the None entries in a value.
struct AdvancedPlan {
  std::vector<IndexArray> arrays;
  std::vector<int64_t> new_axes;
};
AdvancedPlan plan_advanced(const Key& key, const Shape& data_shape);
// The gather description of a plan on a tensor of `data_shape`.
struct Gather {
  GatherLayout layout;
  Tensor indices;  // (m, block and slice axes...), int64, device 0
  std::vector<int64_t> oshape;
};
Gather gather_of(const AdvancedPlan& plan, const Shape& data_shape);
// _get_indices_for_adv_indexing.
void fill_gather_fields(const std::vector<int64_t>& ishape, const Shape& dshape, int64_t m, GatherLayout& layout,
                        std::vector<int64_t>& oshape);

// Python faces of keys and plans.
nb::object key_object(const KeyEntry& entry);  // the entry as the Python planner functions see it
nb::tuple key_tuple(const Key& key);
nb::object numpy_of(const IndexArray& a);
nb::tuple shape_tuple(const std::vector<int64_t>& shape);

// ---- the basic way (select.cpp) ----
// select(t, index) with the index list already written as texts.
nb::object select_texts(nb::handle t, IndexTexts texts);
// set_select(t, index, set_tensor) after its dtype check; `index` is what the
// record shows (null: the texts).
void set_select_texts(nb::handle t, const IndexTexts& texts, nb::handle set_tensor, nb::handle index);
void check_set_dtypes(nb::handle t, nb::handle set_tensor);
void set_select_checked(nb::handle t, const IndexTexts& texts, nb::handle set_tensor);
// _parse_slice_string(x, i, it).
std::string slice_text(nb::handle x, int64_t i, nb::handle it);
// _just_item(x_ndim, len_item).
void check_key_count(int64_t x_ndim, int64_t len_item);
// _process_select_with_basic_indexings / _process_set_select_with_basic_indexings.
nb::object basic_get(nb::handle item, nb::handle x);
void basic_set(nb::handle key, nb::handle x, nb::handle value);
// The text of an int entry: its decimal text ("True" for a bool).
void append_int_text(std::string& s, nb::handle v);
// The index items of a set's record: tensors as arrays; ints as their text
// (set_select) or as they are (the advanced sets); texts (set_select) or
// slices (the advanced sets) as they are; anything else skipped.
nb::list set_items_of(nb::handle index, bool ints_as_text);
// An edge appended to a target's graph: to its records while `nodes` has not
// been read, else to the list itself.
void append_edge(QTensor& q, Edge&& edge);

// g brought to a value's shape: reshaped when the counts agree, else summed
// over the axes the value was broadcast along (numpy's assignment rule).
Tensor fit_to_shape(const Tensor& g, const Shape& shape);

// The states of the indexing gradients.
struct SelectState : SavedState {
  IndexTexts texts;
};
struct GatherState : SavedState {
  GatherLayout layout;
  Tensor indices;
};

}  // namespace tramel::tensor
