// The input shapes of an execution context and what follows from them.
#pragma once

#include <NvInfer.h>

#include <functional>

#include "io_tensors.h"
#include "loaded_graph.h"

namespace ostrel::tensorrt_parts {

class InputShapes {
 public:
  // `loaded` must outlive this.
  explicit InputShapes(const LoadedGraph& loaded);

  // Takes the shape of the input with this name; `tensors` as io_tensors() gives them. Throws ModelError, with
  // everything as before, for a name that is no input's, another number of dimensions, a size below 1 or beyond
  // kLargestSize, one that differs from a static size, and for what `resolve` throws, which gives the sizes of every
  // value for those of the inputs.
  using Resolve = std::function<std::vector<Sizes>(const std::vector<Sizes>& inputs)>;
  void set(const std::vector<IoTensor>& tensors, const char* name, nvinfer1::Dims const& dims,
           const Resolve& resolve);

  bool all_known() const;
  const std::vector<Sizes>& inputs() const { return inputs_; }  // unknown where not set yet
  const std::vector<Sizes>& values() const { return values_; }  // of every value of the graph

 private:
  const LoadedGraph& loaded_;
  std::vector<Sizes> inputs_;
  std::vector<Sizes> values_;
};

}  // namespace ostrel::tensorrt_parts
