// What each element-wise operation is called and which dtypes it accepts.
// Shared by the fronts (messages, dtype checks, result dtypes) and by the
// kernels (the dtype set they instantiate), so the two cannot drift apart.
#pragma once
#include "core/dtype.h"
#include "core/ops.h"

namespace tramel {

constexpr DTypeSet kNumericTypes = kRealNumericTypes | kComplexTypes;
constexpr DTypeSet kInexactTypes = kFloatingTypes | kComplexTypes;
// arange, linspace, logspace: bool and complex make no sense as a range.
constexpr DTypeSet kRangeTypes = kRealNumericTypes;

struct BinaryInfo {
  const char* name;
  const char* inplace_name;
  DTypeSet types;
};
// Indexed by BinaryOp.
constexpr BinaryInfo kBinaryInfo[] = {
    {"add", "add_", kAllTypes},
    {"sub", "sub_", kNumericTypes},
    {"mult", "mult_", kAllTypes},
    {"div", "div_", kNumericTypes},
    {"element_pow", "element_pow_", kNumericTypes},
    {"maximum", "maximum_", kRealTypes},
    {"minimum", "minimum_", kRealTypes},
};
constexpr int kBinaryOps = int(sizeof(kBinaryInfo) / sizeof(kBinaryInfo[0]));
static_assert(int(BinaryOp::Minimum) == kBinaryOps - 1);

struct UnaryInfo {
  const char* name;
  DTypeSet types;
  // Integers and bools are computed in the default floating dtype.
  bool lifts;
};
// Indexed by UnaryOp.
constexpr UnaryInfo kUnaryInfo[] = {
    {"neg", kNumericTypes, false},     {"abs", kAllTypes, false},
    {"square", kNumericTypes, false},  {"sqrt", kInexactTypes, true},
    {"exp", kInexactTypes, true},      {"log", kInexactTypes, true},
    {"sin", kInexactTypes, true},      {"cos", kInexactTypes, true},
    {"tan", kInexactTypes, true},      {"asin", kInexactTypes, true},
    {"acos", kInexactTypes, true},     {"atan", kInexactTypes, true},
    {"sinh", kInexactTypes, true},     {"cosh", kInexactTypes, true},
    {"tanh", kInexactTypes, true},     {"sign", kNumericTypes, false},
    {"conj", kAllTypes, false},        {"floor", kRealNumericTypes, false},
    {"ceil", kRealNumericTypes, false}, {"round", kRealNumericTypes, false},
    {"reciprocal", kInexactTypes, true},
};
constexpr int kUnaryOps = int(sizeof(kUnaryInfo) / sizeof(kUnaryInfo[0]));
static_assert(int(UnaryOp::Reciprocal) == kUnaryOps - 1);

struct PredicateInfo {
  const char* name;
  DTypeSet types;
};
// Indexed by CompareOp.
constexpr PredicateInfo kCompareInfo[] = {
    {"equal", kAllTypes},         {"not_equal", kAllTypes},  {"greater", kRealTypes},
    {"greater_equal", kRealTypes}, {"less", kRealTypes},     {"less_equal", kRealTypes},
    {"logical_and", kAllTypes},   {"logical_or", kAllTypes}, {"logical_xor", kAllTypes},
};
constexpr int kCompareOps = int(sizeof(kCompareInfo) / sizeof(kCompareInfo[0]));
static_assert(int(CompareOp::Xor) == kCompareOps - 1);

// Indexed by ClassifyOp. A complex number has no sign to be infinite with.
constexpr PredicateInfo kClassifyInfo[] = {
    {"isfinite", kAllTypes}, {"isinf", kAllTypes},      {"isnan", kAllTypes},
    {"isneginf", kRealTypes}, {"isposinf", kRealTypes},
};
constexpr int kClassifyOps = int(sizeof(kClassifyInfo) / sizeof(kClassifyInfo[0]));
static_assert(int(ClassifyOp::IsPosInf) == kClassifyOps - 1);

// The gradient kernels of ops.h, by the number of tensors they read. They
// compute in the common floating or complex dtype of their inputs.
enum class GradOp {
  Mult, DivDx, DivDy, PowBase, PowExp, Exp, Log, Square, Tanh, Asin, Acos, Atan, Sqrt, Tan,
};
struct GradInfo {
  const char* name;
  int arity;
};
constexpr GradInfo kGradInfo[] = {
    {"mult_grad", 2},  {"div_dxgrad", 2}, {"div_dygrad", 3},  {"power_grad_of_base", 3},
    {"power_grad_of_exp", 4}, {"exp_grad", 2}, {"log_grad", 2}, {"square_grad", 2},
    {"tanh_grad", 2},  {"asin_grad", 2},  {"acos_grad", 2},   {"atan_grad", 2},
    {"sqrt_grad", 2},  {"tan_grad", 2},
};
constexpr int kGradOps = int(sizeof(kGradInfo) / sizeof(kGradInfo[0]));
static_assert(int(GradOp::Tan) == kGradOps - 1);
constexpr int kMaxGradArity = 4;

}  // namespace tramel
