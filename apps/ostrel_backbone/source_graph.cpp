#include "source_graph.h"

#include <onnx/onnx_pb.h>

#include <cstring>

#include "model_error.h"

namespace ostrel::backbone {
namespace {

// No constant has as many elements.
constexpr std::int64_t kLargestCount = std::int64_t{1} << 40;

std::int64_t element_count(const std::string& name, const Shape& shape) {
  std::int64_t count = 1;
  for (const std::int64_t size : shape) {
    if (size < 0 || (size > 0 && count > kLargestCount / size)) {
      throw ModelError("constant \"" + name + "\" has the shape " + shape_text(shape));
    }
    count *= size;
  }
  return count;
}

template <typename Value, typename Listed>
std::vector<Value> values_of(const std::string& name, const Shape& shape, const std::string& raw,
                             const Listed& listed) {
  const auto count = static_cast<std::size_t>(element_count(name, shape));
  const std::size_t bytes =
      raw.empty() ? static_cast<std::size_t>(listed.size()) * sizeof(Value) : raw.size();
  if (bytes != count * sizeof(Value)) {
    throw ModelError("constant \"" + name + "\" of shape " + shape_text(shape) +
                     " has a wrong amount of data");
  }
  if (raw.empty()) return {listed.begin(), listed.end()};
  std::vector<Value> values(count);
  if (count > 0) std::memcpy(values.data(), raw.data(), raw.size());  // little-endian, as this machine
  return values;
}

SourceConstant read_tensor(const std::string& name, const onnx::TensorProto& tensor) {
  SourceConstant constant;
  constant.shape.assign(tensor.dims().begin(), tensor.dims().end());
  constant.elsewhere =
      tensor.data_location() == onnx::TensorProto::EXTERNAL || tensor.external_data_size() > 0;
  if (constant.elsewhere) return constant;
  if (tensor.data_type() == onnx::TensorProto::FLOAT) {
    constant.reals = values_of<float>(name, constant.shape, tensor.raw_data(), tensor.float_data());
  } else if (tensor.data_type() == onnx::TensorProto::INT64) {
    constant.integers = values_of<std::int64_t>(name, constant.shape, tensor.raw_data(), tensor.int64_data());
  } else {
    const bool known = onnx::TensorProto::DataType_IsValid(tensor.data_type());
    constant.other_type =
        known ? onnx::TensorProto::DataType_Name(static_cast<onnx::TensorProto::DataType>(tensor.data_type()))
              : std::to_string(tensor.data_type());
  }
  return constant;
}

Shape declared_shape(const onnx::ValueInfoProto& info) {
  Shape shape;
  for (const auto& dim : info.type().tensor_type().shape().dim()) {
    shape.push_back(dim.has_dim_value() ? dim.dim_value() : -1);
  }
  return shape;
}

NodeAttributes read_attributes(const onnx::NodeProto& proto) {
  NodeAttributes attributes;
  for (const auto& attribute : proto.attribute()) {
    const std::string& name = attribute.name();
    if (attribute.type() == onnx::AttributeProto::INTS) {
      attributes.lists[name] = {attribute.ints().begin(), attribute.ints().end()};
    } else if (attribute.type() == onnx::AttributeProto::INT) {
      attributes.integers[name] = attribute.i();
    } else if (attribute.type() == onnx::AttributeProto::FLOAT) {
      attributes.reals[name] = attribute.f();
    } else if (attribute.type() == onnx::AttributeProto::STRING) {
      attributes.texts[name] = attribute.s();
    }
  }
  return attributes;
}

bool standard(const std::string& domain) {
  return domain.empty() || domain == "ai.onnx";
}

// 0 where the model names none.
std::int64_t standard_opset(const onnx::ModelProto& model) {
  for (const auto& opset : model.opset_import()) {
    if (standard(opset.domain())) return opset.version();
  }
  return 0;
}

class SourceReader {
 public:
  explicit SourceReader(const onnx::GraphProto& proto) : proto_(proto) {}

  SourceGraph read() {
    for (const auto& tensor : proto_.initializer()) {
      graph_.constants[tensor.name()] = read_tensor(tensor.name(), tensor);
    }
    if (proto_.sparse_initializer_size() > 0) throw ModelError("the model holds sparse weights");
    for (const auto& info : proto_.input()) {
      if (graph_.constants.count(info.name()) == 0) {
        graph_.inputs.push_back({info.name(), declared_shape(info)});
      }
    }
    for (const auto& node : proto_.node()) read_node(node);
    for (const auto& info : proto_.output()) {
      graph_.outputs.push_back({resolved(info.name()), declared_shape(info)});
    }
    return std::move(graph_);
  }

 private:
  std::string resolved(const std::string& name) const {
    const auto found = same_as_.find(name);
    return found == same_as_.end() ? name : found->second;
  }

  void read_constant_node(const onnx::NodeProto& proto) {
    const std::string& name = proto.output(0);
    for (const auto& attribute : proto.attribute()) {
      SourceConstant constant;
      if (attribute.has_t()) {
        graph_.constants[name] = read_tensor(name, attribute.t());
        return;
      }
      if (attribute.type() == onnx::AttributeProto::FLOAT) {
        constant.reals = {attribute.f()};
      } else if (attribute.type() == onnx::AttributeProto::FLOATS) {
        constant.shape = {attribute.floats_size()};
        constant.reals = {attribute.floats().begin(), attribute.floats().end()};
      } else if (attribute.type() == onnx::AttributeProto::INT) {
        constant.integers = {attribute.i()};
      } else if (attribute.type() == onnx::AttributeProto::INTS) {
        constant.shape = {attribute.ints_size()};
        constant.integers = {attribute.ints().begin(), attribute.ints().end()};
      } else {
        continue;
      }
      graph_.constants[name] = std::move(constant);
      return;
    }
    throw ModelError("node \"" + proto.name() + "\" (Constant) holds no number");
  }

  void read_node(const onnx::NodeProto& proto) {
    const std::string label =
        proto.name().empty() && proto.output_size() > 0 ? proto.output(0) : proto.name();
    if (proto.output_size() == 0) throw ModelError("node \"" + label + "\" has no output");
    const bool ours = standard(proto.domain());
    const std::string operation = ours ? proto.op_type() : proto.domain() + "." + proto.op_type();
    ++graph_.operations[operation];
    if (operation == "Constant") return read_constant_node(proto);
    if (operation == "Identity" || operation == "Dropout") {
      if (proto.input_size() == 0) throw ModelError("node \"" + label + "\" has no input");
      same_as_[proto.output(0)] = resolved(proto.input(0));
      return;
    }
    SourceNode node{operation, label, {}, {}, read_attributes(proto)};
    for (const std::string& name : proto.input()) node.inputs.push_back(resolved(name));
    for (const std::string& name : proto.output()) node.outputs.push_back(name);
    graph_.nodes.push_back(std::move(node));
  }

  const onnx::GraphProto& proto_;
  SourceGraph graph_;
  std::map<std::string, std::string> same_as_;
};

}  // namespace

SourceGraph read_source_graph(const std::string& bytes) {
  onnx::ModelProto model;
  if (bytes.empty() || !model.ParseFromString(bytes) || !model.has_graph() ||
      model.graph().node_size() == 0) {
    throw ModelError("no ONNX model");
  }
  SourceGraph graph = SourceReader(model.graph()).read();
  graph.opset = standard_opset(model);
  graph.producer = model.producer_name();
  for (const auto& entry : model.metadata_props()) graph.metadata[entry.key()] = entry.value();
  return graph;
}

std::string shape_text(const Shape& shape) {
  std::string text = "[";
  for (const std::int64_t size : shape) {
    if (text.size() > 1) text += ", ";
    text += size < 0 ? "?" : std::to_string(size);
  }
  return text + "]";
}

}  // namespace ostrel::backbone
