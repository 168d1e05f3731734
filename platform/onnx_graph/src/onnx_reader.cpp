#include <onnx_graph/onnx_reader.h>

#include <onnx/onnx_pb.h>

#include <limits>
#include <unordered_map>

#include "onnx_node.h"
#include "onnx_tensor.h"

namespace ostrel::onnx_graph {
namespace {

constexpr std::int64_t kOldestOpset = 11;
constexpr std::int64_t kNewestOpset = 17;
constexpr int kLargestRank = 8;

onnx::ModelProto parse(const void* bytes, std::size_t size) {
  if (bytes == nullptr || size == 0) throw ModelError("there are no bytes");
  if (size > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    throw ModelError("the model is too large");
  onnx::ModelProto model;
  if (!model.ParseFromArray(bytes, static_cast<int>(size))) {
    throw ModelError("the " + std::to_string(size) + " bytes are no whole ONNX model");
  }
  if (!model.has_graph() || model.graph().output_size() == 0)
    throw ModelError("the model has no graph with outputs");
  return model;
}

void check_opset(const onnx::ModelProto& model) {
  for (const auto& opset : model.opset_import()) {
    if (!opset.domain().empty() && opset.domain() != "ai.onnx") continue;
    if (opset.version() >= kOldestOpset && opset.version() <= kNewestOpset) return;
    throw ModelError("operator set " + std::to_string(opset.version()) + " is not supported");
  }
  throw ModelError("the model names no operator set");
}

Sizes declared_sizes(const onnx::ValueInfoProto& info) {
  const auto& type = info.type().tensor_type();
  if (!info.type().has_tensor_type() || type.elem_type() != onnx::TensorProto::FLOAT) {
    throw ModelError("tensor \"" + info.name() + "\" does not hold 32-bit floats");
  }
  if (!type.has_shape() || type.shape().dim_size() < 1 || type.shape().dim_size() > kLargestRank) {
    throw ModelError("tensor \"" + info.name() + "\" has no shape of 1 to 8 dimensions");
  }
  Sizes sizes;
  for (const auto& dim : type.shape().dim()) {
    const bool known = dim.has_dim_value() && dim.dim_value() >= 0;
    if (known && (dim.dim_value() == 0 || dim.dim_value() > kLargestSize)) {
      throw ModelError("tensor \"" + info.name() + "\" has a size out of range");
    }
    sizes.push_back(known ? dim.dim_value() : kUnknown);
  }
  return sizes;
}

// Collects values by name while the graph grows.
class GraphReader {
 public:
  explicit GraphReader(const onnx::GraphProto& proto) : proto_(proto) {}

  Graph read() {
    for (const auto& tensor : proto_.initializer()) define(read_constant(tensor.name(), tensor));
    for (const auto& info : proto_.input()) read_input(info);
    for (const auto& node : proto_.node()) read_node_proto(node);
    for (const auto& info : proto_.output()) read_output(info);
    return std::move(graph_);
  }

 private:
  int define(Value value) {
    const int index = static_cast<int>(graph_.values.size());
    if (value.name.empty()) throw ModelError("a tensor has no name");
    if (!index_.emplace(value.name, index).second) {
      throw ModelError("tensor \"" + value.name + "\" is defined twice");
    }
    graph_.values.push_back(std::move(value));
    return index;
  }

  int find(const std::string& name) const {
    const auto found = index_.find(name);
    if (found == index_.end()) throw ModelError("tensor \"" + name + "\" is read before it is defined");
    return found->second;
  }

  // Older models list their constants among the inputs.
  void read_input(const onnx::ValueInfoProto& info) {
    if (index_.count(info.name()) != 0) return;
    Value value;
    value.name = info.name();
    value.sizes = declared_sizes(info);
    graph_.inputs.push_back({info.name(), define(std::move(value))});
  }

  void read_output(const onnx::ValueInfoProto& info) {
    const int value = find(info.name());
    if (graph_.values[static_cast<std::size_t>(value)].constant) {
      throw ModelError("output \"" + info.name() + "\" is a constant");
    }
    for (const auto* ports : {&graph_.inputs, &graph_.outputs}) {
      for (const Port& port : *ports) {
        if (port.name == info.name())
          throw ModelError("output \"" + info.name() + "\" is listed twice or is an input");
      }
    }
    graph_.outputs.push_back({info.name(), value});
  }

  void read_constant_node(const onnx::NodeProto& proto) {
    for (const auto& attribute : proto.attribute()) {
      if (attribute.name() != "value" || !attribute.has_t()) continue;
      define(read_constant(proto.output(0), attribute.t()));
      return;
    }
    throw ModelError("node \"" + proto.name() + "\" (Constant): only the attribute value is supported");
  }

  void read_node_proto(const onnx::NodeProto& proto) {
    if (proto.output_size() != 1) {
      throw ModelError("node \"" + proto.name() + "\" (" + proto.op_type() + "): must have one output");
    }
    if (proto.op_type() == "Constant") return read_constant_node(proto);
    std::vector<int> inputs;
    for (const std::string& name : proto.input()) inputs.push_back(name.empty() ? -1 : find(name));
    Node node = read_node(proto, inputs, graph_);
    Value value;
    value.name = proto.output(0);
    node.output = define(std::move(value));
    graph_.nodes.push_back(std::move(node));
  }

  const onnx::GraphProto& proto_;
  Graph graph_;
  std::unordered_map<std::string, int> index_;
};

Precision asked_precision(const onnx::ModelProto& model) {
  for (const auto& entry : model.metadata_props()) {
    if (entry.key() != "precision" || entry.value() == "float32") continue;
    if (entry.value() == "bfloat16") return Precision::kBfloat16;
    if (entry.value() == "float16") return Precision::kFloat16;
    throw ModelError("precision \"" + entry.value() + "\" is not supported");
  }
  return Precision::kFloat32;
}

}  // namespace

Graph read_onnx(const void* bytes, std::size_t size) {
  const onnx::ModelProto model = parse(bytes, size);
  check_opset(model);
  Graph graph = GraphReader(model.graph()).read();
  graph.precision = asked_precision(model);
  return graph;
}

}  // namespace ostrel::onnx_graph
