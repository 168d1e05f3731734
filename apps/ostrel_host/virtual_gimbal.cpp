#include "virtual_gimbal.h"

#include <algorithm>
#include <cmath>

namespace ostrel_host {
namespace {

constexpr double kStep_s = 0.005;      // of the motion's integration
constexpr double kBrakingShare = 0.8;  // of the acceleration, so that the brake never comes too late
constexpr double kArrived_deg = 0.005;

double radians(double degrees) {
  return degrees * CV_PI / 180.0;
}

}  // namespace

double vertical_field_of_view_deg(double hfov_deg, cv::Size picture_px) {
  const double half = std::tan(radians(0.5 * hfov_deg)) * picture_px.height / picture_px.width;
  return 2.0 * std::atan(half) * 180.0 / CV_PI;
}

double wrapped_deg(double angle_deg) {
  const double turned = std::fmod(angle_deg + 180.0, 360.0);
  return (turned < 0.0 ? turned + 360.0 : turned) - 180.0;
}

VirtualGimbal::VirtualGimbal(const ostrel_scene::Direction& start, double hfov_deg, cv::Size picture_px,
                             const GimbalLimits& limits, std::uint64_t seed)
    : picture_px_(picture_px),
      limits_(limits),
      hfov_deg_(hfov_deg),
      wanted_hfov_deg_(hfov_deg),
      noise_(seed) {
  pan_.position_deg = wrapped_deg(start.pan_deg);
  tilt_.position_deg = start.tilt_deg;
  keep_tilt_in_range();
}

void VirtualGimbal::point_at(const ostrel_scene::Direction& direction) {
  goal_ = direction;
  goal_->tilt_deg = std::clamp(direction.tilt_deg, limits_.lowest_tilt_deg, limits_.highest_tilt_deg);
  wanted_rate_ = {};
}

void VirtualGimbal::turn(const TurnRate& rate) {
  goal_.reset();
  wanted_rate_ = rate;
}

void VirtualGimbal::zoom_to(double hfov_deg) {
  wanted_hfov_deg_ = std::clamp(hfov_deg, limits_.narrowest_hfov_deg, limits_.widest_hfov_deg);
}

void VirtualGimbal::advance(double seconds) {
  const int steps = std::max(1, static_cast<int>(std::ceil(seconds / kStep_s - 1e-9)));
  for (int step = 0; step < steps; ++step) advance_axes(seconds / steps);
  advance_zoom(seconds);
}

void VirtualGimbal::advance_axes(double seconds) {
  if (!goal_) {
    drive(&pan_, wanted_rate_.pan_deg_s, seconds);
    drive(&tilt_, wanted_rate_.tilt_deg_s, seconds);
  } else {
    const double pan_left = wrapped_deg(goal_->pan_deg - pan_.position_deg);
    const double tilt_left = goal_->tilt_deg - tilt_.position_deg;
    drive(&pan_, approach_rate(pan_left, seconds), seconds);
    drive(&tilt_, approach_rate(tilt_left, seconds), seconds);
    if (arrived(pan_, pan_left, seconds) && arrived(tilt_, tilt_left, seconds)) {
      pan_.rate_deg_s = tilt_.rate_deg_s = 0.0;
      goal_.reset();
    }
  }
  pan_.position_deg = wrapped_deg(pan_.position_deg);
  keep_tilt_in_range();
}

// The rate from which the brake still stops in time.
double VirtualGimbal::approach_rate(double distance_deg, double seconds) const {
  const double braking = kBrakingShare * limits_.acceleration_deg_s2;
  const double fastest = std::sqrt(2.0 * braking * std::abs(distance_deg));
  return std::copysign(std::min(fastest, std::abs(distance_deg) / seconds), distance_deg);
}

bool VirtualGimbal::arrived(const Axis& axis, double distance_deg, double seconds) const {
  return std::abs(distance_deg) < kArrived_deg &&
         std::abs(axis.rate_deg_s) <= limits_.acceleration_deg_s2 * seconds;
}

void VirtualGimbal::drive(Axis* axis, double wanted_rate_deg_s, double seconds) const {
  const double wanted = std::clamp(wanted_rate_deg_s, -limits_.rate_deg_s, limits_.rate_deg_s);
  const double step = limits_.acceleration_deg_s2 * seconds;
  const double before = axis->rate_deg_s;
  axis->rate_deg_s += std::clamp(wanted - before, -step, step);
  axis->position_deg += 0.5 * (before + axis->rate_deg_s) * seconds;
}

void VirtualGimbal::keep_tilt_in_range() {
  const double inside = std::clamp(tilt_.position_deg, limits_.lowest_tilt_deg, limits_.highest_tilt_deg);
  if (inside == tilt_.position_deg) return;
  tilt_ = {inside, 0.0};
}

void VirtualGimbal::advance_zoom(double seconds) {
  const double most = std::log(limits_.zoom_factor_per_s) * seconds;
  const double left = std::log(wanted_hfov_deg_ / hfov_deg_);
  hfov_deg_ = std::abs(left) <= most ? wanted_hfov_deg_ : hfov_deg_ * std::exp(std::copysign(most, left));
}

ostrel_scene::CameraView VirtualGimbal::view() const {
  return {pan_.position_deg, tilt_.position_deg,
          hfov_deg_,         vertical_field_of_view_deg(hfov_deg_, picture_px_),
          pan_.rate_deg_s,   tilt_.rate_deg_s};
}

ViewReading VirtualGimbal::read() {
  const ostrel_scene::CameraView exact = view();
  const double pan_deg = wrapped_deg(exact.pan_deg + noise_.gaussian(limits_.encoder_noise_deg));
  const double tilt_deg = exact.tilt_deg + noise_.gaussian(limits_.encoder_noise_deg);
  return {pan_deg, tilt_deg, exact.hfov_deg, exact.vfov_deg};
}

}  // namespace ostrel_host
