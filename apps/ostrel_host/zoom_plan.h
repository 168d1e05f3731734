// When the demo zooms: in where the target drives in the open, out again before that stretch ends.
#pragma once

#include <ostrel_scene/world.h>

#include <optional>
#include <vector>

namespace ostrel_host {

struct ZoomStep {
  double in_s = 0.0;
  double out_s = 0.0;
};

// Of the first event whose name holds "open" and that is long enough; none where there is no such event.
std::optional<ZoomStep> plan_zoom(const std::vector<ostrel_scene::WorldEvent>& events);

}  // namespace ostrel_host
