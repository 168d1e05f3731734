#pragma once

#include <openssl/evp.h>

#include <cstddef>

/// The cipher of AES in ECB mode for a key of 16, 24 or 32 bytes; owned by the library. Throws
/// std::invalid_argument for another size, std::runtime_error where the library has none.
const EVP_CIPHER* aes_ecb_cipher(std::size_t key_bytes);
