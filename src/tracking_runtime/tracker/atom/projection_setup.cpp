#include "tracking_runtime/tracker/atom/projection_setup.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstddef>
#include <random>
#include <stdexcept>
#include <string>

#include "tracking_runtime/tracker/atom/fresh_generator.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

std::size_t product(int a, int b) {
  return static_cast<std::size_t>(a) * static_cast<std::size_t>(b);
}

/// A matrix header over read-only values; the matrix must not be written.
cv::Mat view_of(const float* values, int rows, int columns) {
  return cv::Mat(rows, columns, CV_32F, const_cast<float*>(values));
}

void fill_normal(float deviation, std::vector<float>* values) {
  std::mt19937 generator = fresh_generator();
  std::normal_distribution<float> normal(0.0F, deviation);
  for (float& value : *values) value = normal(generator);
}

bool holds_one_sample_of(const FeatureMap* feature, int channels, int height, int width) {
  return feature != nullptr && feature->defined() && feature->samples == 1 && feature->channels == channels &&
         feature->height == height && feature->width == width;
}

/// X'X of the pixels (rows of X) by channels, each channel freed of its mean; not divided by their count.
cv::Mat scatter_of(const FeatureMap& feature) {
  const cv::Mat planes = view_of(feature.data.data(), feature.channels, feature.height * feature.width);
  cv::Mat pixels = planes.t();
  cv::Mat mean;
  cv::reduce(pixels, mean, 0, cv::REDUCE_AVG);
  pixels -= cv::repeat(mean, pixels.rows, 1);
  cv::Mat scatter;
  cv::mulTransposed(pixels, scatter, true);
  return scatter;
}

std::vector<float> leading_columns(const cv::Mat& u, int channels, int count) {
  if (u.rows != channels || u.cols != channels) throw std::runtime_error("invalid SVD output");
  std::vector<float> matrix(product(count, channels));
  cv::Mat rows(count, channels, CV_32F, matrix.data());
  cv::transpose(u.colRange(0, count), rows);
  return matrix;
}

std::vector<float> truncated_identity(int channels, int count) {
  std::vector<float> matrix(product(count, channels), 0.0F);
  for (int r = 0; r < count; ++r) matrix[product(r, channels) + static_cast<std::size_t>(r)] = 1.0F;
  return matrix;
}

}  // namespace

bool is_randn(const std::string& method) {
  const std::string randn = "randn";
  return std::equal(method.begin(), method.end(), randn.begin(), randn.end(), [](char given, char lower) {
    return std::tolower(static_cast<unsigned char>(given)) == lower;
  });
}

FeatureMap project_feature(const FeatureMap& feature, const ClassifierState& weights, bool use_projection) {
  if (!feature.defined()) return {};
  if (!use_projection || weights.projection_matrix.empty() || weights.proj_out_channels < 1) return feature;
  if (weights.proj_in_channels != feature.channels) return {};

  FeatureMap projected{feature.samples, weights.proj_out_channels, feature.height, feature.width, {}};
  projected.data.resize(static_cast<std::size_t>(projected.samples) * projected.sample_stride());
  const cv::Mat matrix =
      view_of(weights.projection_matrix.data(), weights.proj_out_channels, weights.proj_in_channels);
  const int pixels = feature.height * feature.width;
  for (int n = 0; n < feature.samples; ++n) {
    const std::size_t sample = static_cast<std::size_t>(n);
    const cv::Mat input =
        view_of(feature.data.data() + sample * feature.sample_stride(), feature.channels, pixels);
    cv::Mat output(projected.channels, pixels, CV_32F,
                   projected.data.data() + sample * projected.sample_stride());
    cv::gemm(matrix, input, 1.0, cv::noArray(), 0.0, output);
  }
  return projected;
}

cv::Mat left_singular_vectors(const cv::Mat& scatter) {
  cv::Mat singular_values;
  cv::Mat u;
  cv::Mat v_transposed;
  cv::SVD::compute(scatter, singular_values, u, v_transposed, cv::SVD::FULL_UV);
  return u;
}

std::vector<float> principal_components(const FeatureMap& feature, int out_channels,
                                        Decomposition decompose) {
  try {
    return leading_columns(decompose(scatter_of(feature)), feature.channels, out_channels);
  } catch (...) {
    // A projection that only drops channels still tracks; a start must not fail over its first guess.
    return truncated_identity(feature.channels, out_channels);
  }
}

bool init_projection(const NativeCppBackend::Config& config, int channels, int height, int width,
                     const FeatureMap* feature_or_null, ClassifierState* weights) {
  if (channels < 1 || height < 1 || width < 1) return false;
  weights->projection_matrix.clear();
  weights->proj_in_channels = config.use_projection_matrix ? channels : 0;
  weights->proj_out_channels =
      config.use_projection_matrix ? std::max(std::min(channels, config.compressed_dim), 1) : 0;
  if (!config.use_projection_matrix) {
    ++weights->projection_version;
    return true;
  }
  weights->projection_matrix.assign(product(weights->proj_out_channels, channels), 0.0F);
  if (is_randn(config.proj_init_method)) {
    fill_normal(1.0F / std::sqrt(static_cast<float>(channels)), &weights->projection_matrix);
  } else if (holds_one_sample_of(feature_or_null, channels, height, width)) {
    weights->projection_matrix = principal_components(*feature_or_null, weights->proj_out_channels);
  } else {
    return false;
  }
  ++weights->projection_version;
  return true;
}

bool init_filter(const NativeCppBackend::Config& config, int channels, int height, int width,
                 ClassifierState* weights) {
  if (channels < 1 || height < 1 || width < 1) return false;
  const int side = std::max(config.filter_size, 1);
  weights->filter_channels = channels;
  weights->filter_height = side;
  weights->filter_width = side;
  weights->filter_weights.assign(product(channels, side) * static_cast<std::size_t>(side), 0.0F);
  if (is_randn(config.filter_init_method)) {
    fill_normal(1.0F / static_cast<float>(weights->filter_weights.size()), &weights->filter_weights);
  }
  ++weights->filter_version;
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
