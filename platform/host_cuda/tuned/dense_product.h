#pragma once

// A small dense product for the tuned forms: one core, no packing but for the last few columns.

namespace ostrel::host_cuda::tuned {

// A row-major matrix within a larger array: element (row, column) is data[row * stride + column].
struct ConstMatrix {
  const float* data;
  int stride;
};
struct Matrix {
  float* data;
  int stride;
};

enum class Store { kOverwrite, kAdd };

// target (rows x columns) = or += a (rows x depth) * b (depth x columns). Each element is summed over the
// depth in rising order by fused multiply-adds, starting from zero (kOverwrite) or from what stands there
// (kAdd).
void multiply(int rows, int columns, int depth, ConstMatrix a, ConstMatrix b, Matrix target, Store store);

}  // namespace ostrel::host_cuda::tuned
