#include "platform/tensorrt_onednn/reference_operators.h"

namespace ostrel::testing {
namespace {

// Sums of some hundred products of numbers below 1, in 32-bit floats.
constexpr double kSumTolerance = 2e-5;
constexpr double kElementTolerance = 1e-6;

struct ConvolutionCase {
  const char* reason;
  std::int64_t in_channels, out_channels, groups;
  std::int64_t kernel, stride, padding, dilation;
  std::int64_t height, width, batch;
  bool bias;
};

const ConvolutionCase kConvolutions[] = {
    {"a stem", 3, 16, 1, 7, 2, 3, 1, 21, 18, 2, true},
    {"a block's 3 x 3", 16, 16, 1, 3, 1, 1, 1, 9, 11, 2, true},
    {"a strided 3 x 3", 16, 32, 1, 3, 2, 1, 1, 12, 12, 1, true},
    {"a strided shortcut", 16, 32, 1, 1, 2, 0, 1, 12, 12, 3, true},
    {"no bias", 8, 8, 1, 3, 1, 1, 1, 6, 6, 1, false},
    {"channels that fill no vector", 5, 7, 1, 3, 1, 1, 1, 6, 7, 2, true},
    {"dilation", 4, 4, 1, 3, 1, 2, 2, 9, 8, 1, true},
    {"groups", 8, 12, 4, 3, 1, 1, 1, 6, 6, 2, true},
    {"depthwise", 8, 8, 8, 3, 1, 1, 1, 6, 6, 2, true},
    {"rows that the last window misses", 4, 4, 1, 3, 2, 0, 1, 8, 6, 1, true},
    {"a map of the kernel's size", 4, 4, 1, 3, 1, 0, 1, 3, 3, 1, true},
};

std::int64_t output_size(std::int64_t size, const ConvolutionCase& test) {
  return (size + 2 * test.padding - test.dilation * (test.kernel - 1) - 1) / test.stride + 1;
}

NodeAttributes window_attributes(std::int64_t kernel, std::int64_t stride, std::int64_t padding,
                                 std::int64_t dilation) {
  NodeAttributes attributes;
  attributes.lists = {{"kernel_shape", {kernel, kernel}},
                      {"strides", {stride, stride}},
                      {"pads", {padding, padding, padding, padding}},
                      {"dilations", {dilation, dilation}}};
  return attributes;
}

TEST(Convolution, EqualsPlainLoops) {
  for (const ConvolutionCase& test : kConvolutions) {
    SCOPED_TRACE(test.reason);
    const Tensor source = random_tensor({test.batch, test.in_channels, test.height, test.width}, 1);
    const Tensor weights =
        random_tensor({test.out_channels, test.in_channels / test.groups, test.kernel, test.kernel}, 2);
    const Tensor bias = random_tensor({test.out_channels}, 3);
    OnnxModelBuilder model("convolution");
    NodeAttributes attributes = window_attributes(test.kernel, test.stride, test.padding, test.dilation);
    attributes.integers["group"] = test.groups;
    std::vector<std::string> inputs{"x", "w"};
    if (test.bias) inputs.emplace_back("b");
    model.input("x", source.shape).constant("w", weights.shape, weights.values);
    model.constant("b", bias.shape, bias.values).node("Conv", inputs, {"y"}, attributes).output("y", {});
    ReferenceWindow window;
    window.stride_y = window.stride_x = test.stride;
    window.dilation_y = window.dilation_x = test.dilation;
    window.top = window.left = test.padding;
    const Tensor expected =
        reference_convolution(source, weights, test.bias ? bias.values : std::vector<float>{}, window,
                              test.groups, output_size(test.height, test), output_size(test.width, test));
    const auto found = run_model(model.bytes(), {source});
    ASSERT_EQ(found.size(), 1U);
    expect_near(found[0], expected, kSumTolerance);
  }
}

TEST(Convolution, TakesUnequalSidesAndPadding) {
  const Tensor source = random_tensor({1, 4, 9, 7}, 1);
  const Tensor weights = random_tensor({6, 4, 3, 5}, 2);
  OnnxModelBuilder model("convolution");
  NodeAttributes attributes;
  attributes.lists = {{"strides", {2, 1}}, {"pads", {0, 1, 2, 3}}};
  model.input("x", source.shape).constant("w", weights.shape, weights.values);
  model.node("Conv", {"x", "w"}, {"y"}, attributes).output("y", {});
  ReferenceWindow window;
  window.stride_y = 2;
  window.left = 1;
  expect_near(run_model(model.bytes(), {source})[0],
              reference_convolution(source, weights, {}, window, 1, 5, 7), kSumTolerance);
}

TEST(Convolution, PadsBySideWhenAskedForTheSameSize) {
  for (const char* mode : {"SAME_UPPER", "SAME_LOWER", "VALID"}) {
    SCOPED_TRACE(mode);
    const Tensor source = random_tensor({1, 3, 8, 8}, 1);
    const Tensor weights = random_tensor({4, 3, 3, 3}, 2);
    OnnxModelBuilder model("convolution");
    NodeAttributes attributes;
    attributes.lists = {{"strides", {2, 2}}};
    attributes.texts = {{"auto_pad", mode}};
    model.input("x", source.shape).constant("w", weights.shape, weights.values);
    model.node("Conv", {"x", "w"}, {"y"}, attributes).output("y", {});
    ReferenceWindow window;
    window.stride_y = window.stride_x = 2;
    window.top = window.left = std::string(mode) == "SAME_LOWER" ? 1 : 0;
    const std::int64_t side = std::string(mode) == "VALID" ? 3 : 4;
    expect_near(run_model(model.bytes(), {source})[0],
                reference_convolution(source, weights, {}, window, 1, side, side), kSumTolerance);
  }
}

struct PoolCase {
  const char* reason;
  std::int64_t kernel, stride, padding, dilation;
  bool round_up;
  std::int64_t size, expected_size;
};

const PoolCase kPools[] = {
    {"the stem's", 3, 2, 1, 1, false, 12, 6},
    {"an odd map", 3, 2, 1, 1, false, 11, 6},
    {"no overlap", 2, 2, 0, 1, false, 8, 4},
    {"a rest that is dropped", 2, 2, 0, 1, false, 9, 4},
    {"a rest that is kept", 2, 2, 0, 1, true, 9, 5},
    {"rounding up without a rest", 2, 2, 0, 1, true, 8, 4},
    {"a window that would start in the padding", 2, 2, 1, 1, true, 3, 2},
    {"dilation", 3, 1, 0, 2, false, 9, 5},
};

TEST(MaxPool, EqualsPlainLoops) {
  for (const PoolCase& test : kPools) {
    SCOPED_TRACE(test.reason);
    Tensor source = random_tensor({2, 5, test.size, test.size}, 1);
    for (float& value : source.values) value -= 3.0F;  // padding must not win over negative values
    OnnxModelBuilder model("pool");
    NodeAttributes attributes = window_attributes(test.kernel, test.stride, test.padding, test.dilation);
    attributes.integers["ceil_mode"] = test.round_up ? 1 : 0;
    model.input("x", source.shape).node("MaxPool", {"x"}, {"y"}, attributes).output("y", {});
    ReferenceWindow window{test.kernel,   test.kernel,   test.stride,  test.stride,
                           test.dilation, test.dilation, test.padding, test.padding};
    expect_near(run_model(model.bytes(), {source})[0],
                reference_max_pool(source, window, test.expected_size, test.expected_size), 0.0);
  }
}

struct ArithmeticCase {
  const char* reason;
  Shape first, second;
};

const ArithmeticCase kArithmetic[] = {
    {"equal shapes", {2, 3, 4, 5}, {2, 3, 4, 5}},
    {"per channel", {2, 3, 4, 5}, {1, 3, 1, 1}},
    {"fewer dimensions", {2, 3, 4, 5}, {3, 1, 1}},
    {"a single number", {2, 3, 4, 5}, {1}},
    {"the first stretches", {1, 3, 1, 1}, {2, 3, 4, 5}},
    {"both stretch", {2, 1, 4, 1}, {1, 3, 1, 5}},
    {"per row", {2, 3, 4, 5}, {4, 1}},
    {"one dimension", {7}, {7}},
};

TEST(Arithmetic, EqualsPlainLoopsWithBroadcasting) {
  const std::pair<const char*, char> operations[] = {{"Add", '+'}, {"Sub", '-'}, {"Mul", '*'}, {"Div", '/'}};
  for (const ArithmeticCase& test : kArithmetic) {
    for (const auto& [name, sign] : operations) {
      SCOPED_TRACE(std::string(name) + ", " + test.reason);
      const Tensor first = random_tensor(test.first, 1);
      Tensor second = random_tensor(test.second, 2);
      for (float& value : second.values) value += 2.0F;
      const Tensor expected = reference_arithmetic(sign, first, second);

      OnnxModelBuilder tensors("arithmetic");
      tensors.input("a", test.first).input("b", test.second).node(name, {"a", "b"}, {"y"}).output("y", {});
      expect_near(run_model(tensors.bytes(), {first, second})[0], expected, kElementTolerance);

      OnnxModelBuilder constant("arithmetic");
      constant.input("a", test.first).constant("b", test.second, second.values);
      constant.node(name, {"a", "b"}, {"y"}).output("y", {});
      expect_near(run_model(constant.bytes(), {first})[0], expected, kElementTolerance);

      OnnxModelBuilder constant_first("arithmetic");
      constant_first.input("b", test.second).constant("a", test.first, first.values);
      constant_first.node(name, {"a", "b"}, {"y"}).output("y", {});
      expect_near(run_model(constant_first.bytes(), {second})[0], expected, kElementTolerance);
    }
  }
}

TEST(Arithmetic, TakesOneTensorTwice) {
  const Tensor source = random_tensor({1, 2, 3, 4}, 1);
  OnnxModelBuilder model("square");
  model.input("x", source.shape).node("Relu", {"x"}, {"r"}).node("Mul", {"r", "r"}, {"y"}).output("y", {});
  const Tensor rectified = reference_relu(source);
  expect_near(run_model(model.bytes(), {source})[0], reference_arithmetic('*', rectified, rectified),
              kElementTolerance);
}

TEST(Relu, KeepsItsInputForOtherReaders) {
  const Tensor source = random_tensor({1, 3, 4, 4}, 1);
  OnnxModelBuilder model("relu");
  model.input("x", source.shape).node("Add", {"x", "x"}, {"double"}).node("Relu", {"double"}, {"r"});
  model.node("Sub", {"double", "r"}, {"negative"}).output("r", {}).output("negative", {});
  const auto found = run_model(model.bytes(), {source});
  const Tensor doubled = reference_arithmetic('+', source, source);
  expect_near(found[0], reference_relu(doubled), kElementTolerance);
  expect_near(found[1], reference_arithmetic('-', doubled, reference_relu(doubled)), kElementTolerance);
}

struct ResizeCase {
  const char* coordinates;
  const char* rounding;  // empty: linear
  float scale_y, scale_x;
};

const ResizeCase kResizes[] = {
    {"asymmetric", "floor", 2.0F, 2.0F},
    {"half_pixel", "round_prefer_floor", 2.0F, 3.0F},
    {"half_pixel", "round_prefer_ceil", 0.5F, 0.5F},
    {"asymmetric", "ceil", 1.5F, 1.5F},
    {"align_corners", "round_prefer_floor", 2.0F, 2.0F},
    {"half_pixel", "", 2.0F, 2.0F},
    {"half_pixel", "", 0.5F, 1.5F},
    {"align_corners", "", 2.0F, 2.0F},
    {"asymmetric", "", 2.0F, 2.0F},
    {"pytorch_half_pixel", "", 0.25F, 2.0F},
};

TEST(Resize, EqualsPlainLoopsForEveryCoordinateRule) {
  for (const ResizeCase& test : kResizes) {
    SCOPED_TRACE(std::string(test.coordinates) + " " + test.rounding);
    const Tensor source = random_tensor({2, 3, 4, 6}, 1);
    NodeAttributes attributes;
    attributes.texts = {{"coordinate_transformation_mode", test.coordinates},
                        {"mode", *test.rounding == '\0' ? "linear" : "nearest"}};
    if (*test.rounding != '\0') attributes.texts["nearest_mode"] = test.rounding;
    OnnxModelBuilder model("resize");
    model.input("x", source.shape);
    model.constant("scales", {4}, std::vector<float>{1.0F, 1.0F, test.scale_y, test.scale_x});
    model.node("Resize", {"x", "", "scales"}, {"y"}, attributes).output("y", {});
    const auto height = static_cast<std::int64_t>(4.0F * test.scale_y);
    const auto width = static_cast<std::int64_t>(6.0F * test.scale_x);
    expect_near(
        run_model(model.bytes(), {source})[0],
        reference_resize(source, test.coordinates, test.rounding, test.scale_y, test.scale_x, height, width),
        kElementTolerance);
  }
}

TEST(Resize, TakesSizesInsteadOfScales) {
  const Tensor source = random_tensor({1, 3, 4, 6}, 1);
  OnnxModelBuilder model("resize");
  NodeAttributes attributes;
  attributes.texts = {{"mode", "linear"}};
  model.input("x", source.shape).constant("sizes", {4}, std::vector<std::int64_t>{1, 3, 7, 9});
  model.node("Resize", {"x", "", "", "sizes"}, {"y"}, attributes).output("y", {});
  expect_near(run_model(model.bytes(), {source})[0],
              reference_resize(source, "half_pixel", "", 7.0 / 4.0, 9.0 / 6.0, 7, 9), kElementTolerance);
}

}  // namespace
}  // namespace ostrel::testing
