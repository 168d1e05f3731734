#include "plan_builder.h"

#include <onnx_graph/shape_inference.h>

#include "thread_limit.h"

namespace ostrel::tensorrt_onednn {
namespace {

using Layout = dnnl::memory::desc;
using Type = dnnl::memory::data_type;

// Row-major.
Layout plain(const Sizes& sizes, Type type = Type::f32) {
  dnnl::memory::dims strides(sizes.size(), 1);
  for (std::size_t i = sizes.size(); i-- > 1;) strides[i - 1] = strides[i] * sizes[i];
  return {sizes, type, strides};
}

dnnl::primitive_attr attributes(const dnnl::post_ops& operations = {}) {
  dnnl::primitive_attr attr;
  attr.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  attr.set_post_ops(operations);
  return attr;
}

Sizes leading(const Sizes& pads) {
  return {pads[0], pads[1]};
}
Sizes trailing(const Sizes& pads) {
  return {pads[2], pads[3]};
}

// oneDNN counts the gaps, ONNX the steps.
Sizes gaps(const Sizes& dilations) {
  return {dilations[0] - 1, dilations[1] - 1};
}

Sizes padding_of(const Node& node, const Sizes& source) {
  return resolved_padding(node.window, {source[2], source[3]});
}

}  // namespace

PlanBuilder::PlanBuilder(std::shared_ptr<Network> network, const std::vector<Sizes>& input_sizes, int threads)
    : LayerPlanner(network->graph, input_sizes),
      network_(std::move(network)),
      plan_(std::make_shared<ExecutionPlan>()),
      type_(network_->bfloat16 ? Type::bf16 : Type::f32),
      placements_(graph().values.size()) {
  plan_->network_ = network_;
  plan_->wished_threads_ = threads;
  plan_->threads_ = plannable_threads(threads);
  plan_->sizes_ = sizes();
  plan_->stream_ = dnnl::stream(cpu_engine());
}

std::shared_ptr<ExecutionPlan> PlanBuilder::build() {
  const ThreadLimit limit(plan_->threads_);
  plan_layers();
  allocate();
  for (const Draft& draft : drafts_) plan_->steps_.push_back(finish(draft));
  return plan_;
}

void PlanBuilder::place_input(int value, int buffer) {
  place(value, plain_layout(value), buffer);
}

Layout PlanBuilder::weights_layout(const Node& node) const {
  const Sizes& sizes = sizes_of(node.inputs[1]);
  const std::int64_t groups = node.window.groups;
  if (groups == 1) return plain(sizes);
  return plain({groups, sizes[0] / groups, sizes[1], sizes[2], sizes[3]});
}

dnnl::convolution_forward::primitive_desc PlanBuilder::describe_convolution(const Layer& layer) const {
  const Node& node = *layer.node;
  const Sizes& source = sizes_of(node.inputs[0]);
  const auto any = [this](const Sizes& sizes) { return Layout(sizes, type_, dnnl::memory::format_tag::any); };
  const Sizes pads = padding_of(node, source);
  dnnl::post_ops operations;
  if (layer.residual >= 0) operations.append_sum(1.0F);
  if (layer.rectify) operations.append_eltwise(1.0F, dnnl::algorithm::eltwise_relu, 0.0F, 0.0F);
  const Layout bias = node.inputs.size() == 3 ? plain(sizes_of(node.inputs[2])) : Layout();
  const dnnl::convolution_forward::desc description(
      dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_direct, any(source),
      any(weights_layout(node).dims()), bias, any(sizes_of(node.output)), node.window.strides,
      gaps(node.window.dilations), leading(pads), trailing(pads));
  return {description, attributes(operations), cpu_engine()};
}

// The sum is made in place: over the residual where nothing needs it any more, else over a copy.
int PlanBuilder::convolution_target(const Layer& layer, const Layout& layout) {
  if (layer.residual < 0) return new_buffer(layout.get_size());
  for (const Placement& placement : placements(layer.residual)) {
    if (placement.layout == layout && layer.residual != layer.node->inputs[0] &&
        may_overwrite(layer.residual, placement.buffer)) {
      return placement.buffer;
    }
  }
  const int buffer = new_buffer(layout.get_size());
  add_reorder(placements(layer.residual).front(), layout, buffer);
  return buffer;
}

void PlanBuilder::add_convolution(const Layer& layer) {
  const Node& node = *layer.node;
  const auto description = describe_convolution(layer);
  const auto packed = [&](std::size_t input, const Layout& given, const Layout& wanted) {
    const int index = node.inputs[input];
    return network_->weights.get(index, given, value(index).reals.data(), wanted);
  };
  Draft draft;
  draft.primitive = dnnl::convolution_forward(description);
  const Placement source = fetch(node.inputs[0], description.src_desc());
  draft.arguments.push_back({DNNL_ARG_SRC, source.layout, source.buffer, {}});
  draft.arguments.push_back(
      {DNNL_ARG_WEIGHTS, {}, -1, packed(1, weights_layout(node), description.weights_desc())});
  if (node.inputs.size() == 3) {
    const Layout bias = plain(sizes_of(node.inputs[2]));
    draft.arguments.push_back({DNNL_ARG_BIAS, {}, -1, packed(2, bias, bias)});
  }
  const int target = convolution_target(layer, description.dst_desc());
  draft.arguments.push_back({DNNL_ARG_DST, description.dst_desc(), target, {}});
  add_scratchpad(description.scratchpad_desc(), &draft);
  add_step(std::move(draft));
  place(layer.target, description.dst_desc(), target);
}

void PlanBuilder::add_max_pool(const Layer& layer) {
  const Node& node = *layer.node;
  const Placement source = placements(node.inputs[0]).front();
  const Sizes pads = padding_of(node, sizes_of(node.inputs[0]));
  const Layout any(sizes_of(layer.target), source.layout.data_type(), dnnl::memory::format_tag::any);
  const dnnl::pooling_v2_forward::desc description(
      dnnl::prop_kind::forward_inference, dnnl::algorithm::pooling_max, source.layout, any,
      node.window.strides, node.window.kernel, gaps(node.window.dilations), leading(pads), trailing(pads));
  const dnnl::pooling_v2_forward::primitive_desc primitive(description, attributes(), cpu_engine());
  const int target = new_buffer(primitive.dst_desc().get_size());
  Draft draft;
  draft.primitive = dnnl::pooling_v2_forward(primitive);
  draft.arguments = {{DNNL_ARG_SRC, source.layout, source.buffer, {}},
                     {DNNL_ARG_DST, primitive.dst_desc(), target, {}}};
  add_scratchpad(primitive.scratchpad_desc(), &draft);
  add_step(std::move(draft));
  place(layer.target, primitive.dst_desc(), target);
}

void PlanBuilder::add_relu(const Layer& layer) {
  const int value = layer.node->inputs[0];
  const Placement source = placements(value).front();
  const dnnl::eltwise_forward::desc description(dnnl::prop_kind::forward_inference,
                                                dnnl::algorithm::eltwise_relu, source.layout, 0.0F, 0.0F);
  const dnnl::eltwise_forward::primitive_desc primitive(description, attributes(), cpu_engine());
  const int target =
      may_overwrite(value, source.buffer) ? source.buffer : new_buffer(source.layout.get_size());
  Draft draft;
  draft.primitive = dnnl::eltwise_forward(primitive);
  draft.arguments = {{DNNL_ARG_SRC, source.layout, source.buffer, {}},
                     {DNNL_ARG_DST, source.layout, target, {}}};
  add_scratchpad(primitive.scratchpad_desc(), &draft);
  add_step(std::move(draft));
  place(layer.target, source.layout, target);
}

void PlanBuilder::add_arithmetic(const Layer& layer) {
  const Node& node = *layer.node;
  const int value = node.inputs[0];
  const Layout layout = plain_layout(layer.target);
  Draft draft;
  draft.arithmetic.emplace(node.op, sizes_of(value), sizes_of(node.inputs[1]), sizes_of(layer.target));
  draft.first = fetch_plain(value);
  draft.second = fetch_plain(node.inputs[1]);
  const bool in_place = draft.first.buffer >= 0 && sizes_of(value) == sizes_of(layer.target) &&
                        may_overwrite(value, draft.first.buffer);
  draft.target.buffer = in_place ? draft.first.buffer : new_buffer(layout.get_size());
  const int target = draft.target.buffer;
  add_step(std::move(draft));
  place(layer.target, layout, target);
}

void PlanBuilder::add_resize(const Layer& layer) {
  const int value = layer.node->inputs[0];
  const Layout layout = plain_layout(layer.target);
  Draft draft;
  draft.resize.emplace(layer.node->resize, sizes_of(value), sizes_of(layer.target));
  draft.first = fetch_plain(value);
  draft.target.buffer = new_buffer(layout.get_size());
  const int target = draft.target.buffer;
  add_step(std::move(draft));
  place(layer.target, layout, target);
}

void PlanBuilder::write_output(int value, int buffer) {
  add_reorder(placements(value).front(), plain_layout(value), buffer);
}

Layout PlanBuilder::plain_layout(int value) const {
  return plain(sizes_of(value));
}

PlanBuilder::Placement PlanBuilder::fetch(int value, const Layout& layout) {
  for (const Placement& placement : placements(value)) {
    if (placement.layout == layout) return placement;
  }
  const int buffer = new_buffer(layout.get_size());
  add_reorder(placements(value).front(), layout, buffer);
  place(value, layout, buffer);
  return placements(value).back();
}

PlanBuilder::PlainOperand PlanBuilder::fetch_plain(int index) {
  if (value(index).constant) return {-1, value(index).reals.data()};
  return {fetch(index, plain_layout(index)).buffer, nullptr};
}

void PlanBuilder::place(int value, const Layout& layout, int buffer) {
  placements(value).push_back({layout, buffer});
}

void PlanBuilder::add_reorder(const Placement& source, const Layout& layout, int buffer) {
  const dnnl::reorder::primitive_desc description(cpu_engine(), source.layout, cpu_engine(), layout,
                                                  attributes());
  Draft draft;
  draft.primitive = dnnl::reorder(description);
  draft.arguments = {{DNNL_ARG_FROM, source.layout, source.buffer, {}}, {DNNL_ARG_TO, layout, buffer, {}}};
  add_scratchpad(description.scratchpad_desc(), &draft);
  add_step(std::move(draft));
}

void PlanBuilder::add_scratchpad(const Layout& layout, Draft* draft) {
  if (layout.get_size() == 0) return;
  draft->arguments.push_back({DNNL_ARG_SCRATCHPAD, layout, new_buffer(layout.get_size()), {}});
}

}  // namespace ostrel::tensorrt_onednn
