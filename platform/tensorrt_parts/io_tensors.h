// The named inputs and outputs of a network, as the interface shows them.
#pragma once

#include <NvInfer.h>

#include <string>
#include <vector>

#include "graph_names.h"

namespace ostrel::tensorrt_parts {

// An address per input and output travels with each run; more of them are refused.
constexpr std::size_t kMostIoTensors = 16;

struct IoTensor {
  std::string name;
  nvinfer1::TensorIOMode mode = nvinfer1::TensorIOMode::kNONE;
  int value = -1;          // of the graph
  std::string shape_call;  // "getTensorShape(NAME)"
};

// Inputs, then outputs. Throws ModelError when there are too many.
std::vector<IoTensor> io_tensors(const Graph& graph);

// Position by name, or the number of tensors when the name is null or unknown.
std::size_t find_tensor(const std::vector<IoTensor>& tensors, const char* name) noexcept;

// What the interface answers for a name that it does not know.
nvinfer1::Dims no_dims() noexcept;
nvinfer1::Dims to_dims(const Sizes& sizes) noexcept;

}  // namespace ostrel::tensorrt_parts
