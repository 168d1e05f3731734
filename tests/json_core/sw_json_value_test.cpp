#include "json_core/sw_json_value.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Kind = SwJsonValue::Kind;

static_assert(std::is_same_v<std::underlying_type_t<Kind>, std::int32_t>);
static_assert(sizeof(SwJsonValue::bool_value) == 1);
static_assert(static_cast<int>(Kind::Null) == 0 && static_cast<int>(Kind::Boolean) == 1);
static_assert(static_cast<int>(Kind::Integer) == 2 && static_cast<int>(Kind::Double) == 3);
static_assert(static_cast<int>(Kind::String) == 4 && static_cast<int>(Kind::Object) == 5);
static_assert(static_cast<int>(Kind::Array) == 6);

static_assert(!std::is_constructible_v<SwJsonValue, const char*>, "not by way of a Boolean");

// {"list": [{"x": 1}]}
SwJsonValue nested_value() {
  SwJsonObject inner;
  inner.members["x"] = SwJsonValue(std::int64_t{1});
  SwJsonArray list;
  list.elements.emplace_back(std::move(inner));
  SwJsonObject outer;
  outer.members["list"] = SwJsonValue(std::move(list));
  return SwJsonValue(std::move(outer));
}

SwJsonValue& inner_number(SwJsonValue& value) {
  return value.object_value->members.at("list").array_value->elements.at(0).object_value->members.at("x");
}

TEST(SwJsonValue, IsNullAtFirst) {
  const SwJsonValue value;
  EXPECT_EQ(value.kind, Kind::Null);
  EXPECT_FALSE(value.bool_value);
  EXPECT_EQ(value.int_value, 0);
  EXPECT_EQ(value.double_value, 0.0);
  EXPECT_EQ(value.string_value, "");
  EXPECT_EQ(value.object_value, nullptr);
  EXPECT_EQ(value.array_value, nullptr);
}

TEST(SwJsonValue, TakesItsKindFromWhatItIsMadeOf) {
  EXPECT_EQ(SwJsonValue(true).kind, Kind::Boolean);
  EXPECT_TRUE(SwJsonValue(true).bool_value);
  EXPECT_EQ(SwJsonValue(std::int64_t{-5}).kind, Kind::Integer);
  EXPECT_EQ(SwJsonValue(std::int64_t{-5}).int_value, -5);
  EXPECT_EQ(SwJsonValue(0.5).kind, Kind::Double);
  EXPECT_EQ(SwJsonValue(0.5).double_value, 0.5);
  EXPECT_EQ(SwJsonValue(SwString("a")).kind, Kind::String);
  EXPECT_EQ(SwJsonValue(SwString("a")).string_value, "a");
  EXPECT_EQ(SwJsonValue(SwJsonObject{}).kind, Kind::Object);
  ASSERT_NE(SwJsonValue(SwJsonObject{}).object_value, nullptr);
  EXPECT_EQ(SwJsonValue(SwJsonArray{}).kind, Kind::Array);
  ASSERT_NE(SwJsonValue(SwJsonArray{}).array_value, nullptr);
}

TEST(SwJsonValue, CopiesEveryMember) {
  SwJsonValue value = nested_value();
  value.bool_value = true;
  value.int_value = 3;
  value.double_value = 0.25;
  value.string_value = "beside";
  value.array_value = std::make_shared<SwJsonArray>();
  const SwJsonValue copy(value);
  EXPECT_EQ(copy.kind, Kind::Object);
  EXPECT_TRUE(copy.bool_value);
  EXPECT_EQ(copy.int_value, 3);
  EXPECT_EQ(copy.double_value, 0.25);
  EXPECT_EQ(copy.string_value, "beside");
  EXPECT_NE(copy.array_value, nullptr);
  EXPECT_NE(copy.array_value, value.array_value);
}

TEST(SwJsonValue, SharesNoNodeWithItsCopy) {
  SwJsonValue value = nested_value();
  SwJsonValue copy(value);
  SwJsonValue assigned;
  assigned = value;
  inner_number(value).int_value = 2;
  EXPECT_EQ(inner_number(copy).int_value, 1);
  EXPECT_EQ(inner_number(assigned).int_value, 1);
  EXPECT_NE(copy.object_value, value.object_value);
  EXPECT_NE(copy.object_value->members.at("list").array_value,
            value.object_value->members.at("list").array_value);
}

TEST(SwJsonValue, HandsItsNodesOverWhenMoved) {
  SwJsonValue value = nested_value();
  const SwJsonObject* object = value.object_value.get();
  SwJsonValue moved(std::move(value));
  EXPECT_EQ(moved.object_value.get(), object);
  SwJsonValue assigned(std::int64_t{1});
  assigned = std::move(moved);
  EXPECT_EQ(assigned.object_value.get(), object);
  EXPECT_EQ(assigned.kind, Kind::Object);
}

TEST(SwJsonValue, LetsGoOfWhatItHeldWhenAssigned) {
  SwJsonValue value = nested_value();
  const std::weak_ptr<SwJsonObject> before = value.object_value;
  value = SwJsonValue(SwString("text"));
  EXPECT_TRUE(before.expired());
  EXPECT_EQ(value.object_value, nullptr);
  EXPECT_EQ(value.string_value, "text");
  value = SwJsonValue();
  EXPECT_EQ(value.string_value, "");
}

TEST(SwJsonValue, CanBeAssignedFromItself) {
  SwJsonValue value = nested_value();
  const SwJsonValue& same = value;
  value = same;
  EXPECT_EQ(inner_number(value).int_value, 1);
}

TEST(SwJsonValue, CanBeAssignedFromAPartOfItself) {
  SwJsonValue copied = nested_value();
  copied = copied.object_value->members.at("list");
  ASSERT_EQ(copied.kind, Kind::Array);
  EXPECT_EQ(copied.array_value->elements.size(), 1U);
  EXPECT_EQ(copied.object_value, nullptr);

  SwJsonValue moved = nested_value();
  moved = std::move(moved.object_value->members.at("list"));
  ASSERT_EQ(moved.kind, Kind::Array);
  EXPECT_EQ(moved.array_value->elements.at(0).object_value->members.at("x").int_value, 1);
}

TEST(SwJsonObject, SortsKeysBytewise) {
  SwJsonObject object;
  for (const char* key : {"b", "B", "a", "\xC3\xA9", "", "aa"}) object.members[key] = SwJsonValue();
  std::vector<std::string> keys;
  for (const auto& member : object.members) keys.push_back(member.first);
  EXPECT_EQ(keys, (std::vector<std::string>{"", "B", "a", "aa", "b", "\xC3\xA9"}));
}

}  // namespace
