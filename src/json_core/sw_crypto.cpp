#include "json_core/sw_crypto.h"

#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <stdexcept>

#include "json_core/aes_ecb_cipher.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kBlockBytes = 16;
constexpr std::size_t kTextKeyBytes = 32;

struct ContextDeleter {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, ContextDeleter>;

Bytes sha256(const std::string& text) {
  const EVP_MD* digest = EVP_sha256();
  if (digest == nullptr) throw std::runtime_error("EVP sha algo unavailable.");
  const DigestContext context(EVP_MD_CTX_new());
  if (!context) throw std::runtime_error("EVP_MD_CTX_new failed.");
  Bytes hash(EVP_MAX_MD_SIZE);
  unsigned int hash_bytes = 0;
  const bool success = EVP_DigestInit_ex(context.get(), digest, nullptr) == 1 &&
                       EVP_DigestUpdate(context.get(), text.data(), text.size()) == 1 &&
                       EVP_DigestFinal_ex(context.get(), hash.data(), &hash_bytes) == 1;
  if (!success) throw std::runtime_error("EVP digest operation failed.");
  hash.resize(hash_bytes);
  return hash;
}

Bytes derived_key(const std::string& key) {
  if (key.size() == kTextKeyBytes) return {key.begin(), key.end()};
  return sha256(key);
}

constexpr int kOutsideAlphabet = -1;

int base64_digit(char symbol) {
  if (symbol >= 'A' && symbol <= 'Z') return symbol - 'A';
  if (symbol >= 'a' && symbol <= 'z') return symbol - 'a' + 26;
  if (symbol >= '0' && symbol <= '9') return symbol - '0' + 52;
  if (symbol == '+') return 62;
  if (symbol == '/') return 63;
  return kOutsideAlphabet;
}

Bytes decode_base64(const std::string& text) {
  Bytes decoded;
  decoded.reserve(text.size() / 4 * 3 + 3);
  unsigned int bits = 0;
  int bit_count = 0;
  for (const char symbol : text) {
    const int digit = base64_digit(symbol);
    if (digit == kOutsideAlphabet) break;
    bits = (bits << 6 | static_cast<unsigned int>(digit)) & 0xFFFU;
    bit_count += 6;
    if (bit_count < 8) continue;
    bit_count -= 8;
    decoded.push_back(static_cast<unsigned char>(bits >> bit_count & 0xFFU));
  }
  return decoded;
}

void remove_valid_padding(Bytes& data) {
  const std::size_t padding = data.back();
  if (padding < 1 || padding > kBlockBytes || padding > data.size()) return;
  const auto first = data.end() - static_cast<std::ptrdiff_t>(padding);
  if (std::all_of(first, data.end(), [&](unsigned char byte) { return byte == padding; })) {
    data.erase(first, data.end());
  }
}

Bytes with_padding(Bytes data) {
  const std::size_t padding = kBlockBytes - data.size() % kBlockBytes;
  data.insert(data.end(), padding, static_cast<unsigned char>(padding));
  return data;
}

// False for any failure of the library. One call takes at most INT_MAX bytes.
bool run_cipher(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const Bytes& key, bool encrypt,
                const Bytes& input, Bytes& output) {
  if (input.size() > INT_MAX - kBlockBytes) return false;
  output.resize(input.size() + kBlockBytes);
  int updated = 0;
  int finished = 0;
  const bool success =
      EVP_CipherInit_ex(context, cipher, nullptr, key.data(), nullptr, encrypt ? 1 : 0) == 1 &&
      EVP_CIPHER_CTX_set_padding(context, 0) == 1 &&
      EVP_CipherUpdate(context, output.data(), &updated, input.data(), static_cast<int>(input.size())) == 1 &&
      EVP_CipherFinal_ex(context, output.data() + updated, &finished) == 1;
  if (success) output.resize(static_cast<std::size_t>(updated) + static_cast<std::size_t>(finished));
  return success;
}

const EVP_CIPHER* library_cipher(std::size_t key_bytes) {
  switch (key_bytes) {
    case 16:
      return EVP_aes_128_ecb();
    case 24:
      return EVP_aes_192_ecb();
    case 32:
      return EVP_aes_256_ecb();
    default:
      throw std::invalid_argument("Invalid AES key size.");
  }
}

}  // namespace

const EVP_CIPHER* aes_ecb_cipher(std::size_t key_bytes) {
  const EVP_CIPHER* cipher = library_cipher(key_bytes);
  if (cipher == nullptr) throw std::runtime_error("EVP AES cipher unavailable.");
  return cipher;
}

std::string SwCrypto::decryptAES(const std::string& text, const std::string& key) {
  const Bytes cipher_key = derived_key(key);
  Bytes data = cryptAES_ECB(decode_base64(text), cipher_key, false);
  if (data.empty()) throw std::invalid_argument("Invalid data: empty.");
  remove_valid_padding(data);
  return {data.begin(), data.end()};
}

std::vector<unsigned char> SwCrypto::cryptAES_ECB(const std::vector<unsigned char>& data,
                                                  const std::vector<unsigned char>& key, bool encrypt) {
  if (key.size() != 16 && key.size() != 24 && key.size() != 32) {
    throw std::invalid_argument("Invalid AES key size. Key must be 16, 24, or 32 bytes.");
  }
  if (!encrypt && data.size() % kBlockBytes != 0) {
    throw std::invalid_argument("Invalid data size for AES-ECB (must be multiple of 16).");
  }
  const EVP_CIPHER* cipher = aes_ecb_cipher(key.size());
  const CipherContext context(EVP_CIPHER_CTX_new());
  if (!context) throw std::runtime_error("EVP_CIPHER_CTX_new failed.");
  Bytes output;
  if (!run_cipher(context.get(), cipher, key, encrypt, encrypt ? with_padding(data) : data, output)) {
    throw std::runtime_error(encrypt ? "EVP AES encrypt failed." : "EVP AES decrypt failed.");
  }
  return output;
}
