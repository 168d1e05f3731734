#pragma once

#include <iosfwd>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ostrel_test {

/// Records both log paths while it lives: what goes to std::cout and what goes to the loggers, from any thread.
/// One at a time.
class RecordedLog {
 public:
  RecordedLog();
  ~RecordedLog();
  RecordedLog(const RecordedLog&) = delete;
  RecordedLog& operator=(const RecordedLog&) = delete;

  /// Messages of the logger "OstrelAlgo" by level; anything else makes the test fail.
  std::vector<std::string> infos() const;
  std::vector<std::string> warnings() const;
  /// Lines of the console, without the prefix; a line without it makes the test fail.
  std::vector<std::string> console() const;
  /// All of it, raw.
  std::string consoleText() const;
  void clear();

 private:
  std::ostringstream console_;
  std::streambuf* previous_;
};

/// Whether the text reads like the pattern, in which <n> stands for a whole number, <f> for a number with three
/// decimals, <p> for an address and <*> for anything.
bool readsLike(const std::string& text, const std::string& pattern);

}  // namespace ostrel_test
