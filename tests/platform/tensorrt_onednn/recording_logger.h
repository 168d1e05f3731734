#pragma once

#include <NvInfer.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ostrel::testing {

// Keeps what was logged; may be written from several threads.
class RecordingLogger final : public nvinfer1::ILogger {
 public:
  void log(Severity severity, const char* text) noexcept override {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(severity, text);
  }

  std::vector<std::string> lines(Severity severity) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> found;
    for (const auto& [level, text] : lines_) {
      if (level == severity) found.push_back(text);
    }
    return found;
  }

  // All lines at kERROR, each with a newline.
  std::string errors() const {
    std::string all;
    for (const std::string& line : lines(Severity::kERROR)) all += line + "\n";
    return all;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<Severity, std::string>> lines_;
};

}  // namespace ostrel::testing
