#pragma once

#include <mutex>
#include <random>
#include <utility>

#include "engine_fixture.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"

namespace ostrel_test {

using ostrel_tracker::tracking_runtime::tracker::atom::ClassifierState;

/// Responses are sums of up to 96 products of about 1, of features that are sums themselves.
constexpr double kResponseTolerance = 2e-3;

inline std::vector<float> random_values(std::size_t count, std::uint32_t seed) {
  std::mt19937 generator(seed);
  std::vector<float> values(count);
  for (float& value : values) value = static_cast<float>(generator() % 2001) / 1000.0F - 1.0F;
  return values;
}

/// Weights of version 1 for `channels` feature channels; `projected` of 0 leaves the projection off.
inline ClassifierState random_weights(int channels, int projected, int filter_height, int filter_width,
                                      std::uint32_t seed = 5) {
  ClassifierState weights;
  if (projected > 0) {
    weights.projection_matrix = random_values(static_cast<std::size_t>(channels * projected), seed);
    weights.proj_in_channels = channels;
    weights.proj_out_channels = projected;
    weights.projection_version = 1;
  }
  weights.filter_channels = projected > 0 ? projected : channels;
  weights.filter_height = filter_height;
  weights.filter_width = filter_width;
  weights.filter_weights = random_values(
      static_cast<std::size_t>(weights.filter_channels * filter_height * filter_width), seed + 1);
  weights.filter_version = 1;
  return weights;
}

/// The projection of one sample in double precision.
inline FeatureMap expected_projection(const FeatureMap& feature, const ClassifierState& weights) {
  if (weights.projection_matrix.empty()) return feature;
  FeatureMap projected{1, weights.proj_out_channels, feature.height, feature.width, {}};
  const int plane = feature.height * feature.width;
  for (int o = 0; o < projected.channels; ++o) {
    for (int t = 0; t < plane; ++t) {
      double sum = 0.0;
      for (int c = 0; c < feature.channels; ++c) {
        sum += static_cast<double>(
                   weights.projection_matrix[static_cast<std::size_t>(o * feature.channels + c)]) *
               static_cast<double>(feature.data[static_cast<std::size_t>(c * plane + t)]);
      }
      projected.data.push_back(static_cast<float>(sum));
    }
  }
  return projected;
}

/// One value of the correlation of a projected sample with the filter, zeros outside.
inline double expected_response_at(const FeatureMap& projected, const ClassifierState& weights, int y,
                                   int x) {
  double sum = 0.0;
  for (int c = 0; c < projected.channels; ++c) {
    for (int i = 0; i < weights.filter_height; ++i) {
      for (int j = 0; j < weights.filter_width; ++j) {
        const int row = y + i - weights.filter_height / 2;
        const int column = x + j - weights.filter_width / 2;
        if (row < 0 || row >= projected.height || column < 0 || column >= projected.width) continue;
        const int tap = (c * weights.filter_height + i) * weights.filter_width + j;
        const int value = (c * projected.height + row) * projected.width + column;
        sum += static_cast<double>(weights.filter_weights[static_cast<std::size_t>(tap)]) *
               static_cast<double>(projected.data[static_cast<std::size_t>(value)]);
      }
    }
  }
  return sum;
}

inline void expect_response(const FeatureMap& projected, const ClassifierState& weights,
                            const cv::Mat& response) {
  ASSERT_EQ(response.type(), CV_32F);
  ASSERT_EQ(response.rows, projected.height);
  ASSERT_EQ(response.cols, projected.width);
  for (int y = 0; y < response.rows; ++y) {
    for (int x = 0; x < response.cols; ++x) {
      ASSERT_NEAR(response.at<float>(y, x), expected_response_at(projected, weights, y, x),
                  kResponseTolerance)
          << "row " << y << " column " << x;
    }
  }
}

/// Network inputs on the device, planes red, green, blue, as the picture library would deliver them.
class DeviceBatch {
 public:
  explicit DeviceBatch(const std::vector<cv::Mat>& patches) {
    std::vector<float> values;
    for (const cv::Mat& patch : patches) append(patch, &values);
    EXPECT_EQ(memory_.ensure(values.size()), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(memory_.get(), values.data(), values.size() * sizeof(float), cudaMemcpyHostToDevice),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);  // for work on any stream
    batch.data = memory_.get();
    batch.count = static_cast<int>(patches.size());
    batch.channels = 3;
    batch.height = patches.front().rows;
    batch.width = patches.front().cols;
  }

  atom::TrtInputBatch batch;

 private:
  static void append(const cv::Mat& patch, std::vector<float>* values) {
    for (int plane = 2; plane >= 0; --plane) {
      for (int y = 0; y < patch.rows; ++y) {
        for (int x = 0; x < patch.cols; ++x) values->push_back(patch.at<cv::Vec3b>(y, x)[plane]);
      }
    }
  }

  atom::DeviceBuffer<float> memory_;
};

class ClassifyTest : public EngineTest {
 protected:
  atom::GuardedClassifier guarded() { return {state_mutex, weights, use_projection}; }
  atom::ClassifyOutputs outputs() { return {&responses, &features, &timings}; }

  bool classify_patches(const std::vector<cv::Mat>& patches) {
    error.clear();
    return atom::classify_patches(trt, trt_workers, patches, guarded(), &scratch, outputs(), &error);
  }
  bool classify_batch(const atom::TrtInputBatch& batch) {
    error.clear();
    return atom::classify_tensor_batch(trt.get(), batch, guarded(), &scratch, outputs(), &error);
  }
  bool classify_batch(const std::vector<cv::Mat>& patches) {
    return classify_batch(DeviceBatch(patches).batch);
  }

  /// Responses and features against plain loops.
  void expect_results(const StridedEngine& engine, const std::vector<cv::Mat>& patches) {
    ASSERT_EQ(responses.size(), patches.size()) << error;
    ASSERT_EQ(features.size(), patches.size());
    ClassifierState effective = weights;
    if (!use_projection) effective.projection_matrix.clear();
    for (std::size_t i = 0; i < patches.size(); ++i) {
      SCOPED_TRACE("patch " + std::to_string(i));
      const FeatureMap projected =
          expected_projection(engine.expected(engine.outputs - 1, patches[i]), effective);
      expect_same_features(projected, features[i]);
      expect_response(projected, effective, responses[i]);
    }
  }

  std::mutex state_mutex;
  ClassifierState weights = random_weights(6, 4, 4, 4);
  bool use_projection = true;
  atom::ClassifyScratch scratch;
  std::vector<cv::Mat> responses;
  std::vector<FeatureMap> features;
  atom::GpuTrackTimings timings;
};

inline std::string joined(const std::vector<std::string>& names) {
  std::string line;
  for (const std::string& name : names) line += (line.empty() ? "" : " ") + name;
  return line;
}

inline StridedEngine engine_of_batch(int batch) {
  StridedEngine engine;
  engine.batch = batch;
  return engine;
}

}  // namespace ostrel_test
