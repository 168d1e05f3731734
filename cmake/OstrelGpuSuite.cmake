# Writes gpu_suite_programs.txt, a line "KIND NAME FILE" for each program of the suite that runs on a GPU machine: tests,
# those of them that compute-sanitizer looks at (`kernels`), benchmarks, and those that take a backbone
# (`model_benchmark`).
get_property(tests GLOBAL PROPERTY OSTREL_GPU_TESTS)
get_property(benchmarks GLOBAL PROPERTY OSTREL_BENCHMARKS)
get_property(model_benchmarks GLOBAL PROPERTY OSTREL_MODEL_BENCHMARKS)
set(kernels
  optrix_test tensorrt_cudnn_test test_gpu_kernels test_gpu_solvers test_joint_optimizer test_launch test_trt_classify
  test_trt_device_batch)

set(lines "")
foreach(kind test kernels benchmark model_benchmark)
  foreach(program ${${kind}s} ${${kind}})
    string(APPEND lines "${kind} ${program} $<TARGET_FILE:${program}>\n")
  endforeach()
endforeach()
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/gpu_suite_programs.txt CONTENT "${lines}")

# Everything that the suite needs.
add_custom_target(gpu_suite)
add_dependencies(gpu_suite ${tests} ${benchmarks} ${model_benchmarks} ostrel_plugin ostrel_backbone)
