// A forward pass in double precision and plain loops. It calibrates a random trunk; the numbers must not
// depend on the machine, so nothing here leans on a numerics library.
#pragma once

#include <vector>

namespace ostrel::backbone {

// Channels, rows, columns; row-major.
struct FeaturePlanes {
  int channels = 0;
  int height = 0;
  int width = 0;
  std::vector<double> values;

  FeaturePlanes() = default;
  FeaturePlanes(int channel_count, int row_count, int column_count)
      : channels(channel_count),
        height(row_count),
        width(column_count),
        values(static_cast<std::size_t>(channel_count) * static_cast<std::size_t>(row_count) *
               static_cast<std::size_t>(column_count)) {}

  std::size_t plane_size() const {
    return static_cast<std::size_t>(height) * static_cast<std::size_t>(width);
  }
  double* plane(int channel) { return values.data() + static_cast<std::size_t>(channel) * plane_size(); }
  const double* plane(int channel) const {
    return values.data() + static_cast<std::size_t>(channel) * plane_size();
  }
};

// A square convolution; the padding is dilation * (kernel - 1) / 2 on each side, so that the size of a map depends
// on the stride alone. Weights are out, in, row, column.
struct Convolution {
  int in_channels = 0;
  int out_channels = 0;
  int kernel = 1;
  int stride = 1;
  std::vector<float> weights;
  std::vector<float> bias;  // may be empty: none
  int dilation = 1;

  int padding() const { return dilation * (kernel - 1) / 2; }
  std::size_t weights_per_output() const {
    return static_cast<std::size_t>(in_channels) * static_cast<std::size_t>(kernel) *
           static_cast<std::size_t>(kernel);
  }
};

// Size after a window of `kernel` with padding (kernel - 1) / 2 and the stride.
int strided_size(int size, int kernel, int stride);

FeaturePlanes convolve(const FeaturePlanes& source, const Convolution& convolution);
FeaturePlanes max_pool(const FeaturePlanes& source, int kernel, int stride);
void rectify(FeaturePlanes* planes);
void add(FeaturePlanes* planes, const FeaturePlanes& other);
double root_mean_square(const FeaturePlanes& planes);

}  // namespace ostrel::backbone
