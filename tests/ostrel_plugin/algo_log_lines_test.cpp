#include <algorithm>
#include <cctype>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/scripted_clock.h"
#include "ostrel_plugin/scripted_overlays.h"
#include "support/document_tables.h"

/// Every log line of the plug-in object, brought about in one tour and held against the page for integrators: each
/// on its own path, at its own level, and on no other.

namespace ostrel_test {
namespace {

class AlgoLogLines : public AlgoTest {
 protected:
  static PicturePtr view(double pan, double tilt, double hfov) {
    Metadata metadata = makeView(pan, tilt, hfov, 30);
    metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
    return makePicture(100, 80, metadata);
  }

  /// A start that another replaces while its worker runs.
  void replaceAStart() {
    auto starts = holdStarts();
    init(makePicture(), {8, 8, 20, 16});
    update(makePicture());
    init(makePicture(), {8, 8, 20, 16});
    update(makePicture());
    starts.release();
    Access::waitForWorkers(*algo);
    update(nullptr);
  }
  /// A view that arrives narrower than a box may grow, with a move that is refused once.
  void align() {
    configure("preposition/enabled", "true");
    warmUp(view(0, 0, 40), {40, 30, 20, 20});
    script([](FakeBackendScript& backend) { backend.teleport.ok = false; });
    update(view(0, 0, 10));
    script([](FakeBackendScript& backend) { backend.teleport.ok = true; });
    update(view(0, 0, 10));
  }
  void zoom() {
    update(view(0, 0, 20));
    script([](FakeBackendScript& backend) { backend.zoom_changed.ok = false; });
    update(view(0, 0, 40));
  }
  void loseTheTarget() {
    Access::overlays(*algo).push_back(std::make_unique<ShiftOverlay>(1, 0));
    update(view(0, 0, 40));
    Access::inverseScaleX(*algo) = 50.0F;
    update(view(0, 0, 40));  // a box beyond the frame
    script([](FakeBackendScript& backend) { backend.track.ok = false; });
    update(view(0, 0, 40));
    Access::bbox(*algo) = {};
    clock.advance(10 * kSecond_ns);
    update(view(0, 0, 40));
  }
  void tour() {
    algo->setConfig(R"({"debug":{"enabled":true,"log_every_n_frames":1}})");
    algo->setConfig("[]");
    replaceAStart();
    align();
    zoom();
    loseTheTarget();
  }

  ScriptedClock clock;
};

/// How many lines begin with the words, whole words that is.
int countOf(const std::vector<std::string>& lines, const std::string& begin) {
  const bool ends_in_word = std::isalpha(static_cast<unsigned char>(begin.back())) != 0;
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    if (line.rfind(begin, 0) != 0) return false;
    const char next = line.size() > begin.size() ? line[begin.size()] : ' ';
    return !ends_in_word || (std::isalpha(static_cast<unsigned char>(next)) == 0 && next != '_');
  }));
}

TEST_F(AlgoLogLines, StandOnTheirPathAtTheirLevelAndOnNoOther) {
  const RecordedLog log;
  tour();
  for (const auto& row : table_under("status.md", "## Log lines")) {
    SCOPED_TRACE(row.at(0));
    const bool on_console = row.at(1) != "logger";
    const bool on_logger = row.at(1) != "console";
    EXPECT_EQ(countOf(log.console(), row[0]) > 0, on_console);
    EXPECT_EQ(countOf(log.infos(), row[0]) > 0, on_logger && row.at(2) == "information");
    EXPECT_EQ(countOf(log.warnings(), row[0]) > 0, on_logger && row.at(2) == "warning");
    if (row[1] == "both") {
      EXPECT_EQ(countOf(log.console(), row[0]), countOf(log.infos(), row[0]));
    }
  }
}

TEST_F(AlgoLogLines, AreAllOnThePage) {
  const RecordedLog log;
  tour();
  const auto rows = table_under("status.md", "## Log lines");
  for (const auto& lines : {log.console(), log.infos(), log.warnings()}) {
    for (const std::string& line : lines) {
      EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [&](const auto& row) {
        return countOf({line}, row.at(0)) == 1;
      })) << line;
    }
  }
}

TEST_F(AlgoLogLines, AreNotWrittenWithoutDebugging) {
  const RecordedLog log;
  replaceAStart();
  align();
  zoom();
  loseTheTarget();
  algo->setConfig("[]");
  EXPECT_EQ(log.consoleText(), "");
  EXPECT_TRUE(log.infos().empty());
  EXPECT_TRUE(log.warnings().empty());
}

}  // namespace
}  // namespace ostrel_test
