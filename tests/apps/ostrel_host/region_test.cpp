#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/region.h>

namespace {

using ostrel_host::BadInput;
using ostrel_host::parse_numbers;
using ostrel_host::parse_region;
using ostrel_host::parse_size;
using ostrel_host::require_inside;
using ostrel_host::to_text;

TEST(Region, ReadsFourNumbersAndRoundsThem) {
  EXPECT_EQ(to_text(parse_region("10,20,30,40")), "10,20,30,40");
  EXPECT_EQ(to_text(parse_region("292.5,128.36,145.96,-1")), "293,128,146,-1");
  EXPECT_EQ(to_text(parse_region("-5 7\t8,9")), "-5,7,8,9");
  EXPECT_EQ(parse_numbers("1.5,2.25,3,4\r").y, 2.25);
}

TEST(Region, RefusesAnythingElse) {
  const char* texts[] = {"",         "1,2,3",  "1,2,3,4,5", "1,2,3,x",   "a,b,c,d",
                         "1;2;3;4x", "1,,2,3", "1,2,3,nan", "1,2,inf,4", "1,2,3,3000000000"};
  for (const char* text : texts) EXPECT_THROW(parse_region(text), BadInput) << text;
}

TEST(Region, SaysWhatIsNeeded) {
  try {
    parse_region("1,2,3");
    FAIL();
  } catch (const BadInput& failure) {
    EXPECT_STREQ(failure.what(), "'1,2,3' is no region: four numbers x,y,w,h are needed");
  }
}

TEST(Region, MustTouchTheFrame) {
  const cv::Size frame(640, 360);
  EXPECT_NO_THROW(require_inside({-9, -9, 10, 10}, frame));
  EXPECT_NO_THROW(require_inside({639, 359, 10, 10}, frame));
  EXPECT_NO_THROW(require_inside({2147483647, 0, 0, 10}, frame)) << "without a size: the plug-in's to refuse";
  for (const BBox& region : {BBox{640, 0, 10, 10}, BBox{0, 360, 10, 10}, BBox{-10, 0, 10, 10},
                             BBox{0, -10, 10, 10}, BBox{2147483647, 0, 2147483647, 10}}) {
    EXPECT_THROW(require_inside(region, frame), BadInput) << to_text(region);
  }
}

TEST(Size, IsReadAsWidthAndHeight) {
  EXPECT_EQ(parse_size("320x200"), cv::Size(320, 200));
  for (const char* text :
       {"", "x", "320", "320x", "x200", "320x200x", "320*200", "a320x200", "99999999999x5"}) {
    EXPECT_THROW(parse_size(text), BadInput) << text;
  }
}

}  // namespace
