#include "tracking_runtime/tracker/atom/reference_trace_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "support/grouping_locale.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr const char* kHeader =
    "event\tframe\tbackend\tstatus\tx\ty\tw\th\tscore\traw_score\tmax2_score\trel_scale\ttarget_scale\n";
constexpr const char* kLine = "track_ok\t7\tcuda\tok\t-1\t2\t30\t40\t0.5\t0.333333\t0\t1\t2.5\n";

// A folder of the test's own that is gone afterwards.
class ReferenceTrace : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = std::filesystem::path(::testing::TempDir()) / ("reference_trace_" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder_);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string path() const { return (folder_ / "trace.tsv").string(); }
  bool folder_is_empty() const { return std::filesystem::is_empty(folder_); }
  static std::string text_of(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }
  static std::string text_from(int descriptor) {
    char buffer[4096];
    const ssize_t count = ::read(descriptor, buffer, sizeof(buffer));
    return std::string(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
  }
  static void log(ReferenceTraceWriter* writer, const std::string& status = "ok") {
    writer->log("track_ok", 7, "cuda", status, {-1, 2, 30, 40}, 0.5F, 1.0F / 3.0F, 0.0F, 1.0F, 2.5F);
  }

  std::filesystem::path folder_;
};

TEST_F(ReferenceTrace, WritesAHeaderAndALinePerDecision) {
  ReferenceTraceWriter writer(path());
  log(&writer);
  log(&writer);
  EXPECT_EQ(text_of(path()), std::string(kHeader) + kLine + kLine);
}

TEST_F(ReferenceTrace, WritesNumbersWithoutTheHabitsOfTheLocale) {
  const ostrel_test::GroupingLocale grouping;
  ReferenceTraceWriter writer(path());
  writer.log("track_ok", 12345, "cuda", "ok", {6789, 2, 30, 40}, 0.5F, 0.25F, 0.0F, 1.0F, 2.5F);
  EXPECT_EQ(text_of(path()),
            std::string(kHeader) + "track_ok\t12345\tcuda\tok\t6789\t2\t30\t40\t0.5\t0.25\t0\t1\t2.5\n");
}

TEST_F(ReferenceTrace, FlushesEveryLine) {
  ReferenceTraceWriter writer(path());
  log(&writer);
  EXPECT_EQ(text_of(path()), std::string(kHeader) + kLine);  // the writer is still open
}

TEST_F(ReferenceTrace, MakesNoFileBeforeTheFirstLine) {
  const ReferenceTraceWriter writer(path());
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(ReferenceTrace, MakesNoFileWithoutAPath) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder_);
  ReferenceTraceWriter writer("");
  log(&writer);
  std::filesystem::current_path(before);
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(ReferenceTrace, ReplacesAnOlderFile) {
  std::ofstream(path()) << "a line of an older run, longer than any header would ever be\n"
                        << std::string(500, 'x');
  ReferenceTraceWriter writer(path());
  log(&writer);
  EXPECT_EQ(text_of(path()), std::string(kHeader) + kLine);
}

TEST_F(ReferenceTrace, KeepsAStatusOnOneLine) {
  ReferenceTraceWriter writer(path());
  log(&writer, "a\tb\nc\rd");
  EXPECT_NE(text_of(path()).find("\ta b c d\t"), std::string::npos);
}

TEST_F(ReferenceTrace, TriesAPathOnceAndStaysSilent) {
  const std::string missing = (folder_ / "missing" / "trace.tsv").string();
  ReferenceTraceWriter writer(missing);
  ::testing::internal::CaptureStderr();
  log(&writer);
  std::filesystem::create_directories(folder_ / "missing");
  log(&writer);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(ReferenceTrace, EndsForGoodWithAFailedWrite) {
  // A pipe whose reader leaves and comes back: only what is written while there is a reader can be read.
  struct sigaction ignored = {};
  struct sigaction before = {};
  ignored.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignored, &before), 0);
  ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  auto writer = std::make_unique<ReferenceTraceWriter>(path());
  int reader = ::open(path().c_str(), O_RDONLY | O_NONBLOCK);
  log(writer.get());
  EXPECT_EQ(text_from(reader), std::string(kHeader) + kLine);
  ::close(reader);
  log(writer.get());
  reader = ::open(path().c_str(), O_RDONLY | O_NONBLOCK);
  log(writer.get());
  EXPECT_EQ(text_from(reader), "");
  ::close(reader);
  writer.reset();
  ::sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(ReferenceTrace, HoldsFailedAndGoodStartsUnderOneHeader) {
  ReferenceTraceWriter writer(path());
  writer.log("init_fail", 0, "cuda", "no engine", {0, 0, 5, 5}, 0.0F, 0.0F, 0.0F, 1.0F, 1.0F);
  writer.log("init_ok", 0, "cuda", "ok_memory_ready", {0, 0, 5, 5}, 1.0F, 1.0F, 0.0F, 1.0F, 1234567.0F);
  EXPECT_EQ(text_of(path()), std::string(kHeader) +
                                 "init_fail\t0\tcuda\tno engine\t0\t0\t5\t5\t0\t0\t0\t1\t1\n" +
                                 "init_ok\t0\tcuda\tok_memory_ready\t0\t0\t5\t5\t1\t1\t0\t1\t1.23457e+06\n");
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
