// Dimensions of a dense row-major tensor, stored inline (no allocation).
#pragma once
#include <cstdint>
#include <string>

namespace tramel {

constexpr int kMaxRank = 16;
constexpr int64_t kMaxElements = int64_t(1) << 58;

class Shape {
 public:
  Shape() = default;
  // Checks rank and signs; `op` names the caller in the error.
  Shape(const int64_t* dims, int rank, const char* op);

  int rank() const { return rank_; }
  int64_t operator[](int i) const { return dims_[i]; }
  int64_t& operator[](int i) { return dims_[i]; }
  const int64_t* begin() const { return dims_; }
  const int64_t* end() const { return dims_ + rank_; }
  int64_t numel() const;
  bool operator==(const Shape& o) const;
  bool operator!=(const Shape& o) const { return !(*this == o); }
  std::string str() const;  // "[2, 3]"

 private:
  int64_t dims_[kMaxRank] = {};
  int rank_ = 0;
};

}  // namespace tramel
