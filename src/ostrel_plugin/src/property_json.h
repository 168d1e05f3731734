#pragma once

#include <string>

namespace ostrel_algo_internal {

/// Text for the inside of a JSON string. Quote, backslash and the five named controls get their two-character
/// escapes, every other control byte becomes a blank, all other bytes pass unchanged.
std::string jsonEscape(const std::string& text);

/// The JSON Schema of what `property` answers; NUL-terminated and constant for the life of the process.
const char* propertySchema() noexcept;

}  // namespace ostrel_algo_internal
