#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <limits>

#include "platform/optrix/reference_picture.h"

namespace {

using optrix::AffineCrop;
using optrix::ColorOrder;
using optrix::NormPreset;
using optrix::OptrixPicture;
using optrix_test::downloaded;
using optrix_test::resample;

// Grey levels: float coordinates of a few hundred pixels carry 2^-15 px, times slopes of up to 255 a pixel
// and the gain of the colour matrix.
constexpr double kTolerance = 0.05;

void expect_near(const std::vector<float>& values, const std::vector<double>& reference) {
  ASSERT_EQ(values.size(), reference.size());
  double worst = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double difference = std::abs(values[i] - reference[i]);
    worst = difference <= worst ? worst : difference;  // a NaN takes over
  }
  EXPECT_LT(worst, kTolerance);
}

struct Shape {
  int width, height, out_width, out_height;
  const char* why;
};

const Shape kShapes[] = {
    {320, 180, 96, 96, "an ordinary frame"}, {1, 1, 8, 8, "one pixel"},
    {2, 2, 5, 3, "a single chroma sample"},  {3, 5, 7, 9, "odd sides"},
    {641, 359, 33, 65, "odd and large"},     {64, 48, 1, 1, "one output pixel"},
};

std::vector<AffineCrop> random_crops(const Shape& shape, int count, std::mt19937& random) {
  const auto between = [&](float low, float high) {
    return std::uniform_real_distribution<float>(low, high)(random);
  };
  const float width = static_cast<float>(shape.width), height = static_cast<float>(shape.height);
  std::vector<AffineCrop> crops;
  for (int i = 0; i < count; ++i) {
    crops.push_back(
        {between(-width, width), between(-height, height), between(0.1F, 3.0F), between(0.1F, 3.0F)});
  }
  return crops;
}

// Every test runs with the plain kernels and with their tuned host form.
class AffineBatch : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ostrel::host_cuda::set_tuned_kernels(GetParam()); }
  void TearDown() override {
    ostrel::host_cuda::set_tuned_kernels(tuned_at_start_);
    null_stream_.expect_nothing_new();
  }

  std::mt19937 random_{7};

 private:
  bool tuned_at_start_ = ostrel::host_cuda::tuned_kernels();
  ostrel_test::NullStreamWatch null_stream_;
};

INSTANTIATE_TEST_SUITE_P(Kernels, AffineBatch, testing::Values(false, true),
                         [](const auto& kind) { return kind.param ? "Tuned" : "Plain"; });

TEST_P(AffineBatch, ReadsNv12AsThePlainLoops) {
  for (const Shape& shape : kShapes) {
    SCOPED_TRACE(shape.why);
    const auto image = optrix_test::random_nv12(shape.width, shape.height, random_);
    const auto picture = OptrixPicture::fromNv12(image.view());
    ASSERT_NE(picture, nullptr);
    const auto crops = random_crops(shape, 3, random_);
    const auto batch = resample(*picture, crops, shape.out_width, shape.out_height);
    expect_near(downloaded(batch), reference_batch(image, crops, shape.out_width, shape.out_height));
  }
}

TEST_P(AffineBatch, ReadsBgrAsThePlainLoops) {
  for (const Shape& shape : kShapes) {
    SCOPED_TRACE(shape.why);
    const auto image = optrix_test::random_bgr(shape.width, shape.height, random_);
    const auto picture = OptrixPicture::fromBgr(image.view(), optrix::PixelFormat::kBgr);
    ASSERT_NE(picture, nullptr);
    const auto crops = random_crops(shape, 3, random_);
    const auto batch = resample(*picture, crops, shape.out_width, shape.out_height);
    expect_near(downloaded(batch), reference_batch(image, crops, shape.out_width, shape.out_height));
  }
}

TEST_P(AffineBatch, MirrorsWithANegativeScale) {
  const auto image = optrix_test::random_bgr(40, 30, random_);
  const auto picture = OptrixPicture::fromBgr(image.view(), optrix::PixelFormat::kBgr);
  const std::vector<AffineCrop> crops{{39.0F, 29.0F, -1.0F, -1.0F}};
  expect_near(downloaded(resample(*picture, crops, 40, 30)), reference_batch(image, crops, 40, 30));
}

TEST_P(AffineBatch, SplitsLongListsOfCropsWithoutAGap) {
  const auto image = optrix_test::random_nv12(50, 40, random_);
  const auto picture = OptrixPicture::fromNv12(image.view());
  const auto crops = random_crops({50, 40, 6, 5, ""}, 37, random_);
  const auto batch = resample(*picture, crops, 6, 5);
  EXPECT_EQ(batch.count, 37);
  expect_near(downloaded(batch), reference_batch(image, crops, 6, 5));
}

TEST_P(AffineBatch, SwapsPlanesForBgrOrder) {
  const auto image = optrix_test::random_nv12(32, 32, random_);
  const auto picture = OptrixPicture::fromNv12(image.view());
  const std::vector<AffineCrop> crops{{0.3F, 0.7F, 1.1F, 0.9F}};
  bool ok = false;
  const auto bgr = downloaded(
      picture->getAffineBatchFloat32(crops, 8, 8, ColorOrder::kBgr, NormPreset::kByteRange, false, &ok));
  ASSERT_TRUE(ok);
  const auto rgb = downloaded(resample(*picture, crops, 8, 8));
  for (std::size_t i = 0; i < 64; ++i) {
    EXPECT_EQ(bgr[i], rgb[128 + i]);
    EXPECT_EQ(bgr[64 + i], rgb[64 + i]);
    EXPECT_EQ(bgr[128 + i], rgb[i]);
  }
}

TEST_P(AffineBatch, ScalesToOneForTheUnitPreset) {
  const auto image = optrix_test::random_nv12(32, 32, random_);
  const auto picture = OptrixPicture::fromNv12(image.view());
  const std::vector<AffineCrop> crops{{0.0F, 0.0F, 1.0F, 1.0F}};
  bool ok = false;
  const auto unit = downloaded(
      picture->getAffineBatchFloat32(crops, 16, 16, ColorOrder::kRgb, NormPreset::kUnit, false, &ok));
  ASSERT_TRUE(ok);
  const auto bytes = downloaded(resample(*picture, crops, 16, 16));
  for (std::size_t i = 0; i < unit.size(); ++i) EXPECT_NEAR(unit[i], bytes[i] / 255, 1e-6);
}

TEST_P(AffineBatch, StaysInsideThePictureForCoordinatesThatAreNoNumbers) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float infinity = std::numeric_limits<float>::infinity();
  const auto image = optrix_test::random_bgr(9, 7, random_);
  const auto picture = OptrixPicture::fromBgr(image.view(), optrix::PixelFormat::kBgr);
  const std::vector<AffineCrop> crops{
      {nan, nan, 1.0F, 1.0F}, {infinity, -infinity, 1.0F, 1.0F}, {1e30F, -1e30F, 1e30F, 1e30F}};
  const auto values = downloaded(resample(*picture, crops, 2, 2));
  const auto red = [&](int x, int y) {
    return static_cast<float>(image.bytes[static_cast<std::size_t>(3 * (9 * y + x) + 2)]);
  };
  EXPECT_EQ(values[0], red(0, 0));
  EXPECT_EQ(values[12], red(8, 0));
  EXPECT_EQ(values[24], red(8, 0));
}

TEST_P(AffineBatch, DescribesTheTensor) {
  const auto picture = OptrixPicture::fromNv12(optrix_test::random_nv12(16, 12, random_).view());
  const auto batch = resample(*picture, {{0, 0, 1, 1}, {0, 0, 2, 2}}, 5, 3);
  EXPECT_EQ(batch.count, 2);
  EXPECT_EQ(batch.channels, 3);
  EXPECT_EQ(batch.height, 3);
  EXPECT_EQ(batch.width, 5);
  EXPECT_EQ(batch.bytes, 2u * 3 * 3 * 5 * sizeof(float));
  EXPECT_EQ(static_cast<int>(batch.dtype), 0);
  EXPECT_EQ(static_cast<int>(batch.layout), 0);
  EXPECT_NE(batch.ready_event, nullptr);
  EXPECT_TRUE(ostrel::host_cuda::is_device_pointer(batch.data, batch.bytes));
}

TEST_P(AffineBatch, RoundTripsFlatColoursThroughNv12) {
  const struct {
    std::uint8_t blue, green, red;
  } colours[] = {{0, 0, 0},   {255, 255, 255}, {128, 128, 128}, {0, 0, 255},
                 {0, 255, 0}, {255, 0, 0},     {30, 90, 200}};
  for (const auto& colour : colours) {
    optrix_test::BgrImage image{6, 5, {}};
    for (int i = 0; i < 30; ++i)
      image.bytes.insert(image.bytes.end(), {colour.blue, colour.green, colour.red});
    const auto picture = OptrixPicture::fromBgr(image.view());
    const auto values = downloaded(resample(*picture, {{0, 0, 1, 1}}, 6, 5));
    // Limited range keeps 220 luma and 225 chroma levels: half a level is worth up to 1.6 grey levels.
    for (std::size_t i = 0; i < 30; ++i) {
      EXPECT_NEAR(values[i], colour.red, 1.7);
      EXPECT_NEAR(values[30 + i], colour.green, 1.7);
      EXPECT_NEAR(values[60 + i], colour.blue, 1.7);
    }
  }
}

TEST(AffineBatchRefusals, AnswersFalseAndAnEmptyBatch) {
  std::mt19937 random(3);
  const auto picture = OptrixPicture::fromNv12(optrix_test::random_nv12(16, 12, random).view());
  const std::vector<AffineCrop> one{{0, 0, 1, 1}};
  const struct {
    std::vector<AffineCrop> crops;
    int width, height;
    ColorOrder order;
    NormPreset preset;
    bool flag;
    const char* why;
  } rows[] = {
      {{}, 4, 4, ColorOrder::kRgb, NormPreset::kByteRange, false, "no crop"},
      {one, 0, 4, ColorOrder::kRgb, NormPreset::kByteRange, false, "no width"},
      {one, 4, -1, ColorOrder::kRgb, NormPreset::kByteRange, false, "negative height"},
      {one, 4, 4, ColorOrder::kRgb, NormPreset::kByteRange, true, "the reserved flag"},
      {one, 4, 4, static_cast<ColorOrder>(2), NormPreset::kByteRange, false, "an unknown order"},
      {one, 4, 4, ColorOrder::kRgb, static_cast<NormPreset>(2), false, "an unknown preset"},
      {one, 65536, 65536, ColorOrder::kRgb, NormPreset::kByteRange, false, "more values than 32 bits count"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.why);
    bool ok = true;
    const auto batch = picture->getAffineBatchFloat32(row.crops, row.width, row.height, row.order, row.preset,
                                                      row.flag, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(batch.data, nullptr);
    EXPECT_EQ(batch.count, 0);
    EXPECT_EQ(batch.ready_event, nullptr);
  }
  EXPECT_NE(resample(*picture, one, 4, 4).data, nullptr);
}

TEST(AffineBatchRefusals, ToleratesANullResultFlag) {
  std::mt19937 random(3);
  const auto picture = OptrixPicture::fromNv12(optrix_test::random_nv12(16, 12, random).view());
  EXPECT_NE(picture
                ->getAffineBatchFloat32({{0, 0, 1, 1}}, 4, 4, ColorOrder::kRgb, NormPreset::kByteRange, false,
                                        nullptr)
                .data,
            nullptr);
}

}  // namespace
