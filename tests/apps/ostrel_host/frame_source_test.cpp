#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/frame_source.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "support/temporary_folder.h"

namespace {

using ostrel_host::BadInput;
using ostrel_host::open_source;
using ostrel_test::TemporaryFolder;

void write_image(const std::string& file, int level, int channels = 3) {
  cv::imwrite(file, cv::Mat(24, 32, channels == 3 ? CV_8UC3 : CV_8UC1, cv::Scalar::all(level)));
}

TEST(FrameSource, TakesTheImagesOfAFolderInTheOrderOfTheirNames) {
  const TemporaryFolder folder;
  write_image(folder.path("0003.png"), 30);
  write_image(folder.path("0001.PNG"), 10);
  write_image(folder.path("0002.bmp"), 20);
  folder.file("notes.txt", "no image");
  const auto source = open_source(folder.path().string());
  EXPECT_EQ(source->frame_count(), 3u);
  for (const int level : {10, 20, 30}) {
    const auto frame = source->next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->image.at<cv::Vec3b>(0, 0)[0], level);
  }
  EXPECT_FALSE(source->next());
}

TEST(FrameSource, FindsTheImagesOfASequenceFolder) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.path() / "img");
  write_image(folder.path("img/0001.jpg"), 10);
  folder.file("groundtruth_rect.txt", "1,2,3,4\n");
  EXPECT_EQ(open_source(folder.path().string())->frame_count(), 1u);
}

TEST(FrameSource, TurnsGreyImagesIntoThreeChannels) {
  const TemporaryFolder folder;
  write_image(folder.path("a.png"), 77, 1);
  const auto frame = open_source(folder.path().string())->next();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->image.type(), CV_8UC3);
}

TEST(FrameSource, HandsOutADamagedImageAsAFrameWithoutPixels) {
  const TemporaryFolder folder;
  write_image(folder.path("a.png"), 10);
  folder.file("b.png", "not an image");
  write_image(folder.path("c.png"), 30);
  const auto source = open_source(folder.path().string());
  EXPECT_FALSE(source->next()->image.empty());
  const auto damaged = source->next();
  ASSERT_TRUE(damaged);
  EXPECT_TRUE(damaged->image.empty());
  EXPECT_EQ(damaged->name, "b.png");
  EXPECT_FALSE(source->next()->image.empty());
}

TEST(FrameSource, ReadsAVideoWithTimeStampsOfItsRate) {
  const TemporaryFolder folder;
  const std::string file = folder.path("clip.avi");
  {
    cv::VideoWriter writer(file, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 20.0, cv::Size(64, 48));
    ASSERT_TRUE(writer.isOpened());
    for (int i = 0; i < 5; ++i) writer.write(cv::Mat(48, 64, CV_8UC3, cv::Scalar::all(40 * i)));
  }
  const auto source = open_source(file);
  EXPECT_EQ(source->frame_count(), 5u);
  EXPECT_DOUBLE_EQ(source->frame_rate(), 20.0);
  for (int i = 0; i < 5; ++i) {
    const auto frame = source->next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->image.size(), cv::Size(64, 48));
    EXPECT_EQ(frame->timestamp_ns, static_cast<std::uint64_t>(i) * 50000000u);
  }
  EXPECT_FALSE(source->next());
}

TEST(FrameSource, RefusesWhatItCannotOpenInOneLine) {
  const TemporaryFolder folder;
  const std::string text = folder.file("text.mp4", "no video");
  const struct {
    std::string source, message;
  } rows[] = {
      {folder.path("missing.mp4"), "no such file or folder: '" + folder.path("missing.mp4") + "'"},
      {text, "'" + text + "' cannot be read as a video"},
      {folder.path().string(), "the folder '" + folder.path().string() + "' holds no images"},
      {"camera:", "'camera:' is no camera: camera:N with a number is needed"},
      {"camera:-1", "'camera:-1' is no camera: camera:N with a number is needed"},
      {"camera:1x", "'camera:1x' is no camera: camera:N with a number is needed"},
      {"camera:987", "camera 987 cannot be opened"},
  };
  for (const auto& row : rows) {
    try {
      open_source(row.source);
      FAIL() << row.source;
    } catch (const BadInput& failure) {
      EXPECT_EQ(failure.what(), row.message);
    }
  }
}

}  // namespace
