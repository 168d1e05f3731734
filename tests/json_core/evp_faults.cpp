#include "json_core/evp_faults.h"

#include <openssl/evp.h>

namespace {

std::string failing_call;
EvpFault failing_how = EvpFault::kNone;
int live_contexts = 0;

bool fails(const char* call) {
  if (failing_call != call) return false;
  if (failing_how == EvpFault::kThrow) throw 42;
  return failing_how == EvpFault::kFail;
}

}  // namespace

void fail_evp(const std::string& call, EvpFault fault) {
  failing_call = call;
  failing_how = fault;
}

void heal_evp() {
  fail_evp("", EvpFault::kNone);
}

int live_evp_contexts() {
  return live_contexts;
}

// The linker sends calls of NAME to __wrap_NAME, and those of __real_NAME to the library.
#define WRAP(result, name, parameters, arguments, failure)     \
  result __real_##name parameters;                             \
  result __wrap_##name parameters;                             \
  result __wrap_##name parameters {                            \
    return fails(#name) ? (failure) : __real_##name arguments; \
  }

extern "C" {

WRAP(const EVP_MD*, EVP_sha256, (), (), nullptr)
WRAP(int, EVP_DigestInit_ex, (EVP_MD_CTX * context, const EVP_MD* type, ENGINE* engine),
     (context, type, engine), 0)
WRAP(int, EVP_DigestUpdate, (EVP_MD_CTX * context, const void* data, std::size_t size), (context, data, size),
     0)
WRAP(int, EVP_DigestFinal_ex, (EVP_MD_CTX * context, unsigned char* hash, unsigned int* size),
     (context, hash, size), 0)
WRAP(const EVP_CIPHER*, EVP_aes_128_ecb, (), (), nullptr)
WRAP(const EVP_CIPHER*, EVP_aes_192_ecb, (), (), nullptr)
WRAP(const EVP_CIPHER*, EVP_aes_256_ecb, (), (), nullptr)
WRAP(int, EVP_CIPHER_CTX_set_padding, (EVP_CIPHER_CTX * context, int padding), (context, padding), 0)
WRAP(int, EVP_CipherInit_ex,
     (EVP_CIPHER_CTX * context, const EVP_CIPHER* cipher, ENGINE* engine, const unsigned char* key,
      const unsigned char* vector, int encrypt),
     (context, cipher, engine, key, vector, encrypt), 0)
WRAP(int, EVP_CipherUpdate,
     (EVP_CIPHER_CTX * context, unsigned char* output, int* output_size, const unsigned char* input,
      int input_size),
     (context, output, output_size, input, input_size), 0)
WRAP(int, EVP_CipherFinal_ex, (EVP_CIPHER_CTX * context, unsigned char* output, int* output_size),
     (context, output, output_size), 0)

EVP_MD_CTX* __real_EVP_MD_CTX_new();
EVP_MD_CTX* __wrap_EVP_MD_CTX_new();
void __real_EVP_MD_CTX_free(EVP_MD_CTX* context);
void __wrap_EVP_MD_CTX_free(EVP_MD_CTX* context);
EVP_CIPHER_CTX* __real_EVP_CIPHER_CTX_new();
EVP_CIPHER_CTX* __wrap_EVP_CIPHER_CTX_new();
void __real_EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context);
void __wrap_EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context);

EVP_MD_CTX* __wrap_EVP_MD_CTX_new() {
  if (fails("EVP_MD_CTX_new")) return nullptr;
  ++live_contexts;
  return __real_EVP_MD_CTX_new();
}

void __wrap_EVP_MD_CTX_free(EVP_MD_CTX* context) {
  if (context != nullptr) --live_contexts;
  __real_EVP_MD_CTX_free(context);
}

EVP_CIPHER_CTX* __wrap_EVP_CIPHER_CTX_new() {
  if (fails("EVP_CIPHER_CTX_new")) return nullptr;
  ++live_contexts;
  return __real_EVP_CIPHER_CTX_new();
}

void __wrap_EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context) {
  if (context != nullptr) --live_contexts;
  __real_EVP_CIPHER_CTX_free(context);
}

}  // extern "C"
