// The library steered while it tracks: settings, the gimbal's view, a zoom step, the dead timeout.
#include <opencv2/imgproc.hpp>

#include "plugin/loaded_plugin_fixture.h"

namespace ostrel_test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr double kPixelsPerDegree = 6.0;  // of the widest view
constexpr int kViewWidth_px = 240;
constexpr int kViewHeight_px = 160;

/// A camera on a gimbal before a still scene. Its angles and fields of view go with each picture.
class Camera {
 public:
  Camera() {
    ostrel_scene::SceneOptions options;
    options.width_px = 2 * kViewWidth_px;
    options.height_px = 2 * kViewHeight_px;
    const ostrel_scene::SceneFrame frame = ostrel_scene::Scene(options).render(0);
    scene_ = frame.image;
    target_ = frame.target_px;
    look_beside_target(0.0, 0.0);
  }

  /// Turns so that the target stands so many pixels of the widest view right of and below the middle.
  void look_beside_target(double right_px, double below_px) {
    centre_ = {target_.x + target_.width / 2 - right_px, target_.y + target_.height / 2 - below_px};
  }
  void turn_to(double pan_deg, double tilt_deg) {
    centre_ = {pan_deg * kPixelsPerDegree, -tilt_deg * kPixelsPerDegree};
  }
  void zoom_to(double factor) { zoom_ = factor; }

  cv::Rect2d target_in_view() const {
    const cv::Point2d corner = (target_.tl() - centre_) * zoom_;
    return {corner.x + kViewWidth_px / 2.0, corner.y + kViewHeight_px / 2.0, target_.width * zoom_,
            target_.height * zoom_};
  }

  PicturePtr picture() const {
    const cv::Matx23d to_scene(1 / zoom_, 0, centre_.x - kViewWidth_px / zoom_ / 2, 0, 1 / zoom_,
                               centre_.y - kViewHeight_px / zoom_ / 2);
    cv::Mat view;
    cv::warpAffine(scene_, view, to_scene, {kViewWidth_px, kViewHeight_px},
                   cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REFLECT);
    PicturePtr picture = uploaded(view);
    using Keys = optrix::OptrixPicture::BaseMetadata::Keys;
    optrix::OptrixPicture::BaseMetadata metadata;
    metadata[Keys::kPanDeg] = centre_.x / kPixelsPerDegree;
    metadata[Keys::kTiltDeg] = -centre_.y / kPixelsPerDegree;
    metadata[Keys::kHfovDeg] = kViewWidth_px / zoom_ / kPixelsPerDegree;
    metadata[Keys::kVfovDeg] = kViewHeight_px / zoom_ / kPixelsPerDegree;
    metadata[Keys::kFollowMeEnabledCommand] = std::int32_t{follow_me ? 1 : 0};
    picture->setBaseMetadata(std::move(metadata));
    return picture;
  }

  bool follow_me = false;

 private:
  cv::Mat scene_;
  cv::Rect2d target_;
  cv::Point2d centre_;
  double zoom_ = 1.0;
};

PicturePtr withoutMetadata(const PicturePtr& picture) {
  picture->setBaseMetadata({});
  return picture;
}

class PluginLive : public LoadedPluginTest {
 protected:
  /// Starts on the target as the camera sees it and tracks until it is armed.
  void start() {
    ASSERT_TRUE(plugin_.init(camera_.picture(), asBox(camera_.target_in_view())));
    plugin_.settle(camera_.picture());
    ASSERT_EQ(plugin_.phase(), "ready") << plugin_.property();
  }
  std::vector<BBox> see() { return plugin_.update(camera_.picture()); }

  /// What the console shows of a change while debug output is on.
  std::string console_of(const json& document) {
    testing::internal::CaptureStdout();
    plugin_.set(document);
    return testing::internal::GetCapturedStdout();
  }

  /// The box follows the target: its overlap with the truth.
  double overlap_of(const std::vector<BBox>& boxes) const {
    return boxes.empty() ? 0.0 : overlap(boxes[0], camera_.target_in_view());
  }

  Camera camera_;
  DrivenPlugin plugin_ = create();
};

TEST_F(PluginLive, TakesSettingsWhileItTracks) {
  start();
  const json before = plugin_.property();
  plugin_.set({{"runtime", {{"dead_timeout_s", 42.5}}},
               {"debug", {{"log_every_n_frames", 7}}},
               {"processing", {{"frame_scale", 0.5}}}});
  const json after = plugin_.property();
  EXPECT_EQ(after.at("tracking_dead_timeout_s"), 42.5);
  EXPECT_EQ(after.at("debug_log_period"), 7);
  EXPECT_EQ(after.at("resize_scale"), 0.5);
  EXPECT_EQ(after.at("tracker_input_width"), before.at("tracker_input_width")) << "until the next init";
  EXPECT_EQ(after.at("runtime_status"), before.at("runtime_status"));
  EXPECT_GT(overlap_of(see()), 0.5) << plugin_.property();
  EXPECT_EQ(plugin_.status(), "track_ok");

  start();
  EXPECT_EQ(plugin_.property().at("tracker_input_width"), kViewWidth_px / 2);
}

TEST_F(PluginLive, KeepsItsSettingsForADocumentThatIsNone) {
  start();
  const json before = plugin_.property();
  (*plugin_).setConfig("{\"runtime\":{\"dead_timeout_s\":1}");
  (*plugin_).setConfig("[1]");
  (*plugin_).setConfig("");
  EXPECT_EQ(plugin_.property().at("tracking_dead_timeout_s"), before.at("tracking_dead_timeout_s"));
  EXPECT_FALSE(see().empty());
}

TEST_F(PluginLive, HoldsTheBoxWhileMoreScalesAreAskedForThanTheEngineWasBuiltFor) {
  start();
  const auto box = see();
  plugin_.set({{"processing", {{"search_scales", {0.9, 0.95, 1.0, 1.05}}}}});
  const auto held = see();
  ASSERT_EQ(held.size(), 1U);
  EXPECT_EQ(held[0].x, box.at(0).x);
  EXPECT_EQ(plugin_.status(), "track_fail_hold");
  EXPECT_EQ(plugin_.detail(), "TensorBatch exceeds TensorRT batch capacity");
  EXPECT_EQ(plugin_.property().at("score"), 0.0);
  plugin_.set({{"processing", {{"search_scales", {0.95, 1.0}}}}});
  see();
  EXPECT_EQ(plugin_.status(), "track_ok");
}

TEST_F(PluginLive, NotesTheEngineOfTheEnvironmentAtEachChange) {
  start();
  for (const double rate : {0.25, 0.5}) {
    EXPECT_THAT(console_of({{"debug", {{"enabled", true}}}, {"learning", {{"learning_rate", rate}}}}),
                HasSubstr("setConfig hot_apply=1 detail=trt_engine_path requires reinit"));
  }
  EXPECT_THAT(console_of({{"debug", {{"enabled", true}}}, {"learning", {{"feature_projection_dim", 4}}}}),
              HasSubstr("detail=trt_engine_path requires reinit; compressed_dim requires reinit"));
}

TEST_F(PluginLive, NotesNothingWhereTheEngineStandsInTheConfiguration) {
  ::unsetenv("OSTREL_TRACKER_ATOM_TRT_ENGINE");
  plugin_.set({{"engine", {{"tracker_engine_path", engine()}}}});
  start();
  EXPECT_THAT(console_of({{"debug", {{"enabled", true}}}, {"learning", {{"learning_rate", 0.5}}}}),
              HasSubstr("setConfig hot_apply=1 detail=config_updated"));
}

TEST_F(PluginLive, ArmsOnceTheGimbalHasBroughtTheTargetToTheMiddle) {
  plugin_.set({{"preposition", {{"enabled", true}}}});
  camera_.follow_me = true;
  camera_.look_beside_target(60.0, 30.0);
  const auto outputs = plugin_.start(camera_.picture(), asBox(camera_.target_in_view()));
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_EQ(outputs[0].output_type, "gimbal_preposition.v1");
  const json aim = asJson(outputs[0].payload);
  EXPECT_EQ(plugin_.status(), "init_deferred_waiting_alignment");

  plugin_.settle(camera_.picture());
  EXPECT_EQ(plugin_.phase(), "waiting_alignment");
  EXPECT_EQ(plugin_.status(), "wait_alignment");
  EXPECT_THAT(plugin_.detail(), testing::StartsWith("dx_norm=0.25 dy_norm=0.18"));
  EXPECT_EQ(plugin_.property().at("initialized"), true);
  EXPECT_TRUE(plugin_.update(withoutMetadata(camera_.picture())).empty());
  EXPECT_EQ(plugin_.status(), "wait_alignment_metadata");
  EXPECT_TRUE(plugin_.update(std::vector<PicturePtr>{}).empty());
  EXPECT_EQ(plugin_.status(), "wait_alignment_no_frame");

  camera_.turn_to(aim.at("target_pan_deg"), aim.at("target_tilt_deg"));
  const auto boxes = see();
  EXPECT_EQ(plugin_.phase(), "ready") << plugin_.property();
  EXPECT_EQ(plugin_.status(), "track_ok") << plugin_.property();
  EXPECT_GT(overlap_of(boxes), 0.5) << plugin_.property();
  EXPECT_NEAR(boxes.at(0).x + boxes.at(0).w / 2.0, kViewWidth_px / 2.0, 8.0);
  EXPECT_NEAR(boxes.at(0).y + boxes.at(0).h / 2.0, kViewHeight_px / 2.0, 8.0);
}

TEST_F(PluginLive, ArmsAtOnceWhenPrepositioningIsSwitchedOff) {
  plugin_.set({{"preposition", {{"enabled", true}}}});
  camera_.follow_me = true;
  camera_.look_beside_target(60.0, 0.0);
  ASSERT_EQ(plugin_.start(camera_.picture(), asBox(camera_.target_in_view())).size(), 1U);
  plugin_.settle(camera_.picture());
  ASSERT_EQ(plugin_.status(), "wait_alignment");
  plugin_.set({{"preposition", {{"enabled", false}}}});
  EXPECT_EQ(plugin_.phase(), "ready");
  EXPECT_EQ(plugin_.status(), "preposition_disabled_tracking_armed");
  EXPECT_EQ(plugin_.detail(), "");
  EXPECT_GE(plugin_.property().at("track_idle_ms"), 0.0);
}

TEST_F(PluginLive, StartsAsUsualWithoutTheFollowMeFlag) {
  plugin_.set({{"preposition", {{"enabled", true}}}});
  camera_.look_beside_target(60.0, 0.0);
  EXPECT_TRUE(plugin_.start(camera_.picture(), asBox(camera_.target_in_view())).empty());
  EXPECT_EQ(plugin_.status(), "init_deferred_waiting_update");
}

TEST_F(PluginLive, ScalesTheBoxWithAZoomStep) {
  start();
  see();
  const json before = plugin_.property();
  camera_.zoom_to(1.5);
  (*plugin_).enableDebug(true);
  testing::internal::CaptureStdout();
  see();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("zoom_changed factor=1.5000 status=zoom_changed_ok"));
  const double width = plugin_.property().at("raw_bbox").at(2);
  EXPECT_NEAR(width / before.at("raw_bbox").at(2).get<double>(), 1.5, 0.15) << plugin_.property();
  const auto boxes = see();
  EXPECT_GT(overlap_of(boxes), 0.5) << plugin_.property();
}

TEST_F(PluginLive, IsDeclaredDeadWithoutAGoodFrame) {
  start();
  plugin_.set({{"runtime", {{"dead_timeout_s", 0.05}}},
               {"processing", {{"search_scales", {0.9, 0.95, 1.0, 1.05}}}}});  // every frame fails
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_TRUE((*plugin_).isAlive()) << "the check runs in update only";
  see();
  EXPECT_FALSE((*plugin_).isAlive());
  EXPECT_EQ(plugin_.property().at("alive"), false);
  EXPECT_EQ(plugin_.status(), "tracking_dead_timeout");
  EXPECT_THAT(plugin_.detail(), testing::MatchesRegex("elapsed_s=[0-9.]+ timeout_s=0\\.05 "
                                                      "last_status=track_fail_hold"));
  EXPECT_GE(plugin_.property().at("track_idle_ms"), 50.0);

  plugin_.set({{"processing", {{"search_scales", {0.95, 1.0, 1.05}}}}});
  see();
  EXPECT_FALSE((*plugin_).isAlive()) << "only init brings it back";
  plugin_.set({{"runtime", {{"dead_timeout_s", 0}}}});
  start();
  EXPECT_TRUE((*plugin_).isAlive());
}

}  // namespace
}  // namespace ostrel_test
