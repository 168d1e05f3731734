#include "json_core/json_reader.h"

#include <exception>

#include "json_core/error_line.h"
#include "json_core/json_text_value.h"
#include "json_core/number_text.h"
#include "json_core/sw_crypto.h"
#include "json_core/text_bytes.h"

namespace {

[[gnu::noinline]] SwJsonObject& start_object(SwJsonValue& value) {
  value = SwJsonValue(SwJsonObject{});
  return *value.object_value;
}

[[gnu::noinline]] SwJsonArray& start_array(SwJsonValue& value) {
  value = SwJsonValue(SwJsonArray{});
  return *value.array_value;
}

}  // namespace

JsonReader::JsonReader(const SwJsonDocument& document, const SwString& text, std::size_t& index,
                       const SwString& key, SwString& error)
    : document_(document), text_(text), index_(index), key_(key), error_(error) {
  error_.clear();
}

[[gnu::noinline]] bool JsonReader::fail(const char* message) {
  document_.reportError(error_, text_, index_, message);
  return false;
}

bool JsonReader::at_digit() const {
  return !at_end() && is_digit(text_[index_]);
}

void JsonReader::skip_white_space() {
  while (!at_end() && is_white_space(text_[index_])) ++index_;
}

bool JsonReader::read_value(SwJsonValue& value) {
  skip_white_space();
  if (at('{')) return read_object(value);
  if (at('[')) return read_array(value);
  return read_scalar(value);
}

bool JsonReader::read_object(SwJsonValue& value) {
  constexpr const char* kUnterminated = "Unterminated JSON object";
  SwJsonObject& object = start_object(value);
  ++index_;
  Next next = next_item('}', kUnterminated);
  while (next == Next::kItem) {
    SwJsonValue* member = read_key(object);
    if (member == nullptr || !read_value(*member)) return false;
    next = after_item('}', kUnterminated, "Expected ',' or '}' in object");
  }
  return next == Next::kEnd;
}

bool JsonReader::read_array(SwJsonValue& value) {
  constexpr const char* kUnterminated = "Unterminated JSON array";
  SwJsonArray& array = start_array(value);
  ++index_;
  Next next = next_item(']', kUnterminated);
  while (next == Next::kItem) {
    array.elements.emplace_back();
    if (!read_value(array.elements.back())) return false;
    next = after_item(']', kUnterminated, "Expected ',' or ']' in array");
  }
  return next == Next::kEnd;
}

// After the opening bracket or a comma. The closing bracket is taken in both places.
[[gnu::noinline]] JsonReader::Next JsonReader::next_item(char closing, const char* unterminated) {
  skip_white_space();
  if (at_end()) {
    fail(unterminated);
    return Next::kError;
  }
  if (!at(closing)) return Next::kItem;
  ++index_;
  return Next::kEnd;
}

[[gnu::noinline]] JsonReader::Next JsonReader::after_item(char closing, const char* unterminated,
                                                          const char* unexpected) {
  skip_white_space();
  if (at(',')) {
    ++index_;
    return next_item(closing, unterminated);
  }
  if (at(closing)) {
    ++index_;
    return Next::kEnd;
  }
  fail(at_end() ? unterminated : unexpected);
  return Next::kError;
}

// The place of the value, empty also where the key stood before; null on an error.
[[gnu::noinline]] SwJsonValue* JsonReader::read_key(SwJsonObject& object) {
  if (!at('"')) {
    fail("Expected string key in object");
    return nullptr;
  }
  SwString name;
  if (!read_string(name)) return nullptr;
  skip_white_space();
  if (!at(':')) {
    fail("Expected ':' after object key");
    return nullptr;
  }
  ++index_;
  SwJsonValue& member = object.members[std::move(name)];
  member = SwJsonValue();
  return &member;
}

[[gnu::noinline]] bool JsonReader::read_scalar(SwJsonValue& value) {
  if (at_end()) return fail("Unexpected end of JSON input");
  if (at('"')) return read_quoted_value(value);
  const bool may_be_plain = at('-') || at_digit() || at('t') || at('f') || at('n');
  if (!may_be_plain && key_.empty()) return fail("Invalid JSON token");
  if (!key_.empty()) {
    if (read_enciphered_token(value)) return true;
    if (!error_.empty()) return false;
  }
  if (at('t') || at('f')) return read_boolean(value);
  if (at('n')) return read_null(value);
  return read_number(value);
}

bool JsonReader::read_quoted_value(SwJsonValue& value) {
  SwString string;
  if (!read_string(string)) return false;
  if (!key_.empty()) string = string.decryptAES(key_);
  value = value_of_quoted_text(std::move(string));
  return true;
}

// False without an error where there is no token.
bool JsonReader::read_enciphered_token(SwJsonValue& value) {
  std::size_t end = index_;
  while (end < text_.size() && !is_white_space(text_[end]) && text_[end] != ']' && text_[end] != '}' &&
         text_[end] != ',') {
    ++end;
  }
  if (end == index_) return false;
  try {
    value = value_of_bare_text(decipher_token(text_.substr(index_, end - index_)));
  } catch (const std::exception&) {
    return fail("Unable to decrypt string value");
  }
  index_ = end;
  return true;
}

SwString JsonReader::decipher_token(const SwString& token) const {
  try {
    return SwCrypto::decryptAES(token, key_);
  } catch (const std::exception& failure) {
    print_error_line("Decryption error: ", failure.what());
    return {};
  }
}

SwString JsonReader::read_letters() {
  const std::size_t begin = index_;
  while (!at_end() && is_letter(text_[index_])) ++index_;
  return text_.substr(begin, index_ - begin);
}

bool JsonReader::read_boolean(SwJsonValue& value) {
  const SwString word = read_letters();
  if (word != "true" && word != "false") return fail("Invalid boolean literal");
  value = SwJsonValue(word == "true");
  return true;
}

bool JsonReader::read_null(SwJsonValue& value) {
  if (read_letters() != "null") return fail("Invalid literal, expected 'null'");
  value = SwJsonValue();
  return true;
}

bool JsonReader::read_number(SwJsonValue& value) {
  const std::size_t begin = index_;
  bool is_double = false;
  if (!read_integer_part() || !read_fraction(is_double) || !read_exponent(is_double)) return false;
  return convert_number(text_.substr(begin, index_ - begin), is_double, value);
}

bool JsonReader::read_integer_part() {
  if (at('-')) ++index_;
  if (!at('0')) return read_digits("Expected digit in number literal");
  ++index_;
  return !at_digit() || fail("Leading zeros are not allowed in JSON numbers");
}

bool JsonReader::read_fraction(bool& is_double) {
  if (!at('.')) return true;
  is_double = true;
  ++index_;
  return read_digits("Expected digit after decimal point");
}

bool JsonReader::read_exponent(bool& is_double) {
  if (!at('e') && !at('E')) return true;
  is_double = true;
  ++index_;
  if (at('+') || at('-')) ++index_;
  return read_digits("Expected digit in exponent");
}

// At least one.
bool JsonReader::read_digits(const char* message) {
  if (!at_digit()) return fail(message);
  while (at_digit()) ++index_;
  return true;
}

bool JsonReader::convert_number(const SwString& literal, bool is_double, SwJsonValue& value) {
  if (is_double) {
    const NumberRead<double> read = read_floating_point(literal);
    if (read.length != literal.size() || read.overflow) return fail("Invalid floating-point number");
    value = SwJsonValue(read.value);
    return true;
  }
  const NumberRead<long long> read = read_integer(literal, 10);
  if (read.length != literal.size() || read.overflow) return fail("Invalid integer number");
  value = SwJsonValue(std::int64_t{read.value});
  return true;
}
