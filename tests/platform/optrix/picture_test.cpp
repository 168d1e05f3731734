#include "platform/optrix/reference_picture.h"

namespace {

using optrix::OptrixPicture;
using optrix::PixelFormat;
using optrix_test::downloaded;
using optrix_test::resample;
using Keys = OptrixPicture::BaseMetadata::Keys;

TEST(Picture, KeepsSizeTimeStampAndMetadata) {
  const auto picture = OptrixPicture::withoutPixels(1920, 1080);
  EXPECT_EQ(picture->width(), 1920);
  EXPECT_EQ(picture->height(), 1080);
  EXPECT_EQ(picture->getTimestamp(), 0u);
  EXPECT_TRUE(picture->baseMetadata().empty());
  picture->setTimestamp(0xffffffffffffffffULL);
  OptrixPicture::BaseMetadata metadata;
  metadata[Keys::kPanDeg] = 12.5;
  metadata[Keys::kFollowMeEnabledCommand] = std::int32_t{1};
  picture->setBaseMetadata(metadata);
  EXPECT_EQ(picture->getTimestamp(), 0xffffffffffffffffULL);
  EXPECT_EQ(std::get<double>(picture->baseMetadata().at("pan_deg")), 12.5);
}

TEST(Picture, NamesTheMetadataKeys) {
  EXPECT_STREQ(Keys::kPanDeg, "pan_deg");
  EXPECT_STREQ(Keys::kTiltDeg, "tilt_deg");
  EXPECT_STREQ(Keys::kHfovDeg, "hfov_deg");
  EXPECT_STREQ(Keys::kVfovDeg, "vfov_deg");
  EXPECT_STREQ(Keys::kFollowMeEnabledCommand, "lumenar.follow_me_enabled_command");
}

TEST(Picture, NumbersTheAlternativesOfAMetadataValue) {
  EXPECT_EQ(OptrixPicture::MetadataValue(std::int32_t{1}).index(), 1u);
  EXPECT_EQ(OptrixPicture::MetadataValue(std::int64_t{1}).index(), 2u);
  EXPECT_EQ(OptrixPicture::MetadataValue(1.0).index(), 3u);
}

TEST(Picture, WithoutPixelsTakesAnySizeAndRefusesToBeResampled) {
  for (const int size : {65536, 0, -1}) {
    const auto picture = OptrixPicture::withoutPixels(size, size);
    EXPECT_EQ(picture->width(), size);
    EXPECT_EQ(picture->format(), PixelFormat::kNone);
    bool ok = true;
    const auto batch = picture->getAffineBatchFloat32({{0, 0, 1, 1}}, 4, 4, optrix::ColorOrder::kRgb,
                                                      optrix::NormPreset::kByteRange, false, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(batch.data, nullptr);
  }
}

TEST(Picture, RefusesUnusableBgrPixelsWithTheReason) {
  const std::vector<std::uint8_t> bytes(300);
  const struct {
    optrix::HostBgr source;
    PixelFormat format;
    const char* error;
  } rows[] = {
      {{bytes.data(), 0, 10, 30}, PixelFormat::kNv12, "picture size is not positive"},
      {{bytes.data(), 10, -1, 30}, PixelFormat::kNv12, "picture size is not positive"},
      {{nullptr, 10, 10, 30}, PixelFormat::kNv12, "picture has no pixels"},
      {{bytes.data(), 10, 10, 29}, PixelFormat::kBgr, "stride is shorter than a row"},
      {{bytes.data(), 10, 10, 30}, PixelFormat::kNone, "picture format has no pixels"},
  };
  for (const auto& row : rows) {
    std::string error;
    EXPECT_EQ(OptrixPicture::fromBgr(row.source, row.format, &error), nullptr);
    EXPECT_EQ(error, row.error);
  }
}

TEST(Picture, RefusesUnusableNv12PixelsWithTheReason) {
  const std::vector<std::uint8_t> bytes(300);
  const struct {
    optrix::HostNv12 source;
    const char* error;
  } rows[] = {
      {{bytes.data(), bytes.data(), -3, 4, 10, 10}, "picture size is not positive"},
      {{nullptr, bytes.data(), 9, 4, 10, 10}, "picture has no pixels"},
      {{bytes.data(), nullptr, 9, 4, 10, 10}, "picture has no pixels"},
      {{bytes.data(), bytes.data(), 9, 4, 8, 10}, "stride is shorter than a row"},
      {{bytes.data(), bytes.data(), 9, 4, 9, 9}, "stride is shorter than a row"},
  };
  for (const auto& row : rows) {
    std::string error;
    EXPECT_EQ(OptrixPicture::fromNv12(row.source, &error), nullptr);
    EXPECT_EQ(error, row.error);
  }
}

TEST(Picture, ReadsPaddedRows) {
  std::mt19937 random(5);
  const auto tight = optrix_test::random_nv12(6, 4, random);
  optrix_test::Nv12Image padded{6, 4, std::vector<std::uint8_t>(4 * 11, 77),
                                std::vector<std::uint8_t>(2 * 9, 77)};
  for (int y = 0; y < 4; ++y)
    std::copy_n(&tight.luma[static_cast<std::size_t>(y * 6)], 6,
                &padded.luma[static_cast<std::size_t>(y * 11)]);
  for (int y = 0; y < 2; ++y)
    std::copy_n(&tight.chroma[static_cast<std::size_t>(y * 6)], 6,
                &padded.chroma[static_cast<std::size_t>(y * 9)]);
  const auto a = OptrixPicture::fromNv12(tight.view());
  const auto b = OptrixPicture::fromNv12({padded.luma.data(), padded.chroma.data(), 6, 4, 11, 9});
  const std::vector<optrix::AffineCrop> whole{{0, 0, 1, 1}};
  EXPECT_EQ(downloaded(resample(*a, whole, 6, 4)), downloaded(resample(*b, whole, 6, 4)));
}

// Luma and chroma of BT.709 in double precision, chroma as the mean over the pixels of a 2 x 2 block.
optrix_test::Nv12Image reference_nv12(const optrix_test::BgrImage& image) {
  optrix_test::Nv12Image result{image.width, image.height, {}, {}};
  const auto channel = [&](int x, int y, int c) {
    return static_cast<double>(image.bytes[static_cast<std::size_t>(3 * (y * image.width + x) + c)]);
  };
  for (int y = 0; y < image.height; ++y) {
    for (int x = 0; x < image.width; ++x) {
      const double luma = 0.2126 * channel(x, y, 2) + 0.7152 * channel(x, y, 1) + 0.0722 * channel(x, y, 0);
      result.luma.push_back(static_cast<std::uint8_t>(std::lround(16 + luma * 219 / 255)));
    }
  }
  for (int y = 0; y < image.height; y += 2) {
    for (int x = 0; x < image.width; x += 2) {
      double blue = 0, green = 0, red = 0, pixels = 0;
      for (int v = y; v < std::min(y + 2, image.height); ++v) {
        for (int u = x; u < std::min(x + 2, image.width); ++u, ++pixels) {
          blue += channel(u, v, 0);
          green += channel(u, v, 1);
          red += channel(u, v, 2);
        }
      }
      const double luma = (0.2126 * red + 0.7152 * green + 0.0722 * blue) / pixels;
      const double cb = (blue / pixels - luma) / (2 * (1 - 0.0722)),
                   cr = (red / pixels - luma) / (2 * (1 - 0.2126));
      result.chroma.push_back(static_cast<std::uint8_t>(std::lround(128 + cb * 224 / 255)));
      result.chroma.push_back(static_cast<std::uint8_t>(std::lround(128 + cr * 224 / 255)));
    }
  }
  return result;
}

TEST(Picture, ConvertsBgrToLimitedRangeNv12) {
  std::mt19937 random(11);
  for (const auto& [width, height] : {std::pair{32, 20}, {33, 21}, {1, 1}, {1, 4}, {5, 1}}) {
    const auto image = optrix_test::random_bgr(width, height, random);
    const auto converted = OptrixPicture::fromBgr(image.view());
    const auto expected = OptrixPicture::fromNv12(reference_nv12(image).view());
    ASSERT_NE(converted, nullptr);
    EXPECT_EQ(converted->format(), PixelFormat::kNv12);
    const std::vector<optrix::AffineCrop> whole{{0, 0, 1, 1}};
    const auto a = downloaded(resample(*converted, whole, width, height));
    const auto b = downloaded(resample(*expected, whole, width, height));
    // Fixed-point weights may round a tie the other way: one level of luma or chroma.
    for (std::size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], 2.2);
  }
}

}  // namespace
