#pragma once

#include <string>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Milliseconds of each stage of a tracking start, by a monotonic clock; most accumulate.
struct InitTimings {
  double total = 0.0;
  double wait_prev_train = 0.0;
  double runtime = 0.0;
  double template_patch = 0.0;
  double template_host = 0.0;
  double template_device = 0.0;
  double projection_init = 0.0;
  double filter_init = 0.0;
  double shift = 0.0;
  double flip = 0.0;
  double blur = 0.0;
  double rotate = 0.0;
  double dropout_prep = 0.0;
  double direct_labels = 0.0;
  double direct_trt = 0.0;
  double direct_preload = 0.0;
  double direct_dropout = 0.0;
  double joint_opt = 0.0;
  double direct_filter_train = 0.0;
  double projected_download = 0.0;
  double host_aug_feat = 0.0;
  double host_dropout = 0.0;
  double host_labels = 0.0;
  double host_project = 0.0;
  double memory_init = 0.0;
  double memory_train = 0.0;
  double template_only = 0.0;
  std::string path = "unresolved";  ///< ends as "direct_gpu", "host_path" or "template_only"
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
