#include "tracking_runtime/tracker/atom/projection_setup.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "support/golden.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

NativeCppBackend::Config config_with(const char* method, int compressed_dim) {
  NativeCppBackend::Config config;
  config.use_projection_matrix = true;
  config.compressed_dim = compressed_dim;
  config.filter_size = 4;
  config.proj_init_method = method;
  config.filter_init_method = method;
  return config;
}

FeatureMap feature_of(const ostrel_test::GoldenCase& golden) {
  return {1, golden.i32("channels"), golden.i32("height"), golden.i32("width"),
          golden.input_as<float>("feature")};
}

struct Moments {
  double mean = 0.0;
  double deviation = 0.0;
};

Moments moments_of(const std::vector<float>& values) {
  const double count = static_cast<double>(values.size());
  const double mean = std::accumulate(values.begin(), values.end(), 0.0) / count;
  double squares = 0.0;
  for (const float value : values) squares += (value - mean) * (value - mean);
  return {mean, std::sqrt(squares / count)};
}

/// A row of a principal direction is free in sign.
void align_signs(const std::vector<double>& golden, int columns, std::vector<float>* rows) {
  const auto stride = static_cast<std::size_t>(columns);
  for (std::size_t begin = 0; begin < rows->size(); begin += stride) {
    double agreement = 0.0;
    for (std::size_t i = begin; i < begin + stride; ++i) agreement += golden[i] * (*rows)[i];
    if (agreement >= 0.0) continue;
    for (std::size_t i = begin; i < begin + stride; ++i) (*rows)[i] = -(*rows)[i];
  }
}

TEST(InitMethod, IsComparedInLowerCase) {
  EXPECT_TRUE(is_randn("randn"));
  EXPECT_TRUE(is_randn("RandN"));
  EXPECT_FALSE(is_randn("randn "));
  EXPECT_FALSE(is_randn("rand"));
  EXPECT_FALSE(is_randn("pca"));
  EXPECT_FALSE(is_randn(""));
}

TEST(ProjectFeature, MatchesGoldenProjections) {
  for (const auto& golden : ostrel_test::load_golden("projection")) {
    ClassifierState weights;
    weights.projection_matrix = golden.input_as<float>("projection");
    weights.proj_in_channels = golden.i32("in_channels");
    weights.proj_out_channels = golden.i32("out_channels");
    const FeatureMap raw{golden.i32("samples"), golden.i32("in_channels"), golden.i32("height"),
                         golden.i32("width"), golden.input_as<float>("raw")};
    const FeatureMap projected = project_feature(raw, weights, true);
    ASSERT_TRUE(projected.defined());
    EXPECT_EQ(projected.samples, raw.samples);
    EXPECT_EQ(projected.channels, golden.i32("out_channels"));
    EXPECT_EQ(projected.height, raw.height);
    EXPECT_EQ(projected.width, raw.width);
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("projected"), projected.data)) << golden.name();
  }
}

TEST(ProjectFeature, CopiesTheFeatureWithoutAProjection) {
  const FeatureMap feature{1, 2, 1, 1, {3.0F, 4.0F}};
  ClassifierState doubling;
  doubling.projection_matrix = {2.0F, 0.0F, 0.0F, 2.0F};
  doubling.proj_in_channels = doubling.proj_out_channels = 2;
  ASSERT_EQ(project_feature(feature, doubling, true).data, (std::vector<float>{6.0F, 8.0F}));

  EXPECT_EQ(project_feature(feature, doubling, false).data, feature.data) << "switched off";
  EXPECT_EQ(project_feature(feature, ClassifierState{}, true).data, feature.data) << "no matrix";
  doubling.proj_out_channels = 0;
  EXPECT_EQ(project_feature(feature, doubling, true).data, feature.data) << "no rows";
}

TEST(ProjectFeature, IsUndefinedForWhatItCannotProject) {
  ClassifierState weights;
  weights.projection_matrix = {1.0F, 1.0F};
  weights.proj_in_channels = 2;
  weights.proj_out_channels = 1;
  const FeatureMap other_channels{1, 3, 1, 1, {1.0F, 2.0F, 3.0F}};
  for (const FeatureMap& feature : {FeatureMap{}, FeatureMap{1, 2, 1, 1, {1.0F}}, other_channels}) {
    const FeatureMap projected = project_feature(feature, weights, true);
    EXPECT_FALSE(projected.defined());
    EXPECT_EQ(projected.samples + projected.channels + projected.height + projected.width, 0);
  }
  EXPECT_FALSE(project_feature(FeatureMap{}, weights, false).defined()) << "undefined, projection off";
}

TEST(InitProjection, DrawsFromANormalDistributionByTheSquareRootOfTheChannels) {
  ClassifierState weights;
  ASSERT_TRUE(init_projection(config_with("randn", 128), 256, 12, 12, nullptr, &weights));
  EXPECT_EQ(weights.proj_in_channels, 256);
  EXPECT_EQ(weights.proj_out_channels, 128);
  ASSERT_EQ(weights.projection_matrix.size(), 128u * 256u);
  const Moments moments = moments_of(weights.projection_matrix);
  EXPECT_NEAR(moments.mean, 0.0, 5.0 / 16.0 / std::sqrt(128.0 * 256.0));
  EXPECT_NEAR(moments.deviation, 1.0 / 16.0, 0.02 / 16.0);
}

TEST(InitProjection, DiffersFromStartToStart) {
  ClassifierState first;
  ClassifierState second;
  ASSERT_TRUE(init_projection(config_with("RANDN", 4), 8, 1, 1, nullptr, &first));
  ASSERT_TRUE(init_projection(config_with("RANDN", 4), 8, 1, 1, nullptr, &second));
  EXPECT_NE(first.projection_matrix, second.projection_matrix);
}

TEST(InitProjection, HasBetweenOneRowAndAsManyAsChannels) {
  ClassifierState weights;
  ASSERT_TRUE(init_projection(config_with("randn", 99), 8, 1, 1, nullptr, &weights));
  EXPECT_EQ(weights.proj_out_channels, 8);
  ASSERT_TRUE(init_projection(config_with("randn", 0), 8, 1, 1, nullptr, &weights));
  EXPECT_EQ(weights.proj_out_channels, 1);
  EXPECT_EQ(weights.projection_matrix.size(), 8u);
}

TEST(InitProjection, ClearsEverythingWhenSwitchedOff) {
  NativeCppBackend::Config config = config_with("randn", 4);
  ClassifierState weights;
  ASSERT_TRUE(init_projection(config, 8, 2, 2, nullptr, &weights));
  config.use_projection_matrix = false;
  config.proj_init_method = "pca";
  ASSERT_TRUE(init_projection(config, 8, 2, 2, nullptr, &weights));
  EXPECT_TRUE(weights.projection_matrix.empty());
  EXPECT_EQ(weights.proj_in_channels, 0);
  EXPECT_EQ(weights.proj_out_channels, 0);
  EXPECT_EQ(weights.projection_version, 2u);
}

TEST(InitProjection, RefusesASizeBelowOneAndChangesNothing) {
  ClassifierState weights;
  ASSERT_TRUE(init_projection(config_with("randn", 4), 8, 2, 2, nullptr, &weights));
  const std::vector<float> before = weights.projection_matrix;
  EXPECT_FALSE(init_projection(config_with("randn", 4), 0, 2, 2, nullptr, &weights));
  EXPECT_FALSE(init_projection(config_with("randn", 4), 8, 0, 2, nullptr, &weights));
  EXPECT_FALSE(init_projection(config_with("randn", 4), 8, 2, -1, nullptr, &weights));
  EXPECT_EQ(weights.projection_matrix, before);
  EXPECT_EQ(weights.projection_version, 1u);
}

TEST(InitProjection, TakesThePrincipalComponentsOfAFeature) {
  for (const auto& golden : ostrel_test::load_golden("projection_pca")) {
    const FeatureMap feature = feature_of(golden);
    ClassifierState weights;
    ASSERT_TRUE(init_projection(config_with("pca", golden.i32("compressed_dim")), feature.channels,
                                feature.height, feature.width, &feature, &weights));
    EXPECT_EQ(weights.projection_version, 1u);
    align_signs(golden.output("projection").values, feature.channels, &weights.projection_matrix);
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("projection"), weights.projection_matrix))
        << golden.name();
  }
}

TEST(InitProjection, FailsWithoutAUsableFeatureAndLeavesZeros) {
  const FeatureMap good{1, 2, 1, 2, {1.0F, 2.0F, 3.0F, 5.0F}};
  const FeatureMap undefined{1, 2, 1, 2, {1.0F}};
  const FeatureMap two_samples{2, 2, 1, 2, std::vector<float>(8, 1.0F)};
  const FeatureMap other_channels{1, 3, 1, 2, std::vector<float>(6, 1.0F)};
  const FeatureMap other_height{1, 2, 2, 2, std::vector<float>(8, 1.0F)};
  const FeatureMap other_width{1, 2, 1, 3, std::vector<float>(6, 1.0F)};
  ClassifierState weights;
  ASSERT_TRUE(init_projection(config_with("pca", 2), 2, 1, 2, &good, &weights));
  const std::vector<const FeatureMap*> unusable = {nullptr,         &undefined,    &two_samples,
                                                   &other_channels, &other_height, &other_width};
  for (const FeatureMap* feature : unusable) {
    EXPECT_FALSE(init_projection(config_with("pca", 2), 2, 1, 2, feature, &weights));
    EXPECT_EQ(weights.projection_matrix, std::vector<float>(4, 0.0F));
    EXPECT_EQ(weights.projection_version, 1u);
  }
}

TEST(PrincipalComponents, LieInTheOrderOfFallingVariance) {
  FeatureMap feature{1, 3, 8, 8, std::vector<float>(3 * 64)};
  for (std::size_t i = 0; i < 64; ++i) {
    feature.data[i] = 0.1F * static_cast<float>(i % 2);
    feature.data[64 + i] = 5.0F * static_cast<float>(i % 3);
    feature.data[128 + i] = 1.0F * static_cast<float>(i % 5);
  }
  const std::vector<float> rows = principal_components(feature, 2);
  ASSERT_EQ(rows.size(), 6u);
  EXPECT_NEAR(std::abs(rows[1]), 1.0F, 0.05F);      // the second channel varies most
  EXPECT_NEAR(std::abs(rows[3 + 2]), 1.0F, 0.05F);  // then the third
}

TEST(PrincipalComponents, FallBackToTheTruncatedIdentityWhenAStepThrows) {
  const FeatureMap feature{1, 3, 1, 2, std::vector<float>(6, 1.0F)};
  const std::vector<float> identity = {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F};
  EXPECT_EQ(principal_components(feature, 2, [](const cv::Mat&) -> cv::Mat { throw std::bad_alloc(); }),
            identity);
  EXPECT_EQ(principal_components(feature, 2, [](const cv::Mat&) -> cv::Mat { throw 1; }), identity);
  EXPECT_EQ(principal_components(feature, 2, [](const cv::Mat&) { return cv::Mat(); }), identity);
  EXPECT_EQ(principal_components(feature, 2, [](const cv::Mat& s) { return cv::Mat(s.rowRange(0, 2)); }),
            identity);
}

TEST(InitFilter, DrawsFromANormalDistributionByTheCountOfWeights) {
  ClassifierState weights;
  ASSERT_TRUE(init_filter(config_with("RandN", 0), 256, 12, 12, &weights));
  EXPECT_EQ(weights.filter_channels, 256);
  EXPECT_EQ(weights.filter_height, 4);
  EXPECT_EQ(weights.filter_width, 4);
  EXPECT_EQ(weights.filter_version, 1u);
  ASSERT_EQ(weights.filter_weights.size(), 4096u);
  const Moments moments = moments_of(weights.filter_weights);
  EXPECT_NEAR(moments.mean * 4096.0, 0.0, 5.0 / 64.0);
  EXPECT_NEAR(moments.deviation * 4096.0, 1.0, 0.06);
}

TEST(InitFilter, IsZeroWithAnyOtherMethod) {
  ClassifierState weights;
  ASSERT_TRUE(init_filter(config_with("zeros", 0), 3, 12, 12, &weights));
  EXPECT_EQ(weights.filter_weights, std::vector<float>(48, 0.0F));
  EXPECT_EQ(weights.filter_version, 1u);
}

TEST(InitFilter, IsAtLeastOneByOne) {
  for (const int size : {-3, 0, 1}) {
    NativeCppBackend::Config config = config_with("zeros", 0);
    config.filter_size = size;
    ClassifierState weights;
    ASSERT_TRUE(init_filter(config, 5, 12, 12, &weights));
    EXPECT_EQ(weights.filter_height, 1);
    EXPECT_EQ(weights.filter_width, 1);
    EXPECT_EQ(weights.filter_weights.size(), 5u);
  }
}

TEST(InitFilter, RefusesASizeBelowOneAndChangesNothing) {
  ClassifierState weights;
  EXPECT_FALSE(init_filter(config_with("randn", 0), 0, 1, 1, &weights));
  EXPECT_FALSE(init_filter(config_with("randn", 0), 1, 0, 1, &weights));
  EXPECT_FALSE(init_filter(config_with("randn", 0), 1, 1, 0, &weights));
  EXPECT_TRUE(weights.filter_weights.empty());
  EXPECT_EQ(weights.filter_version, 0u);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
