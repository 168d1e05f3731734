#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/augmentation.h"
#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"
#include "tracking_runtime/tracker/atom/init_timings.h"
#include "tracking_runtime/tracker/atom/joint_fit.h"
#include "tracking_runtime/tracker/atom/stage_clock.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// One tracking start: what lives through it, and its steps in the order of their declaration. Runs once, on
/// the thread of `initialize`. A step that returns false has left its text in the caller's error and, where
/// the trace knows the failure, an "init_fail" line.
///
/// The training set: the template and its variations pass the backbone, two more samples are made from the
/// template's feature, and each gets its label. With a projection that may change, the features stay on the
/// device, where projection and filter are fitted together and the filter once more alone; only the projected
/// samples come back. When a part of the set cannot be had there, everything is gathered on the host instead,
/// where augmented samples that fail are left out. When no filter can be trained, the template alone serves.
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

  /// The set through the device where that is possible, else through the host.
  bool gather_training_set();

  // init_direct_path.cpp: the training set on the device.
  enum class DirectPath { kDone, kLeftForHost, kFailed };
  /// Labels of the set, and how many samples it will have.
  struct DirectSet {
    std::vector<cv::Mat> further_images;  ///< the patches after the template
    std::vector<LabelMap> labels;
    std::vector<float> flat_labels;
    int samples = 0;
  };
  bool copy_device_template(std::string* text);
  DirectPath take_direct_path();
  bool make_direct_labels(DirectSet* set);
  bool preload_template();
  bool preload_further_patches(const DirectSet& set);
  bool preload_chunk(const DirectSet& set, std::size_t first, std::size_t count);
  bool preload_span(const RawFeatureSpan& span, std::string* text);
  bool materialize_dropouts(const DirectSet& set);
  bool optimize_direct_set(const DirectSet& set, JointFit* fit);
  bool train_on_device(const DirectSet& set);
  bool take_projected_features(DirectSet* set);

  // init_host_path.cpp: the training set through host memory.
  bool take_host_path();
  bool gather_raw_items();
  void add_augmented_items();
  void add_items_one_by_one();
  bool add_dropout_items();
  bool make_labels();
  bool keep_template_only();
  bool fit_host_set();
  void project_items();

  // cuda_runtime_backend_init_finalize.cpp: the first filter.
  bool train_first_filter();
  bool train_on_template_alone(std::string* text);

  /// Extracts the template's raw feature on the host unless it is there; false with the extraction's text.
  bool ensure_template_feature(std::string* text);
  void set_raw_sizes(int channels, int height, int width);
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
  FeatureMap template_feature;                    ///< raw, on the host; may stay undefined
  DeviceBuffer<float> device_template;            ///< raw, on the device; may stay empty
  cudaStream_t device_template_stream = nullptr;  ///< the backbone's, on which it is written
  int raw_channels = 0;                           ///< 0 until known, like the other two
  int raw_height = 0;
  int raw_width = 0;
  bool needs_template_feature = false;  ///< the projection comes from the feature
  AugmentedSet augmented;
  std::vector<Item> items;
  std::vector<LabelMap> item_labels;
  std::vector<FeatureMap> fitted;    ///< the items as the host's joint fit projected them; may stay empty
  std::vector<FeatureMap> features;  ///< projected, with their labels
  std::vector<LabelMap> labels;
  bool filter_trained = false;  ///< on the device, with the set
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
