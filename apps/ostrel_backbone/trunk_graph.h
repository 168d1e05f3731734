// Adds the pieces of a trunk to a model, node by node. Each call names the value that it reads and answers with the
// name of the value that it made.
#pragma once

#include <string>

#include "onnx_model_builder.h"
#include "trunk_network.h"

namespace ostrel::backbone {

// What the runtime is asked to calculate in; stands in the model's metadata under the key "precision". Inputs and
// outputs are 32-bit floats in every case.
enum class Precision { kFloat32, kBfloat16, kFloat16 };

// Float32 is what a model without the key means, and writes none.
void mark_precision(Precision precision, OnnxModelBuilder* model);

class TrunkGraph {
 public:
  explicit TrunkGraph(OnnxModelBuilder* model) : model_(*model) {}

  // (source - mean) / deviation, before anything is padded with zeros.
  std::string normalisation(const TrunkNetwork& network, const std::string& source);

  // Convolution, Relu, maximum of 3 x 3 with stride 2.
  std::string stem(const TrunkNetwork& network, const std::string& source);

  // The last block's output carries the stage's name.
  std::string stage(const Stage& stage, std::string source);

  std::string convolution(const std::string& name, const Convolution& layer, const std::string& source);

  // Twice as many rows and columns, linear between the cells. Cell i comes to lie on cell 2 i: that is where a
  // stride 2 with a window padded on both sides has put its centre.
  std::string doubled(const std::string& name, const std::string& source);

  std::string sum(const std::string& name, const std::string& first, const std::string& second);

 private:
  std::string relu(const std::string& source, const std::string& name);
  std::string block(const ResidualBlock& block, const std::string& name, const std::string& output,
                    const std::string& source);

  OnnxModelBuilder& model_;
};

}  // namespace ostrel::backbone
