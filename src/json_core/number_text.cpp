#include "json_core/number_text.h"

#include <locale.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace {

locale_t c_locale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

std::size_t sign_length(const std::string& text) {
  return !text.empty() && (text.front() == '+' || text.front() == '-') ? 1 : 0;
}

}  // namespace

NumberRead<double> read_floating_point(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const double value = strtod_l(text.c_str(), &end, c_locale());
  const bool range_error = errno == ERANGE;
  return {value, static_cast<std::size_t>(end - text.c_str()), range_error && std::isinf(value), range_error};
}

NumberRead<long long> read_integer(const std::string& text, int base) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, base);
  const bool range_error = errno == ERANGE;
  return {value, static_cast<std::size_t>(end - text.c_str()), range_error, range_error};
}

bool has_binary_prefix(const std::string& text) {
  const std::size_t sign = sign_length(text);
  return text.compare(sign, 2, "0b") == 0 || text.compare(sign, 2, "0B") == 0;
}

bool read_binary(const std::string& text, long long& value) {
  if (!has_binary_prefix(text)) return false;
  const std::size_t sign = sign_length(text);
  const std::string digits = text.substr(sign + 2);
  if (digits.empty() || digits.find_first_not_of("01") != std::string::npos) return false;
  const NumberRead<long long> read = read_integer(text.substr(0, sign) + digits, 2);
  if (!read.usable()) return false;
  value = read.value;
  return true;
}
