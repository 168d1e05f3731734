#include "ostrel_plugin/src/property_json.h"

namespace ostrel_algo_internal {
namespace {

constexpr char kSchema[] = R"json(
{
  "$schema": "http://json-schema.org/draft-07/schema#",
  "type": "object",
  "properties": {
    "alive": { "type": "boolean" },
    "initialized": { "type": "boolean" },
    "init_phase": { "type": "string" },
    "score": { "type": "number" },
    "bbox": {
      "type": "array",
      "items": { "type": "number" },
      "minItems": 4,
      "maxItems": 4
    },
    "runtime_status": { "type": "string" },
    "runtime_detail": { "type": "string" },
    "raw_bbox": {
      "type": "array",
      "items": { "type": "number" },
      "minItems": 4,
      "maxItems": 4
    },
    "raw_score": { "type": "number" },
    "frame_width": { "type": "integer" },
    "frame_height": { "type": "integer" },
    "resize_scale": { "type": "number" },
    "tracker_input_width": { "type": "integer" },
    "tracker_input_height": { "type": "integer" },
    "source_width": { "type": "integer" },
    "source_height": { "type": "integer" },
    "debug_frame_counter": { "type": "integer" },
    "debug_log_period": { "type": "integer" },
    "tracking_dead_timeout_s": { "type": "number" },
    "track_idle_ms": { "type": "number" },
    "stats": {
      "type": "object",
      "properties": {
        "update_calls": { "type": "integer" },
        "track_ok": { "type": "integer" },
        "track_fail": { "type": "integer" },
        "track_fail_hold": { "type": "integer" }
      },
      "additionalProperties": false
    }
  },
  "additionalProperties": false
}
)json";

// The letter behind the backslash, or 0 for a byte without an escape of its own.
char escapeLetter(char byte) {
  switch (byte) {
    case '"':
    case '\\':
      return byte;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

}  // namespace

std::string jsonEscape(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char byte : text) {
    const char letter = escapeLetter(byte);
    if (letter != 0) {
      escaped += '\\';
      escaped += letter;
    } else {
      escaped += static_cast<unsigned char>(byte) < 0x20 ? ' ' : byte;
    }
  }
  return escaped;
}

const char* propertySchema() noexcept {
  return kSchema;
}

}  // namespace ostrel_algo_internal
