#include "onnx_model_builder.h"

#include <onnx/onnx_pb.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace ostrel::backbone {
namespace {

constexpr int kIrVersion = 7;
constexpr int kOpset = 13;

void describe(onnx::ValueInfoProto* info, const std::string& name, const Shape& shape) {
  info->set_name(name);
  auto* type = info->mutable_type()->mutable_tensor_type();
  type->set_elem_type(onnx::TensorProto::FLOAT);
  auto* dims = type->mutable_shape();
  static const char* const kDynamicNames[] = {"batch", "channels", "height", "width"};
  for (std::size_t i = 0; i < shape.size(); ++i) {
    auto* dim = dims->add_dim();
    if (shape[i] >= 0) {
      dim->set_dim_value(shape[i]);
    } else {
      dim->set_dim_param(i < 4 ? kDynamicNames[i] : "size");
    }
  }
}

// ONNX keeps raw data little-endian, as the machines that run this do.
template <typename Value>
void fill(onnx::TensorProto* tensor, const std::string& name, int type, const Shape& shape,
          const std::vector<Value>& values) {
  tensor->set_name(name);
  tensor->set_data_type(type);
  for (const std::int64_t size : shape) tensor->add_dims(size);
  tensor->set_raw_data(values.data(), values.size() * sizeof(Value));
}

void add_attributes(onnx::NodeProto* node, const NodeAttributes& attributes) {
  const auto add = [node](const std::string& name, onnx::AttributeProto::AttributeType type) {
    auto* attribute = node->add_attribute();
    attribute->set_name(name);
    attribute->set_type(type);
    return attribute;
  };
  for (const auto& [name, values] : attributes.lists) {
    auto* attribute = add(name, onnx::AttributeProto::INTS);
    for (const std::int64_t value : values) attribute->add_ints(value);
  }
  for (const auto& [name, value] : attributes.integers) add(name, onnx::AttributeProto::INT)->set_i(value);
  for (const auto& [name, value] : attributes.reals) add(name, onnx::AttributeProto::FLOAT)->set_f(value);
  for (const auto& [name, value] : attributes.texts) add(name, onnx::AttributeProto::STRING)->set_s(value);
}

}  // namespace

struct OnnxModelBuilder::Model {
  onnx::ModelProto proto;
};

OnnxModelBuilder::OnnxModelBuilder(const std::string& graph_name) : model_(std::make_unique<Model>()) {
  model_->proto.set_ir_version(kIrVersion);
  model_->proto.set_producer_name("ostrel_backbone");
  model_->proto.mutable_graph()->set_name(graph_name);
  auto* opset = model_->proto.add_opset_import();
  opset->set_domain("");
  opset->set_version(kOpset);
}

OnnxModelBuilder::~OnnxModelBuilder() = default;

OnnxModelBuilder& OnnxModelBuilder::input(const std::string& name, const Shape& shape) {
  describe(model_->proto.mutable_graph()->add_input(), name, shape);
  return *this;
}

OnnxModelBuilder& OnnxModelBuilder::output(const std::string& name, const Shape& shape) {
  describe(model_->proto.mutable_graph()->add_output(), name, shape);
  return *this;
}

OnnxModelBuilder& OnnxModelBuilder::constant(const std::string& name, const Shape& shape,
                                             const std::vector<float>& values) {
  fill(model_->proto.mutable_graph()->add_initializer(), name, onnx::TensorProto::FLOAT, shape, values);
  return *this;
}

OnnxModelBuilder& OnnxModelBuilder::constant(const std::string& name, const Shape& shape,
                                             const std::vector<std::int64_t>& values) {
  fill(model_->proto.mutable_graph()->add_initializer(), name, onnx::TensorProto::INT64, shape, values);
  return *this;
}

OnnxModelBuilder& OnnxModelBuilder::node(const std::string& operation, const std::vector<std::string>& inputs,
                                         const std::vector<std::string>& outputs,
                                         const NodeAttributes& attributes) {
  auto* node = model_->proto.mutable_graph()->add_node();
  node->set_op_type(operation);
  if (!outputs.empty()) node->set_name(outputs.front());
  for (const std::string& name : inputs) node->add_input(name);
  for (const std::string& name : outputs) node->add_output(name);
  add_attributes(node, attributes);
  return *this;
}

OnnxModelBuilder& OnnxModelBuilder::metadata(const std::string& key, const std::string& value) {
  auto* entry = model_->proto.add_metadata_props();
  entry->set_key(key);
  entry->set_value(value);
  return *this;
}

std::string OnnxModelBuilder::bytes() const {
  return model_->proto.SerializeAsString();
}

// Written beside and renamed, so that a file of that name is always whole.
bool OnnxModelBuilder::save(const std::string& path, std::string* error) const {
  const std::string part = path + ".part";
  std::ofstream file(part, std::ios::binary | std::ios::trunc);
  const std::string content = bytes();
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  if (file && std::rename(part.c_str(), path.c_str()) == 0) return true;
  if (error != nullptr) *error = "cannot write " + path + ": " + std::strerror(errno);
  std::remove(part.c_str());
  return false;
}

}  // namespace ostrel::backbone
