#include "plain_steps.h"

#include <algorithm>

#include "status.h"

namespace ostrel::tensorrt_cudnn {
namespace {

DeviceMemory upload_taps(const std::vector<ResizeTap>& taps) {
  return {taps.data(), taps.size() * sizeof(ResizeTap)};
}

}  // namespace

MaxPoolStep::MaxPoolStep(Format format, Operand source, const MapSizes& source_sizes, Operand target,
                         const MapSizes& target_sizes, const PoolWindow& window)
    : PlanStep({source, target}),
      format_(format),
      source_sizes_(source_sizes),
      target_sizes_(target_sizes),
      window_(window) {}

void MaxPoolStep::run(const Run& run) const {
  check(launch_max_pool(format_, at(run, 0), source_sizes_, at(run, 1), target_sizes_, window_, run.stream),
        "max_pool_kernel");
}

PadStep::PadStep(Format format, Operand source, const MapSizes& source_sizes, Operand target,
                 const MapSizes& target_sizes, int top, int left)
    : PlanStep({source, target}),
      format_(format),
      source_sizes_(source_sizes),
      target_sizes_(target_sizes),
      top_(top),
      left_(left) {}

void PadStep::run(const Run& run) const {
  check(launch_pad(format_, at(run, 0), source_sizes_, at(run, 1), target_sizes_, top_, left_, run.stream),
        "pad_kernel");
}

ReluStep::ReluStep(Format format, Operand source, Operand target, std::int64_t count)
    : PlanStep({source, target}), format_(format), count_(count) {}

void ReluStep::run(const Run& run) const {
  check(launch_relu(format_, at(run, 0), at(run, 1), count_, run.stream), "relu_kernel");
}

ReorderStep::ReorderStep(Format from, Operand source, Operand target, const MapSizes& sizes)
    : PlanStep({source, target}), from_(from), sizes_(sizes) {}

void ReorderStep::run(const Run& run) const {
  check(launch_reorder(from_, at(run, 0), at(run, 1), sizes_, run.stream), "reorder_kernel");
}

CopyStep::CopyStep(Operand source, Operand target, std::size_t bytes)
    : PlanStep({source, target}), bytes_(bytes) {}

void CopyStep::run(const Run& run) const {
  check(cudaMemcpyAsync(at(run, 1), at(run, 0), bytes_, cudaMemcpyDeviceToDevice, run.stream),
        "cudaMemcpyAsync");
}

ArithmeticStep::ArithmeticStep(Operator op, Operand first, const Sizes& first_sizes, Operand second,
                               const Sizes& second_sizes, Operand target, const Sizes& target_sizes)
    : PlanStep({first, second, target}) {
  const std::vector<ArithmeticAxis> axes = arithmetic_axes(first_sizes, second_sizes, target_sizes);
  shape_.op = op;
  shape_.axis_count =
      static_cast<int>(axes.size());  // at most kMostAxes, the most that a model's tensors have
  std::copy(axes.begin(), axes.end(), shape_.axes);
  shape_.count = element_count(target_sizes);
}

void ArithmeticStep::run(const Run& run) const {
  check(launch_arithmetic(shape_, reals(run, 0), reals(run, 1), reals(run, 2), run.stream),
        "arithmetic_kernel");
}

ResizeStep::ResizeStep(const ResizeRule& rule, Operand source, const Sizes& source_sizes, Operand target,
                       const Sizes& target_sizes)
    : PlanStep({source, target}),
      rows_(upload_taps(resize_taps(rule, 2, source_sizes, target_sizes))),
      columns_(upload_taps(resize_taps(rule, 3, source_sizes, target_sizes))) {
  shape_.planes = static_cast<int>(source_sizes[0] * source_sizes[1]);
  shape_.source_rows = static_cast<int>(source_sizes[2]);
  shape_.source_columns = static_cast<int>(source_sizes[3]);
  shape_.target_rows = static_cast<int>(target_sizes[2]);
  shape_.target_columns = static_cast<int>(target_sizes[3]);
  shape_.rows = static_cast<const ResizeTap*>(rows_.at(0));
  shape_.columns = static_cast<const ResizeTap*>(columns_.at(0));
}

void ResizeStep::run(const Run& run) const {
  check(launch_resize(shape_, reals(run, 0), reals(run, 1), run.stream), "resize_kernel");
}

}  // namespace ostrel::tensorrt_cudnn
