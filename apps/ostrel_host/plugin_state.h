// What a plug-in says about itself: its outputs and the JSON of `property`.
#pragma once

#include <IAlgoPlugin.h>

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

namespace ostrel_host {

// The box of a "detection.v1" output.
struct Detection {
  BBox box;
  double score = 0.0;
};

// The first detection of the first "detection.v1" output; nothing when no box was emitted.
std::optional<Detection> published_detection(const std::vector<AlgoOutput>& outputs);

// The direction of a "gimbal_preposition.v1" output: where the plug-in asks the camera to look.
struct GimbalTarget {
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
};

// Of the first such output, nothing where there is none.
std::optional<GimbalTarget> gimbal_target(const std::vector<AlgoOutput>& outputs);

// The members of `property` that the program reports.
struct PluginState {
  std::string status;
  std::string detail;
  std::string phase;
  bool alive = true;
  BBox box;                // last emitted box, or the start box
  cv::Rect2d tracker_box;  // the tracker's own box in full-frame pixels, without size until it has tracked
  double tracker_score = 0.0;
  nlohmann::json properties;  // everything, as an object

  // The tracker's own box, or the start box as long as there is none.
  cv::Rect2d own_box() const;
};

// Numbers that JSON does not have (nan, inf) read as null. Throws std::runtime_error for a text that is no object.
PluginState parse_state(const std::string& property_json);

}  // namespace ostrel_host
