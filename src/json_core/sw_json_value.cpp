#include "json_core/sw_json_value.h"

namespace {

template <typename Node>
std::shared_ptr<Node> copy_of(const std::shared_ptr<Node>& node) {
  return node ? std::make_shared<Node>(*node) : nullptr;
}

}  // namespace

SwJsonValue::SwJsonValue(SwJsonObject value)
    : kind(Kind::Object), object_value(std::make_shared<SwJsonObject>(std::move(value))) {}

SwJsonValue::SwJsonValue(SwJsonArray value)
    : kind(Kind::Array), array_value(std::make_shared<SwJsonArray>(std::move(value))) {}

SwJsonValue::SwJsonValue(const SwJsonValue& other)
    : kind(other.kind),
      bool_value(other.bool_value),
      int_value(other.int_value),
      double_value(other.double_value),
      string_value(other.string_value),
      object_value(copy_of(other.object_value)),
      array_value(copy_of(other.array_value)) {}

SwJsonValue& SwJsonValue::operator=(const SwJsonValue& other) {
  if (this != &other) *this = SwJsonValue(other);
  return *this;
}

SwJsonValue& SwJsonValue::operator=(SwJsonValue&& other) noexcept {
  // `other` may be a part of what this value holds: it is emptied before anything of this value goes.
  SwJsonValue taken(std::move(other));
  kind = taken.kind;
  bool_value = taken.bool_value;
  int_value = taken.int_value;
  double_value = taken.double_value;
  string_value.swap(taken.string_value);
  object_value.swap(taken.object_value);
  array_value.swap(taken.array_value);
  return *this;
}
