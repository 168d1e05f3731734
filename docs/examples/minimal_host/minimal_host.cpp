// The smallest host: loads the plug-in, starts it on a box of the first picture and feeds it pictures until the first
// box comes back.
//
//   minimal_host LIBRARY ENGINE [debug]
//
// Exits with 0 once a box with a score above 0 was published that lies on the target. What a host of its own replaces is the class
// Camera; with the vendor's picture library that is where its frames come from.

#include <IAlgoPlugin.h>
#include <optrix/optrix_picture.h>

#include <algorithm>
#include <chrono>
#include <class_loader/class_loader.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::chrono::milliseconds kFramePeriod{33};
constexpr int kMostFrames = 3000;

/// Pictures of a checkered square that walks over noisy ground.
class Camera {
 public:
  static constexpr int kWidth_px = 320;
  static constexpr int kHeight_px = 240;
  static constexpr int kSide_px = 36;
  static constexpr int kFramesOfTheWalk = 40;

  /// Where the square is. It walks to the right and back.
  static BBox target(int frame) {
    const int step = frame % (2 * kFramesOfTheWalk);
    return {60 + std::min(step, 2 * kFramesOfTheWalk - step), 90, kSide_px, kSide_px};
  }

  static std::shared_ptr<optrix::OptrixPicture> picture(int frame) {
    std::vector<std::uint8_t> bgr;
    bgr.reserve(std::size_t{3} * kWidth_px * kHeight_px);
    const BBox box = target(frame);
    for (int y = 0; y < kHeight_px; ++y) {
      for (int x = 0; x < kWidth_px; ++x) append_pixel(x - box.x, y - box.y, x, y, &bgr);
    }
    auto picture = optrix::OptrixPicture::fromBgr(
        {bgr.data(), kWidth_px, kHeight_px, std::size_t{3} * kWidth_px}, optrix::PixelFormat::kNv12);
    if (picture == nullptr) return nullptr;
    // A camera that zooms tells its view with every picture. All four as doubles: a whole number does not count.
    using Keys = optrix::OptrixPicture::BaseMetadata::Keys;
    picture->setBaseMetadata(
        {{Keys::kPanDeg, 0.0}, {Keys::kTiltDeg, 0.0}, {Keys::kHfovDeg, 40.0}, {Keys::kVfovDeg, 30.0}});
    picture->setTimestamp(static_cast<std::uint64_t>(frame) * 33'000'000);
    return picture;
  }

 private:
  static void append_pixel(int dx, int dy, int x, int y, std::vector<std::uint8_t>* bgr) {
    if (dx >= 0 && dx < kSide_px && dy >= 0 && dy < kSide_px) {
      const bool odd = (dx / 9 + dy / 9) % 2 == 1;
      for (const int value : odd ? std::vector<int>{30, 220, 250} : std::vector<int>{240, 30, 20}) {
        bgr->push_back(static_cast<std::uint8_t>(value));
      }
      return;
    }
    bgr->insert(bgr->end(), 3, static_cast<std::uint8_t>(80 + (x * 37 + y * 101 + x * y) % 32));
  }
};

struct Detection {
  BBox box;
  double score = 0.0;
};

const AlgoValue* member(const AlgoValue& value, const std::string& key) {
  const auto* object = std::get_if<AlgoValue::Object>(&value.value);
  if (object == nullptr) return nullptr;
  for (const auto& [name, held] : *object) {
    if (name == key) return &held;
  }
  return nullptr;
}

std::int32_t pixels(const AlgoValue& detection, const char* key) {
  return static_cast<std::int32_t>(std::get<std::int64_t>(member(detection, key)->value));
}

/// The box of a "detection.v1" record; none where the plug-in has nothing to show.
std::optional<Detection> published(const std::vector<AlgoOutput>& outputs) {
  for (const AlgoOutput& output : outputs) {
    if (output.output_type != "detection.v1") continue;
    const AlgoValue* detections = member(output.payload, "detections");
    const auto& boxes = std::get<AlgoValue::Array>(detections->value);
    if (boxes.empty()) continue;
    const AlgoValue& first = boxes.front();
    return Detection{{pixels(first, "x"), pixels(first, "y"), pixels(first, "w"), pixels(first, "h")},
                     std::get<double>(member(first, "score")->value)};
  }
  return std::nullopt;
}

bool lies_on(const BBox& box, const BBox& target) {
  const int center_x = box.x + box.w / 2;
  const int center_y = box.y + box.h / 2;
  return center_x >= target.x && center_x < target.x + target.w && center_y >= target.y &&
         center_y < target.y + target.h;
}

/// A host with a JSON library reads `property` with it; the object has no white space.
bool says(const std::string& state, const std::string& member_and_value) {
  return state.find(member_and_value) != std::string::npos;
}

int fail(const char* what, const std::string& state) {
  std::fprintf(stderr, "%s: %s\n", what, state.c_str());
  return 1;
}

/// One run, from `init` to the first box.
int reach_first_box(IAlgoPlugin& plugin) {
  bool ok = false;
  plugin.init({Camera::picture(0)}, Camera::target(0), &ok);
  if (!ok) return fail("init was refused", plugin.property(""));

  for (int frame = 0; frame < kMostFrames; ++frame) {
    const auto answer = published(plugin.update({Camera::picture(frame)}, &ok));
    const std::string state = plugin.property("");
    if (says(state, R"("init_phase":"failed")")) return fail("the start failed", state);
    if (!plugin.isAlive()) return fail("the target is lost", state);
    if (answer && answer->score > 0.0) {
      const BBox& box = answer->box;
      std::printf("first box at frame %d: %d,%d,%d,%d score %.3f\n", frame, box.x, box.y, box.w, box.h,
                  answer->score);
      return lies_on(box, Camera::target(frame)) ? 0 : fail("the box is not on the target", state);
    }
    std::this_thread::sleep_for(kFramePeriod);
  }
  return fail("no box came", plugin.property(""));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return fail("usage", "minimal_host LIBRARY ENGINE [debug]");
  // The object goes before its loader: unloading a library with living objects is an error of the host.
  try {
    class_loader::ClassLoader loader(argv[1]);
    const std::shared_ptr<IAlgoPlugin> plugin = loader.createInstance<IAlgoPlugin>("OstrelAlgo");
    // The path goes into a JSON text as it is: a host escapes it, or uses a JSON library.
    plugin->setConfig(R"({"engine":{"tracker_engine_path":")" + std::string(argv[2]) + R"("}})");
    plugin->enableDebug(argc > 3);  // after setConfig, which sets the switch anew
    return reach_first_box(*plugin);
  } catch (const class_loader::ClassLoaderException& failure) {
    return fail("the plug-in cannot be loaded", failure.what());
  }
}
