#pragma once

#include <string>
#include <string_view>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// False, with `text` in a non-null `error`: how an operation says no.
inline bool refuse(std::string_view text, std::string* error) {
  if (error != nullptr) *error = text;
  return false;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
