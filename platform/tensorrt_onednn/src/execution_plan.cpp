#include "execution_plan.h"

#include <cstdlib>

#include "thread_limit.h"

namespace ostrel::tensorrt_onednn {

void FreeDeleter::operator()(void* block) const noexcept {
  std::free(block);
}

bool ExecutionPlan::run_step(const PlanStep& step, void* const* addresses) {
  const auto resolve = [addresses](const PlainPointer& pointer) {
    return pointer.port < 0 ? pointer.fixed : static_cast<float*>(addresses[pointer.port]);
  };
  if (step.arithmetic) {
    step.arithmetic->run(resolve(step.first), resolve(step.second), resolve(step.target));
    return true;
  }
  if (step.resize) {
    step.resize->run(resolve(step.first), resolve(step.target));
    return true;
  }
  return dnnl_primitive_execute(step.primitive.get(), stream_.get(), static_cast<int>(step.arguments.size()),
                                step.arguments.data()) == dnnl_success;
}

bool ExecutionPlan::run(void* const* addresses) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const ThreadLimit limit(threads_);
  for (const PortMemory& bound : port_memories_) {
    if (dnnl_memory_set_data_handle(bound.memory.get(), addresses[bound.port]) != dnnl_success) return false;
  }
  for (const PlanStep& step : steps_) {
    if (!run_step(step, addresses)) return false;
  }
  return true;
}

}  // namespace ostrel::tensorrt_onednn
