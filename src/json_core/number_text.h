#pragma once

#include <cstddef>
#include <string>

/// What a number at the start of a text gave. `length` counts the bytes read, leading white space included; 0
/// where there is no number, and never beyond a NUL byte.
template <typename Number>
struct NumberRead {
  Number value;
  std::size_t length;
  bool overflow;
  bool range_error;  ///< overflow, or a floating-point value too small for its type

  bool usable() const { return length > 0 && !overflow; }
};

/// As strtod() in the "C" locale: a host that calls setlocale() does not change what a configuration means.
NumberRead<double> read_floating_point(const std::string& text);

/// As strtoll().
NumberRead<long long> read_integer(const std::string& text, int base);

/// An optional sign, `0b` or `0B`, then digits of base 2 to the end of the text. False, with `value` untouched,
/// for anything else and for a value beyond 64 bits.
bool read_binary(const std::string& text, long long& value);

/// Whether the text, after an optional sign, starts with `0b` or `0B`.
bool has_binary_prefix(const std::string& text);
