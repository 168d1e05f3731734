#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"

#include <cstdint>
#include <cstring>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_image_preprocess.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

std::size_t row_bytes(const TrtBackbone& worker) {
  return static_cast<std::size_t>(worker.input_width) * 3;
}

std::size_t sample_bytes(const TrtBackbone& worker) {
  return row_bytes(worker) * static_cast<std::size_t>(worker.input_height);
}

bool check_upload(const TrtBackbone* worker, PatchRange patches, std::string* error) {
  if (worker == nullptr || !worker->ready || patches.count == 0) {
    return refuse("TensorRT worker is not ready for input upload", error);
  }
  if (patches.count > static_cast<std::size_t>(worker->max_batch)) {
    return refuse("TensorRT input upload exceeds worker batch capacity", error);
  }
  if (!worker->input_u8_device || worker->input_u8_bytes < patches.count * sample_bytes(*worker)) {
    return refuse("TensorRT uint8 input buffer is not allocated or too small", error);
  }
  return true;
}

bool copy_patch(const TrtBackbone& worker, const cv::Mat& patch, std::uint8_t* target, std::string* error) {
  if (patch.empty() || patch.rows != worker.input_height || patch.cols != worker.input_width ||
      patch.type() != CV_8UC3) {
    return refuse("TensorRT input patch has invalid size or type", error);
  }
  const std::size_t row = row_bytes(worker);
  const std::size_t step = patch.step[0];
  if (patch.isContinuous() && step == row) {
    return require_cuda(cudaMemcpyAsync(target, patch.data, sample_bytes(worker), cudaMemcpyHostToDevice,
                                        worker.stream.get()),
                        "failed to copy TensorRT uint8 input to device", error);
  }
  return require_cuda(
      cudaMemcpy2DAsync(target, row, patch.data, step, row, static_cast<std::size_t>(worker.input_height),
                        cudaMemcpyHostToDevice, worker.stream.get()),
      "failed to copy TensorRT uint8 input rows to device", error);
}

bool copy_patches(const TrtBackbone& worker, PatchRange patches, std::string* error) {
  std::uint8_t* target = worker.input_u8_device.get();
  for (std::size_t i = 0; i < patches.count; ++i, target += sample_bytes(worker)) {
    if (!copy_patch(worker, patches.first[i], target, error)) return false;
  }
  return true;
}

bool convert_patches(const TrtBackbone& worker, std::size_t count, std::string* error) {
  return launch_bgr8_to_rgb_planar_float(
      worker.input_u8_device.get(), sample_bytes(worker), row_bytes(worker), worker.input_device.get(),
      static_cast<int>(count), worker.input_width, worker.input_height, worker.stream.get(), error);
}

bool check_batch_request(const TrtBackbone* worker, PatchRange patches, std::string* error) {
  if (worker == nullptr || !worker->ready || patches.count == 0) {
    return refuse("TensorRT backbone is not ready", error);
  }
  if (patches.count > static_cast<std::size_t>(worker->max_batch)) {
    return refuse("TensorRT batch request exceeds allocated batch capacity", error);
  }
  return true;
}

/// Shape and binding: the classification of a tensor batch may have left the input at memory of its own.
bool prepare_batched_input(TrtBackbone* worker, int batch, std::string* error) {
  const char* const name = worker->input_name.c_str();
  if (!worker->context->setInputShape(name, trt_input_dims(*worker, batch))) {
    return refuse("failed to set TensorRT batched input shape", error);
  }
  if (!is_trt_input_of_batch(worker->context->getTensorShape(name), *worker, batch)) {
    return refuse("TensorRT resolved input shape does not match requested batch", error);
  }
  if (worker->input_bytes <
      DeviceBuffer<float>::bytes_for(element_count({batch, worker->input_height, worker->input_width, 3}))) {
    return refuse("input patch is larger than the configured TensorRT input buffer", error);
  }
  if (!worker->context->setTensorAddress(name, worker->input_device.get())) {
    return refuse("failed to bind TensorRT batched input tensor", error);
  }
  return true;
}

bool check_batched_output(const TrtOutputTensor& tensor, const nvinfer1::Dims& shape, int batch,
                          std::string* error) {
  if (!is_four_dimensional_of_batch(shape, batch)) {
    return refuse("TensorRT resolved output shape does not match requested batch", error);
  }
  if (tensor.device == nullptr) return refuse("TensorRT output device buffer is not allocated", error);
  if (shape.d[1] < 1 || shape.d[2] < 1 || shape.d[3] < 1) {
    return refuse("TensorRT resolved output shape is invalid", error);
  }
  if (tensor.channels > 0 && shape.d[1] != tensor.channels) {
    return refuse("TensorRT resolved output channels do not match cached engine metadata", error);
  }
  if (tensor.host == nullptr) return refuse("TensorRT pinned output buffer is not allocated", error);
  if (!fits_trt_buffer(shape, tensor.bytes)) {
    return refuse("TensorRT resolved output is larger than the allocated output buffer", error);
  }
  return true;
}

FeatureMap sized_feature_map(const nvinfer1::Dims& shape) {
  FeatureMap map;
  map.samples = static_cast<int>(shape.d[0]);
  map.channels = static_cast<int>(shape.d[1]);
  map.height = static_cast<int>(shape.d[2]);
  map.width = static_cast<int>(shape.d[3]);
  map.data.resize(static_cast<std::size_t>(map.samples) * map.sample_stride());
  return map;
}

/// Through pinned memory, so that the copy from the device is truly asynchronous.
bool download_features(const TrtBackbone& worker, const TrtOutputTensor& tensor, FeatureMap* map,
                       const char* copy_failure, const char* wait_failure, std::string* error) {
  const std::size_t bytes = map->data.size() * sizeof(float);
  if (!require_cuda(
          cudaMemcpyAsync(tensor.host, tensor.device, bytes, cudaMemcpyDeviceToHost, worker.stream.get()),
          copy_failure, error) ||
      !require_cuda(cudaStreamSynchronize(worker.stream.get()), wait_failure, error)) {
    return false;
  }
  std::memcpy(map->data.data(), tensor.host, bytes);
  return true;
}

}  // namespace

bool enqueue_network(TrtBackbone* worker) {
  const ProfilerRange range(range_names::kBackbone);
  return worker->context->enqueueV3(worker->stream.get());
}

bool upload_trt_input_patches(TrtBackbone* worker, PatchRange patches, std::string* error) {
  if (!check_upload(worker, patches, error)) return false;
  const ProfilerRange range(range_names::kUploadPatches);
  const auto record = [&](const CudaEvent& event, const char* label) {
    return record_cuda_event(event.get(), worker->stream.get(), label, error);
  };
  return record(worker->upload_u8_events.start, "upload_u8 start") && copy_patches(*worker, patches, error) &&
         record(worker->upload_u8_events.stop, "upload_u8 stop") &&
         record(worker->preprocess_events.start, "preprocess_cuda start") &&
         convert_patches(*worker, patches.count, error) &&
         record(worker->preprocess_events.stop, "preprocess_cuda stop");
}

FeatureMap run_trt_forward_batched(TrtBackbone* worker, PatchRange patches, std::string* error) {
  if (!check_batch_request(worker, patches, error)) return {};
  const int batch = static_cast<int>(patches.count);
  if (!prepare_batched_input(worker, batch, error) || !upload_trt_input_patches(worker, patches, error)) {
    return {};
  }
  if (!enqueue_network(worker)) {
    refuse("TensorRT enqueue failed", error);
    return {};
  }
  const TrtOutputTensor tensor = worker->feature_tensor();
  const nvinfer1::Dims shape = worker->context->getTensorShape(tensor.name.c_str());
  if (!check_batched_output(tensor, shape, batch, error)) return {};
  FeatureMap features = sized_feature_map(shape);
  const bool downloaded =
      download_features(*worker, tensor, &features, "failed to copy TensorRT output to host",
                        "failed to synchronize TensorRT CUDA stream", error);
  return downloaded ? std::move(features) : FeatureMap{};
}

FeatureMap run_trt_forward(TrtBackbone* worker, const cv::Mat& patch, std::string* error) {
  if (patch.empty()) {
    refuse("TensorRT input patch is empty", error);
    return {};
  }
  return run_trt_forward_batched(worker, PatchRange(&patch, 1), error);
}

bool launch_trt_worker_forward(TrtBackbone* worker, const cv::Mat& patch, std::string* error) {
  if (!check_trt_worker(worker, error)) return false;
  const char* const name = worker->input_name.c_str();
  if (!worker->context->setInputShape(name, trt_input_dims(*worker, 1))) {
    return refuse("failed to set TensorRT worker input shape", error);
  }
  if (!is_trt_input_of_batch(worker->context->getTensorShape(name), *worker, 1)) {
    return refuse("TensorRT worker resolved input shape mismatch", error);
  }
  if (!worker->context->setTensorAddress(name, worker->input_device.get())) {
    return refuse("failed to bind TensorRT worker input tensor", error);
  }
  return upload_trt_input_patches(worker, PatchRange(&patch, 1), error) &&
         (enqueue_network(worker) || refuse("TensorRT worker enqueue failed", error));
}

bool collect_trt_worker_forward(TrtBackbone* worker, FeatureMap* out, std::string* error) {
  const TrtOutputTensor tensor = worker->feature_tensor();
  if (tensor.device == nullptr || tensor.host == nullptr) return refuse("missing output buffer", error);
  const nvinfer1::Dims shape = worker->context->getTensorShape(tensor.name.c_str());
  if (!is_four_dimensional_of_batch(shape, 1) || !fits_trt_buffer(shape, tensor.bytes)) {
    return refuse("output shape mismatch", error);
  }
  *out = sized_feature_map(shape);
  return download_features(*worker, tensor, out, "d2h copy failed", "stream sync failed", error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
