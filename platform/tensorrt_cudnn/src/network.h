// What an engine holds; shared by its contexts.
#pragma once

#include <loaded_graph.h>

#include "device_constants.h"

namespace ostrel::tensorrt_cudnn {

struct Network : LoadedGraph {
  Format format = Format::kPlainFloat32;  // of convolutions
  DeviceConstants constants;
};

}  // namespace ostrel::tensorrt_cudnn
