#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "json_core/nested_json.h"
#include "ostrel_plugin/config_documents.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/ostrel_config_io.h"
#include "support/comma_locale.h"
#include "support/stack_thread.h"

namespace {

using ostrel_cfg::apply;
using ostrel_test::parsed_document;

using ScaleList = std::vector<float>;

class ConfigApply : public testing::Test {
 protected:
  // Whether the document changed the record.
  bool changes(const std::string& text) { return apply(parsed_document(text), config_); }

  OstrelConfig config_;
};

TEST_F(ConfigApply, ClampsInsteadOfRefusing) {
  config_.frame_scale = 0.5F;
  EXPECT_TRUE(changes(R"({"processing":{"frame_scale":5}})"));
  EXPECT_EQ(config_.frame_scale, 1.0F);
  EXPECT_TRUE(changes(R"({"processing":{"frame_scale":-5}})"));
  EXPECT_EQ(config_.frame_scale, 0.4F);
}

TEST_F(ConfigApply, ReadsNumbersFromTexts) {
  EXPECT_TRUE(changes(R"({"processing":{"frame_scale":"0.5"},"learning":{"update_iterations":"12"}})"));
  EXPECT_EQ(config_.frame_scale, 0.5F);
  EXPECT_EQ(config_.update_iterations, 12);
}

TEST_F(ConfigApply, CutsTheFractionOfACount) {
  EXPECT_TRUE(changes(R"({"learning":{"update_iterations":2.9}})"));
  EXPECT_EQ(config_.update_iterations, 2);
}

TEST_F(ConfigApply, ReadsATruthAsOne) {
  EXPECT_TRUE(changes(R"({"learning":{"update_iterations":true}})"));
  EXPECT_EQ(config_.update_iterations, 1);
}

TEST_F(ConfigApply, WrapsALargeIntegerAndHoldsALargeDouble) {
  EXPECT_TRUE(changes(R"({"learning":{"update_iterations":4294967297}})"));
  EXPECT_EQ(config_.update_iterations, 1);
  EXPECT_TRUE(changes(R"({"learning":{"update_iterations":4294967297.0}})"));
  EXPECT_EQ(config_.update_iterations, 100);
}

TEST_F(ConfigApply, ReadsFourWordsAsTrueAndAnyOtherAsFalse) {
  for (const char* word : {"Yes", "on", "TRUE", "1"}) {
    config_.debug_enabled = false;
    EXPECT_TRUE(changes(std::string(R"({"debug":{"enabled":")") + word + "\"}}")) << word;
    EXPECT_TRUE(config_.debug_enabled) << word;
  }
  for (const char* word : {"no", "enabled", "", "y"}) {
    config_.debug_enabled = true;
    EXPECT_TRUE(changes(std::string(R"({"debug":{"enabled":")") + word + "\"}}")) << word;
    EXPECT_FALSE(config_.debug_enabled) << word;
  }
}

TEST_F(ConfigApply, WritesNumbersIntoTextsByTheirDigits) {
  EXPECT_TRUE(changes(R"({"engine":{"tracker_engine_path":12},"target":{"class_name":true}})"));
  EXPECT_EQ(config_.tracker_engine_path, "12");
  EXPECT_EQ(config_.class_name, "true");
  EXPECT_TRUE(changes(R"({"engine":{"tracker_engine_path":"","reference_trace_path":1.5}})"));
  EXPECT_EQ(config_.tracker_engine_path, "");
  EXPECT_EQ(config_.reference_trace_path, "1.500000");
}

TEST_F(ConfigApply, TurnsTextsAndNumbersIntoEachOtherWithTheDecimalSignOfTheHost) {
  const ostrel_test::CommaLocale locale;
  EXPECT_TRUE(changes(R"({"processing":{"search_area_factor":"55,5e-1","search_scales":["15,5e-1"]},
                          "learning":{"filter_regularization":"2.5e0"},"target":{"class_name":1.5}})"));
  EXPECT_EQ(config_.search_area_factor, 5.55F);
  EXPECT_EQ(config_.search_scales, ScaleList{1.55F});
  EXPECT_EQ(config_.filter_regularization, 2.0F);  // the point ends the number
  EXPECT_EQ(config_.class_name, "1,500000");
  EXPECT_TRUE(changes(R"({"processing":{"search_area_factor":5.5,"search_scales":[1.5,"1.25"]},
                          "learning":{"filter_regularization":"2.5"}})"));
  EXPECT_EQ(config_.search_area_factor, 5.5F);
  EXPECT_EQ(config_.search_scales, (ScaleList{1.5F, 1.25F}));
  EXPECT_EQ(config_.filter_regularization, 2.5F);
}

TEST_F(ConfigApply, ReadsQuotedDigitsAsTheNumberThatTheyAre) {
  EXPECT_TRUE(changes(R"({"engine":{"tracker_engine_path":"010","reference_trace_path":"5000000000"},
                          "target":{"class_name":"1.50"},"debug":{"enabled":"2"}})"));
  EXPECT_EQ(config_.tracker_engine_path, "8");
  EXPECT_EQ(config_.reference_trace_path, "0");
  EXPECT_EQ(config_.class_name, "1.500000");
  EXPECT_TRUE(config_.debug_enabled);  // the number 2, not the text
}

TEST_F(ConfigApply, LeavesAMemberWhoseValueHasNoUse) {
  config_.debug_enabled = true;
  for (const char* value : {"null", "{}", "[]", R"({"enabled":false})", "[false]"}) {
    const std::string text(value);
    EXPECT_FALSE(changes(R"({"debug":{"enabled":)" + text + "}}")) << text;
    EXPECT_FALSE(changes(R"({"debug":{"log_every_n_frames":)" + text + "}}")) << text;
    EXPECT_FALSE(changes(R"({"processing":{"frame_scale":)" + text + "}}")) << text;
    EXPECT_FALSE(changes(R"({"target":{"class_name":)" + text + "}}")) << text;
  }
  EXPECT_FALSE(changes(R"({"processing":{"frame_scale":"half"},"debug":{"log_every_n_frames":"many"}})"));
  EXPECT_TRUE(config_.debug_enabled);
}

TEST_F(ConfigApply, LeavesEverythingForAGroupThatIsNoObject) {
  for (const char* group : {"null", "1", "true", "\"frame_scale\"", "[]", R"([{"frame_scale":0.5}])"}) {
    EXPECT_FALSE(changes(R"({"processing":)" + std::string(group) + "}")) << group;
  }
}

TEST_F(ConfigApply, IgnoresKeysThatNoSettingHas) {
  EXPECT_FALSE(changes(R"({"Processing":{"frame_scale":0.5},"frame_scale":0.5,"processing":{"scale":0.5},
                           "processing/frame_scale":0.5,"other":{"deep":[1,{"x":null}]}})"));
  EXPECT_TRUE(changes(R"({"unknown":1,"processing":{"frame_scale":0.5,"unknown":2}})"));
  EXPECT_EQ(config_.frame_scale, 0.5F);
}

TEST_F(ConfigApply, ChangesNothingForARootThatIsNoObject) {
  for (const char* text :
       {"[]", R"([{"processing":{"frame_scale":0.5}}])", "1", "null", "true", R"("text")"}) {
    EXPECT_FALSE(changes(text)) << text;
  }
  EXPECT_FALSE(apply(SwJsonDocument(), config_));
}

TEST_F(ConfigApply, ReportsNoChangeForAnEmptyDocument) {
  EXPECT_FALSE(changes("{}"));
}

TEST_F(ConfigApply, ReportsARepeatedDocumentOnce) {
  const std::string text = R"({"engine":{"reference_trace_path":"trace.tsv"},
      "processing":{"frame_scale":0.7,"search_scales":[0.9,"1.1"]},"learning":{"update_iterations":500},
      "preposition":{"enabled":"on"},"runtime":{"dead_timeout_s":"1e9"}})";
  EXPECT_TRUE(changes(text));
  EXPECT_FALSE(changes(text));
  EXPECT_EQ(config_.dead_timeout_s, 300.0F);
}

TEST_F(ConfigApply, ComparesNumbersInThePrecisionOfTheRecord) {
  EXPECT_FALSE(changes(R"({"learning":{"learning_rate":0.04}})"));
  EXPECT_FALSE(changes(R"({"learning":{"learning_rate":0.0400000001}})"));
  EXPECT_FALSE(changes(R"({"processing":{"search_scales":[0.9503920001,1,1.05]}})"));
  EXPECT_TRUE(changes(R"({"learning":{"learning_rate":0.04001}})"));
}

TEST_F(ConfigApply, ReportsOneChangeAmongRepetitions) {
  EXPECT_TRUE(changes(R"({"engine":{"tracker_engine_path":"first"},"debug":{"log_every_n_frames":5}})"));
  EXPECT_TRUE(changes(R"({"engine":{"tracker_engine_path":"first"},"debug":{"log_every_n_frames":6}})"));
}

TEST_F(ConfigApply, WalksADeepDocumentOnADefaultStack) {
  ostrel_test::run_on_stack(ostrel_test::kDefaultStackBytes, [this] {
    for (const Nesting shape : {Nesting::kArrays, Nesting::kObjects, Nesting::kMixed}) {
      const std::string deep = nested_json(shape, OSTREL_TEST_NESTING_LEVELS - 2);
      const auto around = [&deep](std::string before) { return before.append(deep).append("}}"); };
      EXPECT_FALSE(changes(around(R"({"processing":{"frame_scale":)")));
      EXPECT_FALSE(changes(around(R"({"processing":{"search_scales":)")));
      config_.class_id = 0;
      EXPECT_TRUE(changes(around(R"({"target":{"class_id":1,"other":)")));
    }
  });
}

// A text can bring a NaN; it passes every bound, and since it equals nothing it counts as a change each time.
TEST_F(ConfigApply, StoresANanAndReportsItAtEachRepetition) {
  const std::string text = R"({"learning":{"learning_rate":"nan"}})";
  EXPECT_TRUE(changes(text));
  EXPECT_TRUE(std::isnan(config_.learning_rate));
  EXPECT_TRUE(changes(text));
  EXPECT_TRUE(changes(R"({"learning":{"learning_rate":0.04}})"));
  EXPECT_EQ(config_.learning_rate, 0.04F);
  EXPECT_FALSE(changes(R"({"learning":{"update_iterations":"nan"}})"));
}

class ConfigApplyScales : public ConfigApply {
 protected:
  bool changes_to(const std::string& list) {
    return changes(R"({"processing":{"search_scales":)" + list + "}}");
  }
};

TEST_F(ConfigApplyScales, TakeIntegersDoublesAndTexts) {
  EXPECT_TRUE(changes_to(R"(["1.1",1])"));
  EXPECT_EQ(config_.search_scales, (ScaleList{1.1F, 1.0F}));
  EXPECT_TRUE(changes_to(R"([2.5," 1.5x","0x2","1e1"])"));
  EXPECT_EQ(config_.search_scales, (ScaleList{2.5F, 1.5F, 2.0F, 10.0F}));
}

TEST_F(ConfigApplyScales, AreNeitherSortedNorHeldToARangeNorLimitedInNumber) {
  EXPECT_TRUE(changes_to("[3,-1,0,3]"));
  EXPECT_EQ(config_.search_scales, (ScaleList{3.0F, -1.0F, 0.0F, 3.0F}));
  EXPECT_TRUE(changes_to(R"([1e300,"-inf"])"));
  const float infinity = std::numeric_limits<float>::infinity();
  EXPECT_EQ(config_.search_scales, (ScaleList{infinity, -infinity}));
  std::string many = "[1";
  for (int i = 1; i < 1000; ++i) many += ",1";
  EXPECT_TRUE(changes_to(many + "]"));
  EXPECT_EQ(config_.search_scales.size(), 1000U);
}

TEST_F(ConfigApplyScales, StayAsTheyAreForAListWithoutElements) {
  EXPECT_FALSE(changes_to("[]"));
  EXPECT_EQ(config_.search_scales.size(), 3U);
}

TEST_F(ConfigApplyScales, StayAsTheyAreWhenOneElementIsNoNumber) {
  const OstrelConfig defaults;
  for (const char* element : {R"("x")", R"("")", R"("1e99")", R"("1e-99")", "true", "null", "[1]", "{}"}) {
    EXPECT_FALSE(changes_to("[1," + std::string(element) + "]")) << element;
    EXPECT_FALSE(changes_to("[" + std::string(element) + ",1]")) << element;
    EXPECT_EQ(config_.search_scales, defaults.search_scales) << element;
  }
}

TEST_F(ConfigApplyScales, StayAsTheyAreForAnythingThatIsNoList) {
  for (const char* value : {"1", R"("1")", "null", "true", "{}", R"({"0":1})"}) {
    EXPECT_FALSE(changes_to(value)) << value;
  }
  EXPECT_EQ(config_.search_scales.size(), 3U);
}

TEST_F(ConfigApplyScales, StayAsTheyAreForAListThatHoldsNone) {
  SwJsonDocument document = parsed_document(R"({"processing":{"search_scales":[1]}})");
  document.root.object_value->members["processing"]
      .object_value->members["search_scales"]
      .array_value.reset();
  EXPECT_FALSE(apply(document, config_));
  EXPECT_EQ(config_.search_scales.size(), 3U);
}

TEST_F(ConfigApplyScales, StayAsTheyAreWhereTheKindDisownsTheHeldList) {
  SwJsonDocument document = parsed_document(R"({"processing":{"search_scales":[1]}})");
  SwJsonValue& value =
      document.root.object_value->members["processing"].object_value->members["search_scales"];
  value.kind = SwJsonValue::Kind::Object;
  EXPECT_FALSE(apply(document, config_));
  EXPECT_EQ(config_.search_scales.size(), 3U);
}

TEST_F(ConfigApplyScales, ChangeByLengthAndByAnyElement) {
  EXPECT_FALSE(changes_to("[0.950392,1.0,1.05]"));
  EXPECT_TRUE(changes_to("[0.950392,1.0]"));
  EXPECT_TRUE(changes_to("[0.950392,1.0,1.05]"));
  EXPECT_TRUE(changes_to("[0.950392,1.0,1.06]"));
  EXPECT_TRUE(changes_to("[1.0,0.950392,1.06]"));
  EXPECT_FALSE(changes_to("[1.0,0.950392,1.06]"));
}

TEST_F(ConfigApplyScales, WithANanCountAsAChangeEachTime) {
  EXPECT_TRUE(changes_to(R"(["nan"])"));
  EXPECT_TRUE(changes_to(R"(["nan"])"));
}

}  // namespace
