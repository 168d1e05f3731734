// Model files as bytes.
#pragma once

#include <string>

namespace ostrel::backbone {

// Throws ModelError for a file that cannot be read.
std::string read_model_file(const std::string& path);

}  // namespace ostrel::backbone
