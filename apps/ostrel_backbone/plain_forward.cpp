#include "plain_forward.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ostrel::backbone {
namespace {

// The columns of the target whose source column `column * stride + offset` lies inside the source.
struct ColumnRange {
  int first;
  int last;  // one past the end
};

ColumnRange inside(int source_size, int target_size, int stride, int offset) {
  const int first = offset >= 0 ? 0 : (-offset + stride - 1) / stride;
  const int room = source_size - 1 - offset;
  const int last = room < 0 ? 0 : std::min(target_size, room / stride + 1);
  return {std::min(first, last), last};
}

// Adds one weight's share of a plane.
void add_weighted(const FeaturePlanes& source, int channel, double weight, int row_offset, int column_offset,
                  int stride, FeaturePlanes* target, int target_channel) {
  const ColumnRange rows = inside(source.height, target->height, stride, row_offset);
  const ColumnRange columns = inside(source.width, target->width, stride, column_offset);
  for (int row = rows.first; row < rows.last; ++row) {
    const double* from = source.plane(channel) +
                         static_cast<std::ptrdiff_t>(row * stride + row_offset) * source.width +
                         column_offset;
    double* to = target->plane(target_channel) + static_cast<std::ptrdiff_t>(row) * target->width;
    for (int column = columns.first; column < columns.last; ++column) {
      to[column] += weight * from[static_cast<std::ptrdiff_t>(column) * stride];
    }
  }
}

double window_maximum(const FeaturePlanes& source, int channel, int top, int left, int kernel) {
  double best = -std::numeric_limits<double>::infinity();
  for (int y = std::max(top, 0); y < std::min(top + kernel, source.height); ++y) {
    for (int x = std::max(left, 0); x < std::min(left + kernel, source.width); ++x) {
      best = std::max(best, source.plane(channel)[static_cast<std::ptrdiff_t>(y) * source.width + x]);
    }
  }
  return best;
}

}  // namespace

int strided_size(int size, int kernel, int stride) {
  return (size + 2 * ((kernel - 1) / 2) - kernel) / stride + 1;
}

FeaturePlanes convolve(const FeaturePlanes& source, const Convolution& convolution) {
  const int kernel = convolution.kernel;
  const int padding = convolution.padding();
  const int step = convolution.dilation;
  FeaturePlanes target(convolution.out_channels, strided_size(source.height, kernel, convolution.stride),
                       strided_size(source.width, kernel, convolution.stride));
  const float* weight = convolution.weights.data();
  for (int out = 0; out < convolution.out_channels; ++out) {
    if (!convolution.bias.empty()) {
      std::fill_n(target.plane(out), target.plane_size(), convolution.bias[static_cast<std::size_t>(out)]);
    }
    for (int in = 0; in < convolution.in_channels; ++in) {
      for (int y = 0; y < kernel; ++y) {
        for (int x = 0; x < kernel; ++x) {
          add_weighted(source, in, *weight++, y * step - padding, x * step - padding, convolution.stride,
                       &target, out);
        }
      }
    }
  }
  return target;
}

FeaturePlanes max_pool(const FeaturePlanes& source, int kernel, int stride) {
  const int padding = (kernel - 1) / 2;
  FeaturePlanes target(source.channels, strided_size(source.height, kernel, stride),
                       strided_size(source.width, kernel, stride));
  double* value = target.values.data();
  for (int channel = 0; channel < target.channels; ++channel) {
    for (int y = 0; y < target.height; ++y) {
      for (int x = 0; x < target.width; ++x) {
        *value++ = window_maximum(source, channel, y * stride - padding, x * stride - padding, kernel);
      }
    }
  }
  return target;
}

void rectify(FeaturePlanes* planes) {
  for (double& value : planes->values) value = std::max(value, 0.0);
}

void add(FeaturePlanes* planes, const FeaturePlanes& other) {
  for (std::size_t i = 0; i < planes->values.size(); ++i) planes->values[i] += other.values[i];
}

double root_mean_square(const FeaturePlanes& planes) {
  double sum = 0.0;
  for (const double value : planes.values) sum += value * value;
  return std::sqrt(sum / static_cast<double>(planes.values.size()));
}

}  // namespace ostrel::backbone
