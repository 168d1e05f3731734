#pragma once

#include <string>

// A key of 32 bytes.
inline const std::string kCipherKey = "0123456789abcdefghijklmnopqrstuv";

// The enciphered form of a text under a key of 32 bytes: AES-256 in ECB mode, then Base64 with `=` padding.
std::string encipher(const std::string& text, const std::string& key);

std::string base64(const std::string& bytes);

// The bytes that two hexadecimal digits each name.
std::string from_hex(const std::string& hex);
