#include <gtest/gtest.h>

#include "json_core/nested_json.h"
#include "json_core/sw_json_document.h"
#include "support/stack_thread.h"

namespace {

constexpr int kLevels = OSTREL_TEST_NESTING_LEVELS;

int depth_of(const SwJsonValue& root) {
  int depth = 0;
  for (const SwJsonValue* value = &root; value->kind != SwJsonValue::Kind::Integer; ++depth) {
    value = value->array_value ? &value->array_value->elements.at(0) : &value->object_value->members.at("a");
  }
  return depth;
}

class SwJsonNesting : public testing::TestWithParam<Nesting> {};

TEST_P(SwJsonNesting, GoesTenThousandLevelsDeepOnADefaultStack) {
  ostrel_test::run_on_stack(ostrel_test::kDefaultStackBytes, [] {
    const SwString text(nested_json(GetParam(), kLevels));
    std::size_t index = 0;
    SwString error;
    SwJsonValue value = SwJsonDocument().parseJson(text, index, "", error);
    ASSERT_EQ(error, "");
    EXPECT_EQ(depth_of(value), kLevels);
    const SwJsonValue copy(value);
    value = SwJsonValue();
    EXPECT_EQ(depth_of(copy), kLevels);
  });
}

TEST_P(SwJsonNesting, EndsWithOneErrorFromTheDeepestLevel) {
  ostrel_test::run_on_stack(ostrel_test::kDefaultStackBytes, [] {
    const std::string whole = nested_json(GetParam(), kLevels);
    const std::size_t deepest = whole.find('1');
    std::size_t index = 0;
    SwString error;
    const SwJsonValue value = SwJsonDocument().parseJson(whole.substr(0, deepest), index, "", error);
    EXPECT_EQ(index, deepest);
    EXPECT_EQ(value.kind, SwJsonValue::Kind::Null);
    EXPECT_EQ(error.rfind("Un", 0), 0U) << error;
  });
}

std::string shape_name(const testing::TestParamInfo<Nesting>& shape) {
  const char* names[] = {"Arrays", "Objects", "Mixed"};
  return names[static_cast<int>(shape.param)];
}

INSTANTIATE_TEST_SUITE_P(Shapes, SwJsonNesting,
                         testing::Values(Nesting::kArrays, Nesting::kObjects, Nesting::kMixed), shape_name);

}  // namespace
