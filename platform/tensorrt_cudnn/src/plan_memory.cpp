// The part of PlanBuilder that knows where values lie, and settles the steps' operands.
#include "plain_steps.h"
#include "plan_builder.h"

namespace ostrel::tensorrt_cudnn {
namespace {

constexpr std::size_t kBufferAlignment = 256;

}  // namespace

int PlanBuilder::fetch(int value, Format format) {
  for (const Placement& placement : placements(value)) {
    if (placement.format == format) return placement.buffer;
  }
  const int buffer = new_buffer_for(value, format);
  add_reorder(placements(value).front(), value, format, buffer);
  place(value, format, buffer);
  return buffer;
}

Operand PlanBuilder::fetch_plain(int index) {
  if (value(index).constant) return constant(network_->constants.plain(index));
  return in_buffer(fetch(index, Format::kPlainFloat32));
}

std::int64_t PlanBuilder::elements(Format format, int value) const {
  return format == Format::kPlainFloat32 ? element_count(sizes_of(value)) : stored(format, value).count();
}

int PlanBuilder::new_buffer_for(int value, Format format) {
  return new_buffer(static_cast<std::size_t>(elements(format, value)) * element_bytes(format));
}

void PlanBuilder::place(int value, Format format, int buffer) {
  placements(value).push_back({format, buffer});
}

void PlanBuilder::add_reorder(const Placement& source, int value, Format format, int buffer) {
  if (source.format != format) {
    add_step(std::make_unique<ReorderStep>(source.format, in_buffer(source.buffer), in_buffer(buffer),
                                           map_sizes(sizes_of(value))));
    return;
  }
  const std::size_t bytes = static_cast<std::size_t>(elements(format, value)) * element_bytes(format);
  add_step(std::make_unique<CopyStep>(in_buffer(source.buffer), in_buffer(buffer), bytes));
}

void PlanBuilder::add_step(std::unique_ptr<PlanStep> step) {
  for (const Operand& operand : step->operands()) touch(operand.buffer, plan_->steps_.size());
  plan_->steps_.push_back(std::move(step));
}

void PlanBuilder::allocate() {
  plan_->block_ = DeviceMemory(place_touched_buffers(kBufferAlignment));
  for (const auto& step : plan_->steps_) {
    for (Operand& operand : step->operands()) settle(&operand);
  }
}

void PlanBuilder::settle(Operand* operand) const {
  if (operand->buffer < 0) return;
  operand->port = port_of(operand->buffer);
  if (operand->port < 0) operand->fixed = plan_->block_.at(offset_of(operand->buffer));
}

std::shared_ptr<const ExecutionPlan> build_plan(std::shared_ptr<const Network> network, cudnnHandle_t cudnn,
                                                const std::vector<Sizes>& input_sizes) {
  return PlanBuilder(std::move(network), cudnn, input_sizes).build();
}

}  // namespace ostrel::tensorrt_cudnn
