// Models that ask for less than 32 bits.
#include "network.h"
#include "platform/tensorrt_onednn/trunk_models.h"

namespace ostrel::testing {
namespace {

using backbone::Precision;

// bfloat16 keeps 8 bits; root mean square of the difference, relative to that of the output.
constexpr double kBfloat16RelativeRms = 0.03;

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
  add_mixed_operators(&model);
  const Tensor source = random_tensor({1, 8, 8, 8}, 1);
  const auto full = run_model(model.bytes(), {source});
  model.metadata("precision", "bfloat16");
  const auto half = run_model(model.bytes(), {source});
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_LT(relative_rms_difference(half[i], full[i]), kBfloat16RelativeRms);
}

}  // namespace
}  // namespace ostrel::testing
