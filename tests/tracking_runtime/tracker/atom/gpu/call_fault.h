#pragma once

#include <cuda_runtime.h>

#include <string>

namespace ostrel_test {

/// The n-th next call of a name, made to fail with cudaErrorUnknown, and the label under which its failure is told.
struct CallFault {
  const char* call;
  int n;
  const char* label;

  std::string text() const { return std::string(label) + ": " + cudaGetErrorString(cudaErrorUnknown); }
};

}  // namespace ostrel_test
