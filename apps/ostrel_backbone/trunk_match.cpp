#include "trunk_match.h"

#include <algorithm>
#include <cmath>

#include "graph_walk.h"
#include "model_error.h"

namespace ostrel::backbone {
namespace {

constexpr int kStemChannels = 64;
constexpr std::size_t kKeptStages = 3;
constexpr int kBlocksPerStage = 2;
constexpr double kByteRange = 255.0;
// A normalisation for values 0 to 1 that is fed 0 to 255 gives values of hundreds; a fitting one stays near 2.
constexpr double kLargestNormalised = 20.0;

struct ExpectedStage {
  const char* name;
  int channels;
  int stride;
};
constexpr ExpectedStage kStages[] = {
    {"layer1", 64, 1}, {"layer2", 128, 2}, {"layer3", 256, 2}, {"layer4", 512, 2}};

[[noreturn]] void refuse(const std::string& where, const std::string& reason) {
  throw ModelError("no ResNet-18: " + where + ": " + reason);
}

std::string window_text(const Convolution& layer) {
  return std::to_string(layer.kernel) + " x " + std::to_string(layer.kernel) + " of stride " +
         std::to_string(layer.stride) + ", " + std::to_string(layer.in_channels) + " to " +
         std::to_string(layer.out_channels) + " channels";
}

void require_layer(const Convolution& found, const Convolution& wanted, const std::string& where) {
  if (window_text(found) == window_text(wanted)) return;
  refuse(where, "a convolution is " + window_text(found) + ", expected " + window_text(wanted));
}

class TrunkMatcher {
 public:
  TrunkMatcher(const SourceGraph& graph, const SourceInput& input)
      : graph_(graph), input_(input), walk_(graph) {}

  TrunkNetwork match() {
    check_opset();
    value_ = picture_input();
    match_normalisation();
    match_stem();
    for (const ExpectedStage& stage : kStages) {
      if (!match_stage(stage)) break;
    }
    if (network_.stages.size() > kKeptStages) network_.stages.resize(kKeptStages);
    if (input_.blue_first) exchange_planes();
    return std::move(network_);
  }

 private:
  void check_opset() const {
    if (graph_.opset == 0) throw ModelError("the model names no operator set");
    if (graph_.opset >= kOldestSourceOpset && graph_.opset <= kNewestSourceOpset) return;
    throw ModelError("operator set " + std::to_string(graph_.opset) + " is outside " +
                     std::to_string(kOldestSourceOpset) + " to " + std::to_string(kNewestSourceOpset));
  }

  const std::string& picture_input() const {
    if (graph_.inputs.empty()) throw ModelError("the model has no input");
    for (const SourcePort& port : graph_.inputs) refuse_weights_as_input(port.name);
    if (graph_.inputs.size() > 1) {
      throw ModelError("the model has " + std::to_string(graph_.inputs.size()) +
                       " inputs; one picture is wanted");
    }
    const SourcePort& port = graph_.inputs.front();
    const bool fits =
        port.shape.empty() || (port.shape.size() == 4 && (port.shape[1] == 3 || port.shape[1] < 0));
    if (!fits) {
      throw ModelError("input \"" + port.name + "\" has the shape " + shape_text(port.shape) +
                       "; batch x 3 x height x width is wanted");
    }
    return port.name;
  }

  void refuse_weights_as_input(const std::string& name) const {
    for (const SourceNode* node : walk_.readers(name)) {
      const bool weighted = node->operation == "Conv" || node->operation == "BatchNormalization";
      if (weighted && !node->inputs.empty() && node->inputs.front() != name) {
        throw ModelError("weights are missing: " + node_text(*node) + " reads \"" + name +
                         "\", which the model does not hold");
      }
    }
  }

  void match_normalisation() {
    const std::string before = value_;
    const ChannelLine line = walk_.channel_lines(3, "the input", &value_);
    const bool own = own_normalisation_ = value_ != before;
    if (own && input_.normalisation_given) {
      throw ModelError("the model normalises its input itself: a mean and a deviation cannot be given");
    }
    const double to_bytes = kByteRange / (input_.range > 0.0 ? input_.range : own ? kByteRange : 1.0);
    for (std::size_t i = 0; i < 3; ++i) {
      if (own && line.scale[i] == 0.0) refuse("the input", "its normalisation multiplies by zero");
      network_.mean[i] = to_bytes * (own ? -line.shift[i] / line.scale[i] : input_.mean[i]);
      network_.deviation[i] = to_bytes * (own ? 1.0 / line.scale[i] : input_.deviation[i]);
    }
    check_normalisation(own);
  }

  // Numbers for the other range of pictures put the mean far outside, or blow everything up.
  void check_normalisation(bool own) const {
    double largest = 0.0;
    bool inside = true;
    for (std::size_t i = 0; i < 3; ++i) {
      const double mean = network_.mean[i];
      const double reach = std::max(std::abs(mean), std::abs(kByteRange - mean));
      largest = std::max(largest, reach / std::abs(network_.deviation[i]));
      inside = inside && mean >= -kByteRange && mean <= 2.0 * kByteRange;
    }
    if (!std::isfinite(largest)) refuse("the input", "its normalisation divides by zero");
    if (input_.range > 0.0 || (inside && largest <= kLargestNormalised)) return;
    throw ModelError(
        std::string(own ? "the model's own normalisation does" : "the mean and the deviation do") +
        " not fit pictures of 0 to " + (own ? "255" : "1") +
        ": say with --input-range which values they are for");
  }

  void match_stem() {
    const SourceNode& node = walk_.expect("Conv", value_, "no ResNet-18: the stem");
    network_.stem = walk_.convolution(node, "no ResNet-18: the stem", &value_);
    require_layer(network_.stem, {3, kStemChannels, 7, 2, {}, {}}, "the stem");
    value_ = walk_.expect("Relu", value_, "no ResNet-18: the stem").outputs.front();
    const SourceNode& pool = walk_.expect("MaxPool", value_, "no ResNet-18: the stem");
    require_pool(pool);
    value_ = pool.outputs.front();
  }

  static void require_pool(const SourceNode& node) {
    const auto is = [&node](const char* name, const Shape& wanted, const Shape& fallback) {
      const auto found = node.attributes.lists.find(name);
      return (found == node.attributes.lists.end() ? fallback : found->second) == wanted;
    };
    const auto text = node.attributes.texts.find("auto_pad");
    const auto ceil = node.attributes.integers.find("ceil_mode");
    const bool plain = (text == node.attributes.texts.end() || text->second == "NOTSET") &&
                       (ceil == node.attributes.integers.end() || ceil->second == 0);
    if (plain && is("kernel_shape", {3, 3}, {}) && is("strides", {2, 2}, {1, 1}) &&
        is("pads", {1, 1, 1, 1}, {0, 0, 0, 0}) && is("dilations", {1, 1}, {1, 1})) {
      return;
    }
    refuse("the stem", node_text(node) + " is not the maximum of 3 x 3 with stride 2, padded by 1");
  }

  // False where the trunk ends before the stage.
  bool match_stage(const ExpectedStage& expected) {
    if (trunk_ends(expected)) return false;
    Stage stage{expected.name, {}};
    for (int i = 0; i < kBlocksPerStage; ++i) {
      const std::string where = std::string(expected.name) + ", block " + std::to_string(i);
      if (i > 0 && convolutions(value_).empty()) {
        refuse(expected.name,
               "has " + std::to_string(i) + " block, ResNet-18 has " + std::to_string(kBlocksPerStage));
      }
      stage.blocks.push_back(match_block(expected, i, where));
    }
    network_.stages.push_back(std::move(stage));
    return true;
  }

  bool trunk_ends(const ExpectedStage& expected) const {
    for (const SourceNode* node : walk_.readers(value_)) {
      if (!known_operation(node->operation)) refuse(expected.name, "unknown operation " + node_text(*node));
    }
    if (!convolutions(value_).empty()) {
      refuse_further_block(expected);
      return false;
    }
    if (network_.stages.empty()) refuse(expected.name, "is missing");
    return true;
  }

  // Behind its blocks a stage hands over to one with twice the channels; one more of its own is another network's.
  void refuse_further_block(const ExpectedStage& expected) const {
    if (network_.stages.empty()) return;
    const Stage& before = network_.stages.back();
    std::string unused;
    const Convolution first = walk_.convolution(*convolutions(value_).front(), before.name, &unused);
    if (first.stride == 1 && first.kernel == 3 && first.out_channels == first.in_channels &&
        first.out_channels != expected.channels) {
      refuse(before.name, "has more than " + std::to_string(kBlocksPerStage) + " blocks, as ResNet-34 has");
    }
  }

  std::vector<const SourceNode*> convolutions(const std::string& value) const {
    std::vector<const SourceNode*> found;
    for (const SourceNode* node : walk_.readers(value)) {
      if (node->operation == "Conv") found.push_back(node);
    }
    return found;
  }

  // The 3 x 3 convolution that a block begins with; `shortcut` is the other one, or null.
  const SourceNode& first_convolution(const std::string& where, const SourceNode** shortcut) const {
    const SourceNode* first = nullptr;
    *shortcut = nullptr;
    for (const SourceNode* node : convolutions(value_)) {
      const auto weights =
          node->inputs.size() > 1 ? graph_.constants.find(node->inputs[1]) : graph_.constants.end();
      const bool narrow = weights != graph_.constants.end() && weights->second.shape.size() == 4 &&
                          weights->second.shape[2] == 1;
      const SourceNode** place = narrow ? shortcut : &first;
      if (*place != nullptr) {
        refuse(where, narrow ? "begins with a 1 x 1 convolution: a bottleneck block, as in ResNet-50"
                             : "two 3 x 3 convolutions read its source");
      }
      *place = node;
    }
    if (first == nullptr)
      refuse(where, "begins with a 1 x 1 convolution: a bottleneck block, as in ResNet-50");
    return *first;
  }

  ResidualBlock match_block(const ExpectedStage& stage, int index, const std::string& where) {
    const int out = stage.channels;
    const int in = index == 0 && stage.stride == 2 ? out / 2 : out;
    const int stride = index == 0 ? stage.stride : 1;
    const std::string place = "no ResNet-18: " + where;
    const SourceNode* shortcut = nullptr;
    const SourceNode& first = first_convolution(where, &shortcut);
    ResidualBlock block;
    std::string branch;
    block.first = walk_.convolution(first, place, &branch);
    require_layer(block.first, {in, out, 3, stride, {}, {}}, where);
    branch = walk_.expect("Relu", branch, place).outputs.front();
    block.second = walk_.convolution(walk_.expect("Conv", branch, place), place, &branch);
    require_layer(block.second, {out, out, 3, 1, {}, {}}, where);
    std::string skip = value_;
    block.has_shortcut = stride != 1;
    if (block.has_shortcut != (shortcut != nullptr)) {
      refuse(where,
             block.has_shortcut ? "its shortcut has no convolution" : "its shortcut has a convolution");
    }
    if (shortcut != nullptr) {
      block.shortcut = walk_.convolution(*shortcut, place, &skip);
      require_layer(block.shortcut, {in, out, 1, stride, {}, {}}, where);
    }
    value_ = walk_.expect("Relu", sum(branch, skip, where), place).outputs.front();
    return block;
  }

  std::string sum(const std::string& branch, const std::string& skip, const std::string& where) const {
    const auto found = walk_.readers(branch);
    const bool joins = found.size() == 1 &&
                       (found.front()->operation == "Add" || found.front()->operation == "Sum") &&
                       found.front()->inputs.size() == 2;
    if (!joins) walk_.expect("Add", branch, "no ResNet-18: " + where);
    const auto& inputs = found.front()->inputs;
    if (std::find(inputs.begin(), inputs.end(), skip) == inputs.end()) {
      refuse(where, node_text(*found.front()) + " does not add the block's source");
    }
    return found.front()->outputs.front();
  }

  // Numbers that were given are in the order red, green, blue already; the model's own are in its order.
  void exchange_planes() {
    if (own_normalisation_) {
      std::swap(network_.mean[0], network_.mean[2]);
      std::swap(network_.deviation[0], network_.deviation[2]);
    }
    const std::size_t plane = 7 * 7;
    for (std::size_t out = 0; out < kStemChannels; ++out) {
      float* filter = network_.stem.weights.data() + out * 3 * plane;
      std::swap_ranges(filter, filter + plane, filter + 2 * plane);
    }
  }

  const SourceGraph& graph_;
  const SourceInput& input_;
  GraphWalk walk_;
  std::string value_;
  bool own_normalisation_ = false;
  TrunkNetwork network_;
};

}  // namespace

TrunkNetwork match_trunk(const SourceGraph& graph, const SourceInput& input) {
  return TrunkMatcher(graph, input).match();
}

}  // namespace ostrel::backbone
