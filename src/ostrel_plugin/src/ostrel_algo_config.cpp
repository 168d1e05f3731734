#include "json_core/sw_json_document.h"
#include "json_core/text_bytes.h"
#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/ostrel_config_io.h"
#include "ostrel_plugin/src/property_json.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "ostrel_plugin/src/text_stream.h"
#include "ostrel_plugin/src/tracker_runtime_config.h"

using ostrel_algo_internal::formatText;
using ostrel_algo_internal::jsonEscape;

namespace {

const char* trueOrFalse(bool value) {
  return value ? "true" : "false";
}

std::size_t skipWhiteSpace(const std::string& text, std::size_t index) {
  while (index < text.size() && is_white_space(text[index])) ++index;
  return index;
}

// False when the text is no JSON object from end to end. A root of another kind has no message.
bool readDocument(const SwString& json, SwJsonDocument* document, SwString* error) {
  std::size_t index = 0;
  document->root = document->parseJson(json, index, SwString(), *error);
  if (!error->empty()) return false;
  if (skipWhiteSpace(json, index) < json.size()) {
    *error = SwString("Unexpected characters at the end of JSON.");
    return false;
  }
  return document->root.kind == SwJsonValue::Kind::Object;
}

}  // namespace

std::string OstrelAlgo::getConfigList() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ostrel_cfg::schema();
}

// The one way in. Nothing is restarted: what a running tracker cannot take waits for the next `init`.
void OstrelAlgo::setConfig(std::string json) {
  const std::lock_guard<std::mutex> lock(mutex_);
  SwJsonDocument document;
  SwString error;
  if (!readDocument(json, &document, &error)) {
    if (debug_) writeConsole_(formatText("setConfig(): invalid JSON (%s)", error.c_str()));
    return;
  }
  const bool changed = ostrel_cfg::apply(document, config_);
  refreshConfigCopiesLocked_();
  if (!changed) return;  // the overlays keep their counters
  maybeDropPrepositionLocked_();
  ostrel_algo_internal::rebuildOverlays(&overlays_, config_);
  maybeUpdateTrackerConfigLocked_();
}

// Also when nothing changed: the record has the last word over `enableDebug`.
void OstrelAlgo::refreshConfigCopiesLocked_() {
  class_id_ = config_.class_id;
  tracker_id_ = config_.tracker_id;
  class_name_ = config_.class_name;
  resize_scale_ = config_.frame_scale;
  debug_log_period_ = config_.log_every_n_frames > 0 ? config_.log_every_n_frames : 1;
  debug_ = config_.debug_enabled;
}

// Switching the pre-positioning off ends a wait for the view, whether the tracker is there already or not.
void OstrelAlgo::maybeDropPrepositionLocked_() {
  if (config_.preposition_enabled || !have_preposition_target_) return;
  dropPrepositionTargetLocked_();
  if (initialized_ && tracker_ && !tracking_armed_) {
    tracking_armed_ = true;
    init_phase_ = InitPhase::Ready;
    if (have_init_view_) takeZoomReferenceLocked_(init_hfov_deg_, init_vfov_deg_);
    refreshTrackingLivenessLocked_(ostrel_algo_internal::steadyNowNs());
    setRuntimeStatusLocked_("preposition_disabled_tracking_armed");
  } else if (init_phase_ == InitPhase::WaitingAlignment) {
    init_phase_ = InitPhase::WaitingFirstUpdate;
    setRuntimeStatusLocked_("preposition_disabled_waiting_update");
  }
}

// What the tracker refused is told in the log alone.
void OstrelAlgo::maybeUpdateTrackerConfigLocked_() {
  if (!tracker_) return;
  std::string detail;
  const bool applied =
      tracker_->updateConfig(ostrel_algo_internal::buildTrackerRuntimeConfig(config_), &detail);
  if (!debug_) return;
  if (detail.empty()) detail = "config_updated";
  writeConsole_(formatText("setConfig hot_apply=%d detail=%s", applied ? 1 : 0, detail.c_str()));
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
