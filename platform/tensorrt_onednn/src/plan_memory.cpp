// The part of PlanBuilder that settles buffers and binds the steps to them.
#include <cstdlib>
#include <new>

#include "plan_builder.h"

namespace ostrel::tensorrt_onednn {
namespace {

// Of a cache line.
constexpr std::size_t kBufferAlignment = 64;
// Far beyond any use; a system that overcommits would grant more and fail later.
constexpr std::size_t kLargestBlock = std::size_t{1} << 36;

}  // namespace

void PlanBuilder::add_step(Draft draft) {
  const std::size_t step = drafts_.size();
  for (const Argument& argument : draft.arguments) touch(argument.buffer, step);
  for (const PlainOperand* operand : {&draft.first, &draft.second, &draft.target})
    touch(operand->buffer, step);
  drafts_.push_back(std::move(draft));
}

void PlanBuilder::allocate() {
  const std::size_t bytes = place_touched_buffers(kBufferAlignment);
  plan_->intermediate_bytes_ = bytes;
  if (bytes == 0) return;
  if (bytes > kLargestBlock) {
    throw ModelError("these shapes need " + std::to_string(bytes) + " bytes of intermediate memory");
  }
  plan_->block_.reset(std::aligned_alloc(kBufferAlignment, bytes));
  if (plan_->block_ == nullptr) throw std::bad_alloc();
}

void* PlanBuilder::address_of(int buffer) const {
  return static_cast<char*>(plan_->block_.get()) + offset_of(buffer);
}

dnnl_exec_arg_t PlanBuilder::bind(const Argument& argument) {
  dnnl::memory memory = argument.fixed;
  if (argument.buffer >= 0) {
    const int port = port_of(argument.buffer);
    void* const address = port >= 0 ? nullptr : address_of(argument.buffer);
    memory = dnnl::memory(argument.layout, cpu_engine(), address);
    if (port >= 0) plan_->port_memories_.push_back({port, memory});
  }
  plan_->memories_.push_back(memory);
  return {argument.kind, memory.get()};
}

PlainPointer PlanBuilder::bind(const PlainOperand& operand) const {
  if (operand.buffer < 0) return {const_cast<float*>(operand.constant), -1};  // operands are only read
  const int port = port_of(operand.buffer);
  if (port >= 0) return {nullptr, port};
  return {static_cast<float*>(address_of(operand.buffer)), -1};
}

PlanStep PlanBuilder::finish(const Draft& draft) {
  PlanStep step;
  step.primitive = draft.primitive;
  step.arithmetic = draft.arithmetic;
  step.resize = draft.resize;
  for (const Argument& argument : draft.arguments) step.arguments.push_back(bind(argument));
  step.first = bind(draft.first);
  step.second = bind(draft.second);
  step.target = bind(draft.target);
  return step;
}

std::shared_ptr<ExecutionPlan> build_plan(std::shared_ptr<Network> network,
                                          const std::vector<Sizes>& input_sizes, int threads) {
  try {
    return PlanBuilder(std::move(network), input_sizes, threads).build();
  } catch (const dnnl::error& failure) {
    if (failure.status == dnnl_out_of_memory) throw std::bad_alloc();
    throw ModelError(std::string("oneDNN cannot run the network: ") + failure.what());
  }
}

}  // namespace ostrel::tensorrt_onednn
