// Builds an ONNX model (opset 13) node by node; keeps protobuf out of its users' sources.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ostrel::backbone {

// A shape; -1 stands for a size that is settled when the model runs.
using Shape = std::vector<std::int64_t>;

struct NodeAttributes {
  std::map<std::string, std::vector<std::int64_t>> lists;
  std::map<std::string, std::int64_t> integers;
  std::map<std::string, float> reals;
  std::map<std::string, std::string> texts;
};

class OnnxModelBuilder {
 public:
  explicit OnnxModelBuilder(const std::string& graph_name);
  ~OnnxModelBuilder();
  OnnxModelBuilder(const OnnxModelBuilder&) = delete;
  OnnxModelBuilder& operator=(const OnnxModelBuilder&) = delete;

  // Tensors of 32-bit floats, in the order in which the engine will list them.
  OnnxModelBuilder& input(const std::string& name, const Shape& shape);
  OnnxModelBuilder& output(const std::string& name, const Shape& shape);

  // Values row-major; their count must be the product of the shape.
  OnnxModelBuilder& constant(const std::string& name, const Shape& shape, const std::vector<float>& values);
  OnnxModelBuilder& constant(const std::string& name, const Shape& shape,
                             const std::vector<std::int64_t>& values);

  // Nodes are to be added so that each comes after those that it reads.
  OnnxModelBuilder& node(const std::string& operation, const std::vector<std::string>& inputs,
                         const std::vector<std::string>& outputs, const NodeAttributes& attributes = {});

  OnnxModelBuilder& metadata(const std::string& key, const std::string& value);

  // The serialised model.
  std::string bytes() const;

  // False with a text when the file cannot be written; then nothing is left of it.
  bool save(const std::string& path, std::string* error = nullptr) const;

 private:
  struct Model;
  std::unique_ptr<Model> model_;
};

}  // namespace ostrel::backbone
