// The whole network: against a forward pass in plain loops, in both precisions, and from two contexts at once.
#include <calibration.h>
#include <trunk_writer.h>

#include <cmath>
#include <thread>

#include "network.h"
#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {
namespace {

using backbone::FeaturePlanes;
using backbone::Precision;
using backbone::TrunkOptions;

// Outputs are about 0.3; relative error of 32-bit sums over some thousand products, through 13 layers.
constexpr double kFloatTolerance = 2e-4;
// bfloat16 keeps 8 bits; root mean square of the difference, relative to that of the output.
constexpr double kBfloat16RelativeRms = 0.03;

Tensor picture_of(const FeaturePlanes& planes) {
  Tensor tensor{{1, planes.channels, planes.height, planes.width}, {}};
  for (const double value : planes.values) tensor.values.push_back(static_cast<float>(value));
  return tensor;
}

TrunkOptions tiny_trunk() {
  TrunkOptions options;
  options.tiny = true;
  return options;
}

void expect_like_plain_loops(const TrunkOptions& options, const std::vector<std::size_t>& stages) {
  const int side = options.tiny ? backbone::kTinyInputSize : backbone::kFullInputSize;
  const FeaturePlanes picture = backbone::calibration_picture(side, 77);
  const auto expected = backbone::run_trunk(backbone::make_random_trunk(options.tiny, options.seed), picture);
  const auto found = run_model(backbone::trunk_bytes(options), {picture_of(picture)});
  ASSERT_EQ(found.size(), stages.size());
  for (std::size_t i = 0; i < stages.size(); ++i) {
    expect_near(found[i], picture_of(expected[stages[i]]), kFloatTolerance);
  }
}

TEST(Trunk, EqualsAForwardPassInPlainLoops) {
  TrunkOptions options;
  options.seed = 3;
  expect_like_plain_loops(options, {1, 2});
}

TEST(Trunk, EqualsAForwardPassInPlainLoopsWhenTiny) {
  expect_like_plain_loops(tiny_trunk(), {0, 1});
}

TEST(Trunk, GivesEachSampleOfABatchWhatItGivesAlone) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  BoundContext context(loaded.engine.get());
  Tensor batch{{3, 3, 32, 32}, {}};
  std::vector<Tensor> alone;
  for (unsigned seed = 1; seed <= 3; ++seed) {
    const Tensor picture = picture_of(backbone::calibration_picture(32, seed));
    batch.values.insert(batch.values.end(), picture.values.begin(), picture.values.end());
    alone.push_back(context.run({picture})[1]);
  }
  const Tensor together = context.run({batch})[1];
  ASSERT_EQ(together.shape, (Shape{3, 16, 8, 8}));
  for (std::size_t i = 0; i < together.values.size(); ++i) {
    const std::size_t per_sample = alone[0].values.size();
    ASSERT_NEAR(together.values[i], alone[i / per_sample].values[i % per_sample], kFloatTolerance);
  }
}

double relative_rms_difference(const Tensor& found, const Tensor& expected) {
  double difference = 0.0;
  double reference = 0.0;
  for (std::size_t i = 0; i < expected.values.size(); ++i) {
    difference += std::pow(static_cast<double>(found.values[i]) - expected.values[i], 2);
    reference += std::pow(static_cast<double>(expected.values[i]), 2);
  }
  return std::sqrt(difference / reference);
}

TEST(Bfloat16, IsCloseToFloat32AndNotTheSame) {
  for (const bool tiny : {true, false}) {
    TrunkOptions options;
    options.tiny = tiny;
    const Tensor picture = picture_of(backbone::calibration_picture(tiny ? 32 : 192, 5));
    const auto full = run_model(backbone::trunk_bytes(options), {picture});
    options.precision = Precision::kBfloat16;
    LoadedEngine loaded(backbone::trunk_bytes(options));
    if (!tensorrt_onednn::processor_has_bfloat16()) {
      EXPECT_EQ(loaded.logger.lines(nvinfer1::ILogger::Severity::kWARNING).size(), 1U);
      GTEST_SKIP() << "this processor has no bfloat16";
    }
    BoundContext context(loaded.engine.get());
    const auto half = context.run({picture});
    for (std::size_t i = 0; i < 2; ++i) {
      ASSERT_EQ(half[i].shape, full[i].shape);
      const double difference = relative_rms_difference(half[i], full[i]);
      EXPECT_LT(difference, kBfloat16RelativeRms);
      EXPECT_GT(difference, 1e-4);  // it does run in bfloat16
    }
    EXPECT_EQ(loaded.logger.errors(), "");
  }
}

// A model for a GPU runs here all the same, with a word about it.
TEST(Float16, RunsInFloat32WithAWarning) {
  TrunkOptions options = tiny_trunk();
  const Tensor picture = picture_of(backbone::calibration_picture(32, 5));
  const auto full = run_model(backbone::trunk_bytes(options), {picture});
  options.precision = Precision::kFloat16;
  LoadedEngine loaded(backbone::trunk_bytes(options));
  const auto warnings = loaded.logger.lines(nvinfer1::ILogger::Severity::kWARNING);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(warnings[0],
            "deserializeCudaEngine: the model asks for float16, which is for GPUs; float32 is used");
  BoundContext context(loaded.engine.get());
  expect_near(context.run({picture})[1], full[1], 0.0);
}

// Arithmetic, resampling and other readers between bfloat16 convolutions.
TEST(Bfloat16, MixesWithOperatorsInFloat32) {
  OnnxModelBuilder model("mixed");
  const Tensor weights = random_tensor({8, 8, 3, 3}, 2);
  NodeAttributes padded;
  padded.lists = {{"pads", {1, 1, 1, 1}}};
  NodeAttributes window;
  window.lists = {{"kernel_shape", {2, 2}}, {"strides", {2, 2}}};
  model.input("x", {1, 8, 8, 8}).constant("w", weights.shape, weights.values);
  model.constant("half", {1}, std::vector<float>{0.5F});
  model.constant("scales", {4}, std::vector<float>{1, 1, 2, 2});
  model.node("Conv", {"x", "w"}, {"a"}, padded)
      .node("Relu", {"a"}, {"r"})
      .node("MaxPool", {"r"}, {"p"}, window);
  model.node("Resize", {"p", "", "scales"}, {"u"}).node("Mul", {"u", "half"}, {"m"});
  model.node("Conv", {"m", "w"}, {"b"}, padded).node("Add", {"b", "r"}, {"s"}).node("Relu", {"s"}, {"y"});
  model.node("Sub", {"y", "r"}, {"z"}).output("y", {}).output("z", {}).output("p", {});
  const Tensor source = random_tensor({1, 8, 8, 8}, 1);
  const auto full = run_model(model.bytes(), {source});
  model.metadata("precision", "bfloat16");
  const auto half = run_model(model.bytes(), {source});
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_LT(relative_rms_difference(half[i], full[i]), kBfloat16RelativeRms);
}

TEST(TwoContexts, OfOneEngineRunAtOnce) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  std::vector<Tensor> pictures;
  std::vector<Tensor> expected;
  for (unsigned seed = 1; seed <= 2; ++seed) {
    pictures.push_back(picture_of(backbone::calibration_picture(32, seed)));
    BoundContext context(loaded.engine.get());
    expected.push_back(context.run({pictures.back()})[1]);
  }
  const auto work = [&](std::size_t own) {
    BoundContext context(loaded.engine.get());
    for (int round = 0; round < 20; ++round) {
      expect_near(context.run({pictures[own]})[1], expected[own], 0.0);
    }
  };
  std::thread first(work, 0);
  std::thread second(work, 1);
  first.join();
  second.join();
  EXPECT_EQ(loaded.logger.errors(), "");
}

TEST(TwoContexts, QueueOnOneThreadWithoutWaiting) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  BoundContext first(loaded.engine.get());
  BoundContext second(loaded.engine.get());
  const Tensor a = picture_of(backbone::calibration_picture(32, 1));
  const Tensor b = picture_of(backbone::calibration_picture(32, 2));
  const Tensor expected_a = first.run({a})[1];
  const Tensor expected_b = second.run({b})[1];
  for (int round = 0; round < 10; ++round) {
    first.upload({a});
    second.upload({b});
    EXPECT_TRUE(first.get()->enqueueV3(first.stream().get()));
    EXPECT_TRUE(second.get()->enqueueV3(second.stream().get()));
    expect_near(second.download()[1], expected_b, 0.0);
    expect_near(first.download()[1], expected_a, 0.0);
  }
}

}  // namespace
}  // namespace ostrel::testing
