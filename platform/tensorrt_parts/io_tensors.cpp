#include "io_tensors.h"

#include <algorithm>

namespace ostrel::tensorrt_parts {

std::vector<IoTensor> io_tensors(const Graph& graph) {
  std::vector<IoTensor> tensors;
  const auto add = [&tensors](const std::vector<Port>& ports, nvinfer1::TensorIOMode mode) {
    for (const Port& port : ports) {
      tensors.push_back({port.name, mode, port.value, "getTensorShape(" + port.name + ")"});
    }
  };
  add(graph.inputs, nvinfer1::TensorIOMode::kINPUT);
  add(graph.outputs, nvinfer1::TensorIOMode::kOUTPUT);
  if (tensors.size() > kMostIoTensors) throw ModelError("there are more than 16 inputs and outputs");
  return tensors;
}

std::size_t find_tensor(const std::vector<IoTensor>& tensors, const char* name) noexcept {
  if (name == nullptr) return tensors.size();
  const auto found = std::find_if(tensors.begin(), tensors.end(),
                                  [name](const IoTensor& tensor) { return tensor.name == name; });
  return static_cast<std::size_t>(found - tensors.begin());
}

nvinfer1::Dims no_dims() noexcept {
  nvinfer1::Dims dims{};
  dims.nbDims = -1;
  return dims;
}

nvinfer1::Dims to_dims(const Sizes& sizes) noexcept {
  nvinfer1::Dims dims{};
  dims.nbDims = static_cast<int32_t>(std::min<std::size_t>(sizes.size(), nvinfer1::Dims::MAX_DIMS));
  std::copy_n(sizes.begin(), dims.nbDims, dims.d);
  return dims;
}

}  // namespace ostrel::tensorrt_parts
