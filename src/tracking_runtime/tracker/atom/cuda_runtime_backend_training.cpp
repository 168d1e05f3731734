// Learning while tracking: the sample memory under its lock, and trainings on a thread of their own. A job
// works on private copies, so that no lock is held during a solve and a frame never waits for a training.

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/exception_text.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/refuse.h"
#include "tracking_runtime/tracker/atom/stage_clock.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What a job carries from the tracking thread; the counts are those of the moment of scheduling.
struct TrainingJob {
  int iterations;
  int sample_cap;
  int number;
  int frame;
  std::string reason;
  int stored;
  int selected;
};

/// Everything a solve needs, in private memory.
struct TrainingTask {
  TrainingSelection samples;
  int channels = 0;
  int height = 0;
  int width = 0;
  std::vector<float> filter;
  int filter_height = 0;
  int filter_width = 0;
};

namespace {

void print_schedule(const TrainingJob& job, const char* step) {
  std::fprintf(
      stderr,
      "[CudaRuntimeBackend][train] job=%d frame=%d reason=%s %s iter=%d stored=%d selected=%d cap=%d\n",
      job.number, job.frame, job.reason.c_str(), step, job.iterations, job.stored, job.selected,
      job.sample_cap);
}

void print_done(const TrainingJob& job, bool trained, int stored, int selected, double elapsed_ms) {
  std::fprintf(stderr,
               "[CudaRuntimeBackend][train] job=%d frame=%d reason=%s done status=%s iter=%d stored=%d "
               "selected=%d elapsed=%.1fms\n",
               job.number, job.frame, job.reason.c_str(), trained ? "ok" : "failed", job.iterations, stored,
               selected, elapsed_ms);
}

void print_exception(const TrainingJob& job, const char* text, double elapsed_ms) {
  std::fprintf(stderr,
               "[CudaRuntimeBackend][train] job=%d frame=%d reason=%s exception=%s stored=%d selected=%d "
               "elapsed=%.1fms\n",
               job.number, job.frame, job.reason.c_str(), text, job.stored, job.selected, elapsed_ms);
}

// One flat array of the first labels; empty unless each is one label of the given shape.
std::vector<float> concatenated(const std::vector<LabelMap>& labels, std::size_t count, int height,
                                int width) {
  std::vector<float> flat;
  for (std::size_t i = 0; i < count; ++i) {
    const LabelMap& label = labels[i];
    if (!label.defined() || label.samples != 1 || label.height != height || label.width != width) return {};
    flat.insert(flat.end(), label.data.begin(), label.data.end());
  }
  return flat;
}

}  // namespace

bool CudaRuntimeBackend::batch_init_memory_(const std::vector<FeatureMap>& features,
                                            const std::vector<LabelMap>& labels) {
  if (!is_start_up_set(features, labels)) return false;
  const std::lock_guard<std::mutex> lock(state_mutex);
  return memory.batch_init_(features, labels, config.sample_memory_size);
}

bool CudaRuntimeBackend::store_training_sample_(const FeatureMap& feature, const LabelMap& label,
                                                float learning_rate) {
  if (!is_one_sample(feature, label)) return false;
  const std::lock_guard<std::mutex> lock(state_mutex);
  return memory.store_(feature, label, learning_rate, config.sample_memory_size);
}

std::optional<std::string> CudaRuntimeBackend::collect_training_job_() {
  if (!training_future.valid()) return std::nullopt;
  try {
    training_future.get();
  } catch (...) {
    return current_exception_text();
  }
  return std::nullopt;
}

bool CudaRuntimeBackend::ensure_filter_trainer_() {
  if (filter_trainer != nullptr) return true;
  try {
    filter_trainer = std::make_unique<CudaFilterTrainer>();
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

int CudaRuntimeBackend::trainable_samples_() const {
  const std::lock_guard<std::mutex> lock(state_mutex);
  if (memory.empty() || weights.filter_weights.empty()) return -1;
  return std::min(memory.num_stored_samples, static_cast<int>(memory.sample_weights.size()));
}

void CudaRuntimeBackend::train_filter_async_(int iterations, int sample_cap, const char* reason, int frame) {
  const char* why = reason == nullptr ? "unknown" : reason;
  if (training_in_flight) {
    std::fprintf(stderr,
                 "[CudaRuntimeBackend][train] frame=%d reason=%s skip=busy active_job=%d iter=%d cap=%d\n",
                 frame, why, active_training_job.load(), iterations, sample_cap);
    return;
  }
  if (const std::optional<std::string> text = collect_training_job_()) {
    std::fprintf(stderr, "[CudaRuntimeBackend][train] frame=%d reason=%s previous_job_exception=%s\n", frame,
                 why, text->c_str());
  }
  const int stored = trainable_samples_();
  if (stored < 0) {
    std::fprintf(stderr, "[CudaRuntimeBackend][train] frame=%d reason=%s skip=no_memory iter=%d cap=%d\n",
                 frame, why, iterations, sample_cap);
    return;
  }
  const int selected = sample_cap >= 1 && stored > sample_cap ? sample_cap : stored;
  if (selected < 1) {
    std::fprintf(stderr,
                 "[CudaRuntimeBackend][train] frame=%d reason=%s skip=no_samples iter=%d stored=%d cap=%d\n",
                 frame, why, iterations, stored, sample_cap);
    return;
  }
  TrainingJob job{iterations, sample_cap, ++training_job_counter, frame, why, stored, selected};
  active_training_job = job.number;
  training_in_flight = true;
  print_schedule(job, "schedule");
  training_future = std::async(std::launch::async, [this, job = std::move(job)] { run_training_job_(job); });
}

void CudaRuntimeBackend::run_training_job_(const TrainingJob& job) {
  const ProfilerRange range(range_names::kTraining);
  const StageClock clock;
  print_schedule(job, "start");
  try {
    int selected = 0;
    int stored = 0;
    const bool trained = train_filter_from_memory_(job.iterations, job.sample_cap, &selected, &stored);
    print_done(job, trained, stored, selected, clock.elapsed_ms());
  } catch (const std::exception& exception) {
    // The text is printed where it lies: a copy could throw once more, and the job would count as running for good.
    print_exception(job, exception.what(), clock.elapsed_ms());
  } catch (...) {
    print_exception(job, "unknown", clock.elapsed_ms());
  }
  training_in_flight = false;
  active_training_job = 0;
}

bool CudaRuntimeBackend::snapshot_training_(int sample_cap, TrainingTask* task) const {
  const std::lock_guard<std::mutex> lock(state_mutex);
  if (weights.filter_weights.empty() || !memory.select_(sample_cap, &task->samples)) return false;
  task->channels = memory.memory_channels;
  task->height = memory.memory_height;
  task->width = memory.memory_width;
  task->filter = weights.filter_weights;
  task->filter_height = weights.filter_height;
  task->filter_width = weights.filter_width;
  return true;
}

float CudaRuntimeBackend::training_regularization_() const {
  return std::max(config.filter_regularization, config.filter_regularization_floor);
}

bool CudaRuntimeBackend::adopt_filter_(std::vector<float> filter) {
  if (filter.empty()) return false;
  const std::lock_guard<std::mutex> lock(state_mutex);
  weights.filter_weights.swap(filter);
  ++weights.filter_version;
  return true;
}

bool CudaRuntimeBackend::train_filter_from_memory_(int iterations, int sample_cap, int* selected_out,
                                                   int* stored_out) {
  TrainingTask task;
  if (!snapshot_training_(sample_cap, &task)) return false;
  const int selected = static_cast<int>(task.samples.indices.size());
  if (selected_out != nullptr) *selected_out = selected;
  if (stored_out != nullptr) *stored_out = task.samples.available;

  std::vector<float> trained;
  std::string error;
  {
    const std::lock_guard<std::mutex> lock(filter_trainer_mutex);
    if (filter_trainer == nullptr) filter_trainer = std::make_unique<CudaFilterTrainer>();
    if (!filter_trainer->optimize_filter(task.samples.features, task.samples.labels, task.samples.weights,
                                         selected, task.channels, task.height, task.width, task.filter,
                                         task.filter_height, task.filter_width, training_regularization_(),
                                         iterations, &trained, &error)) {
      if (!error.empty()) {
        std::fprintf(stderr, "[CudaRuntimeBackend][train] GPU filter trainer failed: %s\n", error.c_str());
      }
      return false;
    }
  }
  return adopt_filter_(std::move(trained));
}

bool CudaRuntimeBackend::snapshot_filter_(int channels, TrainingTask* task) const {
  const std::lock_guard<std::mutex> lock(state_mutex);
  if (weights.filter_weights.empty() || weights.filter_channels != channels || weights.filter_height < 1 ||
      weights.filter_width < 1) {
    return false;
  }
  task->filter = weights.filter_weights;
  task->filter_height = weights.filter_height;
  task->filter_width = weights.filter_width;
  return true;
}

bool CudaRuntimeBackend::train_filter_from_device_batch_(const float* device_features, cudaStream_t stream,
                                                         const std::vector<LabelMap>& labels,
                                                         int sample_count, int channels, int height,
                                                         int width, int iterations, std::string* error) {
  if (device_features == nullptr || sample_count < 1 || channels < 1 || height < 1 || width < 1 ||
      labels.empty()) {
    return refuse("invalid CUDA init device batch training request", error);
  }
  const auto used = static_cast<int>(
      std::min(static_cast<std::size_t>(std::min(std::max(config.sample_memory_size, 1), sample_count)),
               labels.size()));
  if (used < 1) return refuse("no CUDA init device batch samples available", error);
  const auto count = static_cast<std::size_t>(used);
  TrainingTask task;
  task.samples.labels = concatenated(labels, count, height, width);
  if (task.samples.labels.empty()) {
    return refuse("CUDA init device batch labels do not match projected feature geometry", error);
  }
  if (!snapshot_filter_(channels, &task)) {
    return refuse("CUDA init device batch filter state is not ready", error);
  }
  task.samples.weights.assign(count, 1.0F / static_cast<float>(used));

  std::vector<float> trained;
  {
    const std::lock_guard<std::mutex> lock(filter_trainer_mutex);
    if (!ensure_filter_trainer_()) return refuse("CUDA filter trainer is unavailable", error);
    if (!filter_trainer->optimize_filter_device_features(
            {device_features, stream}, task.samples.labels, task.samples.weights, used, channels, height,
            width, task.filter, task.filter_height, task.filter_width, training_regularization_(), iterations,
            &trained, error)) {
      return false;
    }
  }
  if (!adopt_filter_(std::move(trained))) {
    return refuse("CUDA filter trainer returned an empty optimized filter", error);
  }
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
