// The neck: what it does to features, against plain loops.
#include <calibration.h>
#include <crops.h>
#include <gmock/gmock.h>
#include <model_error.h>
#include <neck.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>

#include "platform/tensorrt_onednn/engine_fixture.h"
#include "support/temporary_folder.h"

namespace ostrel::testing {
namespace {

using backbone::Feature;
using backbone::FeaturePlanes;
using backbone::FeatureTrunk;
using backbone::NeckOptions;

constexpr int kSide = 32;
constexpr int kCrops = 12;
constexpr int kChannels = 6;
constexpr int kShallow = 8;  // channels of the small trunk's two stages
constexpr int kDeep = 16;
// Weights are kept as 32-bit floats; statistics were taken on features of that precision.
constexpr double kStatisticsTolerance = 1e-3;
constexpr double kFloatTolerance = 2e-3;  // outputs are about 1, behind 13 layers in 32-bit floats

// A trunk of two small stages, the second at half the side of the first.
FeatureTrunk trunk(Feature feature) {
  FeatureTrunk made;
  made.network = backbone::make_random_trunk(true, 1);
  made.feature = feature;
  return made;
}

const std::vector<cv::Mat>& crops() {
  static const std::vector<cv::Mat> kAll = backbone::crops_of_scenes(kCrops, kSide);
  return kAll;
}

FeaturePlanes planes_of(const cv::Mat& crop) {
  FeaturePlanes planes(3, crop.rows, crop.cols);
  for (int y = 0; y < crop.rows; ++y) {
    for (int x = 0; x < crop.cols; ++x) {
      for (int plane = 0; plane < 3; ++plane) {
        planes.plane(plane)[y * crop.cols + x] = crop.at<cv::Vec3b>(y, x)[2 - plane];
      }
    }
  }
  return planes;
}

struct OutputStatistics {
  std::vector<double> mean;
  std::vector<std::vector<double>> covariance;
  double norm = 0.0;
};

OutputStatistics measure(const FeatureTrunk& made) {
  std::vector<std::vector<double>> cells;
  for (const cv::Mat& crop : crops()) {
    const FeaturePlanes output = plain_output(made, planes_of(crop));
    for (std::size_t cell = 0; cell < output.plane_size(); ++cell) {
      std::vector<double> values;
      for (int channel = 0; channel < output.channels; ++channel)
        values.push_back(output.plane(channel)[cell]);
      cells.push_back(std::move(values));
    }
  }
  const std::size_t channels = cells.front().size();
  OutputStatistics found{std::vector<double>(channels), {}, 0.0};
  found.covariance.assign(channels, std::vector<double>(channels));
  for (const auto& cell : cells) {
    double square = 0.0;
    for (std::size_t i = 0; i < channels; ++i) {
      square += cell[i] * cell[i];
      found.mean[i] += cell[i] / static_cast<double>(cells.size());
      for (std::size_t k = 0; k < channels; ++k) {
        found.covariance[i][k] += cell[i] * cell[k] / static_cast<double>(cells.size());
      }
    }
    found.norm += std::sqrt(square) / static_cast<double>(cells.size());
  }
  return found;
}

FeatureTrunk with_neck(Feature feature, const NeckOptions& options) {
  FeatureTrunk made = trunk(feature);
  make_neck(options, crops(), &made);
  return made;
}

NeckOptions neck(double whitening, double shrink) {
  NeckOptions options;
  options.channels = kChannels;
  options.whitening = whitening;
  options.shrink = shrink;
  return options;
}

// Mean zero, channels that do not go together, and the wanted norm: joined or not, whitened or not.
TEST(Neck, DecorrelatesCentresAndScales) {
  for (const Feature feature : {Feature::kStage, Feature::kJoined}) {
    for (const double whitening : {0.0, 1.0}) {
      SCOPED_TRACE(static_cast<int>(feature) * 10 + static_cast<int>(whitening));
      const FeatureTrunk made = with_neck(feature, neck(whitening, 0.1));
      const OutputStatistics found = measure(made);
      EXPECT_NEAR(found.norm, backbone::kCellNorm, kStatisticsTolerance);
      ASSERT_EQ(found.mean.size(), static_cast<std::size_t>(kChannels));
      const double largest = found.covariance[0][0];
      for (std::size_t i = 0; i < kChannels; ++i) {
        EXPECT_NEAR(found.mean[i], 0.0, kStatisticsTolerance);
        for (std::size_t k = 0; k < i; ++k) {
          EXPECT_NEAR(found.covariance[i][k], 0.0, kStatisticsTolerance * largest) << i << " " << k;
        }
      }
    }
  }
}

TEST(Neck, GivesChannelsTheSpreadThatWasAskedFor) {
  const auto plain = measure(with_neck(Feature::kStage, neck(0.0, 0.0))).covariance;
  const auto half = measure(with_neck(Feature::kStage, neck(0.5, 0.0))).covariance;
  const auto full = measure(with_neck(Feature::kStage, neck(1.0, 0.0))).covariance;
  const auto shrunk = measure(with_neck(Feature::kStage, neck(1.0, 0.5))).covariance;
  const auto ratio = [](const auto& covariance) {
    return covariance[0][0] / covariance[kChannels - 1][kChannels - 1];
  };
  EXPECT_GT(ratio(plain), 3.0);  // leading directions first
  EXPECT_NEAR(ratio(half), std::sqrt(ratio(plain)), 0.01 * ratio(half));
  EXPECT_NEAR(ratio(full), 1.0, 0.01);
  EXPECT_GT(ratio(shrunk), 1.02);  // the weak ones are not blown up
  EXPECT_LT(ratio(shrunk), ratio(plain));
}

// What is joined is the concatenation of both stages, projected: by loops over all cells and channels.
TEST(Neck, OnJoinedStagesIsAProjectionOfTheirConcatenation) {
  const FeatureTrunk made = with_neck(Feature::kJoined, neck(1.0, 0.1));
  const FeaturePlanes picture = backbone::calibration_picture(kSide, 3);
  const FeaturePlanes both = plain_features(made, picture);
  ASSERT_EQ(both.channels, kShallow + kDeep);
  FeaturePlanes expected(kChannels, both.height, both.width);
  for (int out = 0; out < kChannels; ++out) {
    for (std::size_t cell = 0; cell < both.plane_size(); ++cell) {
      double sum = made.shallow_neck.bias[static_cast<std::size_t>(out)];
      for (int in = 0; in < both.channels; ++in) {
        const float weight = in < kShallow
                                 ? made.shallow_neck.weights[static_cast<std::size_t>(out * kShallow + in)]
                                 : made.neck.weights[static_cast<std::size_t>(out * kDeep + in - kShallow)];
        sum += weight * both.plane(in)[cell];
      }
      expected.plane(out)[cell] = sum;
    }
  }
  const FeaturePlanes output = plain_output(made, picture);
  for (std::size_t i = 0; i < expected.values.size(); ++i)
    ASSERT_NEAR(output.values[i], expected.values[i], 1e-9);
}

// Variance of all channels from `first` to `last` together.
double total_variance(const FeatureTrunk& made, int first, int last) {
  double total = 0.0;
  for (int channel = first; channel < last; ++channel) {
    double sum = 0.0;
    double squares = 0.0;
    double count = 0.0;
    for (const cv::Mat& crop : crops()) {
      const FeaturePlanes both = plain_features(made, planes_of(crop));
      for (std::size_t i = 0; i < both.plane_size(); ++i, ++count) {
        sum += both.plane(channel)[i];
        squares += both.plane(channel)[i] * both.plane(channel)[i];
      }
    }
    total += squares / count - sum / count * (sum / count);
  }
  return total;
}

double mean_square(const std::vector<float>& values) {
  double sum = 0.0;
  for (const float value : values) sum += static_cast<double>(value) * value;
  return sum / static_cast<double>(values.size());
}

// With all directions kept, a turn of the axes and one scale are left: what the stages were multiplied with shows in
// their weights alone.
TEST(Neck, BringsJoinedStagesToTheSameVariance) {
  NeckOptions options = neck(0.0, 0.0);
  options.channels = kShallow + kDeep;
  const FeatureTrunk made = with_neck(Feature::kJoined, options);
  const double shallow = total_variance(made, 0, kShallow);
  const double deep = total_variance(made, kShallow, kShallow + kDeep);
  ASSERT_GT(std::abs(std::log(deep / shallow)),
            0.2);  // they differ, so that there is something to bring about
  const double ratio = mean_square(made.shallow_neck.weights) / mean_square(made.neck.weights);
  EXPECT_NEAR(ratio, deep / shallow, kStatisticsTolerance * ratio);
}

// The deep stage's cell i lies on cell 2 i of the other; between them it goes straight; the last one is repeated.
TEST(JoinedFeatures, StretchTheDeepStageOverTheShallowOne) {
  const FeaturePlanes picture = backbone::calibration_picture(kSide, 3);
  const FeatureTrunk made = trunk(Feature::kJoined);
  const auto stages = backbone::run_trunk(made.network, picture);
  const FeaturePlanes both = plain_features(made, picture);
  const FeaturePlanes& deep = stages[1];
  const int last = deep.height - 1;
  ASSERT_EQ(both.height, 2 * deep.height);
  const auto at = [&](int channel, int y, int x) {
    return both.plane(kShallow + channel)[y * both.width + x];
  };
  const auto deep_at = [&](int channel, int y, int x) { return deep.plane(channel)[y * deep.width + x]; };
  for (int channel = 0; channel < kDeep; ++channel) {
    ASSERT_EQ(at(channel, 0, 0), deep_at(channel, 0, 0));
    ASSERT_EQ(at(channel, 2, 4), deep_at(channel, 1, 2));
    ASSERT_NEAR(at(channel, 2, 3), (deep_at(channel, 1, 1) + deep_at(channel, 1, 2)) / 2, 1e-12);
    ASSERT_NEAR(at(channel, 1, 0), (deep_at(channel, 0, 0) + deep_at(channel, 1, 0)) / 2, 1e-12);
    ASSERT_EQ(at(channel, 2 * last + 1, 2 * last + 1), deep_at(channel, last, last));
  }
  for (int channel = 0; channel < kShallow; ++channel) {
    for (std::size_t i = 0; i < both.plane_size(); ++i) {
      ASSERT_EQ(both.plane(channel)[i], stages[0].plane(channel)[i]);
    }
  }
}

TEST(Neck, RunsInTheEngineAsInPlainLoops) {
  const FeaturePlanes picture = backbone::calibration_picture(kSide, 3);
  Tensor input{{1, 3, kSide, kSide}, {}};
  for (const double value : picture.values) input.values.push_back(static_cast<float>(value));
  for (const Feature feature : {Feature::kStage, Feature::kJoined}) {
    const FeatureTrunk made = with_neck(feature, neck(1.0, 0.1));
    OnnxModelBuilder model("neck");
    backbone::FeatureModelOptions options;
    options.input_size = kSide;
    write_feature_model(made, options, &model);
    const auto found = run_model(model.bytes(), {input});
    const FeaturePlanes expected = plain_output(made, picture);
    ASSERT_EQ(found.size(), 1U);
    const int side = output_side(made, kSide);
    Tensor wanted{{1, kChannels, side, side}, {}};
    for (const double value : expected.values) wanted.values.push_back(static_cast<float>(value));
    expect_near(found[0], wanted, kFloatTolerance);
  }
}

TEST(Neck, IsTheSameForTheSameCrops) {
  EXPECT_EQ(with_neck(Feature::kStage, neck(1.0, 0.1)).neck.weights,
            with_neck(Feature::kStage, neck(1.0, 0.1)).neck.weights);
}

std::string neck_refusal(int channels, const std::vector<cv::Mat>& pictures) {
  FeatureTrunk made = trunk(Feature::kStage);
  NeckOptions options;
  options.channels = channels;
  try {
    make_neck(options, pictures, &made);
  } catch (const backbone::ModelError& failure) {
    return failure.what();
  }
  return "taken";
}

TEST(Neck, IsRefusedWithAReason) {
  EXPECT_EQ(neck_refusal(17, crops()), "a neck of 17 channels does not fit 16 features");
  EXPECT_EQ(neck_refusal(4, {}),
            "0 cells are too few for a neck on 16 features; give more crops (at least 64 cells)");
  EXPECT_EQ(neck_refusal(4, {crops().front()(cv::Rect(0, 0, 20, 20))}),
            "25 cells are too few for a neck on 16 features; give more crops (at least 64 cells)");
  EXPECT_EQ(neck_refusal(4, {cv::Mat(64, 64, CV_8UC3, cv::Scalar::all(0))}),
            "taken");  // the border makes cells differ
}

// A trunk whose features are the same everywhere.
TEST(Neck, IsRefusedWhereNothingVaries) {
  FeatureTrunk made = trunk(Feature::kStage);
  for (auto& block : made.network.stages.back().blocks) {
    for (auto* layer : {&block.first, &block.second, &block.shortcut}) {
      std::fill(layer->weights.begin(), layer->weights.end(), 0.0F);
    }
  }
  NeckOptions options;
  options.channels = 4;
  EXPECT_THROW(make_neck(options, crops(), &made), backbone::ModelError);
}

TEST(Neck, TellsHowMuchOfTheVarianceItKeeps) {
  FeatureTrunk made = trunk(Feature::kStage);
  NeckOptions options;
  options.channels = kDeep;
  const auto whole = make_neck(options, crops(), &made);
  EXPECT_NEAR(whole.kept_variance, 1.0, 1e-9);
  EXPECT_EQ(whole.cells, static_cast<std::size_t>(kCrops) * 8 * 8);
  options.channels = 2;
  const auto few = make_neck(options, crops(), &made);
  EXPECT_LT(few.kept_variance, 0.9);
  EXPECT_GT(few.kept_variance, 2.0 / kDeep);  // the leading ones
}

TEST(Crops, OfScenesAreTheSameEachTimeAndDifferFromEachOther) {
  const auto first = backbone::crops_of_scenes(6, 48);
  const auto second = backbone::crops_of_scenes(6, 48);
  ASSERT_EQ(first.size(), 6U);
  for (std::size_t i = 0; i < first.size(); ++i) {
    EXPECT_EQ(first[i].size(), cv::Size(48, 48));
    EXPECT_EQ(cv::norm(first[i], second[i]), 0.0);
    EXPECT_GT(cv::norm(first[i], first[(i + 1) % first.size()]), 0.0);
  }
}

// A folder tree with two pictures, one red and one blue.
struct PictureFolder : ostrel_test::TemporaryFolder {
  PictureFolder() {
    std::filesystem::create_directory(path("b"));
    cv::imwrite(path("a.png"), cv::Mat(60, 90, CV_8UC3, cv::Scalar(0, 0, 200)));
    cv::imwrite(path("b/c.PNG"), cv::Mat(90, 60, CV_8UC3, cv::Scalar(200, 0, 0)));
  }
};

TEST(Crops, OfAFolderComeEvenlyFromItsPictures) {
  const PictureFolder pictures;
  const auto found = backbone::crops_of_folder(pictures.path().string(), 4, 32);
  ASSERT_EQ(found.size(), 4U);
  EXPECT_EQ(found[0].at<cv::Vec3b>(5, 5), cv::Vec3b(0, 0, 200));
  EXPECT_EQ(found[1].at<cv::Vec3b>(5, 5), cv::Vec3b(0, 0, 200));
  EXPECT_EQ(found[2].at<cv::Vec3b>(5, 5), cv::Vec3b(200, 0, 0));
  EXPECT_EQ(found[3].at<cv::Vec3b>(5, 5), cv::Vec3b(200, 0, 0));
}

std::string crops_refusal(const std::string& folder) {
  try {
    backbone::crops_of_folder(folder, 4, 32);
  } catch (const backbone::ModelError& failure) {
    return failure.what();
  }
  return "taken";
}

TEST(Crops, OfAFolderWithoutPicturesAreRefused) {
  const PictureFolder pictures;
  const std::string folder = pictures.path().string();
  EXPECT_EQ(crops_refusal(folder + "/none"),
            "cannot read the folder " + folder + "/none: No such file or directory");
  std::ofstream(folder + "/a.png") << "no picture";
  EXPECT_EQ(crops_refusal(folder), "cannot read the picture " + folder + "/a.png");
  std::filesystem::remove_all(folder + "/b");
  std::filesystem::remove(folder + "/a.png");
  EXPECT_EQ(crops_refusal(folder), "the folder " + folder + " holds no pictures");
}

}  // namespace
}  // namespace ostrel::testing
