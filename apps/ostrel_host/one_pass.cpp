#include "one_pass.h"

#include <chrono>
#include <utility>

#include "frame_source.h"
#include "pacer.h"
#include "peer_tracker.h"
#include "plugin_session.h"
#include "result_files.h"

namespace ostrel_host {
namespace {

using PassClock = std::chrono::steady_clock;

double ms_since(PassClock::time_point start) {
  return std::chrono::duration<double, std::milli>(PassClock::now() - start).count();
}

PassFrame pass_frame(const StepResult& result) {
  PassFrame frame;
  frame.update_ms = result.update_ms;
  if (!result.published) return frame;
  const BBox& box = result.published->box;
  frame.box = cv::Rect2d(box.x, box.y, box.w, box.h);
  frame.held = result.published->score <= 0.0;
  return frame;
}

void note(const StepResult& result, Pass* pass) {
  const cv::Rect2d own = result.state.own_box();
  nlohmann::ordered_json record = jsonl_line(pass->frames.size(), result);
  record["own"] = {own.x, own.y, own.width, own.height};
  pass->records.push_back(std::move(record));
  pass->own_boxes.push_back(own);
  pass->frames.push_back(pass_frame(result));
}

cv::Rect box_inside(const Sequence& sequence) {
  const BBox& start = sequence.start;
  return cv::Rect(start.x, start.y, start.w, start.h) & cv::Rect({}, sequence.frame_size_px);
}

// The next frame; one without pixels where the pictures are gone since they were checked.
Frame next_frame(FrameSource& source) {
  std::optional<Frame> frame = source.next();
  return frame ? std::move(*frame) : Frame();
}

// A peer behind a guard: what it throws is a loss.
class GuardedPeer {
 public:
  explicit GuardedPeer(const std::string& name) : tracker_(make_peer(name)) {}

  PassFrame start(const cv::Mat& image, const cv::Rect& box) {
    if (image.empty() || box.empty()) return {};
    try {
      tracker_->init(image, box);
      started_ = true;
    } catch (const cv::Exception&) {
      return {};
    }
    return {cv::Rect2d(box), false, std::nullopt};
  }

  PassFrame update(const cv::Mat& image) {
    cv::Rect box;
    const auto start = PassClock::now();
    const bool found = started_ && !image.empty() && try_update(image, &box);
    PassFrame frame;
    if (started_) frame.update_ms = ms_since(start);
    if (found) frame.box = cv::Rect2d(box);
    return frame;
  }

 private:
  bool try_update(const cv::Mat& image, cv::Rect* box) {
    try {
      return tracker_->update(image, *box);
    } catch (const cv::Exception&) {
      return false;
    }
  }

  cv::Ptr<cv::Tracker> tracker_;
  bool started_ = false;
};

}  // namespace

Pass pass_of_plugin(IAlgoPlugin& plugin, const Sequence& sequence, double frame_rate, bool verbose,
                    const GoOn& go_on) {
  Pass pass;
  const auto source = open_source(sequence.images());
  PluginSession session(plugin, verbose);
  const Frame frame = next_frame(*source);
  const auto start = PassClock::now();
  session.start(frame, sequence.start);
  const std::optional<StepResult> first =
      session.step_until_armed(frame, [&](const StepResult&) { return go_on(false); });
  if (!first) return pass;
  pass.start_up_ms = ms_since(start);
  note(*first, &pass);
  pass.frames.back().update_ms.reset();  // it lies in the start-up time
  const Pacer pacer(frame_rate);
  while (go_on(true)) {
    if (pass.frames.size() == sequence.frames()) {
      pass.complete = true;
      break;
    }
    const Frame next = next_frame(*source);
    pacer.wait_for(pass.frames.size());
    note(session.step(next), &pass);
  }
  return pass;
}

Pass pass_of_peer(const std::string& peer, const Sequence& sequence, unsigned seed, const GoOn& go_on) {
  Pass pass;
  const auto source = open_source(sequence.images());
  const Frame frame = next_frame(*source);
  seed_peers(seed);
  GuardedPeer tracker(peer);
  const auto start = PassClock::now();
  pass.frames.push_back(tracker.start(frame.image, box_inside(sequence)));
  pass.start_up_ms = ms_since(start);
  while (go_on(true)) {
    if (pass.frames.size() == sequence.frames()) {
      pass.complete = true;
      break;
    }
    pass.frames.push_back(tracker.update(next_frame(*source).image));
  }
  return pass;
}

}  // namespace ostrel_host
