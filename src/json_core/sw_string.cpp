#include "json_core/sw_string.h"

#include <algorithm>
#include <exception>
#include <limits>

#include "json_core/error_line.h"
#include "json_core/number_text.h"
#include "json_core/sw_crypto.h"

namespace {

// Blanks at both ends go first: an underscore at an end protects the blanks inside it.
std::string compact_number_text(const std::string& text) {
  constexpr const char* kBlanks = " \t\n\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return {};
  std::string compact = text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
  compact.erase(std::remove(compact.begin(), compact.end(), '_'), compact.end());
  return compact;
}

bool read_int64(const std::string& text, long long& value) {
  if (has_binary_prefix(text)) return read_binary(text, value);
  const NumberRead<long long> read = read_integer(text, 0);
  if (!read.usable()) return false;
  value = read.value;
  return true;
}

bool fits_int(long long value) {
  return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
}

bool read_usable_double(const std::string& text, double& out) {
  const NumberRead<double> read = read_floating_point(text);
  if (!read.usable()) return false;
  out = read.value;
  return true;
}

bool read_usable_integer(const std::string& text, double& out) {
  long long binary = 0;
  if (read_binary(text, binary)) {
    out = static_cast<double>(binary);
    return true;
  }
  const NumberRead<long long> read = read_integer(text, 0);
  if (!read.usable()) return false;
  out = static_cast<double>(read.value);
  return true;
}

}  // namespace

int SwString::toInt(bool* ok) const {
  long long value = 0;
  const bool success = read_int64(compact_number_text(*this), value) && fits_int(value);
  if (!success) print_error_line("Invalid int conversion in SwString: ", *this);
  if (ok != nullptr) *ok = success;
  return success ? static_cast<int>(value) : 0;
}

SwString SwString::mid(int position, int length) const {
  if (position < 0 || static_cast<std::size_t>(position) >= size()) return {};
  const std::size_t count = length < 0 ? npos : static_cast<std::size_t>(length);
  return substr(static_cast<std::size_t>(position), count);
}

bool SwString::parseNumericDouble(double& out) const {
  const std::string text = compact_number_text(*this);
  if (text.empty()) return false;
  if (text.find_first_of(".eE") != npos && read_usable_double(text, out)) return true;
  return read_usable_integer(text, out) || read_usable_double(text, out);
}

SwString SwString::decryptAES(const SwString& key) const {
  try {
    return SwCrypto::decryptAES(*this, key);
  } catch (const std::exception& failure) {
    print_error_line("Decryption error: ", failure.what());
    return {};
  }
}
