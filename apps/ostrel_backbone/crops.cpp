#include "crops.h"

#include <ostrel_scene/scene.h>

#include <algorithm>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "model_error.h"
#include "random_normal.h"

namespace ostrel::backbone {
namespace {

constexpr std::uint32_t kSeed = 20;
constexpr double kSmallestShare = 0.25;  // of the picture's shorter side
constexpr int kCropsPerScene = 4;

cv::Mat random_crop(const cv::Mat& picture, int side, RandomNormal* random) {
  const int shorter = std::min(picture.rows, picture.cols);
  const double share = kSmallestShare + (1.0 - kSmallestShare) * random->uniform();
  const int size = std::max(1, static_cast<int>(shorter * share));
  const cv::Rect place(random->below(picture.cols - size + 1), random->below(picture.rows - size + 1), size,
                       size);
  cv::Mat crop;
  cv::resize(picture(place), crop, {side, side}, 0.0, 0.0, size > side ? cv::INTER_AREA : cv::INTER_LINEAR);
  return crop;
}

bool is_picture(const std::filesystem::directory_entry& entry) {
  if (!entry.is_regular_file()) return false;
  std::string extension = entry.path().extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  static const char* const kKnown[] = {".jpg", ".jpeg", ".png", ".bmp", ".ppm", ".tif", ".tiff", ".webp"};
  return std::any_of(std::begin(kKnown), std::end(kKnown),
                     [&](const char* known) { return extension == known; });
}

std::vector<std::string> picture_files(const std::string& folder) {
  std::error_code failure;
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, failure)) {
    if (is_picture(entry)) files.push_back(entry.path().string());
  }
  if (failure) throw ModelError("cannot read the folder " + folder + ": " + failure.message());
  if (files.empty()) throw ModelError("the folder " + folder + " holds no pictures");
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

std::vector<cv::Mat> crops_of_folder(const std::string& folder, int count, int side) {
  const std::vector<std::string> files = picture_files(folder);
  RandomNormal random(kSeed);
  std::vector<cv::Mat> crops;
  for (int i = 0; i < count; ++i) {
    const std::size_t place = static_cast<std::size_t>(i) * files.size() / static_cast<std::size_t>(count);
    const cv::Mat picture = cv::imread(files[place], cv::IMREAD_COLOR);
    if (picture.empty()) throw ModelError("cannot read the picture " + files[place]);
    crops.push_back(random_crop(picture, side, &random));
  }
  return crops;
}

std::vector<cv::Mat> crops_of_scenes(int count, int side) {
  RandomNormal random(kSeed);
  std::vector<cv::Mat> crops;
  for (int i = 0; i < count; i += kCropsPerScene) {
    ostrel_scene::SceneOptions options;
    options.seed = kSeed + static_cast<std::uint32_t>(i);
    const ostrel_scene::Scene scene(options);
    for (int k = i; k < std::min(count, i + kCropsPerScene); ++k) {
      crops.push_back(random_crop(scene.render(random.below(options.frames)).image, side, &random));
    }
  }
  return crops;
}

}  // namespace ostrel::backbone
