#pragma once

#include <IAlgoPlugin.h>

#include <cstdint>
#include <string>
#include <vector>

/// The boxes that one frame publishes.
struct DetectionResult {
  struct Det {
    BBox bbox;  ///< full-frame pixels
    std::int32_t class_id = -1;
    std::string class_name;
    std::string class_info;  ///< always empty
    std::int32_t tracker_id = 0;
    float score = 0.0F;  ///< 0 to 1
  };
  std::vector<Det> detections;
};
