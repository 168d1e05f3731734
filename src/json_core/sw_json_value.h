#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "json_core/sw_string.h"

class SwJsonArray;
class SwJsonObject;

/// One JSON value. All members exist at once, and `kind` says which one counts. A copy shares no node with
/// its source: a held object or array is copied whole. A value may be assigned from a part of itself. Copying and
/// destroying descend on the stack.
class SwJsonValue {
 public:
  enum class Kind : std::int32_t {
    Null = 0,
    Boolean = 1,
    Integer = 2,
    Double = 3,
    String = 4,
    Object = 5,
    Array = 6,
  };

  SwJsonValue() = default;
  explicit SwJsonValue(bool value) : kind(Kind::Boolean), bool_value(value) {}
  explicit SwJsonValue(std::int64_t value) : kind(Kind::Integer), int_value(value) {}
  explicit SwJsonValue(double value) : kind(Kind::Double), double_value(value) {}
  explicit SwJsonValue(const void* pointer) = delete;  ///< a literal would become a Boolean
  explicit SwJsonValue(SwString value) : kind(Kind::String), string_value(std::move(value)) {}
  explicit SwJsonValue(SwJsonObject value);
  explicit SwJsonValue(SwJsonArray value);

  SwJsonValue(const SwJsonValue& other);
  SwJsonValue& operator=(const SwJsonValue& other);
  SwJsonValue(SwJsonValue&& other) noexcept = default;
  SwJsonValue& operator=(SwJsonValue&& other) noexcept;
  ~SwJsonValue() = default;

  Kind kind = Kind::Null;
  bool bool_value = false;
  std::int64_t int_value = 0;
  double double_value = 0.0;
  SwString string_value;
  std::shared_ptr<SwJsonObject> object_value;
  std::shared_ptr<SwJsonArray> array_value;
};

/// Values by key; keys sort bytewise.
class SwJsonObject {
 public:
  std::map<std::string, SwJsonValue> members;
};

/// Values in their order.
class SwJsonArray {
 public:
  std::vector<SwJsonValue> elements;
};
