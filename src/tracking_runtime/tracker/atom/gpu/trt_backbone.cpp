#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"

#include <algorithm>
#include <limits>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "tracking_runtime/tracker/atom/gpu/trt_engine_cache.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

bool create_event_when_null(CudaEvent* event, const char* text, const char* label, std::string* error) {
  return *event || require_cuda(event->create(), std::string(text) + label, error);
}

/// A side of a shape as the 32-bit number of the records; what does not fit becomes 0, which no buffer takes.
int narrow_side(std::int64_t side) {
  return side < 1 || side > std::numeric_limits<int>::max() ? 0 : static_cast<int>(side);
}

/// One output tensor of a worker under construction, by its fields.
struct OutputSlot {
  const std::string& name;
  DeviceBuffer<float>& device;
  PinnedBuffer<float>& host;
  std::size_t& bytes;
  int& channels;
  int& height;
  int& width;
  const char* allocation_failure;
  const char* binding_failure;
};

OutputSlot output_slot0(TrtBackbone* worker) {
  return {worker->out0_name,
          worker->out0_device,
          worker->out0_host,
          worker->out0_bytes,
          worker->out0_channels,
          worker->out0_height,
          worker->out0_width,
          "failed to allocate TensorRT output buffer out0",
          "failed to bind TensorRT output tensor out0"};
}

OutputSlot output_slot1(TrtBackbone* worker) {
  return {worker->out1_name,
          worker->out1_device,
          worker->out1_host,
          worker->out1_bytes,
          worker->out1_channels,
          worker->out1_height,
          worker->out1_width,
          "failed to allocate TensorRT output buffer out1",
          "failed to bind TensorRT output tensor out1"};
}

void take_names_and_sizes(TrtBackbone* worker, const TrtWorkerSpec& spec) {
  worker->input_name = spec.entry->input_name;
  worker->out0_name = spec.entry->out0_name;
  worker->out1_name = spec.entry->out1_name;
  worker->input_height = spec.height;
  worker->input_width = spec.width;
  worker->dynamic_batch = spec.dynamic_batch;
  worker->dynamic_spatial = spec.dynamic_spatial;
  worker->max_batch = std::max(spec.batch, 1);
}

bool allocate_inputs(TrtBackbone* worker, std::string* error) {
  const std::size_t values = element_count({worker->max_batch, worker->input_height, worker->input_width, 3});
  worker->input_bytes = DeviceBuffer<float>::bytes_for(values);
  worker->input_u8_bytes = values;
  return require_cuda(worker->input_device.ensure(values), "failed to allocate TensorRT input buffer",
                      error) &&
         require_cuda(worker->input_u8_device.ensure(values),
                      "failed to allocate TensorRT uint8 input buffer", error);
}

bool allocate_output(TrtBackbone* worker, const OutputSlot& slot, std::string* error) {
  if (slot.name.empty()) return true;
  const nvinfer1::Dims shape = worker->context->getTensorShape(slot.name.c_str());
  if (shape.nbDims < 4) return refuse(slot.allocation_failure, error);
  slot.channels = narrow_side(shape.d[1]);
  slot.height = narrow_side(shape.d[2]);
  slot.width = narrow_side(shape.d[3]);
  const std::size_t values = element_count({slot.channels, slot.height, worker->max_batch, slot.width});
  if (values == 0) return refuse(slot.allocation_failure, error);
  slot.bytes = DeviceBuffer<float>::bytes_for(values);
  if (!require_cuda(slot.device.ensure(values), slot.allocation_failure, error)) return false;
  if (require_cuda(slot.host.ensure(values), slot.allocation_failure, error)) return true;
  note_release(slot.device.reset(), "cudaFree");
  return false;
}

bool bind_tensors(TrtBackbone* worker, std::string* error) {
  if (!worker->context->setTensorAddress(worker->input_name.c_str(), worker->input_device.get())) {
    return refuse("failed to bind TensorRT input tensor", error);
  }
  for (const OutputSlot& slot : {output_slot0(worker), output_slot1(worker)}) {
    if (slot.name.empty()) continue;
    if (!worker->context->setTensorAddress(slot.name.c_str(), slot.device.get())) {
      return refuse(slot.binding_failure, error);
    }
  }
  return true;
}

bool create_stream_and_events(TrtBackbone* worker, std::string* error) {
  return require_cuda(worker->stream.create_with_flags(cudaStreamNonBlocking),
                      "failed to create TensorRT CUDA stream", error) &&
         create_cuda_event_pair(&worker->upload_u8_events, "upload_u8", error) &&
         create_cuda_event_pair(&worker->preprocess_events, "preprocess_cuda", error) &&
         create_cuda_event_pair(&worker->trt_wait_events, "trt_wait", error) &&
         create_cuda_event_pair(&worker->d2h_response_events, "d2h_response", error) &&
         create_cuda_event_pair(&worker->d2h_projected_events, "d2h_projected", error);
}

bool build_worker(TrtBackbone* worker, const TrtWorkerSpec& spec, std::string* error) {
  worker->engine_entry = spec.entry;
  worker->context.reset(spec.entry->engine->createExecutionContext());
  if (!worker->context) return refuse("failed to create TensorRT execution context", error);
  take_names_and_sizes(worker, spec);
  if (!worker->context->setInputShape(worker->input_name.c_str(),
                                      trt_input_dims(*worker, worker->max_batch))) {
    return refuse("failed to set TensorRT input shape", error);
  }
  return allocate_inputs(worker, error) && allocate_output(worker, output_slot0(worker), error) &&
         allocate_output(worker, output_slot1(worker), error) && bind_tensors(worker, error) &&
         create_stream_and_events(worker, error);
}

}  // namespace

bool create_cuda_event_pair(CudaEventPair* pair, const char* label, std::string* error) {
  return create_event_when_null(&pair->start, "failed to create CUDA event start for ", label, error) &&
         create_event_when_null(&pair->stop, "failed to create CUDA event stop for ", label, error);
}

bool record_cuda_event(cudaEvent_t event, cudaStream_t stream, const char* label, std::string* error) {
  if (event == nullptr) return refuse(std::string("null CUDA event for ") + label, error);
  const cudaError_t status = cudaEventRecord(event, stream);
  if (status == cudaSuccess) return true;
  return require_cuda(status, std::string("failed to record CUDA event for ") + label, error);
}

float elapsed_cuda_event_pair_ms(const CudaEventPair& pair) {
  if (!pair.start || !pair.stop) return 0.0F;
  float elapsed_ms = 0.0F;
  const bool known = require_cuda(cudaEventElapsedTime(&elapsed_ms, pair.start.get(), pair.stop.get()),
                                  "cudaEventElapsedTime", nullptr);
  return known ? elapsed_ms : 0.0F;
}

TrtBackbone::TrtBackbone() = default;

TrtBackbone::~TrtBackbone() {
  if (stream) note_release(cudaStreamSynchronize(stream.get()), "cudaStreamSynchronize");
}

TrtOutputTensor TrtBackbone::feature_tensor() const {
  if (!out1_name.empty() && out1_device) {
    return {out1_name,     out1_device.get(), out1_host.get(), out1_bytes,
            out1_channels, out1_height,       out1_width};
  }
  return {out0_name, out0_device.get(), out0_host.get(), out0_bytes, out0_channels, out0_height, out0_width};
}

std::unique_ptr<TrtBackbone> make_trt_worker(const TrtWorkerSpec& spec, std::string* error) {
  auto worker = std::make_unique<TrtBackbone>();
  if (!build_worker(worker.get(), spec, error)) return nullptr;
  worker->ready = true;
  return worker;
}

bool check_trt_worker(const TrtBackbone* worker, std::string* error) {
  return (worker != nullptr && worker->ready) || refuse("invalid TensorRT worker", error);
}

std::vector<TrtBackbone*> ready_trt_workers(const std::unique_ptr<TrtBackbone>& primary,
                                            const std::vector<std::unique_ptr<TrtBackbone>>& further) {
  std::vector<TrtBackbone*> workers;
  workers.reserve(1 + further.size());
  const auto take_when_ready = [&](const std::unique_ptr<TrtBackbone>& worker) {
    if (worker != nullptr && worker->ready) workers.push_back(worker.get());
  };
  take_when_ready(primary);
  for (const auto& worker : further) take_when_ready(worker);
  return workers;
}

nvinfer1::Dims trt_input_dims(const TrtBackbone& worker, int batch) {
  nvinfer1::Dims dims{};
  dims.nbDims = 4;
  dims.d[0] = batch;
  dims.d[1] = 3;
  dims.d[2] = worker.input_height;
  dims.d[3] = worker.input_width;
  return dims;
}

bool is_trt_input_of_batch(const nvinfer1::Dims& resolved, const TrtBackbone& worker, int batch) {
  return is_four_dimensional_of_batch(resolved, batch) && resolved.d[2] == worker.input_height &&
         resolved.d[3] == worker.input_width;
}

bool is_four_dimensional_of_batch(const nvinfer1::Dims& resolved, int batch) {
  return resolved.nbDims == 4 && resolved.d[0] == batch;
}

bool fits_trt_buffer(const nvinfer1::Dims& resolved, std::size_t bytes) {
  const std::size_t values = element_count({narrow_side(resolved.d[0]), narrow_side(resolved.d[1]),
                                            narrow_side(resolved.d[2]), narrow_side(resolved.d[3])});
  return values > 0 && DeviceBuffer<float>::bytes_for(values) <= bytes;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
