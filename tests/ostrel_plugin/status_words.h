#pragma once

#include <array>

namespace ostrel_test {

/// Every word that `runtime_status` can be, in the order of a run. One test reaches each of them, another holds the
/// page for integrators against this list.
inline constexpr std::array<const char*, 38> kStatusWords = {
    "idle",
    "init_start",
    "init_fail_invalid_roi",
    "init_fail_no_frame",
    "init_fail_invalid_source_size",
    "init_fail_roi_outside",
    "init_deferred_waiting_update",
    "init_deferred_waiting_alignment",
    "wait_first_update_no_frame",
    "init_fail_missing_saved_init_frame",
    "init_warmup_started",
    "init_async_launch_fail",
    "init_ok",
    "init_async_fail",
    "init_async_exception",
    "wait_alignment_no_frame",
    "wait_alignment_source_size_changed",
    "wait_alignment_metadata",
    "wait_alignment",
    "teleport_failed",
    "teleport_ok",
    "preposition_disabled_tracking_armed",
    "preposition_disabled_waiting_update",
    "update_skip_not_initialized",
    "update_skip_waiting_first_update",
    "update_skip_warming_up",
    "update_skip_waiting_alignment",
    "update_skip_no_tracker_impl",
    "update_skip_no_frame",
    "update_skip_source_size_changed",
    "update_skip_invalid_proc_size",
    "track_ok",
    "track_fail",
    "track_fail_hold",
    "overlay_bbox_hold",
    "overlay_rejected",
    "overlay_dead",
    "tracking_dead_timeout",
};

}  // namespace ostrel_test
