#pragma once

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/atom_runtime_backend.h"
#include "tracking_runtime/tracker/atom/classifier_state.h"
#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"
#include "tracking_runtime/tracker/atom/gpu/trt_device_batch.h"
#include "tracking_runtime/tracker/atom/init_timings.h"
#include "tracking_runtime/tracker/atom/joint_fit.h"
#include "tracking_runtime/tracker/atom/native_cpp_backend.h"
#include "tracking_runtime/tracker/atom/reference_trace_writer.h"
#include "tracking_runtime/tracker/atom/sample_memory.h"
#include "tracking_runtime/tracker/atom/target_state.h"

namespace optrix {
struct TensorBatch;
}

namespace ostrel_tracker::tracking_runtime::tracker::atom {

class CudaFilterTrainer;
class CudaJointOptimizer;
struct Candidate;
struct FrameDecision;
struct FramePath;
struct FrameTimings;
struct TrainingJob;
struct TrainingTask;

/// The tracker: backbone engine, learned projection, a small filter trained online, multi-scale search.
///
/// Threads: one thread tracks and starts (the caller serialises), and at most one training job runs beside
/// it. `state_mutex` guards `memory` and the filter of `weights` and is held for copies and swaps only, and while
/// `updateConfig` writes the configuration; `filter_trainer_mutex` serialises the trainer. A job never holds both.
/// `joint_optimizer_mutex` serialises the optimiser of a start, which takes each of the others inside it, and never
/// the other way round.
class CudaRuntimeBackend final : public AtomRuntimeBackend, private TargetState {
 public:
  explicit CudaRuntimeBackend(NativeCppBackend::Config initial_config);
  /// Waits for a running training job before any GPU object goes.
  ~CudaRuntimeBackend() override;
  CudaRuntimeBackend(const CudaRuntimeBackend&) = delete;
  CudaRuntimeBackend& operator=(const CudaRuntimeBackend&) = delete;

  bool initialize(const cv::Mat& image, const cv::Rect_<int>& init_rect, std::string* error) override;
  bool track(const cv::Mat& image, base::BBox* bbox, float* score, std::string* status) override;
  bool track(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x, float scale_y,
             int frame_width, int frame_height, base::BBox* bbox, float* score, std::string* status) override;
  bool teleport(const base::BBox& expected, base::BBox* bbox, std::string* status) override;
  bool zoomChanged(float scale_factor, base::BBox* bbox, std::string* status) override;
  bool updateConfig(NativeCppBackend::Config* new_config, std::string* status) override;
  const char* name() const override { return "cuda"; }

 private:
  friend struct CudaRuntimeBackendTestAccess;
  friend class InitPipeline;

  // cuda_runtime_backend.cpp
  std::string not_implemented_error_(const char* stage) const;
  void report_correction_(const char* event, const char* word, float rel_scale, base::BBox* bbox,
                          std::string* status);
  void take_config_(const NativeCppBackend::Config& taken);

  // gpu/cuda_runtime_backend_trt*.cpp: the engine, its workers and the forward paths.
  bool initialize_runtime_(std::string* error);
  bool init_trt_backbone_(const std::string& engine_path, std::string* error);
  bool upload_trt_input_patches_(TrtBackbone* worker, const std::vector<cv::Mat>& patches,
                                 std::string* error);
  FeatureMap run_trt_forward_(const cv::Mat& patch, std::string* error);
  FeatureMap run_trt_forward_batched_(const std::vector<cv::Mat>& patches, std::string* error);
  bool run_trt_device_batch_(PatchRange patches, TrtDeviceBatch* out, std::string* error);

  // gpu/cuda_runtime_backend_trt_classify.cpp: responses without a trip of the features through the host.
  bool classify_tensor_batch_on_gpu_(const optrix::TensorBatch& batch, std::vector<cv::Mat>* responses,
                                     std::vector<FeatureMap>* features, GpuTrackTimings* timings,
                                     std::string* error);
  bool classify_patches_on_gpu_(const std::vector<cv::Mat>& patches, std::vector<cv::Mat>* responses,
                                std::vector<FeatureMap>* features, GpuTrackTimings* timings,
                                std::string* error);

  // cuda_runtime_backend_extract.cpp: patches become host features.
  bool extract_feature_map_(const cv::Mat& patch, FeatureMap* out, std::string* error);
  std::vector<FeatureMap> extract_feature_maps_batched_(const std::vector<cv::Mat>& patches);

  // cuda_runtime_backend_features.cpp: projection and first weights, labels.
  FeatureMap project_feature_(const FeatureMap& feature) const;
  bool init_projection_matrix_(const FeatureMap& feature);
  bool init_projection_matrix_(int channels, int height, int width, const FeatureMap* feature_or_null);
  bool init_filter_weights_(const FeatureMap& feature, const cv::Rect_<float>& rect);
  bool init_filter_weights_(int channels, int height, int width, const cv::Rect_<float>& rect);
  LabelMap build_label_for_sample_(int height, int width, const cv::Point_<float>& sample_pos,
                                   float sample_scale) const;
  LabelMap build_label_for_sample_(const FeatureMap& feature, const cv::Point_<float>& sample_pos,
                                   float sample_scale) const;
  cv::Mat classify_feature_(const FeatureMap& feature) const;
  cv::Mat upsample_response_fft_(const cv::Mat& response) const;

  // cuda_runtime_backend_training.cpp: the sample memory under its lock, and the training jobs.
  bool batch_init_memory_(const std::vector<FeatureMap>& features, const std::vector<LabelMap>& labels);
  bool store_training_sample_(const FeatureMap& feature, const LabelMap& label, float learning_rate);
  /// Starts a training unless one is running; never blocks on a solve.
  void train_filter_async_(int iterations, int sample_cap, const char* reason, int frame);
  bool train_filter_from_memory_(int iterations, int sample_cap, int* selected_out, int* stored_out);
  bool train_filter_from_device_batch_(const float* device_features, cudaStream_t stream,
                                       const std::vector<LabelMap>& labels, int sample_count, int channels,
                                       int height, int width, int iterations, std::string* error);
  /// Waits for the job last started and forgets it; the text of the exception that it ended with, if any.
  std::optional<std::string> collect_training_job_();
  void run_training_job_(const TrainingJob& job);
  /// Stored samples, -1 while memory or filter is missing.
  int trainable_samples_() const;
  bool snapshot_training_(int sample_cap, TrainingTask* task) const;
  bool snapshot_filter_(int channels, TrainingTask* task) const;
  bool ensure_filter_trainer_();
  float training_regularization_() const;
  bool adopt_filter_(std::vector<float> filter);

  // cuda_runtime_backend_init*.cpp: a frame and a box become a running tracker.
  bool finalize_init_training_(const std::vector<FeatureMap>& features, const std::vector<LabelMap>& labels,
                               int iterations, bool skip_filter_training, InitTimings* timings,
                               std::string* error);
  void log_init_ready_(const cv::Rect_<int>& box, const cv::Size_<int>& frame_size,
                       const InitTimings& timings);

  // cuda_runtime_backend_optimizer.cpp: projection and filter fitted together.
  /// The fit through host memory: one raw sample and one label each, in the same order. On success matrix and
  /// filter are the fitted ones and a non-null `projected_out` holds the samples projected with the new matrix;
  /// on failure both stay.
  bool optimize_joint_init_(const std::vector<const FeatureMap*>& raw_features,
                            const std::vector<LabelMap>& labels, std::vector<FeatureMap>* projected_out,
                            std::string* error);
  bool check_joint_set_(const std::vector<const FeatureMap*>& raw_features,
                        const std::vector<LabelMap>& labels, std::string* error) const;
  bool joint_fit_wanted_() const;
  JointFitSettings joint_fit_settings_(int samples) const;
  JointFit begin_joint_fit_() const;
  // The caller of these three holds `joint_optimizer_mutex`.
  bool prepare_joint_optimizer_(int samples, int raw_channels, int height, int width, std::string* error);
  bool download_joint_features_(std::vector<float>* projected, std::string* error);
  void adopt_joint_fit_(JointFit fit);

  // cuda_runtime_backend_track.cpp, cuda_runtime_backend_track_view.cpp: the two pixel sources.
  const char* refuse_untracked_(const base::BBox* bbox, const float* score) const;
  bool classifier_filter_missing_() const;
  std::vector<Candidate> candidates_on_gpu_(const std::vector<float>& scales, std::vector<cv::Mat>* patches,
                                            const std::vector<cv::Mat>& responses,
                                            std::vector<FeatureMap>* features, FrameTimings* timings) const;
  std::vector<Candidate> candidates_on_host_(const std::vector<float>& scales, std::vector<cv::Mat>* patches,
                                             FrameTimings* timings);
  bool track_view_(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x, float scale_y,
                   int frame_width, int frame_height, base::BBox* bbox, float* score, std::string* status);

  // cuda_runtime_backend_frame.cpp: from candidates to the answer, for both sources.
  bool finish_frame_(std::vector<Candidate>* candidates, const FramePath& path, FrameTimings* timings,
                     base::BBox* bbox, float* score, std::string* status);
  void learn_from_frame_(const FrameDecision& decision, const Candidate& best, FrameTimings* timings);
  void trace_frame_(const FrameDecision& decision, const FramePath& path);

  std::unique_ptr<ReferenceTraceWriter> trace_writer;

  ClassifierState weights;
  SampleMemory memory;
  mutable std::mutex state_mutex;

  // Order of destruction, last first: the future blocks until its job has ended, so it goes first.
  std::unique_ptr<TrtBackbone> trt;
  std::vector<std::unique_ptr<TrtBackbone>> trt_workers;
  ClassifyScratch classify_scratch;
  std::mutex filter_trainer_mutex;
  std::unique_ptr<CudaFilterTrainer> filter_trainer;
  std::mutex joint_optimizer_mutex;
  std::unique_ptr<CudaJointOptimizer> joint_optimizer;
  std::atomic<bool> training_in_flight{false};
  std::atomic<int> training_job_counter{0};
  std::atomic<int> active_training_job{0};
  std::future<void> training_future;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
