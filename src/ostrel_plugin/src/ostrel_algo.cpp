#include "ostrel_plugin/src/ostrel_algo.h"

#include <random>
#include <utility>

#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "ostrel_plugin/src/text_stream.h"

using ostrel_algo_internal::asLlu;
using ostrel_algo_internal::formatText;

namespace {

constexpr const char* kDetectionType = "detection.v1";
constexpr const char* kPrepositionType = "gimbal_preposition.v1";

AlgoValue integer(std::int32_t value) {
  return AlgoValue(std::int64_t{value});
}

AlgoValue detectionValue(const DetectionResult::Det& det) {
  return AlgoValue(AlgoValue::Object{
      {"x", integer(det.bbox.x)},
      {"y", integer(det.bbox.y)},
      {"w", integer(det.bbox.w)},
      {"h", integer(det.bbox.h)},
      {"class_id", integer(det.class_id)},
      {"class_name", AlgoValue(det.class_name)},
      {"class_info", AlgoValue(det.class_info)},
      {"tracker_id", integer(det.tracker_id)},
      {"score", AlgoValue(static_cast<double>(det.score))},
  });
}

}  // namespace

OstrelAlgo::~OstrelAlgo() {
  joinInitWorkers_();
}

std::vector<AlgoOutputDeclaration> OstrelAlgo::getOutputDeclarations() const {
  return {{kDetectionType, 10, 30}, {kPrepositionType, 0, 0}};
}

bool OstrelAlgo::isAlive() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return alive_;
}

std::string OstrelAlgo::getName() const {
  return "OstrelAlgo";
}

std::string OstrelAlgo::getUuid() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (uuid_.empty()) uuid_ = generateUuid_();
  return uuid_;
}

bool OstrelAlgo::isDynamic() const {
  return true;
}

// The load of this plug-in is set by its configuration alone.
void OstrelAlgo::changePerformance(int /*level*/) {}

void OstrelAlgo::enableDebug(bool enabled) {
  const std::lock_guard<std::mutex> lock(mutex_);
  debug_ = enabled;
}

const char* OstrelAlgo::initPhaseName_(InitPhase phase) {
  switch (phase) {
    case InitPhase::Idle:
      return "idle";
    case InitPhase::WaitingFirstUpdate:
      return "waiting_first_update";
    case InitPhase::WarmingUp:
      return "warming_up";
    case InitPhase::WaitingAlignment:
      return "waiting_alignment";
    case InitPhase::Ready:
      return "ready";
    case InitPhase::Failed:
      return "failed";
  }
  return "unknown";
}

// Four draws behind one another without padding: 4 to 32 hexadecimal digits.
std::string OstrelAlgo::generateUuid_() {
  thread_local std::mt19937_64 generator{std::random_device("default")()};
  std::uniform_int_distribution<std::uint32_t> draw(0, 0xffffffff);
  std::ostringstream text = ostrel_algo_internal::plainStream();
  text << std::hex;
  for (int i = 0; i < 4; ++i) text << draw(generator);
  return text.str();
}

AlgoOutput OstrelAlgo::makeDetectionsOutput_(const DetectionResult& result) const {
  AlgoValue::Array detections;
  detections.reserve(result.detections.size());
  for (const DetectionResult::Det& det : result.detections) detections.push_back(detectionValue(det));
  AlgoValue::Object payload;
  payload.emplace_back("detections", AlgoValue(std::move(detections)));
  return {kDetectionType, AlgoValue(std::move(payload))};
}

AlgoOutput OstrelAlgo::makePrepositionOutput_(double pan_deg, double tilt_deg) const {
  return {kPrepositionType, AlgoValue(AlgoValue::Object{{"target_pan_deg", AlgoValue(pan_deg)},
                                                        {"target_tilt_deg", AlgoValue(tilt_deg)}})};
}

void OstrelAlgo::setRuntimeStatusLocked_(const std::string& status, const std::string& detail) {
  const bool changed = status != runtime_status_ || detail != runtime_detail_;
  runtime_status_ = status;
  runtime_detail_ = detail;
  if (!debug_ || (!changed && debug_log_period_ > 1)) return;

  writeConsole_(detail.empty() ? formatText("runtime_status=%s", status.c_str())
                               : formatText("runtime_status=%s detail=%s", status.c_str(), detail.c_str()));
  if (!changed || status == "track_ok") return;
  ostrel_algo_internal::writeLogInfo(formatText(
      "[TRACK_FLOW][OT] runtime_status steady_ns=%llu status=%s detail=%s",
      asLlu(ostrel_algo_internal::steadyNowNs()), status.c_str(), detail.empty() ? "-" : detail.c_str()));
}

void OstrelAlgo::writeConsole_(const std::string& message) const {
  ostrel_algo_internal::writeConsole(getName(), message);
}

void OstrelAlgo::writeConsoleAndLog_(const std::string& message) const {
  writeConsole_(message);
  ostrel_algo_internal::writeLogInfo(message);
}

void OstrelAlgo::takeZoomReferenceLocked_(double hfov_deg, double vfov_deg) {
  zoom_ref_hfov_deg_ = hfov_deg;
  zoom_ref_vfov_deg_ = vfov_deg;
  have_zoom_reference_ = true;
}

void OstrelAlgo::dropPrepositionTargetLocked_() {
  have_preposition_target_ = false;
  target_pan_deg_ = 0.0;
  target_tilt_deg_ = 0.0;
}
