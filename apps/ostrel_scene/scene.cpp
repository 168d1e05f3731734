#include "scene.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "texture.h"

namespace ostrel_scene {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kTurn = 2.0 * kPi;

// The target's mean side as a share of the frame's smaller side, and how far zoom and tilt go.
constexpr double kTargetShare = 0.2;
constexpr double kZoomAmplitude = 0.2;
constexpr double kTilt_deg = 5.0;
// The way of the target as a share of the room that the frame leaves it.
constexpr double kWayShare = 0.78;
// Frames for one round of each motion; unrelated lengths keep the motions from repeating together.
constexpr double kRoundX = 240.0, kRoundY = 166.0, kRoundZoom = 140.0, kRoundTilt = 90.0, kRoundPan = 260.0,
                 kRoundBlur = 64.0;
constexpr double kMildestBlur_px = 0.5, kStrongestBlur_px = 1.1;
constexpr double kNoise = 2.5;  // standard deviation, grey levels

constexpr int kTargetCells = 6;
constexpr int kTargetTexture_px = 192;
constexpr int kPan_px = 48;

constexpr double kOcclusionAt = 0.55;     // of the clip
constexpr double kPostWidthShare = 1.15;  // of the target
constexpr double kFramesPastTarget = 12.0;

double wave(int frame, double round, double phase) {
  return std::sin(kTurn * frame / round + phase);
}

double phase_of(std::uint32_t seed, std::uint32_t salt) {
  return kTurn * static_cast<double>((seed * 2654435761U + salt * 40503U) % 1024U) / 1024.0;
}

cv::Rect whole_pixels(const cv::Rect2d& box, const cv::Mat& image) {
  const cv::Point first(static_cast<int>(std::floor(box.x)), static_cast<int>(std::floor(box.y)));
  const cv::Point last(static_cast<int>(std::ceil(box.x + box.width)),
                       static_cast<int>(std::ceil(box.y + box.height)));
  return cv::Rect(first, last) & cv::Rect(0, 0, image.cols, image.rows);
}

}  // namespace

std::string why_invalid(const SceneOptions& options) {
  constexpr int kLargestSide_px = 8192;
  const int smaller = std::min(options.width_px, options.height_px);
  const int larger = std::max(options.width_px, options.height_px);
  if (smaller < kSmallestSide_px || larger > kLargestSide_px) {
    return "a scene's sides are " + std::to_string(kSmallestSide_px) + " to " +
           std::to_string(kLargestSide_px) + " pixels";
  }
  if (options.frames < 1) return "a scene has at least one frame";
  return {};
}

Scene::Scene(const SceneOptions& options)
    : options_(options),
      target_side_px_(kTargetShare * std::min(options.width_px, options.height_px)),
      phase_x_(phase_of(options.seed, 1)),
      phase_y_(phase_of(options.seed, 2)),
      background_(landscape_texture(cv::Size(options.width_px + 2 * kPan_px, options.height_px + 2 * kPan_px),
                                    options.seed)),
      target_texture_(patchwork_texture(kTargetTexture_px, kTargetCells, options.seed + 1)),
      post_texture_(landscape_texture(cv::Size(kTargetTexture_px, options.height_px), options.seed + 2)) {}

SceneFrame Scene::render(int frame) const {
  SceneFrame result;
  result.target_px = target_at(frame);
  draw_background(frame, result.image);
  draw_target(frame, result.target_px, result.image);
  draw_post(post_at(frame), result.image);
  result.hidden = hidden_at(frame);
  soften(frame, result.image);
  return result;
}

bool Scene::hidden_at(int frame) const {
  const cv::Rect2d target = target_at(frame);
  return (post_at(frame) & target).area() > 0.5 * target.area();
}

cv::Rect2d Scene::target_at(int frame) const {
  const double side = target_side_px_ * (1.0 + kZoomAmplitude * wave(frame, kRoundZoom, 0.0));
  const double room_x = 0.5 * (options_.width_px - side) * kWayShare;
  const double room_y = 0.5 * (options_.height_px - side) * kWayShare;
  const double centre_x = 0.5 * options_.width_px + room_x * wave(frame, kRoundX, phase_x_);
  const double centre_y = 0.5 * options_.height_px + room_y * wave(frame, kRoundY, phase_y_);
  return {centre_x - 0.5 * side, centre_y - 0.5 * side, side, side};
}

void Scene::draw_background(int frame, cv::Mat& image) const {
  const double pan_x = kPan_px * (1.0 + 0.95 * wave(frame, kRoundPan, phase_y_));
  const double pan_y = kPan_px * (1.0 + 0.95 * wave(frame, 1.3 * kRoundPan, phase_x_));
  const cv::Matx23d shift(1, 0, -pan_x, 0, 1, -pan_y);
  cv::warpAffine(background_, image, shift, cv::Size(options_.width_px, options_.height_px), cv::INTER_LINEAR,
                 cv::BORDER_REFLECT_101);
}

void Scene::draw_target(int frame, const cv::Rect2d& box, cv::Mat& image) const {
  // The ground truth is the upright square; the tilted texture is a disc inside it with soft edges.
  const cv::Rect area = whole_pixels(box, image);
  const double scale = box.width / kTargetTexture_px;
  const double tilt_deg = kTilt_deg * wave(frame, kRoundTilt, phase_x_);
  const cv::Point2d centre(box.x + 0.5 * box.width - area.x - 0.5, box.y + 0.5 * box.height - area.y - 0.5);
  const cv::Point2d texture_centre(0.5 * kTargetTexture_px - 0.5, 0.5 * kTargetTexture_px - 0.5);
  cv::Mat turn = cv::getRotationMatrix2D(texture_centre, tilt_deg, scale);
  turn.at<double>(0, 2) += centre.x - texture_centre.x;
  turn.at<double>(1, 2) += centre.y - texture_centre.y;
  cv::Mat patch;
  cv::warpAffine(target_texture_, patch, turn, area.size(), cv::INTER_AREA, cv::BORDER_REPLICATE);

  const double half = 0.5 * box.width;
  cv::Mat window = image(area);
  for (int y = 0; y < area.height; ++y) {
    for (int x = 0; x < area.width; ++x) {
      // A square with rounded corners: the fourth-power norm.
      const double u = (x - centre.x) / half, v = (y - centre.y) / half;
      const double radius_px = std::pow(u * u * u * u + v * v * v * v, 0.25) * half;
      const double cover = std::clamp(half - radius_px + 0.5, 0.0, 1.0);
      const cv::Vec3d mixed = cover * cv::Vec3d(patch.at<cv::Vec3b>(y, x)) +
                              (1.0 - cover) * cv::Vec3d(window.at<cv::Vec3b>(y, x));
      for (int c = 0; c < 3; ++c) window.at<cv::Vec3b>(y, x)[c] = cv::saturate_cast<uchar>(mixed[c]);
    }
  }
}

// The post crosses the target's place of the middle frame at even speed, against the target's motion.
cv::Rect2d Scene::post_at(int frame) const {
  if (!options_.occlusion || options_.frames < kFramesForOcclusion) return {};
  const int middle = static_cast<int>(kOcclusionAt * options_.frames);
  const cv::Rect2d target = target_at(middle);
  const double width = kPostWidthShare * target.width;
  const double direction = target_at(middle + 1).x > target.x ? -1.0 : 1.0;
  const double speed = (width + target.width) / kFramesPastTarget;
  const double centre = target.x + 0.5 * target.width + direction * speed * (frame - middle);
  const cv::Rect2d post(centre - 0.5 * width, 0.0, width, options_.height_px);
  const bool in_frame = post.x < options_.width_px && post.x + post.width > 0.0;
  return in_frame ? post : cv::Rect2d();
}

void Scene::draw_post(const cv::Rect2d& post, cv::Mat& image) const {
  const cv::Rect area = whole_pixels(post, image);
  if (area.empty()) return;
  // The texture moves with the post.
  const cv::Matx23d placed(post.width / post_texture_.cols, 0, post.x - area.x, 0, 1, 0);
  cv::Mat window = image(area);
  cv::warpAffine(post_texture_, window, placed, area.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
}

void Scene::soften(int frame, cv::Mat& image) const {
  const double share = 0.5 * (1.0 + wave(frame, kRoundBlur, 0.0));
  const double sigma_px = kMildestBlur_px + share * (kStrongestBlur_px - kMildestBlur_px);
  cv::GaussianBlur(image, image, cv::Size(5, 5), sigma_px);
  cv::Mat noise(image.size(), CV_16SC3);
  cv::RNG generator((static_cast<std::uint64_t>(options_.seed) << 32) + static_cast<std::uint64_t>(frame) +
                    1);
  generator.fill(noise, cv::RNG::NORMAL, 0.0, kNoise);
  cv::add(image, noise, image, cv::noArray(), CV_8U);
}

}  // namespace ostrel_scene
