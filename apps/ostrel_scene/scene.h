// A rendered scene with ground truth: a textured target that moves and zooms over a textured background, seen by
// a slowly panning camera, slightly blurred and noisy, and hidden once for a few frames by a passing post.
//
// A scene is a pure function of its options: the same seed gives the same pixels on every machine with the same
// OpenCV, and frames may be rendered in any order.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>

namespace ostrel_scene {

struct SceneOptions {
  int width_px = 640;
  int height_px = 360;
  int frames = 240;
  std::uint32_t seed = 1;
  bool occlusion =
      true;  // the post passes at 55 % of the clip, if that has at least kFramesForOcclusion frames
};

constexpr int kSmallestSide_px = 64;
constexpr int kFramesForOcclusion = 60;

struct SceneFrame {
  cv::Mat image;         // 8 bits, blue, green, red
  cv::Rect2d target_px;  // where the target is, hidden or not; wholly inside the frame
  bool hidden = false;   // the post covers more than half of the target
};

class Scene {
 public:
  // The options must satisfy why_invalid().
  explicit Scene(const SceneOptions& options);

  const SceneOptions& options() const { return options_; }
  SceneFrame render(int frame) const;

  // The ground truth without the pixels.
  cv::Rect2d target_at(int frame) const;
  bool hidden_at(int frame) const;

 private:
  void draw_background(int frame, cv::Mat& image) const;
  void draw_target(int frame, const cv::Rect2d& box, cv::Mat& image) const;
  cv::Rect2d post_at(int frame) const;
  void draw_post(const cv::Rect2d& post, cv::Mat& image) const;
  void soften(int frame, cv::Mat& image) const;

  SceneOptions options_;
  double target_side_px_;
  double phase_x_;
  double phase_y_;
  cv::Mat background_;
  cv::Mat target_texture_;
  cv::Mat post_texture_;
};

// Empty for usable options, else what is wrong with them.
std::string why_invalid(const SceneOptions& options);

}  // namespace ostrel_scene
