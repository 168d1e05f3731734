// What a host can do wrong, each with its word, and that the next good call goes on.
#include "plugin/loaded_plugin_fixture.h"

namespace ostrel_test {
namespace {

class PluginBadInput : public LoadedPluginTest {
 protected:
  PluginBadInput()
      : scene_(makeScene()), first_(uploaded(scene_.render(0).image)), roi_(asBox(scene_.target_at(0))) {}

  /// The word of a failed start lives in the log alone: the frame that finds it ends with the word of a skip.
  void expectFailedStart(DrivenPlugin& plugin, const PicturePtr& picture, const BBox& roi,
                         const std::string& detail) {
    SCOPED_TRACE(detail);
    (*plugin).enableDebug(true);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(plugin.init(picture, roi));
    EXPECT_TRUE(plugin.settle(first_).empty());
    const std::string console = testing::internal::GetCapturedStdout();
    (*plugin).enableDebug(false);
    EXPECT_EQ(plugin.phase(), "failed");
    EXPECT_NE(console.find("runtime_status=init_async_fail detail=" + detail + "\n"), std::string::npos)
        << console;
    EXPECT_TRUE(plugin.update(first_).empty());
    EXPECT_EQ(plugin.status(), "update_skip_not_initialized");
  }
  void expectRefusedEngine(DrivenPlugin& plugin, const std::string& path, const std::string& detail) {
    useEngine(path);
    expectFailedStart(plugin, first_, roi_, "initialize failed: " + detail);
  }
  void expectGoodStart(DrivenPlugin& plugin) {
    useEngine(engine());
    EXPECT_TRUE(plugin.init(first_, roi_));
    EXPECT_EQ(plugin.settle(first_).size(), 1U) << plugin.property();
    EXPECT_EQ(plugin.status(), "track_ok");
  }

  TemporaryFolder folder_;
  ostrel_scene::Scene scene_;
  PicturePtr first_;
  BBox roi_;
};

TEST_F(PluginBadInput, NamesAnEngineThatIsMissing) {
  DrivenPlugin plugin = create();
  const std::string path = folder_.path("none.onnx");
  expectRefusedEngine(plugin, path, "TensorRT backbone engine not found: " + path);
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, NamesAnEngineThatIsEmptyOrTruncated) {
  DrivenPlugin plugin = create();
  const std::string empty = folder_.file("empty.onnx", "");
  expectRefusedEngine(plugin, empty, "failed to deserialize TensorRT engine: " + empty);
  const std::string whole = content_of(engine());
  const std::string half = folder_.file("half.onnx", whole.substr(0, whole.size() / 2));
  expectRefusedEngine(plugin, half, "failed to deserialize TensorRT engine: " + half);
  const std::string noise = folder_.file("noise.onnx", "this is no engine");
  expectRefusedEngine(plugin, noise, "failed to deserialize TensorRT engine: " + noise);
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, NamesAnEngineOfAnotherInputShape) {
  DrivenPlugin plugin = create();
  ostrel::backbone::TrunkOptions options;
  options.tiny = true;  // 32 x 32 where the tracker asks for 192 x 192
  const std::string path = folder_.path("tiny.onnx");
  ASSERT_TRUE(write_trunk(options, path));
  expectRefusedEngine(plugin, path, "failed to extract template feature");
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, RefusesRegionsWithoutSizeAndTakesOneOutside) {
  DrivenPlugin plugin = create();
  for (const BBox& bad : {BBox{10, 10, 0, 20}, BBox{10, 10, 20, -4}, BBox{0, 0, 0, 0}}) {
    EXPECT_FALSE(plugin.init(first_, bad));
    EXPECT_EQ(plugin.status(), "init_fail_invalid_roi");
    EXPECT_EQ(plugin.phase(), "idle");
  }
  EXPECT_TRUE(plugin.init(first_, {5000, 10, 30, 30}));
  EXPECT_EQ(plugin.status(), "init_deferred_waiting_update");
  EXPECT_EQ(plugin.settle(first_).size(), 1U) << plugin.property();
  EXPECT_EQ(plugin.phase(), "ready");
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, FailsAStartOnARegionOfOnePixel) {
  DrivenPlugin plugin = create();
  expectFailedStart(plugin, first_, {20, 20, 1, 30}, "initialize failed: invalid init bbox");
  expectFailedStart(plugin, first_, {20, 20, 30, 1}, "initialize failed: invalid init bbox");
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, RefusesToStartWithoutAUsablePicture) {
  DrivenPlugin plugin = create();
  EXPECT_FALSE(plugin.init(nullptr, roi_));
  EXPECT_EQ(plugin.status(), "init_fail_no_frame");
  bool ok = true;
  (*plugin).init({}, roi_, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(plugin.status(), "init_fail_no_frame");
  EXPECT_FALSE(plugin.init(optrix::OptrixPicture::withoutPixels(0, 100), roi_));
  EXPECT_EQ(plugin.status(), "init_fail_invalid_source_size");
  EXPECT_FALSE(plugin.init(optrix::OptrixPicture::withoutPixels(65536, 65536), {0, 0, 65536, 65536}));
  EXPECT_EQ(plugin.status(), "init_fail_roi_outside");
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, FailsAStartOnAPictureWithoutPixels) {
  DrivenPlugin plugin = create();
  expectFailedStart(plugin, optrix::OptrixPicture::withoutPixels(240, 160), roi_, "direct_nv12_init_frame");
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, WaitsForAFrameToBeginItsStart) {
  DrivenPlugin plugin = create();
  EXPECT_TRUE(plugin.init(first_, roi_));
  for (const auto& nothing : {std::vector<PicturePtr>{}, std::vector<PicturePtr>{nullptr}}) {
    EXPECT_TRUE(plugin.update(nothing).empty());
    EXPECT_EQ(plugin.status(), "update_skip_waiting_first_update");
    EXPECT_EQ(plugin.phase(), "waiting_first_update");
  }
  EXPECT_EQ(plugin.settle(first_).size(), 1U) << plugin.property();
  EXPECT_EQ(plugin.status(), "track_ok");
}

TEST_F(PluginBadInput, SkipsMissingFramesAndFramesOfAnotherSizeInMidRun) {
  DrivenPlugin plugin = create();
  EXPECT_TRUE(plugin.update(nullptr).empty());
  EXPECT_EQ(plugin.status(), "update_skip_not_initialized");
  expectGoodStart(plugin);
  EXPECT_TRUE(plugin.update(nullptr).empty());
  EXPECT_EQ(plugin.status(), "update_skip_no_frame");
  EXPECT_TRUE(plugin.update(std::vector<PicturePtr>{}).empty());
  EXPECT_EQ(plugin.status(), "update_skip_no_frame");
  const cv::Mat next = scene_.render(1).image;
  EXPECT_TRUE(plugin.update(uploaded(next(cv::Rect(0, 0, 200, 160)).clone())).empty());
  EXPECT_EQ(plugin.status(), "update_skip_source_size_changed");
  EXPECT_EQ(plugin.update(uploaded(next)).size(), 1U);
  EXPECT_EQ(plugin.status(), "track_ok");
}

TEST_F(PluginBadInput, TracksALargerFrameInMidRunAndThenRefusesTheOldSize) {
  DrivenPlugin plugin = create();
  expectGoodStart(plugin);
  const cv::Mat next = scene_.render(1).image;
  cv::Mat larger(200, 300, CV_8UC3, cv::Scalar::all(70));
  next.copyTo(larger(cv::Rect({0, 0}, next.size())));
  EXPECT_EQ(plugin.update(uploaded(larger)).size(), 1U);
  EXPECT_EQ(plugin.property().at("source_width"), 300);
  EXPECT_EQ(plugin.property().at("tracker_input_width"), 240);
  EXPECT_TRUE(plugin.update(uploaded(next)).empty());
  EXPECT_EQ(plugin.status(), "update_skip_source_size_changed");
  expectGoodStart(plugin);
}

TEST_F(PluginBadInput, HoldsTheBoxWhenAPictureCannotBeRead) {
  DrivenPlugin plugin = create();
  expectGoodStart(plugin);
  EXPECT_EQ(plugin.update(optrix::OptrixPicture::withoutPixels(240, 160)).size(), 1U);
  EXPECT_EQ(plugin.status(), "track_fail_hold");
  EXPECT_EQ(plugin.detail(), "gpu_affine_crop_failed");
  EXPECT_EQ(plugin.property().at("score"), 0);
  EXPECT_EQ(plugin.update(first_).size(), 1U);
  EXPECT_EQ(plugin.status(), "track_ok");
}

TEST_F(PluginBadInput, TracksOnOddAndTinyFrames) {
  DrivenPlugin plugin = create();
  const cv::Mat image = scene_.render(0).image;
  for (const cv::Size size : {cv::Size(161, 121), cv::Size(7, 5), cv::Size(2, 2), cv::Size(1, 1)}) {
    SCOPED_TRACE(size.width);
    const PicturePtr picture = uploaded(image(cv::Rect({0, 0}, size)).clone());
    EXPECT_TRUE(plugin.init(picture, {0, 0, size.width, size.height}));
    const auto boxes = plugin.settle(picture);
    ASSERT_EQ(boxes.size(), 1U) << plugin.property();
    EXPECT_EQ(plugin.status(), "track_ok") << plugin.property();
    EXPECT_GE(boxes[0].x, 0);
    EXPECT_GE(boxes[0].y, 0);
    EXPECT_LE(boxes[0].x + boxes[0].w, size.width);
    EXPECT_LE(boxes[0].y + boxes[0].h, size.height);
  }
  expectGoodStart(plugin);
}

}  // namespace
}  // namespace ostrel_test
