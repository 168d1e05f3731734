// Precisions as the command line and the metadata spell them.
#pragma once

#include <map>
#include <string>

#include "trunk_graph.h"

namespace ostrel::backbone {

inline const std::map<std::string, Precision>& precision_names() {
  static const std::map<std::string, Precision> kNames{
      {"float32", Precision::kFloat32}, {"bfloat16", Precision::kBfloat16}, {"float16", Precision::kFloat16}};
  return kNames;
}

}  // namespace ostrel::backbone
