#pragma once

namespace ostrel_tracker::tracking_runtime::tracker::base {

/// A box in pixels of the tracker's frame: top-left corner and size, fractions kept.
struct BBox {
  float x = 0.0F;
  float y = 0.0F;
  float width = 0.0F;
  float height = 0.0F;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::base
