# Also what the tests compile against their own cuDNN.
set(OSTREL_TENSORRT_CUDNN_SOURCES
  src/convolution_step.cpp src/cudnn_handles.cpp src/device_constants.cpp src/device_memory.cpp src/engine.cpp
  src/execution_context.cpp src/execution_plan.cpp src/plain_steps.cpp src/plan_builder.cpp src/plan_memory.cpp
  src/runtime.cpp src/status.cpp)
set(OSTREL_TENSORRT_CUDNN_KERNELS src/tensor_kernels.cu)
