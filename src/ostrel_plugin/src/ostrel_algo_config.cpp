#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/ostrel_config_io.h"
#include "ostrel_plugin/src/property_json.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "ostrel_plugin/src/text_stream.h"

using ostrel_algo_internal::jsonEscape;

namespace {

const char* trueOrFalse(bool value) {
  return value ? "true" : "false";
}

}  // namespace

std::string OstrelAlgo::getConfigList() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ostrel_cfg::schema();
}

// A document is not read yet: the defaults of the record stay in force, and the log says so.
void OstrelAlgo::setConfig(std::string json) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!debug_) return;
  writeConsole_(ostrel_algo_internal::formatText(
      "setConfig(): not supported yet, %zu bytes ignored, the configuration stays as it was", json.size()));
}

std::string OstrelAlgo::getPropertyList() {
  return ostrel_algo_internal::propertySchema();
}

// No property can be set.
void OstrelAlgo::setProperty(std::string /*name*/, std::string /*value*/) {}

std::string OstrelAlgo::property(std::string /*name*/) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::uint64_t now_ns = ostrel_algo_internal::steadyNowNs();
  const double idle_ms =
      last_track_ok_ns_ == 0 ? -1.0 : ostrel_algo_internal::elapsedMs(last_track_ok_ns_, now_ns);

  std::ostringstream json = ostrel_algo_internal::plainStream();
  json << "{\"alive\":" << trueOrFalse(alive_) << ",\"initialized\":" << trueOrFalse(initialized_)
       << ",\"init_phase\":\"" << initPhaseName_(init_phase_) << "\",\"score\":" << score_ << ",\"bbox\":["
       << bbox_.x << ',' << bbox_.y << ',' << bbox_.w << ',' << bbox_.h << "],\"runtime_status\":\""
       << jsonEscape(runtime_status_) << "\",\"runtime_detail\":\"" << jsonEscape(runtime_detail_)
       << "\",\"raw_bbox\":[" << raw_bbox_.x << ',' << raw_bbox_.y << ',' << raw_bbox_.width << ','
       << raw_bbox_.height << "],\"raw_score\":" << raw_score_ << ",\"frame_width\":" << frame_width_
       << ",\"frame_height\":" << frame_height_ << ",\"resize_scale\":" << resize_scale_
       << ",\"tracker_input_width\":" << tracker_input_width_
       << ",\"tracker_input_height\":" << tracker_input_height_ << ",\"source_width\":" << source_width_
       << ",\"source_height\":" << source_height_ << ",\"debug_frame_counter\":" << debug_frame_counter_
       << ",\"debug_log_period\":" << debug_log_period_
       << ",\"tracking_dead_timeout_s\":" << config_.dead_timeout_s << ",\"track_idle_ms\":" << idle_ms
       << ",\"stats\":{\"update_calls\":" << update_calls_ << ",\"track_ok\":" << track_ok_
       << ",\"track_fail\":" << track_fail_ << ",\"track_fail_hold\":" << track_fail_hold_ << "}}";
  return json.str();
}
