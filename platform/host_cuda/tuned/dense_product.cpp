#include "dense_product.h"

#include <cstddef>
#include <vector>

namespace ostrel::host_cuda::tuned {
namespace {

constexpr int kLanes = 8;
// Twelve sums of eight lanes, the values of b and one of a fill the sixteen vector registers.
constexpr int kWideVectors = 3;
constexpr int kWideRows = 4;
constexpr int kNarrowRows = 6;

// Eight floats at any float's address.
typedef float Lanes __attribute__((vector_size(kLanes * sizeof(float)), aligned(alignof(float)), may_alias));

const float* at(ConstMatrix matrix, int row, int column) {
  return matrix.data + static_cast<std::ptrdiff_t>(row) * matrix.stride + column;
}
float* at(Matrix matrix, int row, int column) {
  return matrix.data + static_cast<std::ptrdiff_t>(row) * matrix.stride + column;
}

Lanes& lanes_at(float* address) {
  return *reinterpret_cast<Lanes*>(address);
}
const Lanes& lanes_at(const float* address) {
  return *reinterpret_cast<const Lanes*>(address);
}

// One tile of kRows x (kVectors * 8) at the origin of a's rows, b's columns and the target.
template <int kRows, int kVectors>
void multiply_tile(int depth, ConstMatrix a, ConstMatrix b, Matrix target, Store store) {
  Lanes sums[kRows][kVectors] = {};
  if (store == Store::kAdd) {
    for (int r = 0; r < kRows; ++r) {
      for (int v = 0; v < kVectors; ++v) sums[r][v] = lanes_at(at(target, r, v * kLanes));
    }
  }
  for (int k = 0; k < depth; ++k) {
    const float* b_row = at(b, k, 0);
    for (int r = 0; r < kRows; ++r) {
      const float scale = *at(a, r, k);
      for (int v = 0; v < kVectors; ++v) sums[r][v] += scale * lanes_at(b_row + v * kLanes);
    }
  }
  for (int r = 0; r < kRows; ++r) {
    for (int v = 0; v < kVectors; ++v) lanes_at(at(target, r, v * kLanes)) = sums[r][v];
  }
}

// All rows of a strip of kVectors * 8 columns.
template <int kRows, int kVectors>
void multiply_strip(int rows, int depth, ConstMatrix a, ConstMatrix b, Matrix target, Store store) {
  int row = 0;
  for (; row + kRows <= rows; row += kRows) {
    multiply_tile<kRows, kVectors>(depth, {at(a, row, 0), a.stride}, b, {at(target, row, 0), target.stride},
                                   store);
  }
  for (; row < rows; ++row) {
    multiply_tile<1, kVectors>(depth, {at(a, row, 0), a.stride}, b, {at(target, row, 0), target.stride},
                               store);
  }
}

// Fewer than eight columns: through copies that are padded with zeros to eight.
void multiply_last_columns(int rows, int columns, int depth, ConstMatrix a, ConstMatrix b, Matrix target,
                           Store store) {
  static thread_local std::vector<float> copies;
  copies.assign(static_cast<std::size_t>(depth + rows) * kLanes, 0.0F);
  const Matrix padded_b{copies.data(), kLanes};
  const Matrix padded_target{copies.data() + static_cast<std::ptrdiff_t>(depth) * kLanes, kLanes};
  for (int k = 0; k < depth; ++k) {
    for (int c = 0; c < columns; ++c) *at(padded_b, k, c) = *at(b, k, c);
  }
  for (int r = 0; store == Store::kAdd && r < rows; ++r) {
    for (int c = 0; c < columns; ++c) *at(padded_target, r, c) = *at(target, r, c);
  }
  multiply_strip<kNarrowRows, 1>(rows, depth, a, {padded_b.data, kLanes}, padded_target, store);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < columns; ++c) *at(target, r, c) = *at(padded_target, r, c);
  }
}

}  // namespace

void multiply(int rows, int columns, int depth, ConstMatrix a, ConstMatrix b, Matrix target, Store store) {
  int column = 0;
  const auto strip = [&](auto tile, int width) {
    for (; column + width <= columns; column += width) {
      tile(rows, depth, a, ConstMatrix{at(b, 0, column), b.stride},
           Matrix{at(target, 0, column), target.stride}, store);
    }
  };
  strip(multiply_strip<kWideRows, kWideVectors>, kWideVectors * kLanes);
  strip(multiply_strip<kNarrowRows, 2>, 2 * kLanes);
  strip(multiply_strip<kNarrowRows, 1>, kLanes);
  if (column < columns) {
    multiply_last_columns(rows, columns - column, depth, a, {at(b, 0, column), b.stride},
                          {at(target, 0, column), target.stride}, store);
  }
}

}  // namespace ostrel::host_cuda::tuned
