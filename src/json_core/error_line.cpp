#include "json_core/error_line.h"

#include <cstdio>

void print_error_line(const char* message, const std::string& text) {
  const std::string line = message + text + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}
