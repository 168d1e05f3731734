#pragma once

#include <cstddef>
#include <cstdint>

#include "json_core/sw_json_document.h"

/// One pass over a text. Each operation reads at `index`, returns false after the first error, and leaves `index`
/// on the first byte that was not consumed by then. Frames of the recursion (read_value(), read_object(),
/// read_array()) are kept small, so that nesting goes deep: what needs room is called, not inlined.
class JsonReader {
 public:
  /// All references must outlive the reader. Empties `error`.
  JsonReader(const SwJsonDocument& document, const SwString& text, std::size_t& index, const SwString& key,
             SwString& error);

  /// White space, then one value. `value` is Null at the call.
  bool read_value(SwJsonValue& value);
  /// `index` stands on the bracket.
  bool read_array(SwJsonValue& value);
  /// `index` stands on the quote.
  bool read_string(SwString& string);

 private:
  enum class Next { kItem, kEnd, kError };

  bool read_object(SwJsonValue& value);
  Next next_item(char closing, const char* unterminated);
  Next after_item(char closing, const char* unterminated, const char* unexpected);
  SwJsonValue* read_key(SwJsonObject& object);

  bool read_scalar(SwJsonValue& value);
  bool read_quoted_value(SwJsonValue& value);
  bool read_enciphered_token(SwJsonValue& value);
  SwString decipher_token(const SwString& token) const;
  bool read_boolean(SwJsonValue& value);
  bool read_null(SwJsonValue& value);
  bool read_number(SwJsonValue& value);
  bool read_integer_part();
  bool read_fraction(bool& is_double);
  bool read_exponent(bool& is_double);
  bool read_digits(const char* message);
  bool convert_number(const SwString& literal, bool is_double, SwJsonValue& value);

  bool read_escape(SwString& string);
  bool read_unicode_escape(SwString& string);
  bool read_low_surrogate(std::uint32_t& code_point);
  bool read_hex_digits(std::uint32_t& value);

  bool at_end() const { return index_ >= text_.size(); }
  bool at(char byte) const { return !at_end() && text_[index_] == byte; }
  bool at_digit() const;
  void skip_white_space();
  SwString read_letters();
  /// Reports at `index`; always false.
  bool fail(const char* message);

  const SwJsonDocument& document_;
  const SwString& text_;
  std::size_t& index_;
  const SwString& key_;
  SwString& error_;
};
