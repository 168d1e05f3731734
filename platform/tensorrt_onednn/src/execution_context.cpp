#include "execution_context.h"

#include <host_cuda/control.h>

#include <algorithm>
#include <array>

#include <onnx_graph/shape_inference.h>
#include "faults.h"

namespace ostrel::tensorrt_onednn {
namespace {

constexpr std::size_t kMostPlans = 8;
constexpr std::uintptr_t kAddressAlignment = 256;

}  // namespace

ExecutionContext::ExecutionContext(nvinfer1::ILogger& logger, std::shared_ptr<Network> network,
                                   const std::vector<IoTensor>& tensors,
                                   std::shared_ptr<std::atomic<int>> contexts)
    : logger_(logger),
      network_(std::move(network)),
      tensors_(tensors),
      contexts_(std::move(contexts)),
      shapes_(*network_),
      addresses_(tensors.size(), nullptr) {
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
    shapes_.set(tensors_, tensorName, dims,
                [this](const std::vector<Sizes>& input_sizes) { return resolved(input_sizes); });
    return true;
  });
}

std::vector<Sizes> ExecutionContext::resolved(const std::vector<Sizes>& input_sizes) const {
  const std::shared_ptr<ExecutionPlan> plan = known_plan(input_sizes);
  return plan != nullptr ? plan->sizes() : infer_sizes(network_->graph, input_sizes);
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
    return to_dims(shapes_.values()[static_cast<std::size_t>(tensor.value)]);
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
  if (!shapes_.all_known()) {
    *reason = "an input shape is not set";
    return false;
  }
  for (std::size_t i = 0; i < tensors_.size(); ++i) {
    const std::int64_t count = element_count(shapes_.values()[static_cast<std::size_t>(tensors_[i].value)]);
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

std::shared_ptr<ExecutionPlan> ExecutionContext::known_plan(const std::vector<Sizes>& input_sizes) const {
  for (const KnownPlan& known : plans_) {
    if (known.input_sizes == input_sizes && known.plan->wished_threads() == host_cuda::worker_count())
      return known.plan;
  }
  return nullptr;
}

std::shared_ptr<ExecutionPlan> ExecutionContext::current_plan() {
  std::shared_ptr<ExecutionPlan> plan = known_plan(shapes_.inputs());
  if (plan != nullptr) return plan;
  plan = build_plan(network_, shapes_.inputs(), host_cuda::worker_count());
  if (plans_.size() == kMostPlans) plans_.erase(plans_.begin());
  plans_.push_back({shapes_.inputs(), plan});
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
