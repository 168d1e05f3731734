// Models that ask for 16-bit floats: convolutions and what lies between them run in these, channels last.
#include "platform/tensorrt_onednn/trunk_models.h"

namespace ostrel::testing {
namespace {

using backbone::Precision;

// float16 keeps 11 bits; root mean square of the difference, relative to that of the output, through 13 layers.
constexpr double kFloat16RelativeRms = 4e-3;
// Below this nothing was rounded to 16 bits.
constexpr double kRoundedRms = 1e-5;

void expect_close_and_rounded(const std::vector<Tensor>& half, const std::vector<Tensor>& full) {
  ASSERT_EQ(half.size(), full.size());
  for (std::size_t i = 0; i < full.size(); ++i) {
    ASSERT_EQ(half[i].shape, full[i].shape);
    const double difference = relative_rms_difference(half[i], full[i]);
    EXPECT_LT(difference, kFloat16RelativeRms) << "output " << i;
    EXPECT_GT(difference, kRoundedRms) << "output " << i;
  }
}

TEST(Float16, IsCloseToFloat32AndNotTheSame) {
  TrunkOptions options = tiny_trunk();
  Tensor batch{{3, 3, 32, 32}, {}};
  for (unsigned seed = 1; seed <= 3; ++seed) {
    const Tensor one = picture_of(backbone::calibration_picture(32, seed));
    batch.values.insert(batch.values.end(), one.values.begin(), one.values.end());
  }
  const auto full = run_model(backbone::trunk_bytes(options), {batch});
  options.precision = Precision::kFloat16;
  expect_close_and_rounded(run_model(backbone::trunk_bytes(options), {batch}), full);
}

TEST(Float16, MixesWithOperatorsInFloat32) {
  OnnxModelBuilder model("mixed");
  add_mixed_operators(&model);
  const Tensor source = random_tensor({1, 8, 8, 8}, 1);
  const auto full = run_model(model.bytes(), {source});
  model.metadata("precision", "float16");
  expect_close_and_rounded(run_model(model.bytes(), {source}), full);
}

// A convolution whose padding differs between the sides.
void add_unequal_padding(OnnxModelBuilder* model, const Tensor& source, const Tensor& weights, int groups) {
  NodeAttributes attributes;
  attributes.lists = {{"pads", {1, 0, 2, 1}}, {"strides", {2, 1}}};
  attributes.integers["group"] = groups;
  model->input("x", source.shape).constant("w", weights.shape, weights.values);
  model->node("Conv", {"x", "w"}, {"y"}, attributes).output("y", {});
}

// Tensor cores want multiples of eight channels.
TEST(Float16, TakesUnequalPaddingAndAnyNumberOfChannels) {
  for (const std::int64_t channels : {1, 3, 4, 8, 9}) {
    const Tensor source = random_tensor({2, channels, 7, 5}, 1);
    const Tensor weights = random_tensor({6, channels, 3, 2}, 2);
    OnnxModelBuilder model("unequal");
    add_unequal_padding(&model, source, weights, 1);
    const auto full = run_model(model.bytes(), {source});
    model.metadata("precision", "float16");
    expect_close_and_rounded(run_model(model.bytes(), {source}), full);
  }
}

TEST(Float16, FillsUpTheChannelsBetweenConvolutionsPoolingAndSums) {
  const Tensor source = random_tensor({1, 3, 9, 9}, 1);
  const Tensor weights = random_tensor({5, 3, 3, 3}, 2);
  const Tensor square = random_tensor({5, 5, 3, 3}, 3);
  const Tensor bias = random_tensor({5}, 4);
  NodeAttributes padded;
  padded.lists = {{"pads", {1, 1, 1, 1}}};
  NodeAttributes window;
  window.lists = {{"kernel_shape", {3, 3}}, {"strides", {2, 2}}, {"pads", {1, 1, 1, 1}}};
  OnnxModelBuilder model("filled");
  model.input("x", source.shape).constant("w", weights.shape, weights.values);
  model.constant("v", square.shape, square.values).constant("b", bias.shape, bias.values);
  model.node("Conv", {"x", "w", "b"}, {"c"}, padded).node("MaxPool", {"c"}, {"p"}, window);
  model.node("Relu", {"p"}, {"r"}).node("Conv", {"r", "v", "b"}, {"d"}, padded);
  model.node("Add", {"d", "r"}, {"s"}).node("Relu", {"s"}, {"y"}).output("y", {}).output("p", {});
  const auto full = run_model(model.bytes(), {source});
  model.metadata("precision", "float16");
  expect_close_and_rounded(run_model(model.bytes(), {source}), full);
}

TEST(Float16, KeepsGroupsInFloat32) {
  const Tensor source = random_tensor({2, 4, 7, 5}, 1);
  OnnxModelBuilder model("groups");
  add_unequal_padding(&model, source, random_tensor({6, 2, 3, 2}, 2), 2);
  const auto full = run_model(model.bytes(), {source});
  model.metadata("precision", "float16");
  expect_near(run_model(model.bytes(), {source})[0], full[0], 0.0);
}

TEST(Bfloat16, RunsInFloat32WithAWarning) {
  TrunkOptions options = tiny_trunk();
  const Tensor picture = picture_of(backbone::calibration_picture(32, 5));
  const auto full = run_model(backbone::trunk_bytes(options), {picture});
  options.precision = Precision::kBfloat16;
  LoadedEngine loaded(backbone::trunk_bytes(options));
  const auto warnings = loaded.logger.lines(nvinfer1::ILogger::Severity::kWARNING);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(warnings[0],
            "deserializeCudaEngine: the model asks for bfloat16, which is for processors; float32 is used");
  BoundContext context(loaded.engine.get());
  expect_near(context.run({picture})[1], full[1], 0.0);
}

}  // namespace
}  // namespace ostrel::testing
