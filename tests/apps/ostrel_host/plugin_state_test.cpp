#include <gtest/gtest.h>
#include <ostrel_host/plugin_state.h>

namespace {

using ostrel_host::parse_state;
using ostrel_host::published_detection;

constexpr char kProperty[] =
    R"({"alive":true,"initialized":true,"init_phase":"ready","score":0.7,"bbox":[1,2,3,4],)"
    R"("runtime_status":"track_ok","runtime_detail":"ok \"q\"","raw_bbox":[1.5,2.5,3.25,4],"raw_score":0.65,)"
    R"("frame_width":640,"frame_height":360,"stats":{"update_calls":9,"track_ok":8,"track_fail":0,"track_fail_hold":1}})";

TEST(PluginState, ReadsTheMembersOfTheProperty) {
  const auto state = parse_state(kProperty);
  EXPECT_TRUE(state.alive);
  EXPECT_EQ(state.phase, "ready");
  EXPECT_EQ(state.status, "track_ok");
  EXPECT_EQ(state.detail, "ok \"q\"");
  EXPECT_EQ(state.box.w, 3);
  EXPECT_EQ(state.tracker_box, cv::Rect2d(1.5, 2.5, 3.25, 4));
  EXPECT_EQ(state.tracker_score, 0.65);
  EXPECT_EQ(state.properties["stats"]["track_ok"], 8);
  EXPECT_EQ(state.own_box(), state.tracker_box);
}

TEST(PluginState, TakesTheStartBoxWhileTheTrackerHasNone) {
  const auto state = parse_state(R"({"bbox":[5,6,7,8],"raw_bbox":[0,0,0,0]})");
  EXPECT_EQ(state.own_box(), cv::Rect2d(5, 6, 7, 8));
}

TEST(PluginState, ReadsNumbersThatJsonDoesNotHaveAsNull) {
  const auto state = parse_state(
      R"({"raw_score":nan,"raw_bbox":[-nan,inf,-inf,1],"runtime_status":"\":nan,","runtime_detail":"a\\","alive":true})");
  EXPECT_EQ(state.status, "\":nan,");
  EXPECT_EQ(state.detail, "a\\");
  EXPECT_TRUE(state.alive);
  EXPECT_EQ(state.tracker_score, 0.0);
  EXPECT_EQ(state.tracker_box.width, 0.0);
  EXPECT_TRUE(state.properties["raw_score"].is_null());
}

TEST(PluginState, RefusesATextThatIsNoObject) {
  for (const char* text : {"", "[]", "{", "null"})
    EXPECT_THROW(parse_state(text), std::runtime_error) << text;
}

AlgoOutput detection_output(AlgoValue::Array detections) {
  return {"detection.v1", AlgoValue(AlgoValue::Object{{"detections", std::move(detections)}})};
}

TEST(PublishedDetection, ReadsTheFirstBoxByKey) {
  const AlgoValue detection(AlgoValue::Object{{"x", std::int64_t{-1}},
                                              {"y", std::int64_t{2}},
                                              {"w", std::int64_t{3}},
                                              {"h", std::int64_t{4}},
                                              {"class_name", "name"},
                                              {"score", 0.25}});
  const auto found =
      published_detection({{"gimbal_preposition.v1", {}}, detection_output({detection, detection})});
  ASSERT_TRUE(found);
  EXPECT_EQ(found->box.x, -1);
  EXPECT_EQ(found->box.y, 2);
  EXPECT_EQ(found->box.w, 3);
  EXPECT_EQ(found->box.h, 4);
  EXPECT_EQ(found->score, 0.25);
}

TEST(PublishedDetection, IsNothingWithoutABox) {
  EXPECT_FALSE(published_detection({}));
  EXPECT_FALSE(published_detection({detection_output({})}));
  EXPECT_FALSE(published_detection({{"detection.v1", AlgoValue(true)}}));
  EXPECT_FALSE(published_detection(
      {{"other.v1", AlgoValue(AlgoValue::Object{{"detections", AlgoValue::Array{true}}})}}));
}

}  // namespace
