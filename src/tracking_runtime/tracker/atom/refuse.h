#pragma once

#include <string>
#include <string_view>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// False, with `text` in a non-null `error`: how an operation says no.
inline bool refuse(std::string_view text, std::string* error) {
  if (error != nullptr) *error = text;
  return false;
}

/// What a failed step says of itself, or `otherwise` when it said nothing.
inline std::string text_or(const std::string& text, const char* otherwise) {
  return text.empty() ? otherwise : text;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
