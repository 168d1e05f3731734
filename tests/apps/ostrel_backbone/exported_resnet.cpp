#include "apps/ostrel_backbone/exported_resnet.h"

#include <onnx/onnx_pb.h>
#include <random_normal.h>

#include <cmath>

namespace ostrel::testing {
namespace {

using backbone::Convolution;
using backbone::FeaturePlanes;
using backbone::RandomNormal;

constexpr float kEpsilon = 0.02F;  // far from the default, so that a reader that ignores it shows
constexpr int kClasses = 10;

NormalisedLayer random_layer(int in, int out, int kernel, int stride, RandomNormal* random) {
  NormalisedLayer layer;
  layer.convolution = {in, out, kernel, stride, {}, {}};
  const std::size_t count = layer.convolution.weights_per_output() * static_cast<std::size_t>(out);
  // Uniform numbers do here, and are had twelve times faster.
  const double range = std::sqrt(6.0 / static_cast<double>(layer.convolution.weights_per_output()));
  for (std::size_t i = 0; i < count; ++i) {
    layer.convolution.weights.push_back(static_cast<float>((random->uniform() - 0.5) * 2.0 * range));
  }
  for (int i = 0; i < out; ++i) {
    layer.gamma.push_back(static_cast<float>(0.4 + 0.4 * random->uniform()));
    layer.beta.push_back(static_cast<float>(0.4 * (random->uniform() - 0.3)));
    layer.mean.push_back(static_cast<float>(random->uniform() - 0.5));
    layer.variance.push_back(static_cast<float>(0.5 + random->uniform()));
  }
  return layer;
}

FeaturePlanes run_layer(const FeaturePlanes& source, const NormalisedLayer& layer) {
  FeaturePlanes planes = convolve(source, layer.convolution);
  for (int channel = 0; channel < planes.channels; ++channel) {
    const auto c = static_cast<std::size_t>(channel);
    const double root = std::sqrt(static_cast<double>(layer.variance[c]) + static_cast<double>(kEpsilon));
    double* values = planes.plane(channel);
    for (std::size_t i = 0; i < planes.plane_size(); ++i) {
      values[i] = (values[i] - layer.mean[c]) / root * layer.gamma[c] + layer.beta[c];
    }
  }
  return planes;
}

FeaturePlanes run_block(const FeaturePlanes& source, const SourceBlock& block) {
  FeaturePlanes planes = source;
  for (std::size_t i = 0; i < block.branch.size(); ++i) {
    planes = run_layer(planes, block.branch[i]);
    if (i + 1 < block.branch.size()) rectify(&planes);
  }
  add(&planes, block.shortcut.empty() ? source : run_layer(source, block.shortcut.front()));
  rectify(&planes);
  return planes;
}

// Writes node after node; values are called after what they are, or by number.
class Exporter {
 public:
  Exporter(const SourceResnet& net, const Dialect& dialect) : net_(net), dialect_(dialect) {}

  onnx::ModelProto model() {
    model_.set_ir_version(7);
    auto* opset = model_.add_opset_import();
    opset->set_version(dialect_.opset);
    std::string value = front(add_input());
    value = relu(normalised("conv1", net_.stem, value));
    value = pool(value);
    for (int stage = 0; stage < dialect_.stages; ++stage) {
      const auto& blocks = net_.stages[static_cast<std::size_t>(stage)];
      for (std::size_t i = 0; i < blocks.size(); ++i) {
        value = block("layer" + std::to_string(stage + 1) + "." + std::to_string(i), blocks[i], value);
      }
    }
    add_output(head(value));
    return std::move(model_);
  }

 private:
  onnx::GraphProto* graph() { return model_.mutable_graph(); }

  std::string add_input() {
    describe(graph()->add_input(), "picture", {dialect_.batch, 3, dialect_.side, dialect_.side});
    return "picture";
  }

  void add_output(const std::string& name) { describe(graph()->add_output(), name, {dialect_.batch, -1}); }

  static void describe(onnx::ValueInfoProto* info, const std::string& name,
                       const std::vector<std::int64_t>& shape) {
    info->set_name(name);
    auto* type = info->mutable_type()->mutable_tensor_type();
    type->set_elem_type(onnx::TensorProto::FLOAT);
    for (const std::int64_t size : shape) {
      auto* dim = type->mutable_shape()->add_dim();
      if (size >= 0) dim->set_dim_value(size);
      if (size < 0) dim->set_dim_param("N");
    }
  }

  std::string fresh(const std::string& name) {
    return dialect_.numbered ? std::to_string(1000 + counter_++) : name + "_" + std::to_string(counter_++);
  }

  onnx::NodeProto* node(const std::string& operation, const std::vector<std::string>& inputs) {
    auto* added = graph()->add_node();
    added->set_op_type(operation);
    for (const std::string& input : inputs) added->add_input(input);
    added->add_output(fresh(operation));
    if (!dialect_.numbered) added->set_name(added->output(0) + "_node");
    return added;
  }

  std::string through(const std::string& value) {
    return dialect_.identities ? node("Identity", {value})->output(0) : value;
  }

  static void set_ints(onnx::NodeProto* node, const std::string& name,
                       const std::vector<std::int64_t>& values) {
    auto* attribute = node->add_attribute();
    attribute->set_name(name);
    attribute->set_type(onnx::AttributeProto::INTS);
    for (const std::int64_t value : values) attribute->add_ints(value);
  }

  static void set_float(onnx::NodeProto* node, const std::string& name, float value) {
    auto* attribute = node->add_attribute();
    attribute->set_name(name);
    attribute->set_type(onnx::AttributeProto::FLOAT);
    attribute->set_f(value);
  }

  void fill(onnx::TensorProto* tensor, const std::vector<std::int64_t>& shape,
            const std::vector<float>& values) const {
    tensor->set_data_type(onnx::TensorProto::FLOAT);
    for (const std::int64_t size : shape) tensor->add_dims(size);
    if (dialect_.float_data) {
      tensor->mutable_float_data()->Reserve(static_cast<int>(values.size()));
      for (const float value : values) tensor->add_float_data(value);
    } else {
      tensor->set_raw_data(values.data(), values.size() * sizeof(float));
    }
  }

  std::string constant(const std::string& name, const std::vector<std::int64_t>& shape,
                       const std::vector<float>& values) {
    if (dialect_.constant_nodes) {
      auto* added = node("Constant", {});
      auto* attribute = added->add_attribute();
      attribute->set_name("value");
      attribute->set_type(onnx::AttributeProto::TENSOR);
      fill(attribute->mutable_t(), shape, values);
      return added->output(0);
    }
    auto* tensor = graph()->add_initializer();
    tensor->set_name(dialect_.numbered ? fresh(name) : name);
    fill(tensor, shape, values);
    if (dialect_.listed_as_inputs) describe(graph()->add_input(), tensor->name(), shape);
    return through(tensor->name());
  }

  static std::vector<std::int64_t> per_channel(const std::vector<float>& values) {
    return {1, static_cast<std::int64_t>(values.size()), 1, 1};
  }

  // The model's own normalisation, for bytes or for values 0 to 1.
  std::string front(const std::string& value) {
    using Front = Dialect::Front;
    if (dialect_.front == Front::kNone) return value;
    const float range = dialect_.front == Front::kUnit ? 1.0F : 255.0F;
    const std::vector<float> mean{0.485F * range, 0.456F * range, 0.406F * range};
    std::vector<float> deviation{0.229F * range, 0.224F * range, 0.225F * range};
    const std::string centred = node("Sub", {value, constant("mean", per_channel(mean), mean)})->output(0);
    if (dialect_.front == Front::kDivides) {
      return node("Div", {centred, constant("deviation", {3, 1, 1}, deviation)})->output(0);
    }
    for (float& item : deviation) item = 1.0F / item;
    return node("Mul", {constant("scale", per_channel(deviation), deviation), centred})->output(0);
  }

  std::string convolution(const std::string& name, const Convolution& layer, const std::vector<float>& bias,
                          const std::string& value) {
    std::vector<std::string> inputs{
        value, constant(name + ".weight", {layer.out_channels, layer.in_channels, layer.kernel, layer.kernel},
                        layer.weights)};
    if (!bias.empty()) inputs.push_back(constant(name + ".bias", {layer.out_channels}, bias));
    auto* added = node("Conv", inputs);
    const std::int64_t padding = (layer.kernel - 1) / 2;
    set_ints(added, "kernel_shape", {layer.kernel, layer.kernel});
    set_ints(added, "strides", {layer.stride, layer.stride});
    set_ints(added, "pads", {padding, padding, padding, padding});
    return added->output(0);
  }

  std::string folded(const std::string& name, const NormalisedLayer& layer, const std::string& value) {
    Convolution convolution_folded = layer.convolution;
    std::vector<float> bias;
    for (std::size_t out = 0; out < layer.gamma.size(); ++out) {
      const double scale = layer.gamma[out] / std::sqrt(static_cast<double>(layer.variance[out]) + kEpsilon);
      const std::size_t count = layer.convolution.weights_per_output();
      for (std::size_t i = 0; i < count; ++i) {
        float& weight = convolution_folded.weights[out * count + i];
        weight = static_cast<float>(weight * scale);
      }
      bias.push_back(static_cast<float>(layer.beta[out] - layer.mean[out] * scale));
    }
    if (!dialect_.split_bias) return convolution(name, convolution_folded, bias, value);
    const std::string plain = convolution(name, convolution_folded, {}, value);
    return node("Add", {plain, constant(name + ".bias", per_channel(bias), bias)})->output(0);
  }

  std::string normalised(const std::string& name, const NormalisedLayer& layer, const std::string& value) {
    if (dialect_.folded) return through(folded(name, layer, value));
    const std::string plain = convolution(name, layer.convolution, {}, value);
    const auto parameter = [&](const char* kind, const std::vector<float>& values) {
      return constant(name + kind, {static_cast<std::int64_t>(values.size())}, values);
    };
    auto* added =
        node("BatchNormalization", {plain, parameter(".gamma", layer.gamma), parameter(".beta", layer.beta),
                                    parameter(".mean", layer.mean), parameter(".variance", layer.variance)});
    set_float(added, "epsilon", kEpsilon);
    set_float(added, "momentum", 0.9F);
    return through(added->output(0));
  }

  std::string relu(const std::string& value) { return node("Relu", {value})->output(0); }

  std::string pool(const std::string& value) {
    auto* added = node("MaxPool", {value});
    set_ints(added, "kernel_shape", {3, 3});
    set_ints(added, "strides", {2, 2});
    set_ints(added, "pads", {1, 1, 1, 1});
    return added->output(0);
  }

  std::string block(const std::string& name, const SourceBlock& block, const std::string& source) {
    std::string value = source;
    for (std::size_t i = 0; i < block.branch.size(); ++i) {
      value = normalised(name + ".conv" + std::to_string(i + 1), block.branch[i], value);
      if (i + 1 < block.branch.size()) value = relu(value);
    }
    const std::string skip =
        block.shortcut.empty() ? source : normalised(name + ".downsample.0", block.shortcut.front(), source);
    return relu(node("Add", {value, skip})->output(0));
  }

  std::string head(const std::string& value) {
    using Head = Dialect::Head;
    if (dialect_.head == Head::kNone) return value;
    const int channels = net_.stages.back().back().branch.back().convolution.out_channels;
    const std::vector<float> weights(static_cast<std::size_t>(channels) * kClasses, 0.01F);
    if (dialect_.head == Head::kMatMul) {
      auto* mean = node("ReduceMean", {value});
      set_ints(mean, "axes", {2, 3});
      const std::string product =
          node("MatMul", {mean->output(0), constant("fc.weight", {channels, kClasses}, weights)})->output(0);
      return node("Add", {product, constant("fc.bias", {kClasses}, std::vector<float>(kClasses, 0.0F))})
          ->output(0);
    }
    const std::string pooled = node("GlobalAveragePool", {value})->output(0);
    if (dialect_.head == Head::kReshape) {
      const std::string shape = node("Shape", {value})->output(0);
      return node("Reshape", {pooled, shape})->output(0);
    }
    const std::string flat = node("Flatten", {pooled})->output(0);
    return node("Gemm", {flat, constant("fc.weight", {kClasses, channels}, weights)})->output(0);
  }

  const SourceResnet& net_;
  const Dialect& dialect_;
  onnx::ModelProto model_;
  int counter_ = 0;
};

SourceBlock random_block(const ResnetShape& shape, int in, int out, int stride, RandomNormal* random) {
  SourceBlock block;
  if (shape.bottleneck) {
    block.branch = {random_layer(in, out, 1, 1, random), random_layer(out, out, 3, stride, random),
                    random_layer(out, 4 * out, 1, 1, random)};
    if (in != 4 * out) block.shortcut = {random_layer(in, 4 * out, 1, stride, random)};
  } else {
    block.branch = {random_layer(in, out, 3, stride, random), random_layer(out, out, 3, 1, random)};
    if (in != out || stride != 1) block.shortcut = {random_layer(in, out, 1, stride, random)};
  }
  return block;
}

}  // namespace

SourceResnet make_resnet(const ResnetShape& shape, std::uint32_t seed) {
  RandomNormal random(seed);
  SourceResnet net;
  int in = shape.channels[0];
  net.stem = random_layer(3, in, 7, 2, &random);
  for (std::size_t stage = 0; stage < 4; ++stage) {
    const int out = shape.channels[stage];
    std::vector<SourceBlock> blocks;
    for (int i = 0; i < shape.blocks[stage]; ++i) {
      const int stride = i > 0 ? 1 : stage > 0 ? 2 : shape.first_stride;
      blocks.push_back(random_block(shape, in, out, stride, &random));
      in = shape.bottleneck ? 4 * out : out;
    }
    net.stages.push_back(std::move(blocks));
  }
  return net;
}

const SourceResnet& resnet18() {
  static const SourceResnet kNet = make_resnet({}, 11);
  return kNet;
}

std::string export_resnet(const SourceResnet& net, const Dialect& dialect) {
  return export_resnet(net, dialect, [](onnx::ModelProto*) {});
}

std::string export_resnet(const SourceResnet& net, const Dialect& dialect,
                          const std::function<void(onnx::ModelProto*)>& change) {
  onnx::ModelProto model = Exporter(net, dialect).model();
  change(&model);
  return model.SerializeAsString();
}

std::vector<FeaturePlanes> forward(const SourceResnet& net, const FeaturePlanes& picture,
                                   const std::array<double, 3>& mean,
                                   const std::array<double, 3>& deviation) {
  FeaturePlanes planes = picture;
  for (int channel = 0; channel < 3; ++channel) {
    const auto c = static_cast<std::size_t>(channel);
    double* values = planes.plane(channel);
    for (std::size_t i = 0; i < planes.plane_size(); ++i)
      values[i] = (values[i] / 255.0 - mean[c]) / deviation[c];
  }
  planes = run_layer(planes, net.stem);
  rectify(&planes);
  planes = max_pool(planes, 3, 2);
  std::vector<FeaturePlanes> stages;
  for (std::size_t stage = 0; stage < 3; ++stage) {
    for (const SourceBlock& block : net.stages[stage]) planes = run_block(planes, block);
    stages.push_back(planes);
  }
  return stages;
}

}  // namespace ostrel::testing
