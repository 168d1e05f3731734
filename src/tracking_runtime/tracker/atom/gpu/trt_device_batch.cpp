#include "tracking_runtime/tracker/atom/gpu/trt_device_batch.h"

#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

bool check_request(const TrtBackbone* worker, PatchRange patches, std::string* error) {
  if (worker == nullptr || !worker->ready || patches.count == 0) {
    return refuse("TensorRT backbone is not ready for device init batch", error);
  }
  if (patches.count > static_cast<std::size_t>(worker->max_batch)) {
    return refuse("TensorRT init batch request exceeds allocated capacity", error);
  }
  return true;
}

bool prepare_input(TrtBackbone* worker, int batch, std::string* error) {
  const char* const name = worker->input_name.c_str();
  if (!worker->context->setInputShape(name, trt_input_dims(*worker, batch))) {
    return refuse("failed to set TensorRT init device batch input shape", error);
  }
  if (!is_trt_input_of_batch(worker->context->getTensorShape(name), *worker, batch)) {
    return refuse("TensorRT init device batch input shape mismatch", error);
  }
  if (!worker->context->setTensorAddress(name, worker->input_device.get())) {
    return refuse("failed to bind TensorRT init device batch input tensor", error);
  }
  return true;
}

bool take_output(const TrtBackbone& worker, int batch, TrtDeviceBatch* out, std::string* error) {
  const TrtOutputTensor tensor = worker.feature_tensor();
  const nvinfer1::Dims shape = worker.context->getTensorShape(tensor.name.c_str());
  if (tensor.device == nullptr || !is_four_dimensional_of_batch(shape, batch) || shape.d[1] < 1 ||
      shape.d[2] < 1 || shape.d[3] < 1) {
    return refuse("TensorRT init device batch output shape is invalid", error);
  }
  *out = {tensor.device,
          batch,
          static_cast<int>(shape.d[1]),
          static_cast<int>(shape.d[2]),
          static_cast<int>(shape.d[3]),
          worker.stream.get()};
  return true;
}

}  // namespace

bool run_trt_device_batch(TrtBackbone* worker, PatchRange patches, TrtDeviceBatch* out, std::string* error) {
  if (!check_request(worker, patches, error)) return false;
  const auto batch = static_cast<int>(patches.count);
  if (!prepare_input(worker, batch, error) || !upload_trt_input_patches(worker, patches, error)) return false;
  if (!enqueue_network(worker)) {
    return refuse("TensorRT enqueue failed for init device batch", error);
  }
  return take_output(*worker, batch, out, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
