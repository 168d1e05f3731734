#include "demo_camera.h"

#include <cmath>

#include "bad_input.h"

namespace ostrel_host {
namespace {

// Where the target first stands, in shares of the view from its middle to the right and downwards.
constexpr double kStartRight = 0.28;
constexpr double kStartDown = 0.22;

cv::Size picture_of(const ostrel_scene::World& world) {
  return {world.options().width_px, world.options().height_px};
}

ostrel_scene::Direction first_direction(const ostrel_scene::World& world) {
  const ostrel_scene::Direction target = world.direction_to_target(0.0);
  const double vfov_deg = vertical_field_of_view_deg(kWideHfov_deg, picture_of(world));
  return {target.pan_deg - kStartRight * kWideHfov_deg, target.tilt_deg + kStartDown * vfov_deg};
}

}  // namespace

DemoCamera::DemoCamera(const ostrel_scene::World& world, std::uint64_t seed)
    : world_(world),
      gimbal_(first_direction(world), kWideHfov_deg, picture_of(world), GimbalLimits{}, seed),
      zoom_(plan_zoom(world.events())) {}

DemoCamera::Shot DemoCamera::film(std::size_t index) {
  const double time_s = static_cast<double>(index) / kDemoFrameRate;
  const ostrel_scene::CameraView view = gimbal_.view();
  Shot shot;
  shot.view = gimbal_.read();
  shot.truth = world_.target(time_s, view);
  shot.frame.image = world_.render(time_s, view);
  shot.frame.timestamp_ns = static_cast<std::uint64_t>(std::llround(time_s * 1e9));
  shot.frame.view =
      ViewMetadata{shot.view.pan_deg, shot.view.tilt_deg, shot.view.hfov_deg, shot.view.vfov_deg, true};
  return shot;
}

void DemoCamera::advance(double now_s) {
  if (zoom_) gimbal_.zoom_to(now_s >= zoom_->in_s && now_s < zoom_->out_s ? kTeleHfov_deg : kWideHfov_deg);
  gimbal_.advance(1.0 / kDemoFrameRate);
}

BBox start_region(const ostrel_scene::TargetTruth& truth, cv::Size picture_px) {
  const cv::Rect box(cv::Point(cvRound(truth.box_px.x), cvRound(truth.box_px.y)),
                     cv::Point(cvRound(truth.box_px.br().x), cvRound(truth.box_px.br().y)));
  const cv::Rect inside = box & cv::Rect(cv::Point(), picture_px);
  if (inside.empty()) throw BadInput("the target is not in the first view");
  return {inside.x, inside.y, inside.width, inside.height};
}

}  // namespace ostrel_host
