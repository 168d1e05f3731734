// Folders of sequences: what is one, what is taken of it, and what is refused before anything starts.
#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/sequence.h>

#include <opencv2/imgcodecs.hpp>

#include "support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using namespace ostrel_host;

class Sequences : public testing::Test {
 protected:
  // A sequence of so many pictures of 80 x 60.
  std::string sequence(const std::string& name, int pictures, const std::string& truth) const {
    fs::create_directories(folder_.path() / name / "img");
    for (int i = 0; i < pictures; ++i) picture(name, i, {80, 60});
    if (!truth.empty()) folder_.file(name + "/groundtruth_rect.txt", truth);
    return folder_.path(name);
  }

  void picture(const std::string& name, int number, cv::Size size_px) const {
    cv::imwrite(folder_.path(name + "/img/" + std::to_string(1000 + number) + ".png"),
                cv::Mat(size_px, CV_8UC3, cv::Scalar::all(number)));
  }

  static std::string refusal(const std::function<void()>& act) {
    try {
      act();
    } catch (const BadInput& failure) {
      return failure.what();
    }
    return "accepted";
  }

  ostrel_test::TemporaryFolder folder_;
};

TEST_F(Sequences, AreTakenAsTheyAreGivenOrFromTheFolderAboveThem) {
  sequence("all/second", 1, "1,2,3,4\n");
  sequence("all/first", 1, "1,2,3,4\n");
  fs::create_directories(folder_.path() / "all/notes");
  sequence("alone", 1, "1,2,3,4\n");
  const auto folders = sequence_folders({folder_.path("alone") + "/", folder_.path("all")});
  ASSERT_EQ(folders.size(), 3U);
  EXPECT_EQ(folders[0].filename(), "alone");
  EXPECT_EQ(folders[1].filename(), "first") << "below a folder the names give the order";
  EXPECT_EQ(folders[2].filename(), "second");
}

TEST_F(Sequences, WithAPartMissingAreNotPassedOver) {
  sequence("all/whole", 1, "1,2,3,4\n");
  sequence("all/without_truth", 1, "");
  EXPECT_EQ(sequence_folders({folder_.path("all")}).size(), 2U);
}

TEST_F(Sequences, StartOnTheFirstBoxInWholePixels) {
  const Sequence opened = open_sequence(sequence("a", 2, "1.5,2.4,30.6,20.2\n2,3,30,20\n"), 0);
  EXPECT_EQ(opened.name, "a");
  EXPECT_EQ(opened.start.x, 2);
  EXPECT_EQ(opened.start.y, 2);
  EXPECT_EQ(opened.start.w, 31);
  EXPECT_EQ(opened.start.h, 20);
  EXPECT_EQ(opened.truth[0], cv::Rect2d(1.5, 2.4, 30.6, 20.2)) << "the judge keeps the fractions";
  EXPECT_EQ(opened.frame_size_px, cv::Size(80, 60));
}

TEST_F(Sequences, AreAsLongAsThePicturesAndTheLinesBoth) {
  const std::string three = "1,2,30,20\n2,2,30,20\n3,2,30,20\n";
  const Sequence more_pictures = open_sequence(sequence("pictures", 5, three), 0);
  EXPECT_EQ(more_pictures.frames(), 3U);
  EXPECT_EQ(more_pictures.pictures, 5U);
  EXPECT_EQ(more_pictures.lines, 3U);
  const Sequence more_lines = open_sequence(sequence("lines", 2, three), 0);
  EXPECT_EQ(more_lines.frames(), 2U);
  EXPECT_EQ(more_lines.lines, 3U);
  EXPECT_EQ(open_sequence(folder_.path("pictures"), 2).frames(), 2U);
  EXPECT_EQ(open_sequence(folder_.path("pictures"), 9).frames(), 3U);
}

TEST_F(Sequences, AreRefusedInOneLineEach) {
  const std::string box = "1,2,30,20\n";
  fs::create_directories(folder_.path() / "empty");
  folder_.file("file", "");
  sequence("twins/a", 1, box);
  sequence("others/a", 1, box);
  const auto quoted = [&](const std::string& name) { return "'" + folder_.path(name) + "'"; };
  const struct {
    const char* reason;
    std::vector<std::string> folders;
    std::string message;
  } rows[] = {
      {"not there", {"none"}, "no such folder: " + quoted("none")},
      {"a file", {"file"}, quoted("file") + " is no folder"},
      {"nothing in it",
       {"empty"},
       quoted("empty") + " is no sequence and holds none: img and groundtruth_rect.txt are needed"},
      {"twice", {"twins/a", "twins"}, "the sequence " + quoted("twins/a") + " is given twice"},
      {"one name for two",
       {"twins", "others"},
       "two sequences are called 'a': " + quoted("twins/a") + " and " + quoted("others/a")},
  };
  for (const auto& row : rows) {
    std::vector<std::string> paths;
    for (const std::string& name : row.folders) paths.push_back(folder_.path(name));
    EXPECT_EQ(refusal([&] { sequence_folders(paths); }), row.message) << row.reason;
  }
}

TEST_F(Sequences, WithoutWhatIsNeededAreRefusedInOneLineEach) {
  const std::string box = "1,2,30,20\n";
  fs::create_directories(folder_.path() / "no_img");
  folder_.file("no_img/groundtruth_rect.txt", box);
  sequence("no_pictures", 0, box);
  sequence("no_truth", 1, "");
  sequence("no_lines", 1, "\n\n");
  sequence("words", 2, box + "here\n");
  sequence("polygon", 1, "1,2,3,4,5,6,7,8\n");
  sequence("absent", 2, "nan,nan,nan,nan\n" + box);
  sequence("zeros", 2, "0,0,0,0\n" + box);
  sequence("small", 1, "1,2,0.4,20\n");
  sequence("outside", 1, "90,2,30,20\n");
  sequence("damaged", 1, box);
  folder_.file("damaged/img/1000.png", "no picture");
  const auto at = [&](const std::string& name) { return "'" + folder_.path(name) + "'"; };
  const auto truth = [&](const std::string& name) { return at(name + "/groundtruth_rect.txt"); };
  const std::string no_start = " is no box with a size, and nothing can start there";
  const struct {
    const char* name;
    std::string message;
  } rows[] = {
      {"no_img", "the sequence " + at("no_img") + " has no folder img"},
      {"no_pictures", "the folder " + at("no_pictures/img") + " holds no images"},
      {"no_truth", "the sequence " + at("no_truth") + " has no groundtruth_rect.txt"},
      {"no_lines", "the file " + truth("no_lines") + " holds no boxes"},
      {"words", "line 2 of " + truth("words") + " is no box: x,y,w,h is needed"},
      {"polygon", "line 1 of " + truth("polygon") + " is no box: x,y,w,h is needed"},
      {"absent", "the first line of " + truth("absent") + no_start},
      {"zeros", "the first line of " + truth("zeros") + no_start},
      {"small", "the first line of " + truth("small") + no_start},
      {"outside",
       "the first line of " + truth("outside") + ": the region 90,2,30,20 lies outside the frame of 80x60"},
      {"damaged", "the picture '1000.png' of " + at("damaged") + " cannot be read"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal([&] { open_sequence(folder_.path(row.name), 0); }), row.message) << row.name;
  }
}

TEST_F(Sequences, HaveTheirPicturesReadBeforehand) {
  const std::string truth = "1,2,30,20\n1,2,30,20\n1,2,30,20\n";
  const Sequence good = open_sequence(sequence("good", 3, truth), 0);
  int seen = 0;
  const auto count = [&] { return ++seen > 0; };
  check_pictures(good, count);
  EXPECT_EQ(seen, 3);

  const Sequence damaged = open_sequence(sequence("damaged", 3, truth), 0);
  folder_.file("damaged/img/1002.png", "no picture");
  EXPECT_EQ(refusal([&] { check_pictures(damaged, count); }),
            "the picture '1002.png' of '" + folder_.path("damaged") + "' cannot be read");
  const Sequence grown = open_sequence(sequence("grown", 3, truth), 0);
  picture("grown", 1, {90, 60});
  EXPECT_EQ(
      refusal([&] { check_pictures(grown, count); }),
      "the picture '1001.png' of '" + folder_.path("grown") + "' has 90x60 pixels, the first has 80x60");
  EXPECT_EQ(refusal([&] { check_pictures(grown, [] { return false; }); }), "accepted") << "broken off";
}

TEST_F(Sequences, NeedNoPictureBehindTheLastFrame) {
  const Sequence cut = open_sequence(sequence("cut", 3, "1,2,30,20\n1,2,30,20\n"), 0);
  folder_.file("cut/img/1002.png", "no picture");
  EXPECT_EQ(refusal([&] { check_pictures(cut, [] { return true; }); }), "accepted");
}

}  // namespace
