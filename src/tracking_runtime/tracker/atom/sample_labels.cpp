#include "tracking_runtime/tracker/atom/sample_labels.h"

#include <algorithm>
#include <cmath>

#include "tracking_runtime/libs/dcf/dcf.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

LabelMap build_label(const TargetState& state, int height, int width, const cv::Point_<float>& sample_pos,
                     float sample_scale) {
  if (height < 1 || width < 1) return {};
  const float patch_side_px = static_cast<float>(std::max(state.config.search_size, 1));
  const float rows = static_cast<float>(height);
  const float columns = static_cast<float>(width);
  const float target_rows = rows / patch_side_px * std::max(state.base_target_size.height, 1.0F);
  const float target_columns = columns / patch_side_px * std::max(state.base_target_size.width, 1.0F);
  const float sigma = 0.25F * std::sqrt(target_rows * target_columns);

  const float span_px = std::max(patch_side_px * sample_scale, 1e-6F);
  const float parity = std::max(state.config.filter_size, 1) % 2 == 0 ? 0.5F : 0.0F;
  const float center_row = rows * ((state.target_pos.y - sample_pos.y) / span_px) + parity;
  const float center_column = columns * ((state.target_pos.x - sample_pos.x) / span_px) + parity;
  const cv::Mat label = libs::dcf::label_function_spatial(libs::dcf::SizeYX(height, width), {sigma, sigma},
                                                          {center_row, center_column}, {0, 0});
  return {1, height, width, {label.begin<float>(), label.end<float>()}};
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
