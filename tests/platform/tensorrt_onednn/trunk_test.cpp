// A small network of the whole shape: against a forward pass in plain loops, and from two contexts at once.
#include <calibration.h>
#include <trunk_writer.h>

#include <thread>

#include "platform/tensorrt_onednn/trunk_models.h"

namespace ostrel::testing {
namespace {

TEST(Trunk, EqualsAForwardPassInPlainLoopsWhenTiny) {
  expect_like_plain_loops(tiny_trunk(), {0, 1});
}

TEST(Trunk, GivesEachSampleOfABatchWhatItGivesAlone) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  BoundContext context(loaded.engine.get());
  Tensor batch{{3, 3, 32, 32}, {}};
  std::vector<Tensor> alone;
  for (unsigned seed = 1; seed <= 3; ++seed) {
    const Tensor picture = picture_of(backbone::calibration_picture(32, seed));
    batch.values.insert(batch.values.end(), picture.values.begin(), picture.values.end());
    alone.push_back(context.run({picture})[1]);
  }
  const Tensor together = context.run({batch})[1];
  ASSERT_EQ(together.shape, (Shape{3, 16, 8, 8}));
  for (std::size_t i = 0; i < together.values.size(); ++i) {
    const std::size_t per_sample = alone[0].values.size();
    ASSERT_NEAR(together.values[i], alone[i / per_sample].values[i % per_sample], kFloatTolerance);
  }
}

TEST(TwoContexts, OfOneEngineRunAtOnce) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  std::vector<Tensor> pictures;
  std::vector<Tensor> expected;
  for (unsigned seed = 1; seed <= 2; ++seed) {
    pictures.push_back(picture_of(backbone::calibration_picture(32, seed)));
    BoundContext context(loaded.engine.get());
    expected.push_back(context.run({pictures.back()})[1]);
  }
  const auto work = [&](std::size_t own) {
    BoundContext context(loaded.engine.get());
    for (int round = 0; round < 20; ++round) {
      expect_near(context.run({pictures[own]})[1], expected[own], 0.0);
    }
  };
  std::thread first(work, 0);
  std::thread second(work, 1);
  first.join();
  second.join();
  EXPECT_EQ(loaded.logger.errors(), "");
}

TEST(TwoContexts, QueueOnOneThreadWithoutWaiting) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  BoundContext first(loaded.engine.get());
  BoundContext second(loaded.engine.get());
  const Tensor a = picture_of(backbone::calibration_picture(32, 1));
  const Tensor b = picture_of(backbone::calibration_picture(32, 2));
  const Tensor expected_a = first.run({a})[1];
  const Tensor expected_b = second.run({b})[1];
  for (int round = 0; round < 10; ++round) {
    first.upload({a});
    second.upload({b});
    EXPECT_TRUE(first.get()->enqueueV3(first.stream().get()));
    EXPECT_TRUE(second.get()->enqueueV3(second.stream().get()));
    expect_near(second.download()[1], expected_b, 0.0);
    expect_near(first.download()[1], expected_a, 0.0);
  }
}

}  // namespace
}  // namespace ostrel::testing
