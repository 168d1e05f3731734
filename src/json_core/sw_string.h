#pragma once

#include <string>
#include <utility>

/// A string of bytes with the numeric and cipher conveniences that the JSON parser needs. It adds no members.
/// Numbers read the same under every locale of the host.
class SwString : public std::string {
 public:
  using std::string::string;
  SwString() = default;
  SwString(const std::string& text) : std::string(text) {}  // NOLINT(google-explicit-constructor)
  SwString(std::string&& text) noexcept
      : std::string(std::move(text)) {}  // NOLINT(google-explicit-constructor)

  /// The text as a signed 32-bit integer: blanks at both ends and all underscores left out, an optional sign,
  /// then `0b` digits of base 2, or whatever `strtoll` reads in base 0, trailing characters ignored. On
  /// failure a line on standard error, 0, and false in `ok`; `ok` may be null.
  int toInt(bool* ok = nullptr) const;

  /// Up to `length` bytes from `position`: all the rest for a negative or too large length, nothing for a
  /// position outside the text.
  SwString mid(int position, int length) const;

  /// The text as a number in any of the forms of toInt() or strtod(), trailing characters ignored: a text with
  /// a ".", "e" or "E" as strtod() reads it, where that works. False, with `out` untouched, for none.
  bool parseNumericDouble(double& out) const;

  /// The text, Base64 of AES-256 in ECB mode, deciphered with `key`. A text that fails to decipher gives
  /// an empty string and a line on standard error.
  SwString decryptAES(const SwString& key) const;
};
