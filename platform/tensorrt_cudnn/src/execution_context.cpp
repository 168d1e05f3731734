#include "execution_context.h"

#include <log.h>
#include <onnx_graph/shape_inference.h>

#include <algorithm>

namespace ostrel::tensorrt_cudnn {
namespace {

constexpr std::size_t kMostPlans = 8;
constexpr std::uintptr_t kAddressAlignment = 256;

bool settled(const std::vector<Sizes>& sizes) {
  return std::all_of(sizes.begin(), sizes.end(), [](const Sizes& tensor) {
    return std::all_of(tensor.begin(), tensor.end(), [](std::int64_t size) { return size >= 0; });
  });
}

}  // namespace

ExecutionContext::ExecutionContext(nvinfer1::ILogger& logger, std::shared_ptr<const Network> network,
                                   const std::vector<IoTensor>& tensors,
                                   std::shared_ptr<std::atomic<int>> contexts)
    : logger_(logger),
      network_(std::move(network)),
      tensors_(tensors),
      contexts_(std::move(contexts)),
      cudnn_(make_cudnn_handle()),
      shapes_(*network_),
      addresses_(tensors.size(), nullptr) {
  if (shapes_.all_known()) choose_plan(shapes_.inputs());
  ++*contexts_;
}

ExecutionContext::~ExecutionContext() noexcept {
  --*contexts_;
}

void ExecutionContext::choose_plan(const std::vector<Sizes>& input_sizes) {
  const auto known = std::find_if(plans_.begin(), plans_.end(), [&](const KnownPlan& candidate) {
    return candidate.input_sizes == input_sizes;
  });
  if (known != plans_.end()) {
    plan_ = known->plan;
    return;
  }
  const std::shared_ptr<const ExecutionPlan> plan = build_plan(network_, cudnn_.get(), input_sizes);
  if (plans_.size() == kMostPlans) plans_.erase(plans_.begin());
  plans_.push_back({input_sizes, plan});
  plan_ = plan;
}

std::vector<Sizes> ExecutionContext::resolve(const std::vector<Sizes>& input_sizes) {
  if (!settled(input_sizes)) return infer_sizes(network_->graph, input_sizes);
  choose_plan(input_sizes);
  return plan_->sizes();
}

bool ExecutionContext::setInputShape(char const* tensorName, nvinfer1::Dims const& dims) noexcept {
  return guarded(logger_, "setInputShape", false, [&] {
    shapes_.set(tensors_, tensorName, dims,
                [this](const std::vector<Sizes>& input_sizes) { return resolve(input_sizes); });
    return true;
  });
}

nvinfer1::Dims ExecutionContext::getTensorShape(char const* tensorName) const noexcept {
  return guarded(logger_, "getTensorShape", no_dims(), [&] {
    const std::size_t index = find_tensor(tensors_, tensorName);
    if (index == tensors_.size()) throw ModelError("no such tensor");
    return to_dims(shapes_.values()[static_cast<std::size_t>(tensors_[index].value)]);
  });
}

bool ExecutionContext::setTensorAddress(char const* tensorName, void* data) noexcept {
  return guarded(logger_, "setTensorAddress", false, [&] {
    const std::size_t index = find_tensor(tensors_, tensorName);
    if (index == tensors_.size()) throw ModelError("no such tensor");
    if (reinterpret_cast<std::uintptr_t>(data) % kAddressAlignment != 0) {
      throw ModelError("the address is not aligned to 256 bytes");
    }
    addresses_[index] = data;
    return true;
  });
}

void ExecutionContext::check_addresses() const {
  for (std::size_t i = 0; i < tensors_.size(); ++i) {
    if (addresses_[i] == nullptr) throw ModelError("tensor \"" + tensors_[i].name + "\" has no address");
  }
}

bool ExecutionContext::enqueueV3(cudaStream_t stream) noexcept {
  return guarded(logger_, "enqueueV3", false, [&] {
    if (plan_ == nullptr) throw ModelError("an input shape is not set");
    check_addresses();
    plan_->run(cudnn_.get(), stream, addresses_.data());
    return true;
  });
}

}  // namespace ostrel::tensorrt_cudnn
