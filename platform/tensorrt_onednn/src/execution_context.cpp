#include "execution_context.h"

#include <host_cuda/control.h>

#include <algorithm>
#include <array>

#include <onnx_graph/shape_inference.h>
#include "log.h"

namespace ostrel::tensorrt_onednn {
namespace {

constexpr std::size_t kMostPlans = 8;
constexpr std::uintptr_t kAddressAlignment = 256;

bool all_known(const std::vector<Sizes>& sizes) {
  return std::all_of(sizes.begin(), sizes.end(), [](const Sizes& tensor) {
    return std::all_of(tensor.begin(), tensor.end(), [](std::int64_t size) { return size >= 0; });
  });
}

bool same(const Sizes& sizes, nvinfer1::Dims const& dims) {
  return sizes.size() == static_cast<std::size_t>(dims.nbDims) &&
         std::equal(sizes.begin(), sizes.end(), dims.d);
}

}  // namespace

ExecutionContext::ExecutionContext(nvinfer1::ILogger& logger, std::shared_ptr<Network> network,
                                   const std::vector<IoTensor>& tensors,
                                   std::shared_ptr<std::atomic<int>> contexts)
    : logger_(logger),
      network_(std::move(network)),
      tensors_(tensors),
      contexts_(std::move(contexts)),
      sizes_(network_->sizes),
      addresses_(tensors.size(), nullptr) {
  for (const Port& port : network_->graph.inputs) {
    input_sizes_.push_back(sizes_[static_cast<std::size_t>(port.value)]);
  }
  ++*contexts_;
}

ExecutionContext::~ExecutionContext() noexcept {
  for (const KnownPlan& known : plans_) {
    if (known.plan->pending() == 0) continue;
    log_error(logger_, "~IExecutionContext", "destroyed while its work was pending");
    break;
  }
  --*contexts_;
}

bool ExecutionContext::setInputShape(char const* tensorName, nvinfer1::Dims const& dims) noexcept {
  if (told_to_fail(logger_, "setInputShape")) return false;
  return guarded(logger_, "setInputShape", false, [&] {
    const std::size_t index = find_tensor(tensors_, tensorName);
    if (index >= input_sizes_.size()) {
      throw ModelError(std::string("no input \"") + (tensorName == nullptr ? "" : tensorName) + "\"");
    }
    return accept_shape(index, dims);
  });
}

bool ExecutionContext::accept_shape(std::size_t input, nvinfer1::Dims const& dims) {
  if (same(input_sizes_[input], dims)) return true;
  const Sizes& built = network_->sizes[static_cast<std::size_t>(tensors_[input].value)];
  if (dims.nbDims != static_cast<int32_t>(built.size())) {
    throw ModelError("input \"" + tensors_[input].name + "\" has " + std::to_string(built.size()) +
                     " dimensions");
  }
  for (std::size_t i = 0; i < built.size(); ++i) {
    const bool fits = built[i] >= 0 ? dims.d[i] == built[i] : (dims.d[i] >= 1 && dims.d[i] <= kLargestSize);
    if (fits) continue;
    throw ModelError("size " + std::to_string(dims.d[i]) + " of dimension " + std::to_string(i) +
                     " does not fit input \"" + tensors_[input].name + "\" of shape " + to_text(built));
  }
  Sizes& sizes = input_sizes_[input];
  const Sizes before = sizes;
  std::copy_n(dims.d, dims.nbDims, sizes.begin());
  try {
    resolve_sizes();
  } catch (...) {
    sizes = before;
    throw;
  }
  return true;
}

void ExecutionContext::resolve_sizes() {
  const std::shared_ptr<ExecutionPlan> plan = known_plan();
  sizes_ = plan != nullptr ? plan->sizes() : infer_sizes(network_->graph, input_sizes_);
}

nvinfer1::Dims ExecutionContext::getTensorShape(char const* tensorName) const noexcept {
  const std::size_t index = find_tensor(tensors_, tensorName);
  if (index == tensors_.size()) {
    log_error(logger_, "getTensorShape", "no such tensor");
    return no_dims();
  }
  const IoTensor& tensor = tensors_[index];
  return guarded(logger_, "getTensorShape", no_dims(), [&] {
    Sizes answer;
    for (const char* call : {"getTensorShape", tensor.shape_call.c_str()}) {
      if (told_to_fail(logger_, call)) return no_dims();
      if (host_cuda::take_answer(call, &answer)) return to_dims(answer);
    }
    return to_dims(sizes_[static_cast<std::size_t>(tensor.value)]);
  });
}

bool ExecutionContext::setTensorAddress(char const* tensorName, void* data) noexcept {
  if (told_to_fail(logger_, "setTensorAddress")) return false;
  const std::size_t index = find_tensor(tensors_, tensorName);
  if (index == tensors_.size()) {
    log_error(logger_, "setTensorAddress", "no such tensor");
    return false;
  }
  if (reinterpret_cast<std::uintptr_t>(data) % kAddressAlignment != 0) {
    log_error(logger_, "setTensorAddress", "the address is not aligned to 256 bytes");
    return false;
  }
  addresses_[index] = data;
  return true;
}

bool ExecutionContext::ready_to_run(std::string* reason) const {
  if (!all_known(input_sizes_)) {
    *reason = "an input shape is not set";
    return false;
  }
  for (std::size_t i = 0; i < tensors_.size(); ++i) {
    const std::int64_t count = element_count(sizes_[static_cast<std::size_t>(tensors_[i].value)]);
    if (addresses_[i] == nullptr) {
      *reason = "tensor \"" + tensors_[i].name + "\" has no address";
      return false;
    }
    if (!host_cuda::is_device_pointer(addresses_[i], static_cast<std::size_t>(count) * sizeof(float))) {
      *reason = "the address of tensor \"" + tensors_[i].name + "\" is no device memory of " +
                std::to_string(static_cast<std::size_t>(count) * sizeof(float)) + " bytes";
      return false;
    }
  }
  return true;
}

std::shared_ptr<ExecutionPlan> ExecutionContext::known_plan() const {
  for (const KnownPlan& known : plans_) {
    if (known.input_sizes == input_sizes_ && known.plan->wished_threads() == host_cuda::worker_count())
      return known.plan;
  }
  return nullptr;
}

std::shared_ptr<ExecutionPlan> ExecutionContext::current_plan() {
  std::shared_ptr<ExecutionPlan> plan = known_plan();
  if (plan != nullptr) return plan;
  plan = build_plan(network_, input_sizes_, host_cuda::worker_count());
  if (plans_.size() == kMostPlans) plans_.erase(plans_.begin());
  plans_.push_back({input_sizes_, plan});
  return plan;
}

bool ExecutionContext::put_on_stream(const std::shared_ptr<ExecutionPlan>& plan, cudaStream_t stream) {
  std::array<void*, kMostIoTensors> addresses{};
  std::copy(addresses_.begin(), addresses_.end(), addresses.begin());
  ++plan->pending();
  const cudaError_t status = host_cuda::enqueue(stream, "enqueueV3", [plan, addresses, logger = &logger_] {
    const bool through = plan->run(addresses.data());
    if (!through) log_error(*logger, "enqueueV3", "oneDNN failed while the network ran");
    --plan->pending();
  });
  if (status == cudaSuccess) return true;
  --plan->pending();
  log_error(logger_, "enqueueV3", cudaGetErrorString(status));
  return false;
}

bool ExecutionContext::enqueueV3(cudaStream_t stream) noexcept {
  if (told_to_fail(logger_, "enqueueV3")) return false;
  return guarded(logger_, "enqueueV3", false, [&] {
    std::string reason;
    if (!ready_to_run(&reason)) throw ModelError(reason);
    return put_on_stream(current_plan(), stream);
  });
}

}  // namespace ostrel::tensorrt_onednn
