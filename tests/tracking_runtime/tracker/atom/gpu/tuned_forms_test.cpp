#include <gtest/gtest.h>

#include <host_cuda/control.h>
#include <host_cuda/tuned.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "device_arrays.h"
#include "joint_operators.h"
#include "reference_numerics.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_image_preprocess.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;

// Both forms sum the same products of size 1 in single precision, in another order: they part by at most
// about the square root of the number of terms, below 3000 here, in units of the last place of a sum below
// 100.
constexpr float kOrderOfSummation = 1e-4F;

/// Forms run tuned or plain, on as many cores as given, until the end of the scope.
class Forms {
 public:
  Forms(bool tuned, int cores) : cores_(host::worker_count()) {
    host::set_tuned_kernels(tuned);
    host::set_worker_count(cores);
  }
  ~Forms() {
    host::set_tuned_kernels(true);
    host::set_worker_count(cores_);
  }
  Forms(const Forms&) = delete;
  Forms& operator=(const Forms&) = delete;

 private:
  int cores_;
};

float largest_difference(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return INFINITY;
  float largest = 0.0F;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const float difference = std::abs(a[i] - b[i]);
    if (!(difference <= largest)) largest = difference;  // keeps a not-a-number
  }
  return largest;
}

/// Runs the operation plain, tuned on one core and tuned on three: the first two agree, the last two are
/// equal.
void expect_forms_agree(const std::string& what, const std::function<std::vector<float>()>& operation) {
  const auto run = [&](bool tuned, int cores) {
    const Forms forms(tuned, cores);
    return operation();
  };
  const std::vector<float> plain = run(false, 1);
  const std::vector<float> tuned = run(true, 1);
  EXPECT_LE(largest_difference(plain, tuned), kOrderOfSummation) << what;
  EXPECT_EQ(tuned, run(true, 3)) << what;
}

/// Shapes in the system's range, filters of 4 x 4 and others, maps of one position and of odd sides.
std::vector<Shape> random_shapes() {
  std::mt19937 generator(2024);
  const auto between = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(generator);
  };
  std::vector<Shape> shapes = {
      {1, 1, 1, 1, 1, 1}, {3, 64, 12, 12, 4, 4}, {10, 64, 12, 12, 4, 4}, {1, 33, 24, 24, 4, 4}};
  for (int i = 0; i < 20; ++i) {
    const int side = i % 2 == 0 ? 4 : between(1, 6);
    shapes.push_back({between(1, 4), between(1, 40), between(1, 15), between(1, 15), side,
                      i % 2 == 0 ? 4 : between(1, 6)});
  }
  return shapes;
}

std::string describe(const Shape& shape) {
  return std::to_string(shape.samples) + "x" + std::to_string(shape.channels) + "x" +
         std::to_string(shape.height) + "x" + std::to_string(shape.width) + " filter " +
         std::to_string(shape.filter_height) + "x" + std::to_string(shape.filter_width);
}

TEST(TunedForms, CorrelationsEqualThePlainForms) {
  for (const Shape& shape : random_shapes()) {
    const auto features = random_values(shape.features(), 50), filter = random_values(shape.taps(), 51);
    expect_forms_agree(describe(shape), [&] { return run_correlation(shape, features, filter); });
  }
}

TEST(TunedForms, PairsEqualThePlainForms) {
  for (const Shape& shape : random_shapes()) {
    const auto features_a = random_values(shape.features(), 52), filter_a = random_values(shape.taps(), 53);
    const auto features_b = random_values(shape.features(), 54), filter_b = random_values(shape.taps(), 55);
    expect_forms_agree(describe(shape), [&] {
      auto [a, b] = run_pair(shape, features_a, filter_a, features_b, filter_b);
      a.insert(a.end(), b.begin(), b.end());
      return a;
    });
  }
}

TEST(TunedForms, FilterGradientsEqualThePlainForm) {
  for (const Shape& shape : random_shapes()) {
    const auto features = random_values(shape.features(), 56),
               gradient = random_values(shape.positions(), 57);
    const auto initial = random_values(shape.taps(), 58);
    expect_forms_agree(describe(shape),
                       [&] { return run_filter_gradient(shape, features, gradient, -0.7F, initial); });
  }
}

TEST(TunedForms, BackPropagationEqualsThePlainForms) {
  for (const Shape& shape : random_shapes()) {
    const auto gradient = random_values(shape.positions(), 59), filter = random_values(shape.taps(), 60);
    expect_forms_agree(describe(shape), [&] { return run_backprop(shape, gradient, filter); });
  }
}

/// Projected features of all samples, then the responses.
std::vector<float> run_classifier(const Shape& shape, int in_channels, const std::vector<float>& raw,
                                  const std::vector<float>& projection, const std::vector<float>& filter) {
  TestStream stream;
  const DeviceArray<float> features(raw);
  atom::CudaProjectionClassifier classifier;
  std::string error;
  std::vector<float> all, part;
  EXPECT_TRUE(classifier.ensure_capacity(shape.samples, in_channels, shape.channels, shape.height,
                                         shape.width, shape.filter_height, shape.filter_width, &error) &&
              classifier.upload_weights(projection, true, in_channels, shape.channels, filter,
                                        shape.filter_height, shape.filter_width, &error) &&
              classifier.project_and_classify(features.get(), shape.samples, stream.get(), &error))
      << error;
  for (int n = 0; n < shape.samples; ++n) {
    EXPECT_TRUE(classifier.download_projected_sample(n, &part, stream.get(), &error)) << error;
    all.insert(all.end(), part.begin(), part.end());
  }
  EXPECT_TRUE(classifier.download_responses(shape.samples, &part, stream.get(), &error)) << error;
  all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(TunedForms, ProjectionAndClassificationEqualThePlainForms) {
  for (const Shape& shape : random_shapes()) {
    const int in_channels = 3 * shape.channels + 1;
    const auto raw = random_values(shape.positions() * static_cast<std::size_t>(in_channels), 61);
    const auto projection = random_values(product({in_channels, shape.channels}), 62, -0.1F, 0.1F);
    const auto filter = random_values(shape.taps(), 63, -0.3F, 0.3F);
    expect_forms_agree(describe(shape),
                       [&] { return run_classifier(shape, in_channels, raw, projection, filter); });
  }
}

std::vector<float> run_preprocess(int samples, int width, int height, std::size_t row_pitch,
                                  std::size_t sample_pitch, const std::vector<std::uint8_t>& bytes) {
  TestStream stream;
  const DeviceArray<std::uint8_t> source(bytes);
  const DeviceArray<float> target(product({samples, 3, width, height}), -1.0F);
  std::string error;
  EXPECT_TRUE(atom::launch_bgr8_to_rgb_planar_float(source.get(), sample_pitch, row_pitch, target.get(),
                                                    samples, width, height, stream.get(), &error))
      << error;
  return target.read(stream);
}

TEST(TunedForms, PreprocessEqualsThePlainForm) {
  std::mt19937 generator(7);
  for (const auto& [samples, width, height, padding] :
       {std::tuple{1, 1, 1, 0}, {3, 192, 192, 0}, {2, 7, 5, 4}, {4, 33, 18, 1}, {3, 16, 2, 0}}) {
    const std::size_t row_pitch =
        static_cast<std::size_t>(3) * static_cast<std::size_t>(width) + static_cast<std::size_t>(padding);
    const std::size_t sample_pitch =
        row_pitch * static_cast<std::size_t>(height) + static_cast<std::size_t>(padding);
    std::vector<std::uint8_t> bytes(sample_pitch * static_cast<std::size_t>(samples));
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(generator());
    const auto run = [&, samples = samples, width = width, height = height] {
      return run_preprocess(samples, width, height, row_pitch, sample_pitch, bytes);
    };
    std::vector<float> plain;
    {
      const Forms forms(false, 1);
      plain = run();
    }
    EXPECT_EQ(plain, run()) << width << "x" << height;
  }
}

/// Puts a counting wrapper around the tuned form of one kernel and tells how often `operation` came through
/// it.
template <typename Kernel>
struct Counted;
template <typename... Parameters>
struct Counted<void(Parameters...)> {
  static int runs(const char* name, const std::function<void()>& operation) {
    using Form = std::function<void(const host::TunedLaunch&, Parameters...)>;
    const auto* form = static_cast<const Form*>(host::detail::find_tuned(name, typeid(void(Parameters...))));
    if (form == nullptr) return -1;
    const auto count = std::make_shared<int>(0);
    host::register_tuned_kernel<void(Parameters...)>(
        name, [form, count](const host::TunedLaunch& launch, Parameters... parameters) {
          ++*count;
          (*form)(launch, parameters...);
        });
    operation();
    return *count;
  }
};

using In = const float*;
using Out = float*;
using Classify = void(In, In, Out, int, int, int, int, int, int);
using ClassifyFixed = void(In, In, Out, int, int, int, int);
using Project = void(In, In, Out, int, int, int, int, int);
using Pair = void(In, In, Out, In, In, Out, int, int, int, int, int, int);
using PairFixed = void(In, In, Out, In, In, Out, int, int, int, int);
using Preprocess = void(const std::uint8_t*, std::size_t, std::size_t, Out, int, int, int);
using FilterGradient = void(In, In, float, Out, int, int, int, int, int, int);

TEST(TunedForms, AreWhatTheJointOptimizersLaunchesRun) {
  if (host::thread_order() != host::ThreadOrder::kForward)
    GTEST_SKIP() << "tuned forms have no threads to order";
  const Shape fixed{1, 2, 3, 3, 4, 4}, general{1, 2, 3, 3, 3, 3};
  const auto correlation = [](const Shape& shape) {
    return [shape] {
      run_correlation(shape, random_values(shape.features(), 1), random_values(shape.taps(), 2));
    };
  };
  const auto pair = [](const Shape& shape) {
    return [shape] {
      const auto features = random_values(shape.features(), 1), filter = random_values(shape.taps(), 2);
      run_pair(shape, features, filter, features, filter);
    };
  };
  const auto backprop = [](const Shape& shape) {
    return
        [shape] { run_backprop(shape, random_values(shape.positions(), 1), random_values(shape.taps(), 2)); };
  };
  EXPECT_EQ(Counted<Classify>::runs("classify_samples_kernel", correlation(general)), 1);
  EXPECT_EQ(Counted<ClassifyFixed>::runs("classify_samples_fixed_filter_kernel<4,4>", correlation(fixed)), 1);
  EXPECT_EQ(Counted<Pair>::runs("classify_sample_pair_kernel", pair(general)), 1);
  EXPECT_EQ(Counted<PairFixed>::runs("classify_sample_pair_fixed_filter_kernel<4,4>", pair(fixed)), 1);
  EXPECT_EQ(Counted<Classify>::runs("backprop_to_projected_feature_kernel", backprop(general)), 1);
  EXPECT_EQ(
      Counted<ClassifyFixed>::runs("backprop_to_projected_feature_fixed_filter_kernel<4,4>", backprop(fixed)),
      1);
  EXPECT_EQ(Counted<FilterGradient>::runs("accumulate_filter_gradient_kernel",
                                          [&] {
                                            run_filter_gradient(fixed, random_values(fixed.features(), 1),
                                                                random_values(fixed.positions(), 2), 1.0F,
                                                                std::vector<float>(fixed.taps(), 0.0F));
                                          }),
            1);
}

TEST(TunedForms, AreWhatThePreprocessRuns) {
  if (host::thread_order() != host::ThreadOrder::kForward)
    GTEST_SKIP() << "tuned forms have no threads to order";
  EXPECT_EQ(Counted<Preprocess>::runs("bgr8_to_rgb_planar_float_kernel",
                                      [] {
                                        run_preprocess(1, 1, 1, 3, 3, {1, 2, 3});
                                      }),
            1);
}

TEST(TunedForms, AreWhatTheClassifierRuns) {
  if (host::thread_order() != host::ThreadOrder::kForward)
    GTEST_SKIP() << "tuned forms have no threads to order";
  const Shape shape{1, 2, 3, 3, 4, 4};
  const auto classify = [&] {
    run_classifier(shape, 2, random_values(shape.features(), 1), random_values(4, 2),
                   random_values(shape.taps(), 3));
  };
  EXPECT_EQ(Counted<Project>::runs("project_features_kernel", classify), 1);
  EXPECT_EQ(Counted<Classify>::runs("classify_kernel", classify), 1);
}

TEST(TunedForms, AreWhatTheTrainerRuns) {
  if (host::thread_order() != host::ThreadOrder::kForward)
    GTEST_SKIP() << "tuned forms have no threads to order";
  const auto train = [](const Shape& shape) {
    return [shape] {
      atom::CudaFilterTrainer trainer;
      std::vector<float> out;
      std::string error;
      EXPECT_TRUE(trainer.optimize_filter(
          random_values(shape.features(), 1), random_values(shape.positions(), 2), {1.0F}, shape.samples,
          shape.channels, shape.height, shape.width, random_values(shape.taps(), 3), shape.filter_height,
          shape.filter_width, 1.0F, 1, &out, &error))
          << error;
    };
  };
  const Shape fixed{1, 2, 3, 3, 4, 4}, general{1, 2, 3, 3, 3, 3};
  EXPECT_EQ(Counted<Classify>::runs("classify_samples_kernel", train(general)), 2);
  EXPECT_EQ(Counted<ClassifyFixed>::runs("classify_samples_fixed_filter_kernel<4,4>", train(fixed)), 2);
  EXPECT_EQ(Counted<FilterGradient>::runs("accumulate_filter_gradient_kernel", train(fixed)), 2);
}

}  // namespace
}  // namespace ostrel_test
