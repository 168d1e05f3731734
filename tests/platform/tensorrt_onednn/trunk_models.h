// Trunks and pictures for tests, and how far two results are apart.
#pragma once

#include <calibration.h>
#include <trunk_writer.h>

#include <cmath>

#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {

using backbone::FeaturePlanes;
using backbone::TrunkOptions;

inline Tensor picture_of(const FeaturePlanes& planes) {
  Tensor tensor{{1, planes.channels, planes.height, planes.width}, {}};
  for (const double value : planes.values) tensor.values.push_back(static_cast<float>(value));
  return tensor;
}

inline TrunkOptions tiny_trunk() {
  TrunkOptions options;
  options.tiny = true;
  return options;
}

// Outputs are about 0.3; relative error of 32-bit sums over some thousand products, through 13 layers.
inline constexpr double kFloatTolerance = 2e-4;

inline void expect_like_plain_loops(const TrunkOptions& options, const std::vector<std::size_t>& stages) {
  const int side = options.tiny ? backbone::kTinyInputSize : backbone::kFullInputSize;
  const FeaturePlanes picture = backbone::calibration_picture(side, 77);
  const auto expected = backbone::run_trunk(backbone::make_random_trunk(options.tiny, options.seed), picture);
  const auto found = run_model(backbone::trunk_bytes(options), {picture_of(picture)});
  ASSERT_EQ(found.size(), stages.size());
  for (std::size_t i = 0; i < stages.size(); ++i) {
    expect_near(found[i], picture_of(expected[stages[i]]), kFloatTolerance);
  }
}

inline double relative_rms_difference(const Tensor& found, const Tensor& expected) {
  double difference = 0.0;
  double reference = 0.0;
  for (std::size_t i = 0; i < expected.values.size(); ++i) {
    difference += std::pow(static_cast<double>(found.values[i]) - expected.values[i], 2);
    reference += std::pow(static_cast<double>(expected.values[i]), 2);
  }
  return std::sqrt(difference / reference);
}

// Arithmetic, resampling and other readers between convolutions.
inline void add_mixed_operators(OnnxModelBuilder* model) {
  const Tensor weights = random_tensor({8, 8, 3, 3}, 2);
  NodeAttributes padded;
  padded.lists = {{"pads", {1, 1, 1, 1}}};
  NodeAttributes window;
  window.lists = {{"kernel_shape", {2, 2}}, {"strides", {2, 2}}};
  model->input("x", {1, 8, 8, 8}).constant("w", weights.shape, weights.values);
  model->constant("half", {1}, std::vector<float>{0.5F});
  model->constant("scales", {4}, std::vector<float>{1, 1, 2, 2});
  model->node("Conv", {"x", "w"}, {"a"}, padded)
      .node("Relu", {"a"}, {"r"})
      .node("MaxPool", {"r"}, {"p"}, window);
  model->node("Resize", {"p", "", "scales"}, {"u"}).node("Mul", {"u", "half"}, {"m"});
  model->node("Conv", {"m", "w"}, {"b"}, padded).node("Add", {"b", "r"}, {"s"}).node("Relu", {"s"}, {"y"});
  model->node("Sub", {"y", "r"}, {"z"}).output("y", {}).output("z", {}).output("p", {});
}

}  // namespace ostrel::testing
