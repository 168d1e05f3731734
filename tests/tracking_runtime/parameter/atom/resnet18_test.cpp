#include "tracking_runtime/parameter/atom/resnet18.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/config_text.h"

namespace ostrel_tracker::tracking_runtime::parameter::atom {
namespace {

constexpr const char* kBuiltIn =
    "trt_engine_path models/IA_engine/tracker/resnet18_288.engine\n"
    "runtime_backend cuda\n"
    "reference_trace_path \n"
    "reserved_flag true\n"
    "reserved_count 2\n"
    "template_size 112\n"
    "search_size 288\n"
    "search_area_factor 5\n"
    "search_scales 0.903900027 1 1.10000002\n"
    "target_not_found_score_threshold 0.550000012\n"
    "sample_memory_size 250\n"
    "frames_between_learning 20\n"
    "max_sample_history 96\n"
    "max_hard_negative_history 128\n"
    "update_iterations 5\n"
    "hard_negative_iterations 10\n"
    "learning_rate 0.00999999978\n"
    "hard_negative_learning_rate 0.0199999996\n"
    "filter_regularization 0.0199999996\n"
    "filter_regularization_floor 0.00100000005\n"
    "use_projection_matrix true\n"
    "update_projection_matrix true\n"
    "compressed_dim 32\n"
    "filter_size 4\n"
    "projection_regularization 9.99999975e-05\n"
    "startup_filter_iterations 20\n"
    "startup_box_refinement_iterations 15\n"
    "proj_init_method randn\n"
    "filter_init_method randn\n"
    "enable_hard_negative_analysis true\n"
    "distractor_ratio 0.800000012\n"
    "hard_negative_ratio 0.5\n"
    "peak_exclusion_scale 2.20000005\n"
    "peak_distance_ratio 0.800000012\n"
    "scale_update_on_uncertain true\n"
    "enable_online_update true\n"
    "min_ratio_from_initial_size 0.400000006\n"
    "max_ratio_from_initial_size 2.5\n"
    "use_soft_argmax true\n"
    "soft_argmax_radius 2\n"
    "soft_argmax_sharpness 10\n"
    "position_smoothing 1\n"
    "micro_motion_deadband_px 0.75\n"
    "micro_motion_deadband_ratio 0.00499999989\n"
    "scale_smoothing 0.600000024\n"
    "scale_change_deadband 0.00999999978\n"
    "roi_scale_deadband_px 1.5\n"
    "roi_scale_deadband_ratio 0.0149999997\n"
    "enable_scale_predictor false\n"
    "scale_predictor_process_noise_scale 0.000500000024\n"
    "scale_predictor_process_noise_velocity 9.99999975e-05\n"
    "scale_predictor_measurement_noise_scale 0.00999999978\n"
    "prefer_stable_reacquisition true\n"
    "reacquire_confirm_frames 3\n"
    "reacquire_min_score 0.800000012\n"
    "reacquire_max_motion_factor 4\n"
    "reacquire_max_frames 90\n"
    "use_log_scale_peak_refinement true\n"
    "min_update_confidence 0.449999988\n"
    "min_update_scale_margin 0.0299999993\n"
    "jump_filter_enabled true\n"
    "jump_min_score 0.449999988\n"
    "jump_max_motion_factor 0.349999994\n"
    "jump_max_scale_change 0.0799999982\n";

TEST(AtomParameters, HoldTheBuiltInValueOfEveryField) {
  EXPECT_EQ(ostrel_test::config_text(parameters()), kBuiltIn);
}

TEST(AtomParameters, StandInTheOrderOfTheRecord) {
  const tracker::atom::NativeCppBackend::Config listed{
      "models/IA_engine/tracker/resnet18_288.engine",
      "cuda",
      "",
      true,
      2,
      112,
      288,
      5.0F,
      {0.9039F, 1.0F, 1.1F},
      0.55F,
      250,
      20,
      96,
      128,
      5,
      10,
      0.01F,
      0.02F,
      0.02F,
      0.001F,
      true,
      true,
      32,
      4,
      0.0001F,
      20,
      15,
      "randn",
      "randn",
      true,
      0.8F,
      0.5F,
      2.2F,
      0.8F,
      true,
      true,
      0.4F,
      2.5F,
      true,
      2,
      10.0F,
      1.0F,
      0.75F,
      0.005F,
      0.6F,
      0.01F,
      1.5F,
      0.015F,
      false,
      0.0005F,
      0.0001F,
      0.01F,
      true,
      3,
      0.8F,
      4.0F,
      90,
      true,
      0.45F,
      0.03F,
      true,
      0.45F,
      0.35F,
      0.08F,
  };
  EXPECT_EQ(ostrel_test::config_text(listed), kBuiltIn);
}

TEST(AtomParameters, GiveSearchScalesByTheirBits) {
  const std::vector<float> scales = parameters().search_scales;
  std::vector<std::uint32_t> bits(scales.size());
  std::memcpy(bits.data(), scales.data(), scales.size() * sizeof(float));
  EXPECT_EQ(bits, (std::vector<std::uint32_t>{0x3F6765FE, 0x3F800000, 0x3F8CCCCD}));
}

TEST(AtomParameters, GiveEachCallerARecordOfItsOwn) {
  auto first = parameters();
  const auto second = parameters();
  EXPECT_NE(first.search_scales.data(), second.search_scales.data());
  first.search_scales[0] = 7.0F;
  first.trt_engine_path = "other.engine";
  EXPECT_EQ(ostrel_test::config_text(second), kBuiltIn);
  EXPECT_EQ(ostrel_test::config_text(parameters()), kBuiltIn);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::parameter::atom
