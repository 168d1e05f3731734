#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>

namespace ostrel_test {

/// A folder of its own for a test, gone with this object.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / ("ostrel_test_" + token())) {
    if (!std::filesystem::create_directory(path_)) throw std::runtime_error("exists: " + path_.string());
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string path(const std::string& name) const { return (path_ / name).string(); }

  /// Writes a file of these bytes and returns its path.
  std::string file(const std::string& name, const std::string& bytes) const {
    std::ofstream stream(path_ / name, std::ios::binary | std::ios::trunc);
    if (!stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
      throw std::runtime_error("not written: " + path(name));
    }
    return path(name);
  }

 private:
  static std::string token() {
    std::random_device source;
    return std::to_string(source()) + "_" + std::to_string(source());
  }

  std::filesystem::path path_;
};

/// The bytes of a file; none when it cannot be read.
inline std::string content_of(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace ostrel_test
