// docs/status.md against the code: an integrator compares these words.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "ostrel_plugin/algo_test_access.h"
#include "ostrel_plugin/src/property_json.h"
#include "ostrel_plugin/status_words.h"
#include "support/document_tables.h"

namespace ostrel_test {
namespace {

constexpr const char* kPage = "status.md";

/// One column of a table of the page; an asterisk behind a word goes.
std::vector<std::string> column(const std::string& heading, std::size_t index) {
  std::vector<std::string> cells;
  for (const auto& row : table_under(kPage, heading)) {
    const std::string& cell = row.at(index);
    cells.push_back(cell.substr(0, cell.find("` *")));
  }
  return cells;
}

/// All sources of a folder under src/, one behind the other.
std::string sources_in(const std::string& folder) {
  std::string text;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(OSTREL_SOURCES + folder)) {
    if (entry.is_regular_file()) {
      text += repository_text(std::filesystem::relative(entry.path(), OSTREL_SOURCES "/..").string());
    }
  }
  return text;
}

/// The string literals of a text that begin with one of the prefixes and are made of small letters and underscores.
std::set<std::string> words_with(const std::string& text, const std::vector<std::string>& prefixes) {
  std::set<std::string> words;
  for (std::size_t at = text.find('"'); at != std::string::npos; at = text.find('"', at + 1)) {
    const std::size_t end = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", at + 1);
    if (end == std::string::npos || text[end] != '"') continue;
    const std::string word = text.substr(at + 1, end - at - 1);
    for (const std::string& prefix : prefixes) {
      if (word.rfind(prefix, 0) == 0) words.insert(word);
    }
  }
  return words;
}

TEST(StatusPage, ListsEveryStatusWordInOrder) {
  EXPECT_THAT(column("## Status words", 0), testing::ElementsAreArray(kStatusWords));
}

TEST(StatusPage, SaysOfEveryStatusWordWhatItMeansAndWhatToDo) {
  for (const auto& row : table_under(kPage, "## Status words")) {
    ASSERT_EQ(row.size(), 5U) << row.at(0);
    for (const std::size_t cell : {2, 3, 4}) EXPECT_NE(row[cell], "") << row[0];
  }
}

TEST(StatusPage, ListsEveryWordThatThePlugInSets) {
  const std::string source = sources_in("/ostrel_plugin");
  for (const char* word : kStatusWords) {
    EXPECT_NE(source.find("\"" + std::string(word) + "\""), std::string::npos) << word;
  }
  std::set<std::string> listed(kStatusWords.begin(), kStatusWords.end());
  const auto set = words_with(source, {"init_fail", "init_async", "init_deferred", "init_warmup", "wait_",
                                       "teleport_", "update_skip_", "overlay_", "preposition_disabled_"});
  EXPECT_GE(set.size(), 30U);
  for (const std::string& word : set) EXPECT_EQ(listed.count(word), 1U) << word;
}

TEST(StatusPage, ListsEveryPhaseInOrder) {
  std::vector<std::string> phases;
  for (int phase = 0; phase <= 5; ++phase) {
    phases.push_back(OstrelAlgoTestAccess::phaseName(static_cast<OstrelAlgoTestAccess::Phase>(phase)));
  }
  EXPECT_THAT(column("## Phases", 0), testing::ElementsAreArray(phases));
}

TEST(StatusPage, ListsEveryPropertyInOrderWithItsType) {
  const auto schema = nlohmann::ordered_json::parse(ostrel_algo_internal::propertySchema());
  std::vector<std::string> names;
  std::vector<std::string> types;
  for (const auto& [name, described] : schema.at("properties").items()) {
    names.push_back(name);
    types.push_back(described.at("type"));
  }
  EXPECT_THAT(column("## What `property` holds", 0), testing::ElementsAreArray(names));
  EXPECT_THAT(column("## What `property` holds", 1), testing::ElementsAreArray(types));
}

TEST(StatusPage, ListsTheWordsOfTheTracker) {
  const auto listed = column("## Words of the tracker", 0);
  const std::string source = sources_in("/tracking_runtime") + sources_in("/ostrel_plugin");
  for (const std::string& word : listed) EXPECT_NE(source.find("\"" + word), std::string::npos) << word;
  const std::set<std::string> unlisted{
      "ok_memory_ready",  // of the trace alone
      "ok_native_cpp_backend", "ok_native_cpp_hard_negative", "ok_native_cpp_uncertain",  // host images
      "invalid_scale_factor",  "invalid_config_pointer"};  // answers that reach the log alone, or nothing
  std::set<std::string> words(listed.begin(), listed.end());
  words.insert(unlisted.begin(), unlisted.end());
  const auto said =
      words_with(sources_in("/tracking_runtime/tracker/atom"),
                 {"ok_", "reacquire_t", "no_valid_", "invalid_", "missing_", "null_frame", "unknown_frame",
                  "classifier_filter", "backend_not", "gpu_affine", "gpu_tensor"});
  EXPECT_GE(said.size(), 20U);
  for (const std::string& word : said) EXPECT_EQ(words.count(word), 1U) << word;
}

TEST(StatusPage, ListsLogLinesThatTheCodeWrites) {
  const std::string source = sources_in("/ostrel_plugin");
  const std::set<std::string> composed{"[TRACK_FLOW][OT] zoom_changed",
                                       "[TRACK_FLOW][OT] zoom_changed_failed"};
  for (const auto& row : table_under(kPage, "## Log lines")) {
    ASSERT_EQ(row.size(), 4U);
    const std::string begin = composed.count(row[0]) == 0 ? row[0] : row[0].substr(row[0].rfind(' ') + 1);
    EXPECT_NE(source.find("\"" + begin), std::string::npos) << row[0];
    EXPECT_THAT(row[1], testing::AnyOf("console", "logger", "both"));
    EXPECT_EQ(row[2].empty(), row[1] == "console") << row[0];
  }
}

}  // namespace
}  // namespace ostrel_test
