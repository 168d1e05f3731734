#include "tracking_runtime/tracker/atom/view_crops.h"

#include <optional>

#include "tracking_runtime/tracker/atom/frame_candidate.h"
#include "tracking_runtime/tracker/atom/square_patch.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

std::vector<optrix::AffineCrop> view_crops(const TargetState& state, float scale_x, float scale_y,
                                           std::vector<float>* kept) {
  const std::vector<float> scales = sorted_search_scales(state.config.search_scales);
  std::vector<optrix::AffineCrop> crops;
  crops.reserve(scales.size());
  kept->reserve(scales.size());
  for (const float scale : scales) {
    if (!(scale > 0.0F)) continue;
    const std::optional<PatchSquare> square =
        patch_square(state.target_pos, state.target_size.width, state.target_size.height,
                     state.config.search_area_factor * scale);
    if (!square) continue;
    const float ratio = static_cast<float>(square->side) / static_cast<float>(state.config.search_size);
    const float step_x = scale_x * ratio;
    const float step_y = scale_y * ratio;
    crops.push_back(make_affine_crop(static_cast<float>(square->x0) * scale_x + step_x * 0.5F - 0.5F,
                                     static_cast<float>(square->y0) * scale_y + step_y * 0.5F - 0.5F, step_x,
                                     step_y));
    kept->push_back(scale);
  }
  return crops;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
