#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/augmentation.h"
#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/init_timings.h"
#include "tracking_runtime/tracker/atom/stage_clock.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// One tracking start: what lives through it, and its steps in the order of their declaration. Runs once, on
/// the thread of `initialize`. A step that returns false has left its text in the caller's error and, where
/// the trace knows the failure, an "init_fail" line. The training set is gathered on the host: the template
/// and its variations pass the backbone, two more samples are made from the template's feature, and each
/// gets its label. Augmented samples that cannot be had are left out; when no filter can be trained on the
/// set, the template alone serves.
class InitPipeline {
 public:
  /// All four stay the caller's and outlive the pipeline; `error` may be null.
  InitPipeline(CudaRuntimeBackend* owner, const cv::Mat& start_frame, const cv::Rect_<int>& start_box,
               std::string* error_text);
  bool run();

 private:
  friend struct InitPipelineTestAccess;

  /// A raw feature and the frame point in the middle of its patch.
  struct Item {
    FeatureMap feature;
    cv::Point_<float> center;
  };

  // cuda_runtime_backend_init.cpp: from the arguments to projection, filter and patches.
  void wait_for_previous_training();
  void reset_run_state();
  bool check_arguments();
  bool start_runtime();
  bool cut_template_patch();
  void place_target();
  void probe_device_template();
  bool learn_raw_sizes();
  bool set_up_projection();
  bool set_up_filter();
  void make_augmented_set();
  void finish();

  // init_host_path.cpp: the training set through host memory.
  bool gather_training_set();
  bool gather_raw_items();
  void add_augmented_items();
  void add_items_one_by_one();
  bool add_dropout_items();
  bool make_labels();
  bool keep_template_only();
  void project_items();

  // cuda_runtime_backend_init_finalize.cpp: the first filter.
  bool train_first_filter();
  bool train_on_template_alone(std::string* text);

  /// Extracts the template's raw feature on the host unless it is there; false with the extraction's text.
  bool ensure_template_feature(std::string* text);
  bool fail(const std::string& text, const std::string& word, const cv::Rect_<int>& rect);
  bool fail_untraced(const std::string& text);
  cv::Rect_<int> box_in_frame() const;

  CudaRuntimeBackend& backend;
  const cv::Mat& frame;
  const cv::Rect_<int> box;
  std::string* const error;

  StageClock total;
  InitTimings timings;
  int startup_iterations = 1;
  cv::Mat template_patch;
  FeatureMap template_feature;  ///< raw, on the host; may stay undefined
  int raw_channels = 0;         ///< 0 until known, like the other two
  int raw_height = 0;
  int raw_width = 0;
  bool needs_template_feature = false;  ///< the projection comes from the feature
  AugmentedSet augmented;
  std::vector<Item> items;
  std::vector<LabelMap> item_labels;
  std::vector<FeatureMap> features;  ///< projected, with their labels
  std::vector<LabelMap> labels;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
