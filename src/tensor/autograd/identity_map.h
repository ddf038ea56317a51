// A hash map keyed by object identity, for the walks of a backward pass.
// Open addressing with linear probing: no allocation per entry, which keeps a
// walk over a long chain of tensors cheap.
#pragma once
#include <Python.h>

#include <cstdint>
#include <vector>

namespace tramel::tensor {

template <typename V>
class IdentityMap {
 public:
  // The value for key, inserting `fresh` first when absent; `inserted` tells which.
  V& find_or_insert(PyObject* key, V fresh, bool* inserted) {
    if ((size_ + erased_ + 1) * 4 > slots_.size() * 3) grow();
    size_t i = probe(key);
    *inserted = slots_[i].key != key;
    if (*inserted) {
      if (slots_[i].key == erased_key()) --erased_;
      slots_[i].key = key;
      slots_[i].value = std::move(fresh);
      ++size_;
    }
    return slots_[i].value;
  }

  V* find(PyObject* key) {
    if (slots_.empty()) return nullptr;
    size_t i = probe(key);
    return slots_[i].key == key ? &slots_[i].value : nullptr;
  }

  void erase(PyObject* key) {
    if (slots_.empty()) return;
    size_t i = probe(key);
    if (slots_[i].key != key) return;
    slots_[i].key = erased_key();
    slots_[i].value = V();
    --size_;
    ++erased_;
  }

 private:
  struct Slot {
    PyObject* key = nullptr;
    V value{};
  };
  static PyObject* erased_key() { return reinterpret_cast<PyObject*>(uintptr_t(1)); }
  static size_t hash(PyObject* key) { return size_t((uintptr_t(key) >> 4) * 0x9E3779B97F4A7C15ull); }

  // The slot holding key, or the slot where it would go (an erased one first).
  size_t probe(PyObject* key) const {
    size_t mask = slots_.size() - 1, i = hash(key) & mask, reuse = SIZE_MAX;
    while (slots_[i].key != nullptr && slots_[i].key != key) {
      if (slots_[i].key == erased_key() && reuse == SIZE_MAX) reuse = i;
      i = (i + 1) & mask;
    }
    return slots_[i].key == key || reuse == SIZE_MAX ? i : reuse;
  }

  void grow() {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(old.empty() ? 16 : old.size() * 2, Slot{});
    size_ = erased_ = 0;
    for (Slot& s : old) {
      if (s.key == nullptr || s.key == erased_key()) continue;
      bool inserted;
      find_or_insert(s.key, std::move(s.value), &inserted);
    }
  }

  std::vector<Slot> slots_;
  size_t size_ = 0, erased_ = 0;
};

}  // namespace tramel::tensor
