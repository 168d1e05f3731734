#include "execution_plan.h"

#include "status.h"

namespace ostrel::tensorrt_cudnn {

void ExecutionPlan::run(cudnnHandle_t cudnn, cudaStream_t stream, void* const* addresses) const {
  check(cudnnSetStream(cudnn, stream), "cudnnSetStream");
  const Run run{cudnn, stream, addresses};
  for (const auto& step : steps_) step->run(run);
}

}  // namespace ostrel::tensorrt_cudnn
