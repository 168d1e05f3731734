#include "onnx_tensor.h"

#include <cstring>

namespace ostrel::onnx_graph {
namespace {

template <typename Element, typename Listed>
std::vector<Element> elements(const Value& value, const std::string& raw, const Listed& listed) {
  const auto count = static_cast<std::size_t>(element_count(value.sizes));
  const std::size_t found =
      raw.empty() ? static_cast<std::size_t>(listed.size()) : raw.size() / sizeof(Element);
  if (found != count || (!raw.empty() && raw.size() != count * sizeof(Element))) {
    throw ModelError("constant \"" + value.name + "\" of shape " + to_text(value.sizes) +
                     " has a wrong amount of data");
  }
  if (raw.empty()) return {listed.begin(), listed.end()};
  std::vector<Element> values(count);
  std::memcpy(values.data(), raw.data(), raw.size());
  return values;
}

}  // namespace

Value read_constant(const std::string& name, const onnx::TensorProto& tensor) {
  Value value;
  value.name = name;
  value.constant = true;
  value.sizes.assign(tensor.dims().begin(), tensor.dims().end());
  if (tensor.data_location() == onnx::TensorProto::EXTERNAL) {
    throw ModelError("constant \"" + name + "\" lies outside the model's bytes");
  }
  if (tensor.data_type() == onnx::TensorProto::FLOAT) {
    value.reals = elements<float>(value, tensor.raw_data(), tensor.float_data());
  } else if (tensor.data_type() == onnx::TensorProto::INT64) {
    value.integers = elements<std::int64_t>(value, tensor.raw_data(), tensor.int64_data());
  } else {
    throw ModelError("constant \"" + name + "\" is neither FLOAT nor INT64");
  }
  return value;
}

}  // namespace ostrel::onnx_graph
