#include "tracking_runtime/tracker/atom/init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

class BackendFeatures : public TrackingStart {
 protected:
  const FeatureMap feature{1, 2, 1, 1, {3.0F, 4.0F}};
  const FeatureMap undefined{1, 2, 1, 1, {3.0F}};
  const FeatureMap two_samples{2, 2, 1, 1, {3.0F, 4.0F, 5.0F, 6.0F}};
};

TEST_F(BackendFeatures, TakesFirstWeightsFromAFeatureOfOneSample) {
  EXPECT_TRUE(Access::init_projection_matrix(backend(), feature));
  EXPECT_EQ(weights().proj_in_channels, 2);
  EXPECT_TRUE(Access::init_filter_weights(backend(), feature));
  EXPECT_EQ(weights().filter_channels, 2);
  for (const FeatureMap& unusable : {FeatureMap{}, undefined, two_samples}) {
    EXPECT_FALSE(Access::init_projection_matrix(backend(), unusable));
    EXPECT_FALSE(Access::init_filter_weights(backend(), unusable));
  }
  EXPECT_EQ(weights().projection_version, 1u);
  EXPECT_EQ(weights().filter_version, 1u);
}

TEST_F(BackendFeatures, ProjectsOnlyWhileTheProjectionIsOn) {
  config.use_projection_matrix = false;
  weights().projection_matrix = {1.0F, 1.0F};
  weights().proj_in_channels = 2;
  weights().proj_out_channels = 1;
  EXPECT_EQ(Access::project_feature(backend(), feature).data, feature.data);
  state().config.use_projection_matrix = true;
  EXPECT_EQ(Access::project_feature(backend(), feature).data, std::vector<float>{7.0F});
}

TEST_F(BackendFeatures, ClassifiesWithItsFilter) {
  weights().filter_weights = {1.0F, 10.0F};
  weights().filter_channels = 2;
  weights().filter_height = weights().filter_width = 1;
  const cv::Mat response = Access::classify_feature(backend(), feature);
  ASSERT_EQ(response.size(), cv::Size(1, 1));
  EXPECT_EQ(response.at<float>(0, 0), 43.0F);
  EXPECT_TRUE(Access::classify_feature(backend(), two_samples).empty());
}

TEST_F(BackendFeatures, UpsamplesToItsSearchSizeByTheParityOfItsFilter) {
  const cv::Mat map = cv::Mat::eye(8, 8, CV_32F);
  weights().filter_height = 4;
  weights().filter_width = 4;
  const cv::Mat even = Access::upsample_response_fft(backend(), map);
  EXPECT_EQ(even.size(), cv::Size(32, 32));
  weights().filter_width = 3;
  EXPECT_GT(cv::norm(even, Access::upsample_response_fft(backend(), map)), 1.0);
}

TEST_F(BackendFeatures, LabelsAFeatureBySizeAndNothingUndefined) {
  state().base_target_size = {12.0F, 9.0F};
  const LabelMap label = Access::label_at_target(backend(), {1, 1, 4, 6, std::vector<float>(24, 0.0F)});
  EXPECT_EQ(label.height, 4);
  EXPECT_EQ(label.width, 6);
  EXPECT_TRUE(label.defined());
  EXPECT_FALSE(Access::label_at_target(backend(), {1, 1, 0, 6, {}}).defined());
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
