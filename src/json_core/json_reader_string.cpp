#include "json_core/json_reader.h"
#include "json_core/text_bytes.h"

// Strings of JsonReader: escapes and UTF-8.

namespace {

constexpr std::uint32_t kFirstHighSurrogate = 0xD800;
constexpr std::uint32_t kFirstLowSurrogate = 0xDC00;
constexpr std::uint32_t kLastLowSurrogate = 0xDFFF;

char byte_of(std::uint32_t value) {
  return static_cast<char>(static_cast<unsigned char>(value));
}

// The lowest six bits below `shift`, as a byte that continues a sequence.
char continuation(std::uint32_t code_point, unsigned int shift) {
  return byte_of(0x80U | (code_point >> shift & 0x3FU));
}

void append_utf8(SwString& string, std::uint32_t code_point) {
  if (code_point < 0x80) {
    string += byte_of(code_point);
  } else if (code_point < 0x800) {
    string += {byte_of(0xC0U | code_point >> 6), continuation(code_point, 0)};
  } else if (code_point < 0x10000) {
    string += {byte_of(0xE0U | code_point >> 12), continuation(code_point, 6), continuation(code_point, 0)};
  } else {
    string += {byte_of(0xF0U | code_point >> 18), continuation(code_point, 12), continuation(code_point, 6),
               continuation(code_point, 0)};
  }
}

// 16 and above for no hexadecimal digit.
std::uint32_t hex_digit(char byte) {
  if (is_digit(byte)) return static_cast<std::uint32_t>(byte - '0');
  if (byte >= 'a' && byte <= 'f') return static_cast<std::uint32_t>(byte - 'a' + 10);
  if (byte >= 'A' && byte <= 'F') return static_cast<std::uint32_t>(byte - 'A' + 10);
  return 16;
}

// What stands for a character after a backslash; 0 for none.
char simple_escape(char byte) {
  switch (byte) {
    case '"':
    case '\\':
    case '/':
      return byte;
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return '\0';
  }
}

}  // namespace

bool JsonReader::read_string(SwString& string) {
  ++index_;
  while (!at_end()) {
    const char byte = text_[index_];
    if (byte == '\\') {
      if (!read_escape(string)) return false;
      continue;
    }
    if (static_cast<unsigned char>(byte) < 32) return fail("Unescaped control character in string");
    ++index_;
    if (byte == '"') return true;
    string += byte;
  }
  return fail("Unterminated string literal");
}

bool JsonReader::read_escape(SwString& string) {
  ++index_;
  if (at_end()) return fail("Invalid escape sequence in string");
  if (at('u')) return read_unicode_escape(string);
  const char byte = simple_escape(text_[index_]);
  if (byte == '\0') return fail("Invalid escape character in string");
  ++index_;
  string += byte;
  return true;
}

bool JsonReader::read_unicode_escape(SwString& string) {
  std::uint32_t code_point = 0;
  if (!read_hex_digits(code_point)) return false;
  if (code_point >= kFirstLowSurrogate && code_point <= kLastLowSurrogate) {
    return fail("Unexpected low surrogate without leading high surrogate");
  }
  const bool is_high_surrogate = code_point >= kFirstHighSurrogate && code_point < kFirstLowSurrogate;
  if (is_high_surrogate && !read_low_surrogate(code_point)) return false;
  append_utf8(string, code_point);
  return true;
}

// Makes the code point of the pair from the high surrogate that was read.
bool JsonReader::read_low_surrogate(std::uint32_t& code_point) {
  if (text_.compare(index_, 2, "\\u") != 0) return fail("Missing low surrogate after high surrogate");
  ++index_;
  std::uint32_t low = 0;
  if (!read_hex_digits(low)) return false;
  if (low < kFirstLowSurrogate || low > kLastLowSurrogate) {
    return fail("Invalid low surrogate in Unicode escape");
  }
  code_point = 0x10000U + ((code_point - kFirstHighSurrogate) << 10) + (low - kFirstLowSurrogate);
  return true;
}

// The `u` and four digits.
bool JsonReader::read_hex_digits(std::uint32_t& value) {
  ++index_;
  if (text_.size() - index_ < 4) return fail("Incomplete Unicode escape sequence");
  for (int i = 0; i < 4; ++i) {
    const std::uint32_t digit = hex_digit(text_[index_]);
    if (digit > 15) return fail("Invalid hex digit in Unicode escape");
    value = value << 4 | digit;
    ++index_;
  }
  return true;
}
