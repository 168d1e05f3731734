#include "stem_filters.h"

#include <algorithm>
#include <cmath>

namespace ostrel::backbone {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kGrid = 1048576.0;  // 2^20

float on_grid(double value) {
  return static_cast<float>(std::round(value * kGrid) / kGrid);
}

// A wave under a Gaussian (Gabor): `y`, `x` from the middle of the filter, in units of half its side.
double oriented_edge(double y, double x, double angle, double cycles, double phase) {
  const double across = x * std::cos(angle) + y * std::sin(angle);
  return std::exp(-1.5 * (x * x + y * y)) * std::cos(2.0 * kPi * cycles * across + phase);
}

// Red against green, blue against yellow, and brightness, each as a spot.
constexpr double kColourAxes[4][3] = {{1.0, -1.0, 0.0}, {-0.5, -0.5, 1.0}, {1.0, 0.0, -1.0}, {0.6, 1.0, 0.4}};

double filter_value(int index, int channel, double y, double x) {
  const int set = index / 4;
  if (index % 4 == 2) {
    const double* axis = kColourAxes[set % 4];
    const double spread = set % 8 < 4 ? 1.0 : 4.0;
    return axis[channel] * std::exp(-spread * (x * x + y * y));
  }
  const double angle = kPi * static_cast<double>(set % 8) / 8.0;
  const double cycles = set % 16 < 8 ? 0.5 : 0.9;
  return oriented_edge(y, x, angle, cycles, index % 4 == 0 ? kPi / 2.0 : 0.0);
}

void normalise(float* weights, std::size_t count) {
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) sum += static_cast<double>(weights[i]) * weights[i];
  const double scale = sum > 0.0 ? 1.0 / std::sqrt(sum) : 0.0;
  for (std::size_t i = 0; i < count; ++i) weights[i] = on_grid(weights[i] * scale);
}

}  // namespace

void set_stem_filters(Convolution* stem) {
  const double half = std::max(1.0, (stem->kernel - 1) / 2.0);
  float* weight = stem->weights.data();
  for (int out = 0; out < stem->out_channels; ++out) {
    float* const filter = weight;
    for (int channel = 0; channel < 3; ++channel) {
      for (int row = 0; row < stem->kernel; ++row) {
        for (int column = 0; column < stem->kernel; ++column, ++weight) {
          if (out % 4 == 3) continue;
          *weight = static_cast<float>(filter_value(out, channel, row / half - 1.0, column / half - 1.0));
        }
      }
    }
    normalise(filter, stem->weights_per_output());
  }
}

}  // namespace ostrel::backbone
