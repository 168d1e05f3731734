#pragma once

#include <atomic>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The backend's private members, for tests: state to look at and to set up, and steps to run alone.
struct CudaRuntimeBackendTestAccess {
  using Backend = CudaRuntimeBackend;

  static TargetState& state(Backend& backend) { return backend; }
  static ClassifierState& weights(Backend& backend) { return backend.weights; }
  static SampleMemory& memory(Backend& backend) { return backend.memory; }
  static std::mutex& state_mutex(Backend& backend) { return backend.state_mutex; }
  static std::mutex& filter_trainer_mutex(Backend& backend) { return backend.filter_trainer_mutex; }
  static std::unique_ptr<CudaFilterTrainer>& filter_trainer(Backend& backend) {
    return backend.filter_trainer;
  }
  static std::mutex& joint_optimizer_mutex(Backend& backend) { return backend.joint_optimizer_mutex; }
  static std::unique_ptr<CudaJointOptimizer>& joint_optimizer(Backend& backend) {
    return backend.joint_optimizer;
  }
  static std::unique_ptr<ReferenceTraceWriter>& trace_writer(Backend& backend) {
    return backend.trace_writer;
  }
  static std::atomic<bool>& training_in_flight(Backend& backend) { return backend.training_in_flight; }
  static std::atomic<int>& training_job_counter(Backend& backend) { return backend.training_job_counter; }
  static std::atomic<int>& active_training_job(Backend& backend) { return backend.active_training_job; }
  static std::future<void>& training_future(Backend& backend) { return backend.training_future; }

  static std::unique_ptr<TrtBackbone>& trt(Backend& backend) { return backend.trt; }
  static std::vector<std::unique_ptr<TrtBackbone>>& trt_workers(Backend& backend) {
    return backend.trt_workers;
  }

  static bool initialize_runtime(Backend& backend, std::string* error) {
    return backend.initialize_runtime_(error);
  }
  static bool upload_trt_input_patches(Backend& backend, TrtBackbone* worker,
                                       const std::vector<cv::Mat>& patches, std::string* error) {
    return backend.upload_trt_input_patches_(worker, patches, error);
  }
  static FeatureMap run_trt_forward(Backend& backend, const cv::Mat& patch, std::string* error) {
    return backend.run_trt_forward_(patch, error);
  }
  static FeatureMap run_trt_forward_batched(Backend& backend, const std::vector<cv::Mat>& patches,
                                            std::string* error) {
    return backend.run_trt_forward_batched_(patches, error);
  }
  static bool extract_feature_map(Backend& backend, const cv::Mat& patch, FeatureMap* out,
                                  std::string* error) {
    return backend.extract_feature_map_(patch, out, error);
  }
  static std::vector<FeatureMap> extract_feature_maps_batched(Backend& backend,
                                                              const std::vector<cv::Mat>& patches) {
    return backend.extract_feature_maps_batched_(patches);
  }
  static bool classify_tensor_batch_on_gpu(Backend& backend, const optrix::TensorBatch& batch,
                                           std::vector<cv::Mat>* responses, std::vector<FeatureMap>* features,
                                           GpuTrackTimings* timings, std::string* error) {
    return backend.classify_tensor_batch_on_gpu_(batch, responses, features, timings, error);
  }
  static bool classify_patches_on_gpu(Backend& backend, const std::vector<cv::Mat>& patches,
                                      std::vector<cv::Mat>* responses, std::vector<FeatureMap>* features,
                                      GpuTrackTimings* timings, std::string* error) {
    return backend.classify_patches_on_gpu_(patches, responses, features, timings, error);
  }

  static std::string not_implemented_error(const Backend& backend, const char* stage) {
    return backend.not_implemented_error_(stage);
  }
  static bool batch_init_memory(Backend& backend, const std::vector<FeatureMap>& features,
                                const std::vector<LabelMap>& labels) {
    return backend.batch_init_memory_(features, labels);
  }
  static bool store_training_sample(Backend& backend, const FeatureMap& feature, const LabelMap& label,
                                    float learning_rate) {
    return backend.store_training_sample_(feature, label, learning_rate);
  }
  static void train_filter_async(Backend& backend, int iterations, int sample_cap, const char* reason,
                                 int frame) {
    backend.train_filter_async_(iterations, sample_cap, reason, frame);
  }
  static bool train_filter_from_memory(Backend& backend, int iterations, int sample_cap, int* selected,
                                       int* stored) {
    return backend.train_filter_from_memory_(iterations, sample_cap, selected, stored);
  }
  template <typename... Arguments>
  static bool train_filter_from_device_batch(Backend& backend, Arguments&&... arguments) {
    return backend.train_filter_from_device_batch_(std::forward<Arguments>(arguments)...);
  }
  static bool optimize_joint_init(Backend& backend, const std::vector<const FeatureMap*>& raw_features,
                                  const std::vector<LabelMap>& labels, std::vector<FeatureMap>* projected,
                                  std::string* error) {
    return backend.optimize_joint_init_(raw_features, labels, projected, error);
  }
  static JointFitSettings joint_fit_settings(const Backend& backend, int samples) {
    return backend.joint_fit_settings_(samples);
  }
  static std::optional<std::string> collect_training_job(Backend& backend) {
    return backend.collect_training_job_();
  }
  static bool adopt_filter(Backend& backend, std::vector<float> filter) {
    return backend.adopt_filter_(std::move(filter));
  }
  static bool finalize_init_training(Backend& backend, const std::vector<FeatureMap>& features,
                                     const std::vector<LabelMap>& labels, int iterations,
                                     bool skip_filter_training, InitTimings* timings, std::string* error) {
    return backend.finalize_init_training_(features, labels, iterations, skip_filter_training, timings,
                                           error);
  }
  static void log_init_ready(Backend& backend, const cv::Rect_<int>& box, const InitTimings& timings) {
    backend.log_init_ready_(box, backend.image_size, timings);
  }
  static bool init_projection_matrix(Backend& backend, const FeatureMap& feature) {
    return backend.init_projection_matrix_(feature);
  }
  static bool init_filter_weights(Backend& backend, const FeatureMap& feature) {
    return backend.init_filter_weights_(feature, {});
  }
  static FeatureMap project_feature(const Backend& backend, const FeatureMap& feature) {
    return backend.project_feature_(feature);
  }
  static LabelMap label_at_target(const Backend& backend, const FeatureMap& feature) {
    return backend.build_label_for_sample_(feature, backend.target_pos, backend.target_scale);
  }
  static cv::Mat upsample_response_fft(const Backend& backend, const cv::Mat& response) {
    return backend.upsample_response_fft_(response);
  }
  static cv::Mat classify_feature(const Backend& backend, const FeatureMap& feature) {
    return backend.classify_feature_(feature);
  }
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
