#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/base/bbox.h"

namespace optrix {
class OptrixPicture;
}

namespace ostrel_tracker::tracking_runtime::tracker::atom {

class AtomRuntimeBackend;

/// Holds one runtime backend chosen by name, forwards every operation to it and turns a missing backend
/// into a word. Not thread-safe: the caller serialises all calls.
class NativeCppBackend {
 public:
  /// The one record that drives the tracker. `parameter::atom::parameters()` gives the built-in values;
  /// the members stand in the order of that table.
  struct Config {
    std::string trt_engine_path;
    std::string runtime_backend;
    std::string reference_trace_path;
    bool reserved_flag = false;
    int reserved_count = 0;
    int template_size = 0;
    int search_size = 0;
    float search_area_factor = 0.0F;
    std::vector<float> search_scales;
    float target_not_found_score_threshold = 0.0F;
    int sample_memory_size = 0;
    int frames_between_learning = 0;
    int max_sample_history = 0;
    int max_hard_negative_history = 0;
    int update_iterations = 0;
    int hard_negative_iterations = 0;
    float learning_rate = 0.0F;
    float hard_negative_learning_rate = 0.0F;
    float filter_regularization = 0.0F;
    float filter_regularization_floor = 0.0F;
    bool use_projection_matrix = false;
    bool update_projection_matrix = false;
    int compressed_dim = 0;
    int filter_size = 0;
    float projection_regularization = 0.0F;
    int startup_filter_iterations = 0;
    int startup_box_refinement_iterations = 0;
    std::string proj_init_method;
    std::string filter_init_method;
    bool enable_hard_negative_analysis = false;
    float distractor_ratio = 0.0F;
    float hard_negative_ratio = 0.0F;
    float peak_exclusion_scale = 0.0F;
    float peak_distance_ratio = 0.0F;
    bool scale_update_on_uncertain = false;
    bool enable_online_update = false;
    float min_ratio_from_initial_size = 0.0F;
    float max_ratio_from_initial_size = 0.0F;
    bool use_soft_argmax = false;
    int soft_argmax_radius = 0;
    float soft_argmax_sharpness = 0.0F;
    float position_smoothing = 0.0F;
    float micro_motion_deadband_px = 0.0F;
    float micro_motion_deadband_ratio = 0.0F;
    float scale_smoothing = 0.0F;
    float scale_change_deadband = 0.0F;
    float roi_scale_deadband_px = 0.0F;
    float roi_scale_deadband_ratio = 0.0F;
    bool enable_scale_predictor = false;
    float scale_predictor_process_noise_scale = 0.0F;
    float scale_predictor_process_noise_velocity = 0.0F;
    float scale_predictor_measurement_noise_scale = 0.0F;
    bool prefer_stable_reacquisition = false;
    int reacquire_confirm_frames = 0;
    float reacquire_min_score = 0.0F;
    float reacquire_max_motion_factor = 0.0F;
    int reacquire_max_frames = 0;
    bool use_log_scale_peak_refinement = false;
    float min_update_confidence = 0.0F;
    float min_update_scale_margin = 0.0F;
    bool jump_filter_enabled = false;
    float jump_min_score = 0.0F;
    float jump_max_motion_factor = 0.0F;
    float jump_max_scale_change = 0.0F;
  };

  /// A word that names no backend leaves none: every operation then answers with a word that says so.
  explicit NativeCppBackend(Config config);
  ~NativeCppBackend();
  NativeCppBackend(const NativeCppBackend&) = delete;
  NativeCppBackend& operator=(const NativeCppBackend&) = delete;

  bool initialize(const cv::Mat& image, const cv::Rect_<int>& init_rect, std::string* error);
  bool track(const cv::Mat& image, base::BBox* bbox, float* score, std::string* status);
  bool track(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x, float scale_y,
             int frame_width, int frame_height, base::BBox* bbox, float* score, std::string* status);
  bool teleport(const base::BBox& expected, base::BBox* bbox, std::string* status);
  bool zoomChanged(float scale_factor, base::BBox* bbox, std::string* status);
  /// Another backend word is put back to the running one, with the note "runtime_backend requires reinit" in
  /// front of the backend's own text; the rest of the record is taken, corrected as the backend left it. False
  /// keeps the old record. Without a backend the record is taken as it is and the backend is tried once more;
  /// the result tells whether there is one now.
  bool updateConfig(Config config, std::string* status);
  /// The record in force.
  const Config& config() const { return config_; }

 private:
  Config config_;
  std::string backend_name_;
  std::unique_ptr<AtomRuntimeBackend> backend_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
