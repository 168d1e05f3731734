#pragma once

#include <string>
#include <vector>

/// AES in ECB mode over OpenSSL's EVP interface. Every operation is reentrant and reports by exceptions.
class SwCrypto {
 public:
  /// Deciphers Base64 text. A key of 32 bytes is used as it is, any other through SHA-256. Base64 ends at the
  /// first character outside its alphabet. Valid PKCS#7 padding is removed, anything else is left whole: a
  /// wrong key gives garbage, not an error. Throws std::invalid_argument or std::runtime_error.
  static std::string decryptAES(const std::string& text, const std::string& key);

  /// Runs the cipher with a key of 16, 24 or 32 bytes. Encryption appends PKCS#7 padding, also to whole
  /// blocks; decryption wants whole blocks and leaves the padding to the caller. Throws std::invalid_argument
  /// for sizes, std::runtime_error for a failure of the library.
  static std::vector<unsigned char> cryptAES_ECB(const std::vector<unsigned char>& data,
                                                 const std::vector<unsigned char>& key, bool encrypt);
};
