#include "plugin_session.h"

#include <optrix/optrix_picture.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "bad_input.h"
#include "region.h"

namespace ostrel_host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPollInterval{2};

double milliseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

optrix::OptrixPicture::BaseMetadata metadata_of(const ViewMetadata& view) {
  using Keys = optrix::OptrixPicture::BaseMetadata::Keys;
  return {{Keys::kPanDeg, view.pan_deg},
          {Keys::kTiltDeg, view.tilt_deg},
          {Keys::kHfovDeg, view.hfov_deg},
          {Keys::kVfovDeg, view.vfov_deg},
          {Keys::kFollowMeEnabledCommand, std::int32_t{view.follow_me ? 1 : 0}}};
}

}  // namespace

PluginSession::PluginSession(IAlgoPlugin& plugin, bool verbose, LogUse log_use)
    : plugin_(plugin), verbose_(verbose), log_use_(log_use) {}

IAlgoPlugin::Pictures PluginSession::pictures_of(const Frame& frame) {
  if (frame.image.empty()) return {};
  std::string error;
  auto picture = optrix::OptrixPicture::fromBgr(
      {frame.image.data, frame.image.cols, frame.image.rows, frame.image.step[0]}, optrix::PixelFormat::kNv12,
      &error);
  if (picture == nullptr) throw std::runtime_error("a frame cannot be handed to the device: " + error);
  picture->setTimestamp(frame.timestamp_ns);
  if (frame.view) picture->setBaseMetadata(metadata_of(*frame.view));
  return {std::move(picture)};
}

StartResult PluginSession::start(const Frame& frame, const BBox& region) {
  const auto pictures = pictures_of(frame);
  log_ = std::make_unique<PluginLog>(plugin_, verbose_);
  bool ok = false;
  const auto start = Clock::now();
  const auto outputs = plugin_.init(pictures, region, &ok);
  StartResult result;
  result.init_ms = milliseconds_since(start);
  result.gimbal_target = gimbal_target(outputs);
  result.state = state();
  if (!ok) throw BadInput("the plug-in refused the region " + to_text(region) + ": " + result.state.status);
  return result;
}

StepResult PluginSession::step(const Frame& frame) {
  const auto pictures = pictures_of(frame);
  if (log_ != nullptr) log_->before_update();
  bool ok = false;
  const auto start = Clock::now();
  const auto outputs = plugin_.update(pictures, &ok);
  StepResult result;
  result.update_ms = milliseconds_since(start);
  if (log_ != nullptr) {
    log_->after_update();
    result.told = PluginLog::take_news();
  }
  result.published = published_detection(outputs);
  result.state = state();
  return result;
}

PluginState PluginSession::state() const {
  return parse_state(plugin_.property(""));
}

bool PluginSession::armed(const PluginState& state) {
  if (state.phase == "failed") {
    const std::string cause = PluginLog::cause();
    throw BadInput("tracking could not start: " + (cause.empty() ? state.status : cause));
  }
  if (state.phase != "ready") return false;
  if (!verbose_ && log_use_ == LogUse::kStartUp) log_.reset();
  return true;
}

std::optional<StepResult> PluginSession::step_until_armed(
    const Frame& frame, const std::function<bool(const StepResult&)>& go_on) {
  StepResult result = step(frame);
  while (!armed(result.state)) {
    if (!go_on(result)) return std::nullopt;
    std::this_thread::sleep_for(kPollInterval);
    result = step(frame);
  }
  return result;
}

StepResult PluginSession::settle() {
  StepResult result = step({});
  while (!armed(result.state) && result.state.phase == "warming_up") {
    std::this_thread::sleep_for(kPollInterval);
    result = step({});
  }
  return result;
}

}  // namespace ostrel_host
