#include "input_shapes.h"

#include <algorithm>
#include <utility>

namespace ostrel::tensorrt_parts {
namespace {

bool same(const Sizes& sizes, nvinfer1::Dims const& dims) {
  return sizes.size() == static_cast<std::size_t>(dims.nbDims) &&
         std::equal(sizes.begin(), sizes.end(), dims.d);
}

void check_fit(const IoTensor& tensor, const Sizes& built, nvinfer1::Dims const& dims) {
  if (dims.nbDims != static_cast<int32_t>(built.size())) {
    throw ModelError("input \"" + tensor.name + "\" has " + std::to_string(built.size()) + " dimensions");
  }
  for (std::size_t i = 0; i < built.size(); ++i) {
    const bool fits = built[i] >= 0 ? dims.d[i] == built[i] : (dims.d[i] >= 1 && dims.d[i] <= kLargestSize);
    if (fits) continue;
    throw ModelError("size " + std::to_string(dims.d[i]) + " of dimension " + std::to_string(i) +
                     " does not fit input \"" + tensor.name + "\" of shape " + to_text(built));
  }
}

}  // namespace

InputShapes::InputShapes(const LoadedGraph& loaded) : loaded_(loaded), values_(loaded.sizes) {
  for (const Port& port : loaded.graph.inputs) {
    inputs_.push_back(values_[static_cast<std::size_t>(port.value)]);
  }
}

void InputShapes::set(const std::vector<IoTensor>& tensors, const char* name, nvinfer1::Dims const& dims,
                      const Resolve& resolve) {
  const std::size_t input = find_tensor(tensors, name);
  if (input >= inputs_.size()) {
    throw ModelError(std::string("no input \"") + (name == nullptr ? "" : name) + "\"");
  }
  if (same(inputs_[input], dims)) return;
  check_fit(tensors[input], loaded_.sizes[static_cast<std::size_t>(tensors[input].value)], dims);
  std::vector<Sizes> wished = inputs_;
  wished[input].assign(dims.d, dims.d + dims.nbDims);
  values_ = resolve(wished);
  inputs_ = std::move(wished);
}

bool InputShapes::all_known() const {
  return std::all_of(inputs_.begin(), inputs_.end(), [](const Sizes& tensor) {
    return std::all_of(tensor.begin(), tensor.end(), [](std::int64_t size) { return size >= 0; });
  });
}

}  // namespace ostrel::tensorrt_parts
