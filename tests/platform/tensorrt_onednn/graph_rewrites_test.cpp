// What the engine joins or folds must not change results, nor what others read.
#include <cmath>

#include "platform/tensorrt_onednn/reference_operators.h"

namespace ostrel::testing {
namespace {

constexpr double kTolerance = 5e-5;

const Shape kMap{2, 6, 8, 8};

NodeAttributes padded() {
  NodeAttributes attributes;
  attributes.lists = {{"kernel_shape", {3, 3}}, {"pads", {1, 1, 1, 1}}};
  return attributes;
}

// Adds a 3 x 3 convolution from 6 to 6 channels.
void add_convolution(OnnxModelBuilder* model, const std::string& source, const std::string& target,
                     unsigned seed) {
  const Tensor weights = random_tensor({6, 6, 3, 3}, seed);
  model->constant(target + "_w", weights.shape, weights.values);
  model->node("Conv", {source, target + "_w"}, {target}, padded());
}

Tensor convolved(const Tensor& source, unsigned seed) {
  ReferenceWindow window;
  window.top = window.left = 1;
  return reference_convolution(source, random_tensor({6, 6, 3, 3}, seed), {}, window, 1, source.shape[2],
                               source.shape[3]);
}

TEST(JoinedAddition, EqualsTheSumInEitherOrder) {
  const Tensor source = random_tensor(kMap, 1);
  for (const bool convolution_first : {true, false}) {
    OnnxModelBuilder model("residual");
    model.input("x", kMap);
    add_convolution(&model, "x", "a", 2);
    add_convolution(&model, "a", "b", 3);
    model.node("Add",
               convolution_first ? std::vector<std::string>{"b", "a"} : std::vector<std::string>{"a", "b"},
               {"sum"});
    model.node("Relu", {"sum"}, {"y"}).output("y", {});
    const Tensor a = convolved(source, 2);
    const Tensor expected = reference_relu(reference_arithmetic('+', convolved(a, 3), a));
    expect_near(run_model(model.bytes(), {source})[0], expected, kTolerance * 10);
  }
}

TEST(JoinedAddition, LeavesAResidualThatIsReadLater) {
  const Tensor source = random_tensor(kMap, 1);
  OnnxModelBuilder model("residual");
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  add_convolution(&model, "a", "b", 3);
  model.node("Add", {"b", "a"}, {"sum"}).node("Sub", {"sum", "a"}, {"y"}).output("y", {});
  const Tensor a = convolved(source, 2);
  expect_near(run_model(model.bytes(), {source})[0], convolved(a, 3), kTolerance * 10);
}

TEST(JoinedAddition, LeavesTheNetworkInputAlone) {
  const Tensor source = random_tensor(kMap, 1);
  OnnxModelBuilder model("residual");
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  model.node("Add", {"a", "x"}, {"y"}).output("y", {});
  LoadedEngine loaded(model.bytes());
  ASSERT_NE(loaded.engine, nullptr) << loaded.logger.errors();
  BoundContext context(loaded.engine.get());
  const Tensor expected = reference_arithmetic('+', convolved(source, 2), source);
  expect_near(context.run({source})[0], expected, kTolerance);
  ASSERT_TRUE(context.get()->enqueueV3(context.stream().get()));  // the same input once more
  expect_near(context.download()[0], expected, kTolerance);
}

TEST(JoinedAddition, KeepsOutputsBetweenTheJoinedNodes) {
  const Tensor source = random_tensor(kMap, 1);
  OnnxModelBuilder model("residual");
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  model.node("Add", {"a", "x"}, {"sum"}).node("Relu", {"sum"}, {"y"});
  model.output("a", {}).output("sum", {}).output("y", {});
  const auto found = run_model(model.bytes(), {source});
  const Tensor sum = reference_arithmetic('+', convolved(source, 2), source);
  expect_near(found[0], convolved(source, 2), kTolerance);
  expect_near(found[1], sum, kTolerance);
  expect_near(found[2], reference_relu(sum), kTolerance);
}

TEST(JoinedAddition, IsNotMadeWithAStretchedOperand) {
  const Tensor source = random_tensor(kMap, 1);
  const Tensor offset = random_tensor({1, 6, 1, 1}, 4);
  OnnxModelBuilder model("offset");
  model.input("x", kMap).input("offset", offset.shape);
  add_convolution(&model, "x", "a", 2);
  model.node("Add", {"a", "offset"}, {"y"}).output("y", {});
  expect_near(run_model(model.bytes(), {source, offset})[0],
              reference_arithmetic('+', convolved(source, 2), offset), kTolerance);
}

TEST(JoinedAddition, TakesTheConvolutionsOwnSource) {
  const Tensor source = random_tensor(kMap, 1);
  OnnxModelBuilder model("own");
  const Tensor weights = random_tensor({6, 6, 1, 1}, 5);
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  model.constant("w", weights.shape, weights.values).node("Conv", {"a", "w"}, {"b"});
  model.node("Add", {"b", "a"}, {"y"}).output("y", {});
  const Tensor a = convolved(source, 2);
  const Tensor b = reference_convolution(a, weights, {}, {}, 1, 8, 8);
  expect_near(run_model(model.bytes(), {source})[0], reference_arithmetic('+', b, a), kTolerance * 10);
}

// y = (x - mean) / sqrt(variance + epsilon) * scale + shift
struct Normalisation {
  Tensor scale = random_tensor({6}, 11);
  Tensor shift = random_tensor({6}, 12);
  Tensor mean = random_tensor({6}, 13);
  Tensor variance = random_tensor({6}, 14);
  float epsilon = 0.25F;

  Normalisation() {
    for (float& value : variance.values) value += 1.5F;
  }

  void add(OnnxModelBuilder* model, const std::string& source, const std::string& target) const {
    NodeAttributes attributes;
    attributes.reals = {{"epsilon", epsilon}};
    model->constant("scale", {6}, scale.values).constant("shift", {6}, shift.values);
    model->constant("mean", {6}, mean.values).constant("variance", {6}, variance.values);
    model->node("BatchNormalization", {source, "scale", "shift", "mean", "variance"}, {target}, attributes);
  }

  Tensor operator()(Tensor planes) const {
    const std::size_t plane = static_cast<std::size_t>(planes.shape[2] * planes.shape[3]);
    for (std::size_t i = 0; i < planes.values.size(); ++i) {
      const std::size_t c = i / plane % 6;
      planes.values[i] =
          (planes.values[i] - mean.values[c]) / std::sqrt(variance.values[c] + epsilon) * scale.values[c] +
          shift.values[c];
    }
    return planes;
  }
};

TEST(BatchNormalization, IsFoldedIntoTheConvolutionBeforeIt) {
  const Tensor source = random_tensor(kMap, 1);
  const Normalisation normalisation;
  OnnxModelBuilder model("folded");
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  normalisation.add(&model, "a", "n");
  model.node("Relu", {"n"}, {"y"}).output("y", {});
  expect_near(run_model(model.bytes(), {source})[0], reference_relu(normalisation(convolved(source, 2))),
              kTolerance);
}

TEST(BatchNormalization, FoldsIntoAConvolutionWithABias) {
  const Tensor source = random_tensor(kMap, 1);
  const Tensor weights = random_tensor({6, 6, 1, 1}, 2);
  const Tensor bias = random_tensor({6}, 3);
  const Normalisation normalisation;
  OnnxModelBuilder model("folded");
  model.input("x", kMap).constant("w", weights.shape, weights.values).constant("b", {6}, bias.values);
  model.node("Conv", {"x", "w", "b"}, {"a"});
  normalisation.add(&model, "a", "y");
  model.output("y", {});
  expect_near(run_model(model.bytes(), {source})[0],
              normalisation(reference_convolution(source, weights, bias.values, {}, 1, 8, 8)), kTolerance);
}

TEST(BatchNormalization, StandsAloneWhereTheConvolutionIsReadElsewhere) {
  const Tensor source = random_tensor(kMap, 1);
  const Normalisation normalisation;
  OnnxModelBuilder model("shared");
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  normalisation.add(&model, "a", "y");
  model.output("a", {}).output("y", {});
  const auto found = run_model(model.bytes(), {source});
  expect_near(found[0], convolved(source, 2), kTolerance);
  expect_near(found[1], normalisation(convolved(source, 2)), kTolerance);
}

TEST(BatchNormalization, StandsAloneWithoutAConvolution) {
  const Tensor source = random_tensor(kMap, 1);
  const Normalisation normalisation;
  OnnxModelBuilder model("alone");
  model.input("x", kMap);
  normalisation.add(&model, "x", "y");
  model.output("y", {});
  expect_near(run_model(model.bytes(), {source})[0], normalisation(source), kTolerance);
}

TEST(Identity, IsAnotherNameForItsInput) {
  const Tensor source = random_tensor(kMap, 1);
  OnnxModelBuilder model("identity");
  model.input("x", kMap).node("Identity", {"x"}, {"copy"}).node("Relu", {"copy"}, {"r"});
  model.node("Identity", {"r"}, {"y"}).output("copy", {}).output("y", {}).output("r", {});
  const auto found = run_model(model.bytes(), {source});
  expect_near(found[0], source, 0.0);
  expect_near(found[1], reference_relu(source), 0.0);
  expect_near(found[2], reference_relu(source), 0.0);
}

TEST(UnreadNodes, ChangeNothing) {
  const Tensor source = random_tensor(kMap, 1);
  OnnxModelBuilder model("unread");
  model.input("x", kMap);
  add_convolution(&model, "x", "a", 2);
  model.node("Relu", {"a"}, {"nobody"}).node("Add", {"nobody", "a"}, {"nobody_either"});
  model.node("Relu", {"a"}, {"y"}).output("y", {});
  expect_near(run_model(model.bytes(), {source})[0], reference_relu(convolved(source, 2)), kTolerance);
}

}  // namespace
}  // namespace ostrel::testing
