// The backend's life.

#include <gtest/gtest.h>
#include <host_cuda/control.h>

#include <string>

#include "support/config_text.h"
#include "tracking_runtime/tracker/atom/started_backend_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::config_text;

class BackendLife : public StartedBackend {};

TEST_F(BackendLife, BeginsEmptyAndTouchesNoDevice) {
  ostrel::host_cuda::reset_counters();
  CudaRuntimeBackend backend(config());
  EXPECT_TRUE(ostrel::host_cuda::counters().calls.empty());
  EXPECT_STREQ(backend.name(), "cuda");
  EXPECT_EQ(config_text(Access::state(backend).config), config_text(config()));
  EXPECT_NE(Access::trace_writer(backend), nullptr);
  EXPECT_TRUE(Access::memory(backend).empty());
  EXPECT_EQ(Access::memory(backend).previous_replace_index, -1);
  EXPECT_TRUE(Access::weights(backend).filter_weights.empty());
  EXPECT_FALSE(Access::state(backend).initialized);
  EXPECT_EQ(Access::state(backend).target_scale, 1.0F);
  EXPECT_EQ(Access::state(backend).min_target_scale, 0.1F);
  EXPECT_EQ(Access::state(backend).max_target_scale, 10.0F);
  EXPECT_FALSE(Access::training_future(backend).valid());
}

TEST_F(BackendLife, NamesAStageThatIsMissing) {
  const std::string text = "runtime_backend='cuda' selected, but this ATOM stage is not implemented";
  EXPECT_EQ(Access::not_implemented_error(*backend_, nullptr), text);
  EXPECT_EQ(Access::not_implemented_error(*backend_, ""), text);
  EXPECT_EQ(Access::not_implemented_error(*backend_, "track"), text + " at stage 'track'");
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
