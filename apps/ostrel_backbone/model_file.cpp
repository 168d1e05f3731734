#include "model_file.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "model_error.h"

namespace ostrel::backbone {

std::string read_model_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  // A folder opens, but cannot be read from.
  if (file.is_open() && std::filesystem::is_directory(path)) errno = EISDIR;
  if (!file.is_open() || std::filesystem::is_directory(path)) {
    throw ModelError("cannot read " + path + ": " + std::strerror(errno));
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace ostrel::backbone
