// A model with a dynamic batch and several outputs.
#pragma once

#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {

// Dynamic batch; outputs `half` (2 x 2 maxima) and `double` (sums), then `rectified`.
inline std::string several_outputs() {
  OnnxModelBuilder model("several");
  NodeAttributes attributes;
  attributes.lists = {{"kernel_shape", {2, 2}}, {"strides", {2, 2}}};
  model.input("x", {-1, 3, 8, 8}).node("MaxPool", {"x"}, {"half"}, attributes);
  model.node("Add", {"x", "x"}, {"double"}).node("Relu", {"half"}, {"rectified"});
  return model.output("half", {}).output("double", {}).output("rectified", {}).bytes();
}

}  // namespace ostrel::testing
