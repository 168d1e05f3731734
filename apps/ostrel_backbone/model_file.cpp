#include "model_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "model_error.h"

namespace ostrel::backbone {

std::string read_model_file(const std::string& path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file.is_open() || errno == EISDIR)
    throw ModelError("cannot read " + path + ": " + std::strerror(errno));
  return bytes;
}

}  // namespace ostrel::backbone
