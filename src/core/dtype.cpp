#include "core/dtype.h"

#include <atomic>
#include <string>

namespace tramel {

void fail(ErrorKind kind, const char* op, const std::string& what) {
  throw Error(kind, std::string("[") + op + "] " + what);
}

namespace {
constexpr size_t kItemsize[kNumDTypes] = {1, 1, 1, 2, 4, 8, 4, 8, 8, 16};
constexpr const char* kNames[kNumDTypes] = {"bool",  "uint8",   "int8",    "int16",     "int32",
                                            "int64", "float32", "float64", "complex64", "complex128"};
std::atomic<DType> g_default_dtype{DType::Float32};

// Rank of a dtype within its category, for promotion.
int category(DType d) { return d == DType::Bool ? 0 : is_integral(d) ? 1 : is_floating(d) ? 2 : 3; }
}  // namespace

size_t itemsize(DType dtype) { return kItemsize[int(dtype)]; }
const char* dtype_name(DType dtype) { return kNames[int(dtype)]; }
bool is_valid_dtype(int value) { return value >= 0 && value < kNumDTypes; }

void fail_dtype(const char* op, DType dtype) {
  fail(ErrorKind::Value, op, std::string("dtype ") + dtype_name(dtype) + " is not supported");
}

DType promote(DType a, DType b) {
  int ca = category(a), cb = category(b);
  if (ca != cb) {
    DType hi = ca > cb ? a : b, lo = ca > cb ? b : a;
    // complex64 meets float64 as complex128; otherwise the higher category wins.
    if (hi == DType::Complex64 && lo == DType::Float64) return DType::Complex128;
    return hi;
  }
  if (ca == 1) {
    // uint8 against a signed integer: the smallest signed type holding both.
    if (a == DType::UInt8 || b == DType::UInt8) {
      DType other = a == DType::UInt8 ? b : a;
      if (other == DType::UInt8) return DType::UInt8;
      return other == DType::Int8 ? DType::Int16 : other;
    }
  }
  return a > b ? a : b;
}

DType default_dtype() { return g_default_dtype.load(std::memory_order_relaxed); }
void set_default_dtype(DType dtype) {
  if (!is_floating(dtype))
    fail(ErrorKind::Value, "set_default_dtype",
         std::string("the default dtype must be float32 or float64, got ") + dtype_name(dtype));
  g_default_dtype.store(dtype, std::memory_order_relaxed);
}
DType default_complex_dtype() {
  return default_dtype() == DType::Float32 ? DType::Complex64 : DType::Complex128;
}

}  // namespace tramel
