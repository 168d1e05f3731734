#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "tracking_runtime/tracker/atom/frame_candidate.h"
#include "tracking_runtime/tracker/atom/target_state.h"
#include "tracking_runtime/tracker/base/bbox.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What the peaks of a frame say about it.
enum class FrameFlag : int { kNormal = 0, kHardNegative = 2, kUncertain = 3 };

/// Where a frame's pixels come from, and everything that differs by it once they are classified.
struct FramePath {
  const char* ok_word;
  const char* hard_negative_word;
  const char* uncertain_word;
  bool is_view;  ///< prints the first frames' debug line; its trace carries the state's box and start scale
};

inline constexpr FramePath kHostImagePath{"ok_native_cpp_backend", "ok_native_cpp_hard_negative",
                                          "ok_native_cpp_uncertain", false};
inline constexpr FramePath kViewPath{"ok", "ok_hard_negative", "ok_uncertain", true};

/// One training to be scheduled once the frame's sample is stored.
struct TrainingRequest {
  int iterations = 0;
  int sample_cap = 0;
  const char* reason = "";
};

/// What a frame decided. `ok` false means that no box is to be trusted. Pixels are frame pixels.
struct FrameDecision {
  bool ok = false;
  const char* status = "";
  const char* trace_event = nullptr;  ///< null: no trace line
  std::optional<base::BBox> bbox;     ///< the box to publish; nothing is written when absent
  float score = 0.0F;                 ///< to publish with it
  float computed_score = 0.0F;        ///< as the peaks gave it, also where a lost target publishes 0

  int best = -1;  ///< position in the candidates
  FrameFlag flag = FrameFlag::kNormal;
  float raw = 0.0F;
  float max2 = 0.0F;
  float best_scale = 1.0F;    ///< chosen scale relative to the scale at frame start, refined
  float scale_margin = 0.0F;  ///< 0..1, how far the best scale stands above the others
  float mx = 0.0F;            ///< displacement; after the dead band on normal frames
  float my = 0.0F;
  float motion = 0.0F;
  float rel_change = 0.0F;   ///< relative change of the scale
  float size_change = 0.0F;  ///< larger change of a side

  cv::Point_<float> sample_pos{0.0F, 0.0F};  ///< rounded centre at frame start
  float frame_target_scale = 1.0F;           ///< scale at frame start
  float sample_scale = 1.0F;                 ///< scale of the best candidate's patch

  bool state_updated = false;  ///< no low peak or score held it: the state was offered its estimate
  bool accepted = false;       ///< published and trusted
  bool qualifies = false;      ///< flag, score and margin allow a sample
  bool store = false;          ///< a sample is to be stored
  float rate = 0.0F;           ///< learning rate of that sample
  std::optional<TrainingRequest> training;
};

/// Everything after classification: best candidate, peak analysis, score, jump filter, state update,
/// recovery mode and the decision to learn. Advances `state.frame_index`, moves `state` and fills
/// `candidates[best].max2`; prints and stores nothing. Candidates stand in ascending order of scale.
FrameDecision decide_frame(TargetState* state, std::vector<Candidate>* candidates, const FramePath& path);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
