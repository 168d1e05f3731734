#include "ostrel_plugin/src/frame_intake.h"

#include <gtest/gtest.h>

#include <host_cuda/control.h>
#include <limits>
#include <string>
#include <vector>

namespace {

using optrix::OptrixPicture;
using ostrel_algo_internal::buildBgrFromOptrixTensor;
using ostrel_algo_internal::readFiniteMetadataDouble;
using ostrel_algo_internal::readMetadataFlag;

OptrixPicture::BaseMetadata metadataOf(const OptrixPicture::MetadataValue& value) {
  OptrixPicture::BaseMetadata metadata;
  metadata["key"] = value;
  return metadata;
}

TEST(MetadataDouble, ReadsAFiniteDouble) {
  double out = 0.0;
  EXPECT_TRUE(readFiniteMetadataDouble(metadataOf(-12.5), "key", out));
  EXPECT_EQ(out, -12.5);
}

TEST(MetadataDouble, RefusesEverythingElse) {
  double out = 7.0;
  const OptrixPicture::MetadataValue others[] = {std::monostate{},
                                                 std::int32_t{12},  // whole degrees do not count
                                                 std::int64_t{12},
                                                 std::numeric_limits<double>::quiet_NaN(),
                                                 std::numeric_limits<double>::infinity(),
                                                 std::string("12.5")};
  for (const auto& value : others) EXPECT_FALSE(readFiniteMetadataDouble(metadataOf(value), "key", out));
  EXPECT_FALSE(readFiniteMetadataDouble(metadataOf(1.0), "other", out));
  EXPECT_EQ(out, 7.0);
}

TEST(MetadataFlag, ReadsIntegersAndFiniteDoubles) {
  const std::pair<OptrixPicture::MetadataValue, bool> cases[] = {{std::int32_t{0}, false},
                                                                 {std::int32_t{-3}, true},
                                                                 {std::int64_t{0}, false},
                                                                 {std::int64_t{1} << 40, true},
                                                                 {0.0, false},
                                                                 {0.25, true}};
  for (const auto& [value, expected] : cases) {
    bool out = !expected;
    EXPECT_TRUE(readMetadataFlag(metadataOf(value), "key", out)) << value.index();
    EXPECT_EQ(out, expected) << value.index();
  }
}

TEST(MetadataFlag, LeavesTheOutputAloneOtherwise) {
  for (const bool before : {false, true}) {
    bool out = before;
    EXPECT_FALSE(readMetadataFlag(metadataOf(std::monostate{}), "key", out));
    EXPECT_FALSE(readMetadataFlag(metadataOf(std::numeric_limits<double>::quiet_NaN()), "key", out));
    EXPECT_FALSE(readMetadataFlag(metadataOf(std::string("1")), "key", out));
    EXPECT_FALSE(readMetadataFlag(metadataOf(std::int32_t{1}), "other", out));
    EXPECT_EQ(out, before);
  }
}

// A picture whose blue grows with the column, green with the row, red is a constant.
std::shared_ptr<OptrixPicture> makeRamp(int width, int height, int step = 4) {
  std::vector<std::uint8_t> pixels;
  for (int row = 0; row < height; ++row) {
    for (int column = 0; column < width; ++column) {
      pixels.push_back(static_cast<std::uint8_t>(column * step));
      pixels.push_back(static_cast<std::uint8_t>(row * step));
      pixels.push_back(200);
    }
  }
  optrix::HostBgr source;
  source.pixels = pixels.data();
  source.width = width;
  source.height = height;
  source.stride_bytes = static_cast<std::size_t>(width) * 3;
  return OptrixPicture::fromBgr(source, optrix::PixelFormat::kBgr);
}

class BuildBgr : public testing::Test {
 protected:
  ~BuildBgr() override { ostrel::host_cuda::clear_faults(); }
};

TEST_F(BuildBgr, IsThePictureItselfAtItsOwnEvenSize) {
  const cv::Mat image = buildBgrFromOptrixTensor(makeRamp(40, 30), 40, 30);
  ASSERT_EQ(image.size(), cv::Size(40, 30));
  ASSERT_EQ(image.type(), CV_8UC3);
  for (int row = 0; row < 30; ++row) {
    for (int column = 0; column < 40; ++column) {
      ASSERT_EQ(image.at<cv::Vec3b>(row, column),
                cv::Vec3b(static_cast<std::uint8_t>(column * 4), static_cast<std::uint8_t>(row * 4), 200));
    }
  }
}

TEST_F(BuildBgr, LaysOutputPixelsOnTheCentresOfSourcePixels) {
  const cv::Mat image = buildBgrFromOptrixTensor(makeRamp(40, 32), 20, 16);
  ASSERT_EQ(image.size(), cv::Size(20, 16));
  // Output pixel 5 covers source pixels 10 and 11, whose mean is 42.
  EXPECT_EQ(image.at<cv::Vec3b>(0, 5)[0], 42);
  EXPECT_EQ(image.at<cv::Vec3b>(5, 0)[1], 42);
}

TEST_F(BuildBgr, RoundsHalvesUp) {
  const cv::Mat image = buildBgrFromOptrixTensor(makeRamp(40, 32, 1), 20, 16);
  EXPECT_EQ(image.at<cv::Vec3b>(7, 5), cv::Vec3b(11, 15, 200));  // means of 10.5 and 14.5
}

TEST_F(BuildBgr, ClearsTheLowestBitOfTheSizeAndHoldsItAtTwo) {
  EXPECT_EQ(buildBgrFromOptrixTensor(makeRamp(41, 31), 41, 31).size(), cv::Size(40, 30));
  EXPECT_EQ(buildBgrFromOptrixTensor(makeRamp(4, 4), 1, 1).size(), cv::Size(2, 2));
}

TEST_F(BuildBgr, IsEmptyWithoutAPictureOrASize) {
  EXPECT_TRUE(buildBgrFromOptrixTensor(nullptr, 8, 8).empty());
  EXPECT_TRUE(buildBgrFromOptrixTensor(makeRamp(8, 8), 0, 8).empty());
  EXPECT_TRUE(buildBgrFromOptrixTensor(makeRamp(8, 8), 8, -1).empty());
  EXPECT_TRUE(buildBgrFromOptrixTensor(OptrixPicture::withoutPixels(8, 8), 8, 8).empty());
}

TEST_F(BuildBgr, RefusesABatchThatIsNotAsAsked) {
  // Count, channels, height, width, data type, layout, whether there is data.
  const std::vector<std::int64_t> answers[] = {{2}, {1, 4}, {1, 3, 10}, {1, 3, 8, 10}, {1, 3, 8, 8, 0, 0, 0}};
  for (const auto& answer : answers) {
    ostrel::host_cuda::answer_call("getAffineBatchFloat32", 1, answer);
    EXPECT_TRUE(buildBgrFromOptrixTensor(makeRamp(8, 8), 8, 8).empty()) << answer.size();
  }
  EXPECT_FALSE(buildBgrFromOptrixTensor(makeRamp(8, 8), 8, 8).empty());
}

TEST_F(BuildBgr, IsEmptyWhenADeviceCallFails) {
  for (const char* call : {"getAffineBatchFloat32", "cudaEventSynchronize", "cudaMemcpy"}) {
    const auto picture = makeRamp(8, 8);
    ostrel::host_cuda::fail_call(call, 1, cudaErrorInvalidValue);
    EXPECT_TRUE(buildBgrFromOptrixTensor(picture, 8, 8).empty()) << call;
    EXPECT_FALSE(buildBgrFromOptrixTensor(picture, 8, 8).empty()) << call;
  }
}

}  // namespace
