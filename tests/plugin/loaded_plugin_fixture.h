#pragma once

#include <IAlgoPlugin.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <null_stream_watch.h>
#include <optrix/optrix_picture.h>
#include <ostrel_scene/scene.h>
#include <trunk_writer.h>

#include <chrono>
#include <class_loader/class_loader.hpp>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#include "support/temporary_folder.h"

namespace ostrel_test {

using PicturePtr = std::shared_ptr<optrix::OptrixPicture>;

inline const char* pluginPath() {
  const char* moved = std::getenv("OSTREL_PLUGIN_LIBRARY");  // of tests that run beside no build
  return moved != nullptr ? moved : OSTREL_PLUGIN_LIBRARY;
}

/// A picture of the device from an image of blue, green, red bytes, as NV12.
inline PicturePtr uploaded(const cv::Mat& image) {
  optrix::HostBgr source;
  source.pixels = image.data;
  source.width = image.cols;
  source.height = image.rows;
  source.stride_bytes = image.step[0];
  return optrix::OptrixPicture::fromBgr(source);
}

/// A small rendered clip with its truth.
inline ostrel_scene::Scene makeScene(std::uint32_t seed = 1) {
  ostrel_scene::SceneOptions options;
  options.width_px = 240;
  options.height_px = 160;
  options.frames = 40;
  options.seed = seed;
  return ostrel_scene::Scene(options);
}

inline BBox asBox(const cv::Rect2d& rect) {
  return {static_cast<std::int32_t>(std::lround(rect.x)), static_cast<std::int32_t>(std::lround(rect.y)),
          static_cast<std::int32_t>(std::lround(rect.width)),
          static_cast<std::int32_t>(std::lround(rect.height))};
}

inline double overlap(const BBox& a, const cv::Rect2d& b) {
  const cv::Rect2d box(a.x, a.y, a.w, a.h);
  const double common = (box & b).area();
  return common / (box.area() + b.area() - common);
}

/// A value of an answer as JSON; objects lose the order of their members.
inline nlohmann::json asJson(const AlgoValue& value) {
  return std::visit(
      [](const auto& held) -> nlohmann::json {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, AlgoValue::Object>) {
          nlohmann::json object = nlohmann::json::object();
          for (const auto& [key, member] : held) object[key] = asJson(member);
          return object;
        } else if constexpr (std::is_same_v<Held, AlgoValue::Array>) {
          nlohmann::json array = nlohmann::json::array();
          for (const auto& element : held) array.push_back(asJson(element));
          return array;
        } else {
          return held;
        }
      },
      value.value);
}

/// The library through the host's loader, driven as a host does.
class DrivenPlugin {
 public:
  explicit DrivenPlugin(std::shared_ptr<IAlgoPlugin> plugin) : plugin_(std::move(plugin)) {}

  bool init(const PicturePtr& picture, const BBox& roi) {
    bool ok = !picture;
    plugin_->init({picture}, roi, &ok);
    return ok;
  }
  /// The same for a start that has to be accepted; its outputs.
  std::vector<AlgoOutput> start(const PicturePtr& picture, const BBox& roi) {
    bool ok = false;
    const auto outputs = plugin_->init({picture}, roi, &ok);
    EXPECT_TRUE(ok);
    return outputs;
  }
  void set(const nlohmann::json& document) { plugin_->setConfig(document.dump()); }
  /// The boxes of one frame.
  std::vector<BBox> update(const std::vector<PicturePtr>& pictures) {
    bool ok = false;
    const auto outputs = plugin_->update(pictures, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(outputs.size(), 1U);
    std::vector<BBox> boxes;
    const auto& payload = std::get<4>(outputs.at(0).payload.value);
    for (const AlgoValue& detection : std::get<5>(payload.at(0).second.value)) {
      const auto& members = std::get<4>(detection.value);
      const auto pixel = [&members](std::size_t index) {
        return static_cast<std::int32_t>(std::get<1>(members.at(index).second.value));
      };
      boxes.push_back({pixel(0), pixel(1), pixel(2), pixel(3)});
    }
    return boxes;
  }
  std::vector<BBox> update(const PicturePtr& picture) { return update(std::vector<PicturePtr>{picture}); }

  nlohmann::json property() { return nlohmann::json::parse(plugin_->property("")); }
  std::string status() { return property().at("runtime_status"); }
  std::string detail() { return property().at("runtime_detail"); }
  std::string phase() { return property().at("init_phase"); }

  /// Repeats a frame until the start-up has ended one way or the other; the boxes of its last update.
  std::vector<BBox> settle(const PicturePtr& picture) {
    std::vector<BBox> boxes = update(picture);
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (phase() == "warming_up" && std::chrono::steady_clock::now() < give_up) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      boxes = update(picture);
    }
    return boxes;
  }
  IAlgoPlugin& operator*() { return *plugin_; }
  void destroy() { plugin_.reset(); }

 private:
  std::shared_ptr<IAlgoPlugin> plugin_;
};

class LoadedPluginTest : public testing::Test {
 protected:
  LoadedPluginTest() { useEngine(engine()); }
  ~LoadedPluginTest() override { unsetenv("OSTREL_TRACKER_ATOM_TRT_ENGINE"); }

  static void useEngine(const std::string& path) {
    setenv("OSTREL_TRACKER_ATOM_TRT_ENGINE", path.c_str(), 1);
  }

  /// A small trunk with random weights in the size that the tracker asks for, made once.
  static const std::string& engine() {
    static const TemporaryFolder folder;
    static const std::string file = [] {
      ostrel::backbone::TrunkOptions options;
      options.tiny = true;
      options.input_size = 192;
      std::string error;
      EXPECT_TRUE(write_trunk(options, folder.path("random.onnx"), &error)) << error;
      return folder.path("random.onnx");
    }();
    return file;
  }

  void TearDown() override { null_stream_.expect_nothing_new(); }

  DrivenPlugin create() { return DrivenPlugin(loader_.createInstance<IAlgoPlugin>("OstrelAlgo")); }

  class_loader::ClassLoader loader_{pluginPath()};

 private:
  NullStreamWatch null_stream_;
};

}  // namespace ostrel_test
