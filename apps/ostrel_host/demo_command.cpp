#include "demo_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

#include "bad_input.h"
#include "demo_camera.h"
#include "demo_statistics.h"
#include "demo_story.h"
#include "demo_video.h"
#include "engine_choice.h"
#include "follow_controller.h"
#include "interrupt.h"
#include "loaded_plugin.h"
#include "pacer.h"
#include "plugin_configuration.h"
#include "plugin_session.h"
#include "progress.h"
#include "result_files.h"
#include "run_statistics.h"
#include "timeline_plot.h"
#include "tracker_log.h"

namespace ostrel_host {
namespace {

using Clock = std::chrono::steady_clock;

// The plug-in counts it in real time, and frames are rendered slower than a camera takes them.
constexpr double kDeadTimeout_s = 300.0;

// Scores depend on the backbone. With random or ImageNet weights a followed vehicle of this world scores 0.4 to 0.9, so
// the defaults would freeze and hide a box that fits.
constexpr double kLowScore = 0.4;
constexpr double kReacquisitionScore = 0.6;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

ostrel_scene::WorldOptions world_options(const DemoOptions& options) {
  const ostrel_scene::WorldOptions world{options.size_px.width, options.size_px.height, options.seed};
  const std::string problem = ostrel_scene::why_invalid(world);
  if (!problem.empty()) throw BadInput(problem);
  return world;
}

std::size_t frames_of(const DemoOptions& options, const ostrel_scene::World& world) {
  const double whole_s = world.duration_s();
  const double seconds = options.seconds > 0.0 ? std::min(options.seconds, whole_s) : whole_s;
  return std::max<std::size_t>(1, static_cast<std::size_t>(std::floor(seconds * kDemoFrameRate + 1e-6)));
}

nlohmann::ordered_json more_of_frame(const DemoFrame& frame) {
  const cv::Rect2d& truth = frame.truth.box_px;
  return {{"time_s", frame.time_s},
          {"truth", {truth.x, truth.y, truth.width, truth.height}},
          {"visible_share", frame.truth.visible_share},
          {"in_view_share", frame.in_view_share},
          {"pan_deg", frame.view.pan_deg},
          {"tilt_deg", frame.view.tilt_deg},
          {"hfov_deg", frame.view.hfov_deg},
          {"vfov_deg", frame.view.vfov_deg}};
}

// A run from the first view to its summary.
class DemoRun {
 public:
  DemoRun(const DemoOptions& options, const nlohmann::json& configuration, LoadedPlugin& plugin)
      : options_(options),
        configuration_(configuration),
        plugin_(plugin),
        world_(world_options(options)),
        camera_(world_, options.seed),
        story_(world_.events()),
        session_(*plugin, wants_debug(options.debug, configuration), LogUse::kWholeRun),
        files_(options.out),
        tracker_log_(options.debug
                         ? nullptr
                         : std::make_unique<TrackerLog>((files_.folder() / "tracker.log").string())),
        expected_frames_(frames_of(options, world_)),
        progress_(expected_frames_, Progress::Words::kToldElsewhere, terminal()) {
    if (options.video) video_.emplace((files_.folder() / "annotated.mp4").string(), options.size_px);
  }

  void run() {
    // The simulated clock never runs ahead of the real one: a start-up takes its time, and a camera has a rate.
    const Pacer pacer(kDemoFrameRate);
    start_ = Clock::now();
    for (std::size_t index = 0; index < expected_frames_ && !interrupted(); ++index) {
      pacer.wait_for(index);
      const DemoCamera::Shot shot = camera_.film(index);
      if (index == 0) begin(shot);
      follow(index, shot);
    }
    statistics_.set_wall_s(seconds_since(start_));
    progress_.finish();
    report();
  }

 private:
  std::FILE* terminal() const { return tracker_log_ == nullptr ? stderr : tracker_log_->terminal(); }

  void begin(const DemoCamera::Shot& shot) {
    region_ = start_region(shot.truth, options_.size_px);
    const StartResult answer = session_.start(shot.frame, region_);
    init_at_ = Clock::now();
    statistics_.set_init_ms(answer.init_ms);
    tell(story_.started(answer));
    if (answer.gimbal_target) {
      camera_.gimbal().point_at({answer.gimbal_target->pan_deg, answer.gimbal_target->tilt_deg});
    }
  }

  void follow(std::size_t index, const DemoCamera::Shot& shot) {
    DemoFrame frame{static_cast<double>(index) / kDemoFrameRate, session_.step(shot.frame), shot.view,
                    shot.truth, share_in_view(shot.truth.box_px, options_.size_px)};
    const bool armed = session_.armed(frame.answer.state);
    if (armed && !statistics_.ever_armed()) statistics_.set_ready_ms(1000.0 * seconds_since(init_at_));
    if (armed) {
      camera_.gimbal().turn(
          controller_.steer(frame.answer.published, frame.view, options_.size_px, 1.0 / kDemoFrameRate));
    }
    camera_.advance(frame.time_s);
    record(index, shot.frame.image, std::move(frame), armed);
  }

  void record(std::size_t index, const cv::Mat& image, DemoFrame frame, bool armed) {
    tell(story_.frame(frame));
    statistics_.add_frame(frame.answer, armed);
    files_.write_frame(index, frame.answer, more_of_frame(frame));
    if (video_) video_->write(image, frame, events_at(world_.events(), frame.time_s));
    progress_.frame(index + 1, static_cast<double>(index + 1) / seconds_since(start_), frame.answer);
    frames_.push_back(std::move(frame));
  }

  void tell(const std::vector<std::string>& lines) {
    if (lines.empty()) return;
    progress_.clear();
    for (const std::string& line : lines) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  void report() {
    const DemoReport judged = judge(frames_, world_.events());
    const std::string no_picture = draw_timeline(files_.folder(), frames_, world_.events());
    files_.write_summary(summary(judged));
    std::printf("\n%zu frames of %dx%d in %.1f s, update %.1f ms in the median\n", statistics_.frames(),
                options_.size_px.width, options_.size_px.height, seconds_since(start_),
                statistics_.median_update_ms());
    std::printf("status: %s\n", statistics_.status_line().c_str());
    for (const std::string& line : to_lines(judged)) std::printf("%s\n", line.c_str());
    if (!no_picture.empty()) std::printf("no timeline.png: %s\n", no_picture.c_str());
    std::printf("results in %s: boxes.jsonl boxes.txt summary.json timeline.tsv timeline.gp%s%s%s\n",
                files_.folder().c_str(), no_picture.empty() ? " timeline.png" : "",
                video_ ? " annotated.mp4" : "", tracker_log_ == nullptr ? "" : " tracker.log");
  }

  nlohmann::ordered_json summary(const DemoReport& judged) const {
    nlohmann::ordered_json object;
    object["source"] = "demo";
    object["seed"] = options_.seed;
    object["frame_width"] = options_.size_px.width;
    object["frame_height"] = options_.size_px.height;
    object["frame_rate"] = kDemoFrameRate;
    object["roi"] = {region_.x, region_.y, region_.w, region_.h};
    object["plugin"] = plugin_.path();
    object["engine"] = engine_in_use(configuration_);
    object["configuration"] = configuration_;
    object.update(statistics_.to_json());
    object["demo"] = to_json_report(judged);
    object["events"] = nlohmann::ordered_json::array();
    for (const ostrel_scene::WorldEvent& event : world_.events()) {
      object["events"].push_back({{"start_s", event.start_s}, {"end_s", event.end_s}, {"what", event.what}});
    }
    object["properties"] = frames_.empty() ? nlohmann::json() : frames_.back().answer.state.properties;
    return object;
  }

  const DemoOptions& options_;
  const nlohmann::json& configuration_;
  LoadedPlugin& plugin_;
  ostrel_scene::World world_;
  DemoCamera camera_;
  FollowController controller_;
  DemoStory story_;
  PluginSession session_;
  ResultFiles files_;
  std::unique_ptr<TrackerLog> tracker_log_;  // with --debug the tracker's lines stay among the others
  std::size_t expected_frames_;
  Progress progress_;
  RunStatistics statistics_;
  std::optional<DemoVideo> video_;
  std::vector<DemoFrame> frames_;
  BBox region_;
  Clock::time_point start_{};
  Clock::time_point init_at_{};
};

}  // namespace

nlohmann::json demo_configuration(const DemoOptions& options) {
  nlohmann::json configuration{{"preposition", {{"enabled", true}}},
                               {"runtime", {{"dead_timeout_s", kDeadTimeout_s}}},
                               {"jump_filter", {{"min_score", kLowScore}}},
                               {"publication", {{"lost_score_threshold", kLowScore}}},
                               {"reacquisition", {{"min_score", kReacquisitionScore}}}};
  // Not as a merge patch, in which a null would take a default away in silence.
  configuration.update(build_configuration(options.config_file, options.settings), true);
  use_engine(options.engine, &configuration);
  return configuration;
}

int run_demo(const DemoOptions& options) {
  world_options(options);
  const nlohmann::json configuration = demo_configuration(options);
  LoadedPlugin plugin(options.plugin.empty() ? default_plugin_path() : options.plugin);
  apply_configuration(*plugin, configuration);
  stop_on_interrupt();
  DemoRun(options, configuration, plugin).run();
  return 0;
}

}  // namespace ostrel_host
