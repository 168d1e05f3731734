#include "ostrel_plugin/src/tracking_overlays.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Overlays = std::vector<std::unique_ptr<ITrackingOverlay>>;

class OverlayChain : public testing::Test {
 protected:
  void build() { ostrel_algo_internal::rebuildOverlays(&overlays, config); }

  // One frame through the chain: 'p' published, 'h' hidden, 'd' dead.
  char frame(float score) {
    TrackingContext context;
    context.score = score;
    context.bbox = {1, 2, 3, 4};
    for (const auto& overlay : overlays) overlay->process(context);
    EXPECT_EQ(context.bbox.x, 1);
    EXPECT_EQ(context.bbox.h, 4);
    EXPECT_TRUE(context.alive || !context.publish);
    return !context.alive ? 'd' : context.publish ? 'p' : 'h';
  }
  std::string frames(int count, float score) {
    std::string seen;
    for (int i = 0; i < count; ++i) seen += frame(score);
    return seen;
  }

  OstrelConfig config;
  Overlays overlays;
};

TEST_F(OverlayChain, HidesTheTenthLowFrameAndShowsTheFifthGoodOneByDefault) {
  build();
  EXPECT_EQ(frames(12, 0.69F), "ppppppppphhh");
  EXPECT_EQ(frames(6, 0.9F), "hhhhpp");
}

TEST_F(OverlayChain, RestartsTheConfirmationAtALowFrame) {
  build();
  frames(10, 0.1F);
  EXPECT_EQ(frames(4, 0.9F), "hhhh");
  EXPECT_EQ(frames(1, 0.1F), "h");
  EXPECT_EQ(frames(5, 0.9F), "hhhhp");
}

TEST_F(OverlayChain, CountsLowFramesOnlyInARow) {
  build();
  EXPECT_EQ(frames(9, 0.1F), "ppppppppp");
  EXPECT_EQ(frames(1, 0.9F), "p");
  EXPECT_EQ(frames(10, 0.1F), "ppppppppph");
}

TEST_F(OverlayChain, NeedsTheWholeRowAgainAfterAConfirmation) {
  build();
  frames(10, 0.1F);
  frames(5, 0.9F);
  EXPECT_EQ(frames(10, 0.1F), "ppppppppph");
}

TEST_F(OverlayChain, TakesAScoreOfExactlyTheThresholdAsGood) {
  build();
  EXPECT_EQ(frames(20, 0.7F), std::string(20, 'p'));
}

TEST_F(OverlayChain, NeverHidesWithoutAFrameCountInEitherMode) {
  config.lost_after_low_score_frames = 0;
  for (const int confirm : {0, 5}) {
    config.publish_after_confirm_frames = confirm;
    build();
    EXPECT_EQ(frames(30, 0.0F), std::string(30, 'p')) << confirm;
  }
}

TEST_F(OverlayChain, DebouncesTheDeadVerdictOfTheModeWithoutConfirmation) {
  config.publish_after_confirm_frames = 0;
  config.lost_after_low_score_frames = 3;
  config.dead_status_confirm_frames = 2;
  build();
  // The third frame is dead and turned back, the fourth and all that follow stay dead.
  EXPECT_EQ(frames(6, 0.1F), "pppddd");
}

TEST_F(OverlayChain, ForgetsDeadFramesAtALiveOne) {
  config.publish_after_confirm_frames = 0;
  config.lost_after_low_score_frames = 1;
  config.dead_status_confirm_frames = 3;
  build();
  EXPECT_EQ(frames(2, 0.1F), "pp");
  EXPECT_EQ(frames(1, 0.9F), "p");
  EXPECT_EQ(frames(3, 0.1F), "ppd");
}

TEST_F(OverlayChain, LetsTheDeadVerdictPassAtOnceWithZeroOrOneFrame) {
  config.publish_after_confirm_frames = 0;
  config.lost_after_low_score_frames = 2;
  for (const int confirm : {0, 1}) {
    config.dead_status_confirm_frames = confirm;
    build();
    EXPECT_EQ(frames(3, 0.1F), "pdd") << confirm;
  }
}

TEST_F(OverlayChain, NeverDeclaresDeathInTheModeWithConfirmation) {
  config.publish_after_confirm_frames = 1;
  config.lost_after_low_score_frames = 1;
  config.dead_status_confirm_frames = 0;
  build();
  EXPECT_EQ(frames(20, 0.0F), std::string(20, 'h'));
  EXPECT_EQ(frames(1, 0.9F), "p");
}

TEST_F(OverlayChain, ForgetsEverythingWhenRebuilt) {
  build();
  frames(10, 0.1F);
  ASSERT_EQ(frame(0.1F), 'h');
  build();
  EXPECT_EQ(overlays.size(), 2U);
  EXPECT_EQ(frames(9, 0.1F), "ppppppppp");
}

TEST_F(OverlayChain, ForgetsEverythingWhenReset) {
  build();
  frames(10, 0.1F);
  for (const auto& overlay : overlays) overlay->reset();
  EXPECT_EQ(frames(10, 0.1F), "ppppppppph");

  config.publish_after_confirm_frames = 0;
  config.lost_after_low_score_frames = 1;
  config.dead_status_confirm_frames = 3;
  build();
  frames(2, 0.1F);
  for (const auto& overlay : overlays) overlay->reset();
  EXPECT_EQ(frames(3, 0.1F), "ppd");
}

TEST(RebuildOverlays, BuildsTheScoreOverlayBeforeTheDebouncer) {
  Overlays overlays;
  ostrel_algo_internal::rebuildOverlays(&overlays, OstrelConfig());
  ASSERT_EQ(overlays.size(), 2U);
  EXPECT_NE(dynamic_cast<ScoreTimeoutOverlay*>(overlays[0].get()), nullptr);
  EXPECT_NE(dynamic_cast<StatusDebouncerOverlay*>(overlays[1].get()), nullptr);
}

TEST(RebuildOverlays, DoesNothingWithoutAList) {
  ostrel_algo_internal::rebuildOverlays(nullptr, OstrelConfig());
}

}  // namespace
