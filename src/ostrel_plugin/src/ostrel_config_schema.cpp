#include "ostrel_plugin/src/ostrel_config_io.h"

namespace ostrel_cfg {
namespace {

// Handed out unchanged: hosts may compare it byte for byte. Defaults and bounds stand a second time in
// `OstrelConfig` and where a document is applied; tests hold the copies together.
constexpr char kSchema[] = R"json(
{
  "$schema": "http://json-schema.org/draft-07/schema#",
  "title": "Ostrel Tracker",
  "type": "object",
  "properties": {
    "engine": {
      "type": "object",
      "properties": {
        "tracker_engine_path": {
          "type": "string",
          "default": "models/IA_engine/tracker/resnet18_192_opt5.engine"
        },
        "reference_trace_path": {
          "type": "string",
          "default": ""
        }
      },
      "additionalProperties": false
    },
    "processing": {
      "type": "object",
      "properties": {
        "frame_scale": {
          "type": "number",
          "minimum": 0.4,
          "maximum": 1.0,
          "default": 1.0
        },
        "search_area_factor": {
          "type": "number",
          "minimum": 2.0,
          "maximum": 20.0,
          "default": 7.0
        },
        "search_scales": {
          "type": "array",
          "items": { "type": "number" },
          "default": [0.950392, 1.0, 1.05]
        }
      },
      "additionalProperties": false
    },
    "learning": {
      "type": "object",
      "properties": {
        "update_iterations": {
          "type": "integer",
          "minimum": 1,
          "maximum": 100,
          "default": 45
        },
        "learning_rate": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.04
        },
        "filter_regularization": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 10.0,
          "default": 3.0
        },
        "feature_projection_dim": {
          "type": "integer",
          "minimum": 1,
          "maximum": 256,
          "default": 256
        },
        "frames_between_learning": {
          "type": "integer",
          "minimum": 1,
          "maximum": 200,
          "default": 4
        },
        "max_sample_history": {
          "type": "integer",
          "minimum": 8,
          "maximum": 250,
          "default": 10
        },
        "max_hard_negative_history": {
          "type": "integer",
          "minimum": 8,
          "maximum": 250,
          "default": 128
        },
        "startup_filter_iterations": {
          "type": "integer",
          "minimum": 1,
          "maximum": 500,
          "default": 60
        },
        "startup_box_refinement_iterations": {
          "type": "integer",
          "minimum": 1,
          "maximum": 50,
          "default": 20
        }
      },
      "additionalProperties": false
    },
    "tracking": {
      "type": "object",
      "properties": {
        "target_not_found_score_threshold": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.1
        },
        "position_smoothing": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.88
        },
        "micro_motion_deadband_px": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 10.0,
          "default": 0.75
        },
        "micro_motion_deadband_ratio": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 0.1,
          "default": 0.004
        },
        "min_update_confidence": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.75
        },
        "min_update_scale_margin": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.02
        }
      },
      "additionalProperties": false
    },
    "scale": {
      "type": "object",
      "properties": {
        "scale_smoothing": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 1.0
        },
        "scale_change_deadband": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 0.2,
          "default": 0.01
        },
        "roi_scale_deadband_px": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 50.0,
          "default": 1.5
        },
        "roi_scale_deadband_ratio": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 0.2,
          "default": 0.015
        },
        "enable_scale_predictor": {
          "type": "boolean",
          "default": true
        },
        "scale_predictor_process_noise_scale": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.0002
        },
        "scale_predictor_process_noise_velocity": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.00005
        },
        "scale_predictor_measurement_noise_scale": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.03
        },
        "use_log_scale_peak_refinement": {
          "type": "boolean",
          "default": true
        },
        "min_ratio_from_initial_size": {
          "type": "number",
          "minimum": 0.01,
          "maximum": 100.0,
          "default": 0.4
        },
        "max_ratio_from_initial_size": {
          "type": "number",
          "minimum": 0.01,
          "maximum": 100.0,
          "default": 2.5
        }
      },
      "additionalProperties": false
    },
    "reacquisition": {
      "type": "object",
      "properties": {
        "prefer_stable_reacquisition": {
          "type": "boolean",
          "default": true
        },
        "confirm_frames": {
          "type": "integer",
          "minimum": 1,
          "maximum": 20,
          "default": 1
        },
        "min_score": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.80
        },
        "max_motion_factor": {
          "type": "number",
          "minimum": 0.5,
          "maximum": 10.0,
          "default": 4.0
        },
        "max_frames": {
          "type": "integer",
          "minimum": 0,
          "maximum": 600,
          "default": 200
        }
      },
      "additionalProperties": false
    },
    "jump_filter": {
      "type": "object",
      "properties": {
        "enabled": {
          "type": "boolean",
          "default": true
        },
        "min_score": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.7
        },
        "max_motion_factor": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 5.0,
          "default": 0.25
        },
        "max_scale_change": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.06
        }
      },
      "additionalProperties": false
    },
    "preposition": {
      "type": "object",
      "properties": {
        "enabled": {
          "type": "boolean",
          "default": false
        }
      },
      "additionalProperties": false
    },
    "target": {
      "type": "object",
      "properties": {
        "class_id": {
          "type": "integer",
          "minimum": -1,
          "maximum": 65535,
          "default": -1
        },
        "tracker_id": {
          "type": "integer",
          "minimum": -1,
          "maximum": 65535,
          "default": 0
        },
        "class_name": {
          "type": "string",
          "default": "OstrelTracking"
        }
      },
      "additionalProperties": false
    },
    "publication": {
      "type": "object",
      "properties": {
        "lost_after_low_score_frames": {
          "type": "integer",
          "minimum": 0,
          "maximum": 10000,
          "default": 10
        },
        "lost_score_threshold": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 1.0,
          "default": 0.7
        },
        "publish_after_confirm_frames": {
          "type": "integer",
          "minimum": 0,
          "maximum": 1000,
          "default": 5
        },
        "dead_status_confirm_frames": {
          "type": "integer",
          "minimum": 0,
          "maximum": 1000,
          "default": 5
        }
      },
      "additionalProperties": false
    },
    "runtime": {
      "type": "object",
      "properties": {
        "dead_timeout_s": {
          "type": "number",
          "minimum": 0.0,
          "maximum": 300.0,
          "default": 10.0
        }
      },
      "additionalProperties": false
    },
    "debug": {
      "type": "object",
      "properties": {
        "enabled": {
          "type": "boolean",
          "default": false
        },
        "log_every_n_frames": {
          "type": "integer",
          "minimum": 1,
          "maximum": 10000,
          "default": 5
        }
      },
      "additionalProperties": false
    }
  },
  "additionalProperties": false
}
)json";

}  // namespace

const char* schema() noexcept {
  return kSchema;
}

}  // namespace ostrel_cfg
