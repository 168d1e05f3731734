#include "follow_controller.h"

#include <algorithm>
#include <cmath>

namespace ostrel_host {

AngleError angle_error(const BBox& box, const ViewReading& view, cv::Size frame_px) {
  const double across = (box.x + 0.5 * box.w) / frame_px.width - 0.5;
  const double down = (box.y + 0.5 * box.h) / frame_px.height - 0.5;
  return {across * view.hfov_deg, -down * view.vfov_deg};
}

bool is_seen(const std::optional<Detection>& published) {
  return published && published->score > 0.0;
}

TurnRate FollowController::steer(const std::optional<Detection>& published, const ViewReading& view,
                                 cv::Size frame_px, double seconds) {
  if (!is_seen(published)) {
    const double kept = std::exp(-seconds / gains_.coast_s);
    learned_ = {learned_.pan_deg_s * kept, learned_.tilt_deg_s * kept};
    return learned_;
  }
  const AngleError error = angle_error(published->box, view, frame_px);
  const auto learn = [&](double* rate, double error_deg) {
    const double limit = gains_.largest_learned_deg_s;
    *rate = std::clamp(*rate + gains_.integral_per_s2 * error_deg * seconds, -limit, limit);
  };
  learn(&learned_.pan_deg_s, error.pan_deg);
  learn(&learned_.tilt_deg_s, error.tilt_deg);
  return {gains_.proportional_per_s * error.pan_deg + learned_.pan_deg_s,
          gains_.proportional_per_s * error.tilt_deg + learned_.tilt_deg_s};
}

}  // namespace ostrel_host
