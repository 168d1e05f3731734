#include "plan_builder.h"

#include <onnx_graph/shape_inference.h>

#include "plain_steps.h"

namespace ostrel::tensorrt_cudnn {
namespace {

int to_int(std::int64_t value) {
  return static_cast<int>(value);  // sizes are at most kLargestSize
}

// Whether the leading padding on both sides gives the wanted size: what it adds behind the last window is not read.
bool same_on_both_sides(const Window& window, std::size_t axis, std::int64_t leading, std::int64_t source,
                        std::int64_t target) {
  const std::int64_t reach = (window.kernel[axis] - 1) * window.dilations[axis] + 1;
  return (source + 2 * leading - reach) / window.strides[axis] + 1 == target;
}

}  // namespace

PlanBuilder::PlanBuilder(std::shared_ptr<const Network> network, cudnnHandle_t cudnn,
                         const std::vector<Sizes>& input_sizes)
    : LayerPlanner(network->graph, input_sizes),
      network_(std::move(network)),
      cudnn_(cudnn),
      plan_(std::make_shared<ExecutionPlan>()),
      placements_(graph().values.size()) {
  plan_->network_ = network_;
  plan_->sizes_ = sizes();
}

std::shared_ptr<const ExecutionPlan> PlanBuilder::build() {
  plan_layers();
  allocate();
  return plan_;
}

void PlanBuilder::place_input(int value, int buffer) {
  place(value, Format::kPlainFloat32, buffer);
}

ConvolutionShape PlanBuilder::describe(const Layer& layer) const {
  const Node& node = *layer.node;
  ConvolutionShape shape;
  shape.format = convolution_format(network_->format, node);
  shape.source = stored(shape.format, node.inputs[0]);
  shape.weights = stored_weights(shape.format, sizes_of(node.inputs[1]));
  shape.target = stored(shape.format, node.output);
  shape.window.stride_rows = to_int(node.window.strides[0]);
  shape.window.stride_columns = to_int(node.window.strides[1]);
  shape.window.dilation_rows = to_int(node.window.dilations[0]);
  shape.window.dilation_columns = to_int(node.window.dilations[1]);
  shape.window.groups = to_int(node.window.groups);
  shape.residual = layer.residual >= 0;
  shape.rectify = layer.rectify;
  return shape;
}

// Padding that differs between the sides is laid around a copy of the map.
Operand PlanBuilder::padded_source(const Layer& layer, ConvolutionShape* shape) {
  const int value = layer.node->inputs[0];
  const Operand source = in_buffer(fetch(value, shape->format));
  const Window& walk = layer.node->window;
  const Sizes& map = sizes_of(value);
  const Sizes& target = sizes_of(layer.node->output);
  const Sizes pads = resolved_padding(walk, {map[2], map[3]});
  if (same_on_both_sides(walk, 0, pads[0], map[2], target[2]) &&
      same_on_both_sides(walk, 1, pads[1], map[3], target[3])) {
    shape->window.pad_rows = to_int(pads[0]);
    shape->window.pad_columns = to_int(pads[1]);
    return source;
  }
  MapSizes wide = shape->source;
  wide.rows += to_int(pads[0] + pads[2]);
  wide.columns += to_int(pads[1] + pads[3]);
  const Operand padded =
      in_buffer(new_buffer(static_cast<std::size_t>(wide.count()) * element_bytes(shape->format)));
  add_step(std::make_unique<PadStep>(shape->format, source, shape->source, padded, wide, to_int(pads[0]),
                                     to_int(pads[1])));
  shape->source = wide;
  return padded;
}

// The sum is made over the residual where nothing needs it any more.
int PlanBuilder::convolution_target(const Layer& layer, int residual, Format format) {
  if (residual >= 0 && layer.residual != layer.node->inputs[0] && may_overwrite(layer.residual, residual)) {
    return residual;
  }
  return new_buffer_for(layer.target, format);
}

void PlanBuilder::add_convolution(const Layer& layer) {
  ConvolutionShape shape = describe(layer);
  const Operand source = padded_source(layer, &shape);
  const int residual = layer.residual < 0 ? -1 : fetch(layer.residual, shape.format);
  const int target = convolution_target(layer, residual, shape.format);
  auto step = std::make_unique<ConvolutionStep>(cudnn_, shape);
  step->set_operand(ConvolutionStep::kSource, source);
  step->set_operand(ConvolutionStep::kWeights, constant(network_->constants.weights(*layer.node)));
  step->set_operand(ConvolutionStep::kBias, constant(network_->constants.bias(*layer.node)));
  if (residual >= 0) step->set_operand(ConvolutionStep::kResidual, in_buffer(residual));
  step->set_operand(ConvolutionStep::kTarget, in_buffer(target));
  if (step->workspace_bytes() > 0) {
    step->set_operand(ConvolutionStep::kWorkspace, in_buffer(new_buffer(step->workspace_bytes())));
  }
  add_step(std::move(step));
  place(layer.target, shape.format, target);
}

void PlanBuilder::add_max_pool(const Layer& layer) {
  const Node& node = *layer.node;
  const int value = node.inputs[0];
  const Placement source = placements(value).front();
  const Sizes pads = resolved_padding(node.window, {sizes_of(value)[2], sizes_of(value)[3]});
  PoolWindow window;
  window.rows = to_int(node.window.kernel[0]);
  window.columns = to_int(node.window.kernel[1]);
  window.stride_rows = to_int(node.window.strides[0]);
  window.stride_columns = to_int(node.window.strides[1]);
  window.dilation_rows = to_int(node.window.dilations[0]);
  window.dilation_columns = to_int(node.window.dilations[1]);
  window.top = to_int(pads[0]);
  window.left = to_int(pads[1]);
  const int target = new_buffer_for(layer.target, source.format);
  add_step(std::make_unique<MaxPoolStep>(source.format, in_buffer(source.buffer),
                                         stored(source.format, value), in_buffer(target),
                                         stored(source.format, layer.target), window));
  place(layer.target, source.format, target);
}

void PlanBuilder::add_relu(const Layer& layer) {
  const int value = layer.node->inputs[0];
  const Placement source = placements(value).front();
  const int target =
      may_overwrite(value, source.buffer) ? source.buffer : new_buffer_for(layer.target, source.format);
  add_step(std::make_unique<ReluStep>(source.format, in_buffer(source.buffer), in_buffer(target),
                                      elements(source.format, value)));
  place(layer.target, source.format, target);
}

void PlanBuilder::add_arithmetic(const Layer& layer) {
  const Node& node = *layer.node;
  const int value = node.inputs[0];
  const Operand first = fetch_plain(value);
  const Operand second = fetch_plain(node.inputs[1]);
  const bool in_place =
      first.buffer >= 0 && sizes_of(value) == sizes_of(layer.target) && may_overwrite(value, first.buffer);
  const int target = in_place ? first.buffer : new_buffer_for(layer.target, Format::kPlainFloat32);
  add_step(std::make_unique<ArithmeticStep>(node.op, first, sizes_of(value), second, sizes_of(node.inputs[1]),
                                            in_buffer(target), sizes_of(layer.target)));
  place(layer.target, Format::kPlainFloat32, target);
}

void PlanBuilder::add_resize(const Layer& layer) {
  const int value = layer.node->inputs[0];
  const Operand source = fetch_plain(value);
  const int target = new_buffer_for(layer.target, Format::kPlainFloat32);
  add_step(std::make_unique<ResizeStep>(layer.node->resize, source, sizes_of(value), in_buffer(target),
                                        sizes_of(layer.target)));
  place(layer.target, Format::kPlainFloat32, target);
}

void PlanBuilder::write_output(int value, int buffer) {
  add_reorder(placements(value).front(), value, Format::kPlainFloat32, buffer);
}

}  // namespace ostrel::tensorrt_cudnn
