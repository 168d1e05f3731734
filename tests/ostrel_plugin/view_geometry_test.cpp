#include <limits>

#include "ostrel_plugin/algo_fixture.h"

namespace ostrel_test {
namespace {

TEST(ViewGeometry, ReadsFourDoublesAndWrapsPan) {
  double pan = 0, tilt = 0, hfov = 0, vfov = 0;
  EXPECT_TRUE(Access::readView(makeView(190, 200, 40, 30), pan, tilt, hfov, vfov));
  EXPECT_DOUBLE_EQ(pan, -170);
  EXPECT_DOUBLE_EQ(tilt, 200);  // tilt is not wrapped
  EXPECT_DOUBLE_EQ(hfov, 40);
  EXPECT_DOUBLE_EQ(vfov, 30);
}

TEST(ViewGeometry, NeedsAllFourAndFieldsOfViewWithASize) {
  double pan = 0, tilt = 0, hfov = 0, vfov = 0;
  for (const char* key : {"pan_deg", "tilt_deg", "hfov_deg", "vfov_deg"}) {
    Metadata metadata = makeView(1, 2, 40, 30);
    metadata.erase(key);
    EXPECT_FALSE(Access::readView(metadata, pan, tilt, hfov, vfov)) << key;
    metadata[key] = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(Access::readView(metadata, pan, tilt, hfov, vfov)) << key;
  }
  EXPECT_FALSE(Access::readView(makeView(1, 2, 1e-6, 30), pan, tilt, hfov, vfov));
  EXPECT_FALSE(Access::readView(makeView(1, 2, 40, 0), pan, tilt, hfov, vfov));
}

TEST(ViewGeometry, LeavesWhatItReadBeforeTheFirstMissingValue) {
  double pan = 9, tilt = 9, hfov = 9, vfov = 9;
  Metadata metadata = makeView(190, 2, 40, 30);
  metadata.erase("hfov_deg");
  EXPECT_FALSE(Access::readView(metadata, pan, tilt, hfov, vfov));
  EXPECT_EQ(pan, 190);
  EXPECT_EQ(tilt, 2);
  EXPECT_EQ(hfov, 9);
}

TEST(ViewGeometry, ReadsInOrderPanFirst) {
  double pan = 9, tilt = 9, hfov = 9, vfov = 9;
  Metadata metadata = makeView(190, 2, 40, 30);
  metadata.erase("tilt_deg");
  EXPECT_FALSE(Access::readView(metadata, pan, tilt, hfov, vfov));
  EXPECT_EQ(pan, 190);  // not wrapped yet
  EXPECT_EQ(tilt, 9);
  EXPECT_EQ(hfov, 9);
  EXPECT_EQ(vfov, 9);
}

TEST(ViewGeometry, LeavesAViewWithoutSizeInItsOutputs) {
  double pan = 9, tilt = 9, hfov = 9, vfov = 9;
  EXPECT_FALSE(Access::readView(makeView(190, 2, -40, 30), pan, tilt, hfov, vfov));
  EXPECT_EQ(pan, -170);
  EXPECT_EQ(hfov, -40);
  EXPECT_EQ(vfov, 30);
}

TEST(PrepositionTarget, MapsTheFieldOfViewLinearly) {
  double pan = 0, tilt = 0;
  EXPECT_TRUE(Access::buildTarget(makeView(350, 5, 40, 30), {75, 0, 10, 10}, 100, 100, pan, tilt));
  EXPECT_DOUBLE_EQ(pan, 362);    // right of the centre: more pan, not wrapped
  EXPECT_DOUBLE_EQ(tilt, 18.5);  // above the centre: more tilt
}

TEST(PrepositionTarget, NeedsAFrameABoxAndAView) {
  double pan = 0, tilt = 0;
  const Metadata view = makeView(1, 2, 40, 30);
  EXPECT_FALSE(Access::buildTarget(view, {0, 0, 10, 10}, 0, 100, pan, tilt));
  EXPECT_FALSE(Access::buildTarget(view, {0, 0, 10, 10}, 100, -1, pan, tilt));
  EXPECT_FALSE(Access::buildTarget(view, {0, 0, 0, 10}, 100, 100, pan, tilt));
  EXPECT_FALSE(Access::buildTarget(view, {0, 0, 10, -5}, 100, 100, pan, tilt));
  EXPECT_FALSE(Access::buildTarget({}, {0, 0, 10, 10}, 100, 100, pan, tilt));
  const double huge = std::numeric_limits<double>::max();
  EXPECT_FALSE(Access::buildTarget(makeView(huge, 2, huge, 30), {900, 0, 10, 10}, 100, 100, pan, tilt));
  EXPECT_TRUE(Access::buildTarget(makeView(1, 2, 0, -3), {0, 0, 10, 10}, 100, 100, pan, tilt));
}

}  // namespace
}  // namespace ostrel_test
