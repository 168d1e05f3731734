#include "zoom_plan.h"

namespace ostrel_host {
namespace {

constexpr char kOpenStretch[] = "open";
constexpr double kMargin_s = 0.5;    // from the edges of the stretch
constexpr double kShortest_s = 2.0;  // that a zoom is worth holding

}  // namespace

std::optional<ZoomStep> plan_zoom(const std::vector<ostrel_scene::WorldEvent>& events) {
  for (const ostrel_scene::WorldEvent& event : events) {
    if (event.what.find(kOpenStretch) == std::string::npos) continue;
    const ZoomStep step{event.start_s + kMargin_s, event.end_s - kMargin_s};
    if (step.out_s - step.in_s >= kShortest_s) return step;
  }
  return std::nullopt;
}

}  // namespace ostrel_host
