#include "onnx_node.h"

#include <map>

namespace ostrel::onnx_graph {
namespace {

constexpr std::int64_t kLargestWindowValue = 4096;

std::string label(const onnx::NodeProto& proto) {
  return "node \"" + proto.name() + "\" (" + proto.op_type() + ")";
}

[[noreturn]] void refuse(const onnx::NodeProto& proto, const std::string& reason) {
  throw ModelError(label(proto) + ": " + reason);
}

// Attributes by name, with defaults.
class Attributes {
 public:
  explicit Attributes(const onnx::NodeProto& proto) : proto_(proto) {
    for (const auto& attribute : proto.attribute()) found_[attribute.name()] = &attribute;
  }

  std::int64_t integer(const std::string& name, std::int64_t fallback) const {
    const auto* attribute = find(name, onnx::AttributeProto::INT);
    return attribute == nullptr ? fallback : attribute->i();
  }

  float real(const std::string& name, float fallback) const {
    const auto* attribute = find(name, onnx::AttributeProto::FLOAT);
    return attribute == nullptr ? fallback : attribute->f();
  }

  std::string text(const std::string& name, const std::string& fallback) const {
    const auto* attribute = find(name, onnx::AttributeProto::STRING);
    return attribute == nullptr ? fallback : attribute->s();
  }

  // Exactly as many values as `fallback` has, each from `smallest` up.
  Sizes list(const std::string& name, const Sizes& fallback, std::int64_t smallest) const {
    const auto* attribute = find(name, onnx::AttributeProto::INTS);
    if (attribute == nullptr) return fallback;
    Sizes values(attribute->ints().begin(), attribute->ints().end());
    if (values.size() != fallback.size()) refuse(proto_, "attribute " + name + " is not for two dimensions");
    for (const std::int64_t value : values) {
      if (value < smallest || value > kLargestWindowValue)
        refuse(proto_, "attribute " + name + " is out of range");
    }
    return values;
  }

  bool has(const std::string& name) const { return found_.count(name) != 0; }

 private:
  const onnx::AttributeProto* find(const std::string& name, onnx::AttributeProto::AttributeType type) const {
    const auto position = found_.find(name);
    if (position == found_.end()) return nullptr;
    if (position->second->type() != type) refuse(proto_, "attribute " + name + " has a wrong type");
    return position->second;
  }

  const onnx::NodeProto& proto_;
  std::map<std::string, const onnx::AttributeProto*> found_;
};

// The value of `names` that the attribute's text selects.
template <typename Choice>
Choice choose(const onnx::NodeProto& proto, const std::string& attribute, const std::string& text,
              const std::map<std::string, Choice>& names) {
  const auto found = names.find(text);
  if (found == names.end()) refuse(proto, attribute + " \"" + text + "\" is not supported");
  return found->second;
}

AutoPad read_auto_pad(const onnx::NodeProto& proto, const Attributes& attributes) {
  return choose<AutoPad>(proto, "auto_pad", attributes.text("auto_pad", "NOTSET"),
                         {{"NOTSET", AutoPad::kExplicit},
                          {"VALID", AutoPad::kValid},
                          {"SAME_UPPER", AutoPad::kSameUpper},
                          {"SAME_LOWER", AutoPad::kSameLower}});
}

Window read_window(const onnx::NodeProto& proto, const Attributes& attributes) {
  Window window;
  if (attributes.has("kernel_shape")) window.kernel = attributes.list("kernel_shape", {1, 1}, 1);
  window.strides = attributes.list("strides", {1, 1}, 1);
  window.dilations = attributes.list("dilations", {1, 1}, 1);
  window.pads = attributes.list("pads", {0, 0, 0, 0}, 0);
  window.auto_pad = read_auto_pad(proto, attributes);
  return window;
}

const Value& constant_input(const onnx::NodeProto& proto, const Node& node, std::size_t index,
                            const Graph& graph) {
  const Value& value = graph.values[static_cast<std::size_t>(node.inputs[index])];
  if (!value.constant || (value.reals.empty() && value.integers.empty())) {
    refuse(proto, "input " + std::to_string(index) + " must be a constant");
  }
  return value;
}

const Value& real_constant(const onnx::NodeProto& proto, const Node& node, std::size_t index,
                           const Graph& graph) {
  const Value& value = constant_input(proto, node, index, graph);
  if (value.reals.empty()) refuse(proto, "input " + std::to_string(index) + " must hold floats");
  return value;
}

void require_inputs(const onnx::NodeProto& proto, const std::vector<int>& inputs, std::size_t least,
                    std::size_t most) {
  if (inputs.size() < least || inputs.size() > most) refuse(proto, "wrong number of inputs");
  for (const int input : inputs) {
    if (input < 0) refuse(proto, "an input is missing");
  }
}

void read_convolution(const onnx::NodeProto& proto, const Graph& graph, Node* node) {
  require_inputs(proto, node->inputs, 2, 3);
  const Attributes attributes(proto);
  node->window = read_window(proto, attributes);
  const Value& weights = real_constant(proto, *node, 1, graph);
  if (weights.sizes.size() != 4) refuse(proto, "only convolutions of two dimensions are supported");
  const Sizes kernel{weights.sizes[2], weights.sizes[3]};
  if (!node->window.kernel.empty() && node->window.kernel != kernel)
    refuse(proto, "kernel_shape differs from the weights");
  node->window.kernel = kernel;
  node->window.groups = attributes.integer("group", 1);
  if (node->window.groups < 1 || weights.sizes[0] % node->window.groups != 0)
    refuse(proto, "group does not divide the channels");
  if (node->inputs.size() == 3 && real_constant(proto, *node, 2, graph).sizes != Sizes{weights.sizes[0]}) {
    refuse(proto, "the bias does not fit the weights");
  }
}

void read_max_pool(const onnx::NodeProto& proto, Node* node) {
  require_inputs(proto, node->inputs, 1, 1);
  const Attributes attributes(proto);
  node->window = read_window(proto, attributes);
  if (node->window.kernel.empty()) refuse(proto, "attribute kernel_shape is missing");
  node->window.round_up = attributes.integer("ceil_mode", 0) != 0;
  for (std::size_t i = 0; i < 4; ++i) {
    if (node->window.pads[i] >= node->window.kernel[i % 2]) refuse(proto, "padding is not below the kernel");
  }
}

void read_batch_normalization(const onnx::NodeProto& proto, const Graph& graph, Node* node) {
  require_inputs(proto, node->inputs, 5, 5);
  const Attributes attributes(proto);
  if (attributes.integer("training_mode", 0) != 0) refuse(proto, "training_mode is not supported");
  node->epsilon = attributes.real("epsilon", 1e-5F);
  const Sizes sizes = real_constant(proto, *node, 1, graph).sizes;
  for (std::size_t i = 1; i < 5; ++i) {
    if (real_constant(proto, *node, i, graph).sizes != sizes || sizes.size() != 1)
      refuse(proto, "parameters differ in size");
  }
}

ResizeRule read_resize_rule(const onnx::NodeProto& proto) {
  const Attributes attributes(proto);
  ResizeRule rule;
  rule.linear =
      choose<bool>(proto, "mode", attributes.text("mode", "nearest"), {{"nearest", false}, {"linear", true}});
  rule.coordinates = choose<Coordinates>(proto, "coordinate_transformation_mode",
                                         attributes.text("coordinate_transformation_mode", "half_pixel"),
                                         {{"half_pixel", Coordinates::kHalfPixel},
                                          {"pytorch_half_pixel", Coordinates::kPytorchHalfPixel},
                                          {"align_corners", Coordinates::kAlignCorners},
                                          {"asymmetric", Coordinates::kAsymmetric}});
  rule.rounding =
      choose<NearestRounding>(proto, "nearest_mode", attributes.text("nearest_mode", "round_prefer_floor"),
                              {{"round_prefer_floor", NearestRounding::kRoundPreferFloor},
                               {"round_prefer_ceil", NearestRounding::kRoundPreferCeil},
                               {"floor", NearestRounding::kFloor},
                               {"ceil", NearestRounding::kCeil}});
  return rule;
}

// Inputs: the tensor, a region (unused by the supported modes), scales, sizes; one of the last two.
void read_resize(const onnx::NodeProto& proto, const Graph& graph, Node* node) {
  if (node->inputs.empty() || node->inputs.size() > 4 || node->inputs[0] < 0)
    refuse(proto, "wrong number of inputs");
  node->resize = read_resize_rule(proto);
  if (node->inputs.size() > 3 && node->inputs[3] >= 0) {
    node->resize.sizes = constant_input(proto, *node, 3, graph).integers;
  } else if (node->inputs.size() > 2 && node->inputs[2] >= 0) {
    node->resize.scales = constant_input(proto, *node, 2, graph).reals;
  }
  if (node->resize.sizes.size() != 4 && node->resize.scales.size() != 4) {
    refuse(proto, "needs four constant scales or sizes");
  }
  for (const float scale : node->resize.scales) {
    if (!(scale > 0.0F && scale <= static_cast<float>(kLargestWindowValue)))
      refuse(proto, "a scale is out of range");
  }
  for (const std::int64_t size : node->resize.sizes) {
    if (size < 1 || size > kLargestSize) refuse(proto, "a size is out of range");
  }
  node->inputs.resize(1);
}

const std::map<std::string, Operator>& operators() {
  static const std::map<std::string, Operator> kOperators{
      {"Conv", Operator::kConvolution},
      {"MaxPool", Operator::kMaxPool},
      {"Add", Operator::kAdd},
      {"Sub", Operator::kSubtract},
      {"Mul", Operator::kMultiply},
      {"Div", Operator::kDivide},
      {"Relu", Operator::kRelu},
      {"Resize", Operator::kResize},
      {"BatchNormalization", Operator::kBatchNormalization},
      {"Identity", Operator::kIdentity}};
  return kOperators;
}

bool takes_two_operands(Operator op) {
  return op == Operator::kAdd || op == Operator::kSubtract || op == Operator::kMultiply ||
         op == Operator::kDivide;
}

void refuse_unfit_operands(const onnx::NodeProto& proto, const Node& node, const Graph& graph) {
  for (const int input : node.inputs) {
    if (!graph.values[static_cast<std::size_t>(input)].integers.empty()) refuse(proto, "reads whole numbers");
  }
  const Value& source = graph.values[static_cast<std::size_t>(node.inputs[0])];
  if (source.constant && !takes_two_operands(node.op)) refuse(proto, "reads a constant");
}

}  // namespace

Node read_node(const onnx::NodeProto& proto, const std::vector<int>& inputs, const Graph& graph) {
  const auto found = operators().find(proto.op_type());
  if (found == operators().end() || !(proto.domain().empty() || proto.domain() == "ai.onnx")) {
    throw ModelError("operator \"" + proto.op_type() + "\" of node \"" + proto.name() +
                     "\" is not supported");
  }
  Node node;
  node.op = found->second;
  node.name = proto.name();
  node.inputs = inputs;
  switch (node.op) {
    case Operator::kConvolution:
      read_convolution(proto, graph, &node);
      break;
    case Operator::kMaxPool:
      read_max_pool(proto, &node);
      break;
    case Operator::kBatchNormalization:
      read_batch_normalization(proto, graph, &node);
      break;
    case Operator::kResize:
      read_resize(proto, graph, &node);
      break;
    case Operator::kRelu:
    case Operator::kIdentity:
      require_inputs(proto, inputs, 1, 1);
      break;
    default:
      require_inputs(proto, inputs, 2, 2);
      break;
  }
  if (node.op != Operator::kIdentity) refuse_unfit_operands(proto, node, graph);
  return node;
}

}  // namespace ostrel::onnx_graph
