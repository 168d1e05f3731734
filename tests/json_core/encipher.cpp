#include "json_core/encipher.h"

#include "json_core/sw_crypto.h"

std::string base64(const std::string& bytes) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    unsigned int group = 0;
    for (std::size_t j = 0; j < 3; ++j) {
      group = group << 8 | (i + j < bytes.size() ? static_cast<unsigned char>(bytes[i + j]) : 0U);
    }
    for (std::size_t j = 0; j < 4; ++j) {
      const bool is_padding = i + j > bytes.size();
      text += is_padding ? '=' : alphabet[group >> (18 - 6 * j) & 0x3FU];
    }
  }
  return text;
}

std::string encipher(const std::string& text, const std::string& key) {
  const auto bytes = SwCrypto::cryptAES_ECB({text.begin(), text.end()}, {key.begin(), key.end()}, true);
  return base64({bytes.begin(), bytes.end()});
}

std::string from_hex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}
