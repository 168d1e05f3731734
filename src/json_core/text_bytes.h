#pragma once

// Classes of bytes as the "C" locale has them. The functions of <cctype> follow the host's setlocale() and are
// undefined for bytes above 127 where `char` is signed.

inline bool is_digit(char byte) {
  return byte >= '0' && byte <= '9';
}

inline bool is_letter(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

/// Blank, tab, line feed, vertical tab, form feed, carriage return.
inline bool is_white_space(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}
