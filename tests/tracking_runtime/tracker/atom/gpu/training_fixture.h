#pragma once

#include <null_stream_watch.h>

#include <string>
#include <vector>

#include "device_arrays.h"
#include "reference_numerics.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer_impl.h"

namespace ostrel_test {

/// The host arrays of one training.
struct Training {
  Shape shape;
  std::vector<float> features, labels, weights, filter;
  float regularization = 0.1F;
  int iterations = 5;

  /// Random values in the system's range: activation on both sides of zero, weights that sum to about 1.
  static Training random(const Shape& shape, std::uint32_t seed) {
    Training training;
    training.shape = shape;
    training.features = random_values(shape.features(), seed);
    training.labels = random_values(shape.positions(), seed + 1, 0.0F, 1.0F);
    training.weights = random_values(static_cast<std::size_t>(shape.samples), seed + 2, 0.1F, 0.5F);
    training.filter = random_values(shape.taps(), seed + 3, -0.1F, 0.1F);
    return training;
  }

  TrainingProblem problem() const {
    return {shape, widen(features), widen(labels), widen(weights), static_cast<double>(regularization)};
  }

  bool run(atom::CudaFilterTrainer& trainer, std::vector<float>* out, std::string* error) const {
    const NullStreamWatch null_stream;
    const bool done = trainer.optimize_filter(features, labels, weights, shape.samples, shape.channels,
                                              shape.height, shape.width, filter, shape.filter_height,
                                              shape.filter_width, regularization, iterations, out, error);
    null_stream.expect_nothing_new();
    return done;
  }

  bool run_on(atom::CudaFilterTrainer& trainer, const atom::DeviceFeatureView& view, std::vector<float>* out,
              std::string* error) const {
    const NullStreamWatch null_stream;
    const bool done = trainer.optimize_filter_device_features(
        view, labels, weights, shape.samples, shape.channels, shape.height, shape.width, filter,
        shape.filter_height, shape.filter_width, regularization, iterations, out, error);
    null_stream.expect_nothing_new();
    return done;
  }

  bool run_core(atom::CudaFilterTrainer::Impl* impl, const float* device_features, std::vector<float>* out,
                std::string* error) const {
    return atom::optimize_filter_on_device_features(
        impl, device_features, labels, weights, shape.samples, shape.channels, shape.height, shape.width,
        filter, shape.filter_height, shape.filter_width, regularization, iterations, out, error);
  }
};

}  // namespace ostrel_test
