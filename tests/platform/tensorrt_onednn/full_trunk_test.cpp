// The network at its real size against a forward pass in plain loops.
#include "platform/tensorrt_onednn/trunk_models.h"

namespace ostrel::testing {
namespace {

TEST(Trunk, EqualsAForwardPassInPlainLoops) {
  TrunkOptions options;
  options.seed = 3;
  expect_like_plain_loops(options, {1, 2});
}

}  // namespace
}  // namespace ostrel::testing
