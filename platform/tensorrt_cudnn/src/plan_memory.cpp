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
  const int buffer = new_buffer(format, value);
  add_reorder(placements(value).front(), value, format, buffer);
  place(value, format, buffer);
  return buffer;
}

Operand PlanBuilder::fetch_plain(int value) {
  if (graph_.values[static_cast<std::size_t>(value)].constant)
    return constant(network_->constants.plain(value));
  return in_buffer(fetch(value, Format::kPlainFloat32));
}

bool PlanBuilder::may_overwrite(int value, int buffer) const {
  return reads_left_[static_cast<std::size_t>(value)] == 0 &&
         buffers_[static_cast<std::size_t>(buffer)].port < 0;
}

int PlanBuilder::new_buffer(Format format, int value) {
  return new_buffer(static_cast<std::size_t>(element_count(sizes_of(value))) * element_bytes(format));
}

int PlanBuilder::new_buffer(std::size_t bytes) {
  Buffer buffer;
  buffer.lifetime.bytes = bytes;
  buffers_.push_back(buffer);
  return static_cast<int>(buffers_.size()) - 1;
}

int PlanBuilder::port_buffer(std::size_t port) {
  Buffer buffer;
  buffer.port = static_cast<int>(port);
  buffers_.push_back(buffer);
  return static_cast<int>(buffers_.size()) - 1;
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
  const std::size_t bytes = static_cast<std::size_t>(element_count(sizes_of(value))) * element_bytes(format);
  add_step(std::make_unique<CopyStep>(in_buffer(source.buffer), in_buffer(buffer), bytes));
}

void PlanBuilder::add_step(std::unique_ptr<PlanStep> step) {
  const std::size_t position = plan_->steps_.size();
  for (const Operand& operand : step->operands()) {
    if (operand.buffer < 0) continue;
    Buffer& buffer = buffers_[static_cast<std::size_t>(operand.buffer)];
    if (!buffer.touched) buffer.lifetime.first_step = position;
    buffer.touched = true;
    buffer.lifetime.last_step = position;
  }
  plan_->steps_.push_back(std::move(step));
}

void PlanBuilder::allocate() {
  std::vector<Lifetime> lifetimes;
  std::vector<std::size_t> owners;
  for (std::size_t i = 0; i < buffers_.size(); ++i) {
    if (buffers_[i].port >= 0 || !buffers_[i].touched) continue;
    lifetimes.push_back(buffers_[i].lifetime);
    owners.push_back(i);
  }
  plan_->block_ = DeviceMemory(place_buffers(&lifetimes, kBufferAlignment));
  for (std::size_t i = 0; i < owners.size(); ++i) buffers_[owners[i]].lifetime = lifetimes[i];
  for (const auto& step : plan_->steps_) {
    for (Operand& operand : step->operands()) settle(&operand);
  }
}

void PlanBuilder::settle(Operand* operand) const {
  if (operand->buffer < 0) return;
  const Buffer& buffer = buffers_[static_cast<std::size_t>(operand->buffer)];
  operand->port = buffer.port;
  if (buffer.port < 0) operand->fixed = plan_->block_.at(buffer.lifetime.offset);
}

std::shared_ptr<const ExecutionPlan> build_plan(std::shared_ptr<const Network> network, cudnnHandle_t cudnn,
                                                const std::vector<Sizes>& input_sizes) {
  return PlanBuilder(std::move(network), cudnn, input_sizes).build();
}

}  // namespace ostrel::tensorrt_cudnn
