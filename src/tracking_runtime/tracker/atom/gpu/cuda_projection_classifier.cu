#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"

#include <algorithm>

#include "tracking_runtime/tracker/atom/gpu/correlation_device.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/kernel_launch.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel::launch::Block;
using ostrel::launch::this_block;

__global__ void project_features_kernel(const float* features, const float* projection, float* out,
                                        int samples, int in_channels, int out_channels, int height,
                                        int width) {
  const Block block = this_block();
  const int plane_size = height * width;
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * out_channels * plane_size) return;
    const float* row = projection + t / plane_size % out_channels * in_channels;
    const float* feature =
        features + t / (out_channels * plane_size) * in_channels * plane_size + t % plane_size;
    float sum = 0.0F;
    for (int c = 0; c < in_channels; ++c) sum += row[c] * feature[c * plane_size];
    out[t] = sum;
  });
}

__global__ void classify_kernel(const float* projected, const float* filter, float* response, int samples,
                                int channels, int height, int width, int filter_height, int filter_width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    response[t] = correlate_at(projected, filter, t, channels, MapSize{height, width},
                               AnyFilter{filter_height, filter_width});
  });
}

bool record(cudaEvent_t event, cudaStream_t stream, const char* label, std::string* error) {
  return event == nullptr || set_cuda_error(cudaEventRecord(event, stream), label, error);
}

bool upload(const std::vector<float>& source, float* target, const char* label, std::string* error) {
  return set_cuda_error(
      cudaMemcpy(target, source.data(), source.size() * sizeof(float), cudaMemcpyHostToDevice), label, error);
}

}  // namespace

struct CudaProjectionClassifier::Impl {
  DeviceBuffer<float> projection;     // out_channels rows of in_channels
  DeviceBuffer<float> filter;         // out_channels, filter_height, filter_width
  DeviceBuffer<float> projected;      // max_batch, out_channels, height, width
  DeviceBuffer<float> response;       // max_batch, height, width
  PinnedBuffer<float> response_host;  // as `response`
  int max_batch = 0;
  int in_channels = 0;
  int out_channels = 0;
  int height = 0;
  int width = 0;
  int filter_height = 0;
  int filter_width = 0;
  int last_batch = 0;
  bool has_projection = false;

  ~Impl() { release_in_order(projection, filter, projected, response, response_host); }

  bool project(const float* features, int batch, cudaStream_t stream, std::string* error) {
    const int elements = batch * out_channels * height * width;
    if (!has_projection) {
      return set_cuda_error(
          cudaMemcpyAsync(projected.get(), features, static_cast<std::size_t>(elements) * sizeof(float),
                          cudaMemcpyDeviceToDevice, stream),
          "cudaMemcpyAsync projected", error);
    }
    return launch_over("project_features_kernel", project_features_kernel, elements, 0, stream, error,
                       features, projection.get(), projected.get(), batch, in_channels, out_channels, height,
                       width);
  }

  bool classify(int batch, cudaStream_t stream, std::string* error) {
    return launch_over("classify_kernel", classify_kernel, batch * height * width, 0, stream, error,
                       projected.get(), filter.get(), response.get(), batch, out_channels, height, width,
                       filter_height, filter_width);
  }
};

CudaProjectionClassifier::CudaProjectionClassifier() : impl_(std::make_unique<Impl>()) {}
CudaProjectionClassifier::~CudaProjectionClassifier() = default;
CudaProjectionClassifier::CudaProjectionClassifier(CudaProjectionClassifier&&) noexcept = default;
CudaProjectionClassifier& CudaProjectionClassifier::operator=(CudaProjectionClassifier&&) noexcept = default;

bool CudaProjectionClassifier::ensure_capacity(int max_batch, int in_channels, int out_channels, int height,
                                               int width, int filter_height, int filter_width,
                                               std::string* error) {
  if (impl_ == nullptr ||
      std::min({max_batch, in_channels, out_channels, height, width, filter_height, filter_width}) < 1) {
    return refuse("invalid CUDA projection/classifier dimensions", error);
  }
  Impl& impl = *impl_;
  const std::size_t projection_count = element_count({in_channels, out_channels});
  const std::size_t filter_count = element_count({out_channels, filter_height, filter_width});
  const std::size_t projected_count = element_count({out_channels, height, width, max_batch});
  const std::size_t response_count = element_count({max_batch, height, width});
  if (!ensure_group(error, GroupMember{impl.projection, projection_count, "cudaMalloc projection"}) ||
      !ensure_group(error, GroupMember{impl.filter, filter_count, "cudaMalloc filter"}) ||
      !ensure_group(error, GroupMember{impl.projected, projected_count, "cudaMalloc projected"}) ||
      !ensure_group(error, GroupMember{impl.response, response_count, "cudaMalloc response"},
                    GroupMember{impl.response_host, response_count, "cudaMallocHost response"})) {
    return false;
  }
  impl.max_batch = max_batch;
  impl.in_channels = in_channels;
  impl.out_channels = out_channels;
  impl.height = height;
  impl.width = width;
  impl.filter_height = filter_height;
  impl.filter_width = filter_width;
  return true;
}

bool CudaProjectionClassifier::upload_weights(const std::vector<float>& projection, bool use_projection,
                                              int in_channels, int out_channels,
                                              const std::vector<float>& filter, int filter_height,
                                              int filter_width, std::string* error) {
  if (impl_ == nullptr) return refuse("CUDA projection/classifier is not initialized", error);
  Impl& impl = *impl_;
  if (in_channels != impl.in_channels || out_channels != impl.out_channels ||
      filter_height != impl.filter_height || filter_width != impl.filter_width) {
    return refuse("CUDA projection/classifier dimensions do not match uploaded weights", error);
  }
  if (filter.size() != element_count({out_channels, filter_height, filter_width})) {
    return refuse("invalid filter size for CUDA projection/classifier", error);
  }
  if (use_projection) {
    if (projection.size() != element_count({out_channels, in_channels})) {
      return refuse("invalid projection size for CUDA projection/classifier", error);
    }
    if (!upload(projection, impl.projection.get(), "cudaMemcpy projection", error)) return false;
  }
  if (!upload(filter, impl.filter.get(), "cudaMemcpy filter", error)) return false;
  // A blocking copy of pageable memory may return while its last part is still on the way from the driver's staging
  // memory, and no worker's stream waits for the default stream, which carries it: the host does.
  if (!set_cuda_error(cudaStreamSynchronize(nullptr), "cudaMemcpy filter", error)) return false;
  impl.has_projection = use_projection;
  return true;
}

bool CudaProjectionClassifier::project_and_classify(const float* features, int batch, cudaStream_t stream,
                                                    std::string* error) {
  if (impl_ == nullptr || features == nullptr || batch < 1 || batch > impl_->max_batch) {
    return refuse("invalid CUDA projection/classifier launch arguments", error);
  }
  if (!impl_->project(features, batch, stream, error) || !impl_->classify(batch, stream, error)) return false;
  impl_->last_batch = batch;
  return true;
}

bool CudaProjectionClassifier::download_responses(int batch, std::vector<float>* out, cudaStream_t stream,
                                                  std::string* error, cudaEvent_t start_event,
                                                  cudaEvent_t stop_event) const {
  if (impl_ == nullptr || out == nullptr || batch < 1 || batch > impl_->last_batch) {
    return refuse("invalid CUDA response download request", error);
  }
  const std::size_t count = element_count({batch, impl_->height, impl_->width});
  // Sizes that changed since the last batch may have left a buffer that is smaller than that batch.
  if (!impl_->response_host.holds(count)) return refuse("invalid CUDA response download request", error);
  if (!record(start_event, stream, "cudaEventRecord response start", error) ||
      !set_cuda_error(cudaMemcpyAsync(impl_->response_host.get(), impl_->response.get(),
                                      count * sizeof(float), cudaMemcpyDeviceToHost, stream),
                      "cudaMemcpyAsync response", error) ||
      !record(stop_event, stream, "cudaEventRecord response stop", error) ||
      !set_cuda_error(cudaStreamSynchronize(stream), "cudaStreamSynchronize response", error)) {
    return false;
  }
  out->assign(impl_->response_host.get(), impl_->response_host.get() + count);
  return true;
}

bool CudaProjectionClassifier::download_projected_sample(int index, std::vector<float>* out,
                                                         cudaStream_t stream, std::string* error,
                                                         cudaEvent_t start_event,
                                                         cudaEvent_t stop_event) const {
  if (impl_ == nullptr || out == nullptr || index < 0 || index >= impl_->last_batch) {
    return refuse("invalid CUDA projected sample download request", error);
  }
  const std::size_t count = element_count({impl_->out_channels, impl_->height, impl_->width});
  if (!impl_->projected.holds((static_cast<std::size_t>(index) + 1) * count)) {
    return refuse("invalid CUDA projected sample download request", error);
  }
  out->resize(count);
  const float* sample = impl_->projected.get() + static_cast<std::size_t>(index) * count;
  return record(start_event, stream, "cudaEventRecord projected start", error) &&
         set_cuda_error(
             cudaMemcpyAsync(out->data(), sample, count * sizeof(float), cudaMemcpyDeviceToHost, stream),
             "cudaMemcpyAsync projected sample", error) &&
         record(stop_event, stream, "cudaEventRecord projected stop", error) &&
         set_cuda_error(cudaStreamSynchronize(stream), "cudaStreamSynchronize projected sample", error);
}

int CudaProjectionClassifier::output_channels() const {
  return impl_ == nullptr ? 0 : impl_->out_channels;
}
int CudaProjectionClassifier::height() const {
  return impl_ == nullptr ? 0 : impl_->height;
}
int CudaProjectionClassifier::width() const {
  return impl_ == nullptr ? 0 : impl_->width;
}
int CudaProjectionClassifier::last_batch() const {
  return impl_ == nullptr ? 0 : impl_->last_batch;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
