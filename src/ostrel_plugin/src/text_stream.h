#pragma once

#include <locale>
#include <sstream>

namespace ostrel_algo_internal {

/// A text stream in its default state, with six significant digits, whatever locale the host's process has.
inline std::ostringstream plainStream() {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  return stream;
}

}  // namespace ostrel_algo_internal
