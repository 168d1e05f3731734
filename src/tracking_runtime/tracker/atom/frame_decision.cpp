#include "tracking_runtime/tracker/atom/frame_decision.h"

#include <algorithm>
#include <cmath>

#include "tracking_runtime/tracker/atom/response_analysis.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr float kScaleFloor = 1e-6F;          // smallest scale, and smallest peak that has a margin
constexpr float kSmallestSide_px = 2.0F;      // smallest side of the target
constexpr float kSmoothingOff = 0.999F;       // a smoothing at or above this takes the new value whole
constexpr float kScoreGain = -10.0F;          // logistic of the score around the threshold
constexpr float kSmallestScoredPeak = 1e-4F;  // below it the second peak says nothing
constexpr float kPeakRatioBase = 0.35F;
constexpr float kPeakRatioSpan = 0.65F;
constexpr float kHardNegativePenalty = 0.75F;
constexpr float kUncertainPenalty = 0.5F;

float clamp_unit(float value) {
  return std::clamp(value, 0.0F, 1.0F);
}

/// One frame on its way from candidates to a decision. Each step writes its part of `decision_`; a step that
/// ends the frame says so by its result.
class FrameJudge {
 public:
  FrameJudge(TargetState* state, std::vector<Candidate>* candidates, const FramePath& path)
      : state_(*state), config_(state->config), candidates_(*candidates), path_(path) {
    decision_.sample_pos = {std::round(state_.target_pos.x), std::round(state_.target_pos.y)};
    decision_.frame_target_scale = state_.target_scale;
  }

  FrameDecision judge() {
    ++state_.frame_index;
    if (candidates_.empty()) return refuse_without_candidate();
    choose_best();
    refine_scale();
    measure_scale_margin();
    measure_displacement();
    if (best().raw < config_.target_not_found_score_threshold) return hold_low_peak();
    if (config_.enable_hard_negative_analysis) {
      analyse_second_peak();
    } else {
      decision_.mx *= best().scale;
      decision_.my *= best().scale;
    }
    estimate_position();
    score_frame();
    measure_change();
    if (config_.jump_filter_enabled && decision_.score <= config_.jump_min_score) return hold_low_score();
    update_state();
    if (config_.prefer_stable_reacquisition && !passes_recovery()) return decision_;
    accept();
    decide_learning();
    return decision_;
  }

 private:
  Candidate& best() { return candidates_[static_cast<std::size_t>(decision_.best)]; }
  float ts() const { return decision_.frame_target_scale; }
  base::BBox state_box() const { return state_.bboxf_from_state_(state_.image_size); }

  FrameDecision refuse_without_candidate() {
    decision_.status = "no_valid_candidate";
    decision_.trace_event = "track_fail";
    decision_.sample_pos = {0.0F, 0.0F};
    return decision_;
  }

  FrameDecision hold(const char* word, float score) {
    decision_.ok = true;
    decision_.status = word;
    decision_.trace_event = "track_hold";
    decision_.score = score;
    decision_.bbox = state_box();
    return decision_;
  }

  /// The largest raw peak, compared strictly: the lower scale wins a tie.
  void choose_best() {
    std::size_t best_index = 0;
    for (std::size_t i = 1; i < candidates_.size(); ++i) {
      if (candidates_[i].raw > candidates_[best_index].raw) best_index = i;
    }
    decision_.best = static_cast<int>(best_index);
    decision_.raw = best().raw;
    decision_.best_scale = best().scale;
    decision_.sample_scale = best().target_scale;
  }

  void refine_scale() {
    const std::size_t i = static_cast<std::size_t>(decision_.best);
    if (!config_.use_log_scale_peak_refinement || i == 0 || i + 1 >= candidates_.size()) return;
    const auto log_scale = [&](std::size_t k) {
      return std::log(std::max(candidates_[k].scale, kScaleFloor));
    };
    const std::optional<float> vertex =
        quadratic_peak_log_scale(log_scale(i - 1), candidates_[i - 1].raw, log_scale(i), candidates_[i].raw,
                                 log_scale(i + 1), candidates_[i + 1].raw);
    if (vertex) decision_.best_scale = std::exp(*vertex);
  }

  void measure_scale_margin() {
    const std::size_t best_index = static_cast<std::size_t>(decision_.best);
    std::optional<float> other;
    for (std::size_t i = 0; i < candidates_.size(); ++i) {
      if (i != best_index) other = std::max(other.value_or(candidates_[i].raw), candidates_[i].raw);
    }
    if (best().raw > kScaleFloor)
      decision_.scale_margin = clamp_unit(1.0F - other.value_or(0.0F) / best().raw);
  }

  /// Frame pixels of a displacement in pixels of the response.
  cv::Point_<float> to_frame_px(float dx, float dy) {
    const auto size = static_cast<float>(config_.search_size);
    const float sx = size / static_cast<float>(std::max(best().response.cols, 1));
    const float sy = size / static_cast<float>(std::max(best().response.rows, 1));
    return {dx * sx * ts(), dy * sy * ts()};
  }

  void measure_displacement() {
    const cv::Point_<float> peak =
        config_.use_soft_argmax
            ? soft_argmax_2d(best().response, best().peak, config_.soft_argmax_radius,
                             config_.soft_argmax_sharpness)
            : cv::Point_<float>(static_cast<float>(best().peak.x), static_cast<float>(best().peak.y));
    dx_ = peak.x - static_cast<float>(best().response.cols) * 0.5F;
    dy_ = peak.y - static_cast<float>(best().response.rows) * 0.5F;
    const cv::Point_<float> moved = to_frame_px(dx_, dy_);
    decision_.mx = moved.x;
    decision_.my = moved.y;
  }

  FrameDecision hold_low_peak() {
    state_.recovery_confirm_count = 0;
    state_.recovery_active = config_.prefer_stable_reacquisition;
    return hold("ok_low_confidence_hold", 0.0F);
  }

  /// The neighbourhood of the best peak in pixels of the response, clipped to it.
  cv::Rect_<int> peak_neighbourhood() {
    const int rows = best().response.rows;
    const int cols = best().response.cols;
    const float scale = ts() > kScaleFloor ? ts() : kScaleFloor;
    float wm = config_.peak_exclusion_scale * state_.target_size.width / scale;
    float hm = config_.peak_exclusion_scale * state_.target_size.height / scale;
    const float cells = config_.search_size > 1 ? static_cast<float>(config_.search_size) : 1.0F;
    wm *= static_cast<float>(cols) / cells;
    hm *= static_cast<float>(rows) / cells;
    const auto px = static_cast<float>(best().peak.x);
    const auto py = static_cast<float>(best().peak.y);
    const int x_lo = std::max(round_to_int(px - wm / 2.0F), 0);
    const int x_hi = std::min(round_to_int(px + wm / 2.0F + 1.0F), cols);
    const int y_lo = std::max(round_to_int(py - hm / 2.0F), 0);
    const int y_hi = std::min(round_to_int(py + hm / 2.0F + 1.0F), rows);
    if (x_hi <= x_lo || y_hi <= y_lo) return {};
    return {x_lo, y_lo, x_hi - x_lo, y_hi - y_lo};
  }

  void analyse_second_peak() {
    cv::Mat masked = best().response.clone();
    const cv::Rect_<int> mask = peak_neighbourhood();
    if (mask.area() > 0) masked(mask).setTo(0.0);
    double maximum = 0.0;
    cv::Point_<int> second_peak;
    cv::minMaxLoc(masked, nullptr, &maximum, nullptr, &second_peak);
    const auto second = static_cast<float>(maximum);
    best().max2 = std::max(second, 0.0F);
    decision_.max2 = best().max2;

    const float raw = best().raw;
    if (second > config_.distractor_ratio * raw) {
      judge_distractor(second_peak);
    } else if (second > config_.hard_negative_ratio * raw &&
               second > config_.target_not_found_score_threshold) {
      decision_.flag = FrameFlag::kHardNegative;
    }
  }

  /// Two peaks of nearly one height: the one close to the middle is the target, if just one is.
  void judge_distractor(const cv::Point_<int>& second_peak) {
    const auto rows = static_cast<float>(best().response.rows);
    const auto cols = static_cast<float>(best().response.cols);
    const float dx2 = static_cast<float>(second_peak.x) - cols / 2.0F;
    const float dy2 = static_cast<float>(second_peak.y) - rows / 2.0F;
    const float d1 = std::sqrt(dx_ * dx_ + dy_ * dy_);
    const float d2 = std::sqrt(dx2 * dx2 + dy2 * dy2);
    const float limit = config_.peak_distance_ratio * std::sqrt(rows * cols) * 0.5F;
    if (d1 < limit && limit < d2) {
      decision_.flag = FrameFlag::kHardNegative;
    } else if (d2 < limit && limit < d1) {
      decision_.flag = FrameFlag::kHardNegative;
      const cv::Point_<float> moved = to_frame_px(dx2, dy2);
      decision_.mx = moved.x;
      decision_.my = moved.y;
    } else {
      decision_.flag = FrameFlag::kUncertain;
    }
  }

  void estimate_position() {
    const bool normal = decision_.flag == FrameFlag::kNormal;
    if (normal) {
      const float side = std::max(state_.target_size.width, state_.target_size.height);
      const float band =
          std::max(config_.micro_motion_deadband_px, config_.micro_motion_deadband_ratio * side);
      if (band > 0.0F) {
        decision_.mx = apply_soft_deadband(decision_.mx, band);
        decision_.my = apply_soft_deadband(decision_.my, band);
      }
    }
    new_pos_ = decision_.sample_pos + cv::Point_<float>(decision_.mx, decision_.my);
    if (normal && config_.position_smoothing < kSmoothingOff) {
      const float a = config_.position_smoothing;
      new_pos_ = (1.0F - a) * state_.target_pos + a * new_pos_;
    }
  }

  float peak_ratio_multiplier() {
    if (!(best().raw > kSmallestScoredPeak)) return kPeakRatioBase;
    const float u = 1.0F - best().max2 / best().raw;
    if (u < 0.0F) return kPeakRatioBase;
    if (u > 1.0F) return 1.0F;
    return kPeakRatioBase + kPeakRatioSpan * u;
  }

  void score_frame() {
    const float above = best().raw - config_.target_not_found_score_threshold;
    float score = 1.0F / (1.0F + std::exp(kScoreGain * above)) * peak_ratio_multiplier();
    if (decision_.flag == FrameFlag::kHardNegative) score *= kHardNegativePenalty;
    if (decision_.flag == FrameFlag::kUncertain) score *= kUncertainPenalty;
    decision_.score = clamp_unit(score);
    decision_.computed_score = decision_.score;
  }

  void measure_change() {
    candidate_scale_ = std::max(ts() * decision_.best_scale, kScaleFloor);
    previous_scale_ = std::max(ts(), kScaleFloor);
    decision_.rel_change = std::abs(candidate_scale_ - previous_scale_) / previous_scale_;
    const float width = std::max(state_.target_size.width, kSmallestSide_px);
    const float height = std::max(state_.target_size.height, kSmallestSide_px);
    const auto change = [&](float base_side, float side) {
      return std::abs(std::max(candidate_scale_ * base_side, kSmallestSide_px) - side);
    };
    decision_.size_change = std::max(change(state_.base_target_size.width, width),
                                     change(state_.base_target_size.height, height));
    decision_.motion = std::sqrt(decision_.mx * decision_.mx + decision_.my * decision_.my);
    larger_side_ = std::max(width, height);
  }

  /// Every frame of low score is held; motion and scale change only choose the word.
  FrameDecision hold_low_score() {
    const bool jump = decision_.motion > config_.jump_max_motion_factor * larger_side_ ||
                      decision_.rel_change > config_.jump_max_scale_change;
    if (config_.prefer_stable_reacquisition) {
      state_.recovery_confirm_count = 0;
      state_.recovery_active = true;
    }
    return hold(jump ? "ok_low_confidence_jump_hold" : "ok_low_confidence_freeze_hold", decision_.score);
  }

  /// The scale that a normal frame asks for: the previous one inside the dead bands, else smoothed.
  float smoothed_scale() const {
    const float band =
        std::max(config_.roi_scale_deadband_px, config_.roi_scale_deadband_ratio * larger_side_);
    const bool still =
        decision_.size_change * 0.5F <= band || decision_.rel_change <= config_.scale_change_deadband;
    if (still) return previous_scale_;
    if (config_.scale_smoothing < kSmoothingOff) {
      const float a = clamp_unit(config_.scale_smoothing);
      return (1.0F - a) * previous_scale_ + a * candidate_scale_;
    }
    return ts() * decision_.best_scale;
  }

  std::optional<float> scale_to_apply() const {
    if (decision_.flag == FrameFlag::kNormal) return smoothed_scale();
    if (decision_.flag == FrameFlag::kUncertain && !config_.scale_update_on_uncertain) return std::nullopt;
    return ts() * decision_.best_scale;
  }

  void update_state() {
    if (config_.enable_online_update) {
      state_.update_state_(new_pos_, scale_to_apply(), state_.image_size);
    }
    decision_.state_updated = true;
    decision_.bbox = state_box();
  }

  void leave_recovery() {
    state_.recovery_active = false;
    state_.recovery_confirm_count = 0;
    state_.recovery_frame_count = 0;
  }

  bool confirms_target() const {
    const float side = std::max(state_.target_size.width, state_.target_size.height);
    return decision_.flag == FrameFlag::kNormal && decision_.score >= config_.reacquire_min_score &&
           decision_.motion <= config_.reacquire_max_motion_factor * side;
  }

  /// False ends the frame with a hold or the timeout.
  bool passes_recovery() {
    const bool flagged = decision_.flag != FrameFlag::kNormal;
    if (!flagged && !state_.recovery_active) return true;
    count_recovery_frame(flagged);
    if (config_.reacquire_max_frames > 0 && state_.recovery_frame_count > config_.reacquire_max_frames) {
      leave_recovery();
      decision_.status = "reacquire_timeout";
      decision_.score = 0.0F;
      return false;
    }
    if (!confirms_target()) {
      state_.recovery_confirm_count = 0;
    } else if (++state_.recovery_confirm_count >= std::max(config_.reacquire_confirm_frames, 1)) {
      leave_recovery();
      return true;
    }
    hold("ok_reacquire_hold", decision_.score);
    return false;
  }

  void count_recovery_frame(bool flagged) {
    if (flagged && !state_.recovery_active) {
      state_.recovery_frame_count = 1;
    } else {
      ++state_.recovery_frame_count;
    }
    if (flagged) {
      state_.recovery_confirm_count = 0;
      state_.recovery_active = true;
    }
  }

  void accept() {
    decision_.ok = true;
    decision_.accepted = true;
    decision_.trace_event = "track_ok";
    switch (decision_.flag) {
      case FrameFlag::kNormal:
        decision_.status = path_.ok_word;
        break;
      case FrameFlag::kHardNegative:
        decision_.status = path_.hard_negative_word;
        break;
      case FrameFlag::kUncertain:
        decision_.status = path_.uncertain_word;
        break;
    }
  }

  void decide_learning() {
    decision_.qualifies = decision_.flag != FrameFlag::kUncertain &&
                          !(decision_.score < config_.min_update_confidence) &&
                          !(decision_.scale_margin < config_.min_update_scale_margin);
    if (!decision_.qualifies || !config_.enable_online_update || !best().feature.defined()) return;
    const bool hard_negative = decision_.flag == FrameFlag::kHardNegative;
    decision_.store = true;
    decision_.rate = hard_negative ? config_.hard_negative_learning_rate : config_.learning_rate;
    if (hard_negative) {
      decision_.training = TrainingRequest{std::max(config_.hard_negative_iterations, 1),
                                           std::max(config_.max_hard_negative_history, 1), "hard_negative"};
    } else if (config_.frames_between_learning <= 1 ||
               state_.frame_index % config_.frames_between_learning == 0) {
      decision_.training = TrainingRequest{std::max(config_.update_iterations, 1),
                                           std::max(config_.max_sample_history, 1), "periodic"};
    }
  }

  TargetState& state_;
  const NativeCppBackend::Config& config_;
  std::vector<Candidate>& candidates_;
  const FramePath& path_;
  FrameDecision decision_;
  float dx_ = 0.0F;  // displacement of the best peak in pixels of the response
  float dy_ = 0.0F;
  cv::Point_<float> new_pos_{0.0F, 0.0F};
  float candidate_scale_ = 1.0F;
  float previous_scale_ = 1.0F;
  float larger_side_ = 0.0F;
};

}  // namespace

FrameDecision decide_frame(TargetState* state, std::vector<Candidate>* candidates, const FramePath& path) {
  return FrameJudge(state, candidates, path).judge();
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
