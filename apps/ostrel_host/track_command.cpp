#include "track_command.h"

#include <chrono>
#include <cstdio>
#include <optional>

#include "accuracy.h"
#include "annotated_video.h"
#include "bad_input.h"
#include "engine_choice.h"
#include "frame_source.h"
#include "interrupt.h"
#include "loaded_plugin.h"
#include "pacer.h"
#include "plugin_configuration.h"
#include "plugin_session.h"
#include "progress.h"
#include "region.h"
#include "result_files.h"
#include "run_statistics.h"

namespace ostrel_host {
namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr double kDefaultVideoRate = 25.0;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double video_rate(const TrackOptions& options, const FrameSource& source) {
  if (options.frame_rate > 0.0) return options.frame_rate;
  return source.frame_rate() > 0.0 ? source.frame_rate() : kDefaultVideoRate;
}

Frame first_frame(FrameSource& source, const std::string& name) {
  std::optional<Frame> frame = source.next();
  if (!frame) throw BadInput("'" + name + "' has no frame that can be read");
  if (frame->image.empty())
    throw BadInput("the first image '" + frame->name + "' of '" + name + "' cannot be read");
  return std::move(*frame);
}

// A run from its first frame to its summary.
class TrackRun {
 public:
  TrackRun(const TrackOptions& options, const json& configuration, FrameSource& source, LoadedPlugin& plugin)
      : options_(options),
        configuration_(configuration),
        source_(source),
        plugin_(plugin),
        session_(*plugin, wants_debug(options.debug, configuration)),
        files_(options.out),
        progress_(frames_expected()) {}

  void run(Frame first, const BBox& region) {
    region_ = region;
    frame_size_px_ = first.image.size();
    if (options_.video) {
      video_.emplace((files_.folder() / "annotated.mp4").string(), frame_size_px_,
                     video_rate(options_, source_));
    }
    start_ = Clock::now();
    statistics_.set_init_ms(session_.start(first, region).init_ms);
    if (options_.wait_ready) wait_until_armed(first);
    track_all(std::move(first));
    finish_start_up();
    progress_.finish();
    report();
  }

 private:
  std::size_t frames_expected() const {
    const std::size_t available = source_.frame_count();
    if (options_.frames == 0) return available;
    return available == 0 ? options_.frames : std::min(available, options_.frames);
  }

  bool note_armed(const StepResult& result) {
    const bool armed = session_.armed(result.state);
    if (armed && !statistics_.ever_armed()) statistics_.set_ready_ms(1000.0 * seconds_since(start_));
    return armed;
  }

  // The answer that arms belongs to the first frame and is kept for it.
  void wait_until_armed(const Frame& first) {
    first_answer_ = session_.step_until_armed(first, [this](const StepResult& result) {
      statistics_.add_waiting_call(result);
      progress_.waiting(result);
      return !interrupted();
    });
    if (first_answer_) note_armed(*first_answer_);
  }

  void track_all(Frame first) {
    const Pacer pacer(options_.frame_rate);
    std::optional<Frame> frame = std::move(first);
    for (std::size_t index = 0; frame && !interrupted(); ++index) {
      pacer.wait_for(index);
      track_one(index, *frame, pacer);
      if (options_.frames != 0 && index + 1 == options_.frames) break;
      frame = source_.next();
    }
    statistics_.set_wall_s(pacer.elapsed_s());
  }

  void track_one(std::size_t index, const Frame& frame, const Pacer& pacer) {
    const StepResult result = first_answer_ ? std::move(*first_answer_) : session_.step(frame);
    first_answer_.reset();
    statistics_.add_frame(result, note_armed(result));
    files_.write_frame(index, result);
    if (video_) video_->write(index, result, frame.image);
    own_boxes_.push_back(result.state.own_box());
    last_state_ = result.state;
    progress_.frame(index + 1, static_cast<double>(index + 1) / pacer.elapsed_s(), result);
  }

  // A clip can end while the start-up still runs: its outcome is worth knowing.
  void finish_start_up() {
    if (last_state_.phase == "warming_up" && !interrupted()) session_.settle();
  }

  void report() {
    if (!options_.groundtruth.empty()) {
      statistics_.set_accuracy(score_boxes(own_boxes_, read_boxes(options_.groundtruth)));
    }
    files_.write_summary(summary());
    std::printf("%zu frames of %dx%d: %.1f frames/s, update %.1f ms in the median\n", statistics_.frames(),
                frame_size_px_.width, frame_size_px_.height, statistics_.frames_per_second(),
                statistics_.median_update_ms());
    std::printf("status: %s\n", statistics_.status_line().c_str());
    if (!statistics_.ever_armed()) {
      std::printf("tracking was not armed before the clip ended; --wait-ready waits for it\n");
    }
    if (statistics_.accuracy()) std::printf("%s\n", to_line(*statistics_.accuracy()).c_str());
    std::printf("results in %s: boxes.jsonl boxes.txt summary.json%s\n", files_.folder().c_str(),
                video_ ? " annotated.mp4" : "");
  }

  nlohmann::ordered_json summary() const {
    nlohmann::ordered_json object;
    object["source"] = options_.source;
    object["frame_width"] = frame_size_px_.width;
    object["frame_height"] = frame_size_px_.height;
    object["roi"] = {region_.x, region_.y, region_.w, region_.h};
    object["plugin"] = plugin_.path();
    object["engine"] = engine_in_use(configuration_);
    object["configuration"] = configuration_;
    object["wait_ready"] = options_.wait_ready;
    object["paced_fps"] = options_.frame_rate > 0.0 ? nlohmann::ordered_json(options_.frame_rate) : nullptr;
    object.update(statistics_.to_json());
    object["properties"] = session_.state().properties;
    return object;
  }

  const TrackOptions& options_;
  const json& configuration_;
  FrameSource& source_;
  LoadedPlugin& plugin_;
  PluginSession session_;
  ResultFiles files_;
  Progress progress_;
  RunStatistics statistics_;
  std::optional<AnnotatedVideo> video_;
  std::optional<StepResult> first_answer_;
  std::vector<cv::Rect2d> own_boxes_;
  PluginState last_state_;
  BBox region_;
  cv::Size frame_size_px_;
  Clock::time_point start_{};
};

}  // namespace

int run_track(const TrackOptions& options) {
  const BBox region = parse_region(options.region);
  json configuration = build_configuration(options.config_file, options.settings);
  use_engine(options.engine, &configuration);
  if (!options.groundtruth.empty()) read_boxes(options.groundtruth);
  const std::unique_ptr<FrameSource> source = open_source(options.source);
  Frame first = first_frame(*source, options.source);
  require_inside(region, first.image.size());

  LoadedPlugin plugin(options.plugin.empty() ? default_plugin_path() : options.plugin);
  apply_configuration(*plugin, configuration);
  stop_on_interrupt();
  TrackRun(options, configuration, *source, plugin).run(std::move(first), region);
  return 0;
}

}  // namespace ostrel_host
