#include "plugin_state.h"

#include <stdexcept>

namespace ostrel_host {
namespace {

using nlohmann::json;

const AlgoValue* member(const AlgoValue& object, const char* key) {
  const auto* members = std::get_if<AlgoValue::Object>(&object.value);
  if (members == nullptr) return nullptr;
  for (const auto& [name, value] : *members) {
    if (name == key) return &value;
  }
  return nullptr;
}

template <typename T>
T value_or(const AlgoValue& object, const char* key, T otherwise) {
  const AlgoValue* found = member(object, key);
  if (found == nullptr) return otherwise;
  const T* value = std::get_if<T>(&found->value);
  return value == nullptr ? otherwise : *value;
}

std::int32_t side(const AlgoValue& detection, const char* key) {
  return static_cast<std::int32_t>(value_or<std::int64_t>(detection, key, 0));
}

// A stream prints floats that are not finite as bare words: -nan, inf. Their length where one begins, else 0.
std::size_t word_length(const std::string& text, std::size_t at) {
  const std::size_t sign = text[at] == '-' ? 1 : 0;
  const bool word = text.compare(at + sign, 3, "nan") == 0 || text.compare(at + sign, 3, "inf") == 0;
  return word ? sign + 3 : 0;
}

std::string with_nulls_for_words(const std::string& text) {
  std::string result;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t word = in_string ? 0 : word_length(text, i);
    if (word > 0) {
      result += "null";
      i += word;
      continue;
    }
    const bool escape = in_string && text[i] == '\\' && i + 1 < text.size();
    if (text[i] == '"') in_string = !in_string;
    if (escape) result += text[i++];
    result += text[i++];
  }
  return result;
}

double number(const json& value) {
  return value.is_number() ? value.get<double>() : 0.0;
}

cv::Rect2d rectangle(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_array() || found->size() != 4) return {};
  return {number((*found)[0]), number((*found)[1]), number((*found)[2]), number((*found)[3])};
}

}  // namespace

std::optional<Detection> published_detection(const std::vector<AlgoOutput>& outputs) {
  for (const AlgoOutput& output : outputs) {
    if (output.output_type != "detection.v1") continue;
    const AlgoValue* list = member(output.payload, "detections");
    const auto* detections = list == nullptr ? nullptr : std::get_if<AlgoValue::Array>(&list->value);
    if (detections == nullptr || detections->empty()) return std::nullopt;
    const AlgoValue& first = detections->front();
    return Detection{{side(first, "x"), side(first, "y"), side(first, "w"), side(first, "h")},
                     value_or<double>(first, "score", 0.0)};
  }
  return std::nullopt;
}

std::optional<GimbalTarget> gimbal_target(const std::vector<AlgoOutput>& outputs) {
  for (const AlgoOutput& output : outputs) {
    if (output.output_type != "gimbal_preposition.v1") continue;
    return GimbalTarget{value_or<double>(output.payload, "target_pan_deg", 0.0),
                        value_or<double>(output.payload, "target_tilt_deg", 0.0)};
  }
  return std::nullopt;
}

PluginState parse_state(const std::string& property_json) {
  json object = json::parse(property_json, nullptr, false);
  if (object.is_discarded()) object = json::parse(with_nulls_for_words(property_json), nullptr, false);
  if (!object.is_object()) throw std::runtime_error("the plug-in's property is no JSON object");
  PluginState state;
  state.status = object.value("runtime_status", "");
  state.detail = object.value("runtime_detail", "");
  state.phase = object.value("init_phase", "");
  state.alive = object.value("alive", false);
  const cv::Rect2d box = rectangle(object, "bbox");
  state.box = {static_cast<std::int32_t>(box.x), static_cast<std::int32_t>(box.y),
               static_cast<std::int32_t>(box.width), static_cast<std::int32_t>(box.height)};
  state.tracker_box = rectangle(object, "raw_bbox");
  const auto score = object.find("raw_score");
  if (score != object.end()) state.tracker_score = number(*score);
  state.properties = std::move(object);
  return state;
}

cv::Rect2d PluginState::own_box() const {
  if (tracker_box.width > 0.0 && tracker_box.height > 0.0) return tracker_box;
  return cv::Rect2d(box.x, box.y, box.w, box.h);
}

}  // namespace ostrel_host
