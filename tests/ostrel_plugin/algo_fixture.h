#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host_cuda/control.h>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ostrel_plugin/algo_test_access.h"
#include "ostrel_plugin/recorded_log.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "support/fake_backend.h"

namespace ostrel_test {

using Access = OstrelAlgoTestAccess;
using Metadata = optrix::OptrixPicture::BaseMetadata;
using PicturePtr = std::shared_ptr<optrix::OptrixPicture>;

inline bool operator==(const ::BBox& a, const ::BBox& b) {
  return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h;
}

/// A grey picture with pixels.
inline PicturePtr makePicture(int width = 64, int height = 48, const Metadata& metadata = {},
                              std::uint64_t timestamp = 77) {
  const std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width * height * 3), 90);
  optrix::HostBgr source;
  source.pixels = pixels.data();
  source.width = width;
  source.height = height;
  source.stride_bytes = static_cast<std::size_t>(width) * 3;
  PicturePtr picture = optrix::OptrixPicture::fromBgr(source, optrix::PixelFormat::kBgr);
  picture->setBaseMetadata(metadata);
  picture->setTimestamp(timestamp);
  return picture;
}

inline Metadata makeView(double pan, double tilt, double hfov, double vfov) {
  Metadata metadata;
  metadata["pan_deg"] = pan;
  metadata["tilt_deg"] = tilt;
  metadata["hfov_deg"] = hfov;
  metadata["vfov_deg"] = vfov;
  return metadata;
}

/// One published box, read from an output by the positions and alternatives of the contract.
struct Published {
  ::BBox box;
  std::int64_t class_id = 0;
  std::string class_name;
  std::string class_info;
  std::int64_t tracker_id = 0;
  double score = -1.0;
};

inline std::vector<Published> publishedIn(const std::vector<AlgoOutput>& outputs) {
  std::vector<Published> boxes;
  EXPECT_EQ(outputs.size(), 1U);
  if (outputs.size() != 1) return boxes;
  EXPECT_EQ(outputs[0].output_type, "detection.v1");
  const auto& payload = std::get<4>(outputs[0].payload.value);
  EXPECT_EQ(payload.size(), 1U);
  EXPECT_EQ(payload.at(0).first, "detections");
  for (const AlgoValue& detection : std::get<5>(payload.at(0).second.value)) {
    const auto& members = std::get<4>(detection.value);
    const auto integer = [&members](std::size_t index) {
      return std::get<1>(members.at(index).second.value);
    };
    const auto pixel = [&integer](std::size_t index) { return static_cast<std::int32_t>(integer(index)); };
    const auto text = [&members](std::size_t index) { return std::get<3>(members.at(index).second.value); };
    Published box;
    box.box = {pixel(0), pixel(1), pixel(2), pixel(3)};
    box.class_id = integer(4);
    box.class_name = text(5);
    box.class_info = text(6);
    box.tracker_id = integer(7);
    box.score = std::get<2>(members.at(8).second.value);
    boxes.push_back(box);
  }
  return boxes;
}

/// Lets held starts go on, at the latest when it leaves.
class HeldStarts {
 public:
  HeldStarts() : gate_(std::make_shared<std::promise<void>>()), opened_(gate_->get_future().share()) {}
  HeldStarts(HeldStarts&&) = default;
  ~HeldStarts() { release(); }
  void release() {
    if (gate_) gate_->set_value();
    gate_.reset();
  }
  std::shared_future<void> opened() const { return opened_; }

 private:
  std::shared_ptr<std::promise<void>> gate_;
  std::shared_future<void> opened_;
};

/// The plug-in object over the fake backend, driven as a host does.
class AlgoTest : public testing::Test {
 protected:
  AlgoTest() { FakeBackends::instance().reset(); }
  ~AlgoTest() override { ostrel::host_cuda::clear_faults(); }

  void script(const std::function<void(FakeBackendScript&)>& change) { FakeBackends::instance().set(change); }
  FakeBackendScript asked() const { return FakeBackends::instance().snapshot(); }

  bool init(const PicturePtr& picture, const ::BBox& roi) {
    bool ok = !picture;  // the call has to write it
    outputs_of_init = algo->init({picture}, roi, &ok);
    return ok;
  }
  std::vector<Published> update(const PicturePtr& picture) {
    bool ok = false;
    const auto outputs = algo->update({picture}, &ok);
    EXPECT_TRUE(ok);
    return publishedIn(outputs);
  }

  /// Starts of the backend wait until they are released.
  [[nodiscard]] HeldStarts holdStarts() {
    HeldStarts starts;
    script([opened = starts.opened()](FakeBackendScript& backend) {
      backend.on_call = [opened, then = backend.on_call](const std::string& operation) {
        if (operation == "initialize") opened.wait();
        if (then) then(operation);
      };
    });
    return starts;
  }
  /// Launches the worker and waits for its result, which the next update finds.
  void warmUp(const PicturePtr& picture = makePicture(), const ::BBox& roi = {8, 8, 20, 16}) {
    auto starts = holdStarts();  // a quick worker could be done within the update that launches it
    EXPECT_TRUE(init(picture, roi));
    update(picture);
    starts.release();
    Access::waitForWorkers(*algo);
  }
  /// Up to the first tracked frame, which this publishes.
  std::vector<Published> startTracking(const PicturePtr& picture = makePicture(),
                                       const ::BBox& roi = {8, 8, 20, 16}) {
    warmUp(picture, roi);
    return update(picture);
  }

  nlohmann::json property() { return nlohmann::json::parse(algo->property("any")); }
  std::string status() { return property().at("runtime_status"); }
  std::string detail() { return property().at("runtime_detail"); }
  std::string phase() { return property().at("init_phase"); }
  std::int64_t stat(const char* name) { return property().at("stats").at(name); }
  const OstrelConfig& config() { return Access::config(*algo); }

  /// One setting by its path, "group/key", with the text of its JSON value.
  void configure(const std::string& path, const std::string& value) {
    const auto slash = path.find('/');
    algo->setConfig("{\"" + path.substr(0, slash) + "\":{\"" + path.substr(slash + 1) + "\":" + value + "}}");
  }

  std::unique_ptr<OstrelAlgo> algo = std::make_unique<OstrelAlgo>();
  std::vector<AlgoOutput> outputs_of_init;
};

MATCHER_P(ReadsLike, pattern, "") {
  return readsLike(arg, pattern);
}

}  // namespace ostrel_test
