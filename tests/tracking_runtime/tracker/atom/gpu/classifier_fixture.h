#pragma once

#include <gtest/gtest.h>

#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <string>
#include <vector>

#include "device_arrays.h"
#include "reference_numerics.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"

namespace ostrel_test {

/// A classifier of given sizes with random weights.
class ProjectionClassifier : public ::testing::Test {
 protected:
  static constexpr int kInChannels = 6;
  Shape shape_{3, 4, 5, 7, 4, 4};  // channels are those after the projection
  atom::CudaProjectionClassifier classifier_;
  TestStream stream_;
  std::string error_;
  std::vector<float> raw_ = random_values(shape_.positions() * kInChannels, 1);
  std::vector<float> projection_ = random_values(product({kInChannels, shape_.channels}), 2);
  std::vector<float> filter_ = random_values(shape_.taps(), 3);
  DeviceArray<float> features_{raw_};

  void TearDown() override {
    ostrel::host_cuda::clear_faults();
    null_stream_.expect_nothing_new();
  }

  bool ensure(int in_channels = kInChannels) {
    return classifier_.ensure_capacity(shape_.samples, in_channels, shape_.channels, shape_.height,
                                       shape_.width, shape_.filter_height, shape_.filter_width, &error_);
  }
  bool upload() {
    return classifier_.upload_weights(projection_, true, kInChannels, shape_.channels, filter_,
                                      shape_.filter_height, shape_.filter_width, &error_);
  }
  bool classify(int batch) {
    return classifier_.project_and_classify(features_.get(), batch, stream_.get(), &error_);
  }

  Doubles expected_projected() const {
    return reference_projection(shape_.samples, kInChannels, shape_.channels, shape_.height * shape_.width,
                                widen(raw_), widen(projection_));
  }
  std::vector<float> responses(int batch) {
    std::vector<float> out;
    EXPECT_TRUE(classifier_.download_responses(batch, &out, stream_.get(), &error_)) << error_;
    return out;
  }
  std::vector<float> projected(int index) {
    std::vector<float> out;
    EXPECT_TRUE(classifier_.download_projected_sample(index, &out, stream_.get(), &error_)) << error_;
    return out;
  }

 private:
  NullStreamWatch null_stream_;
};

}  // namespace ostrel_test
