#include "json_core/json_text_value.h"

#include <limits>

#include "json_core/error_line.h"
#include "json_core/number_text.h"
#include "json_core/text_bytes.h"

namespace {

enum class QuotedNumber { kNone, kInteger, kDecimal };

bool read_word(const SwString& text, SwJsonValue& value) {
  if (text == "true" || text == "false") {
    value = SwJsonValue(text == "true");
    return true;
  }
  if (text != "null") return false;
  value = SwJsonValue();
  return true;
}

// An optional "-", digits, and at most one "." with a digit on at least one side of it.
QuotedNumber quoted_number(const SwString& text) {
  std::size_t digits = 0;
  std::size_t points = 0;
  for (std::size_t i = text.front() == '-' ? 1 : 0; i < text.size(); ++i) {
    if (is_digit(text[i])) {
      ++digits;
    } else if (text[i] == '.') {
      ++points;
    } else {
      return QuotedNumber::kNone;
    }
  }
  if (digits == 0 || points > 1) return QuotedNumber::kNone;
  return points == 0 ? QuotedNumber::kInteger : QuotedNumber::kDecimal;
}

// By way of single precision. What is beyond its range becomes infinite, as IEEE 754 says.
double quoted_decimal(const SwString& text) {
  static_assert(std::numeric_limits<float>::is_iec559, "narrowing rounds and overflows to infinity");
  double value = 0.0;
  if (text.parseNumericDouble(value)) return static_cast<double>(static_cast<float>(value));
  print_error_line("Invalid float conversion in SwString: ", text);
  return 0.0;
}

template <typename Number>
bool is_whole(const NumberRead<Number>& read, const SwString& text) {
  return read.length == text.size() && !read.range_error;
}

}  // namespace

SwJsonValue value_of_quoted_text(SwString text) {
  SwJsonValue value;
  if (text.empty()) return SwJsonValue(std::move(text));
  if (read_word(text, value)) return value;
  switch (quoted_number(text)) {
    case QuotedNumber::kInteger:
      return SwJsonValue(std::int64_t{text.toInt()});
    case QuotedNumber::kDecimal:
      return SwJsonValue(quoted_decimal(text));
    case QuotedNumber::kNone:
      break;
  }
  return SwJsonValue(std::move(text));
}

SwJsonValue value_of_bare_text(SwString text) {
  SwJsonValue value;
  if (text.empty()) return SwJsonValue(std::move(text));
  if (read_word(text, value)) return value;
  if (text.find_first_of(".eE") != SwString::npos) {
    const NumberRead<double> read = read_floating_point(text);
    if (is_whole(read, text)) return SwJsonValue(read.value);
  } else {
    const NumberRead<long long> read = read_integer(text, 10);
    if (is_whole(read, text)) return SwJsonValue(std::int64_t{read.value});
  }
  return SwJsonValue(std::move(text));
}
