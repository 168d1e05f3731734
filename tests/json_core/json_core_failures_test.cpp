// Failures of the cipher library and of memory.

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "json_core/encipher.h"
#include "json_core/evp_faults.h"
#include "json_core/parse_text.h"
#include "json_core/sw_crypto.h"
#include "json_core/sw_json_document.h"
#include "support/heap_counter.h"

namespace {

using Bytes = std::vector<unsigned char>;

class JsonCoreFailures : public testing::Test {
 protected:
  void TearDown() override {
    heal_evp();
    ostrel_test::fail_heap_allocations_of(0);
    EXPECT_EQ(live_evp_contexts(), 0) << "every context is freed";
  }
};

template <typename Call>
std::string runtime_error_of(Call call) {
  try {
    call();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

TEST_F(JsonCoreFailures, OfTheDigestAreNamed) {
  const std::pair<const char*, const char*> cases[] = {
      {"EVP_sha256", "EVP sha algo unavailable."},
      {"EVP_MD_CTX_new", "EVP_MD_CTX_new failed."},
      {"EVP_DigestInit_ex", "EVP digest operation failed."},
      {"EVP_DigestUpdate", "EVP digest operation failed."},
      {"EVP_DigestFinal_ex", "EVP digest operation failed."},
  };
  const std::string text = encipher("text", kCipherKey);
  for (const auto& [call, message] : cases) {
    fail_evp(call);
    EXPECT_EQ(runtime_error_of([&] { SwCrypto::decryptAES(text, "short key"); }), message) << call;
    EXPECT_EQ(SwCrypto::decryptAES(text, kCipherKey), "text") << "a key of 32 bytes needs no digest";
    EXPECT_EQ(live_evp_contexts(), 0) << call;
  }
}

TEST_F(JsonCoreFailures, OfTheCipherAreNamedForEachKeySize) {
  const std::pair<std::size_t, const char*> ciphers[] = {
      {16, "EVP_aes_128_ecb"}, {24, "EVP_aes_192_ecb"}, {32, "EVP_aes_256_ecb"}};
  for (const auto& [key_bytes, call] : ciphers) {
    for (const std::size_t size : {16U, 24U, 32U}) {
      fail_evp(call);
      const std::string expected = size == key_bytes ? "EVP AES cipher unavailable." : "nothing thrown";
      EXPECT_EQ(runtime_error_of([&, size = size] { SwCrypto::cryptAES_ECB(Bytes(16), Bytes(size), true); }),
                expected)
          << call << " for " << size;
    }
  }
  fail_evp("EVP_CIPHER_CTX_new");
  EXPECT_EQ(runtime_error_of([] { SwCrypto::cryptAES_ECB(Bytes(16), Bytes(32), true); }),
            "EVP_CIPHER_CTX_new failed.");
}

TEST_F(JsonCoreFailures, OfACipherStepNameTheDirection) {
  for (const char* call :
       {"EVP_CipherInit_ex", "EVP_CIPHER_CTX_set_padding", "EVP_CipherUpdate", "EVP_CipherFinal_ex"}) {
    fail_evp(call);
    EXPECT_EQ(runtime_error_of([] { SwCrypto::cryptAES_ECB(Bytes(16), Bytes(32), true); }),
              "EVP AES encrypt failed.")
        << call;
    EXPECT_EQ(runtime_error_of([] { SwCrypto::cryptAES_ECB(Bytes(16), Bytes(32), false); }),
              "EVP AES decrypt failed.")
        << call;
    EXPECT_EQ(live_evp_contexts(), 0) << call;
  }
}

TEST_F(JsonCoreFailures, OfTheCipherMakeAnEmptyTextWithALine) {
  const std::string text = encipher("text", kCipherKey);
  fail_evp("EVP_CipherUpdate");
  testing::internal::CaptureStderr();
  EXPECT_EQ(SwString(text).decryptAES(kCipherKey), "");
  EXPECT_EQ(describe(parse_text("[\"" + text + "\"," + text + "]", kCipherKey).value), "[s:\"\",s:\"\"]");
  const std::string line = "Decryption error: EVP AES decrypt failed.\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line);
}

TEST_F(JsonCoreFailures, LetOtherExceptionsPass) {
  const std::string text = encipher("text", kCipherKey);
  fail_evp("EVP_CipherUpdate", EvpFault::kThrow);
  EXPECT_THROW(SwString(text).decryptAES(kCipherKey), int);
  EXPECT_THROW(parse_text(text, kCipherKey), int);
}

TEST_F(JsonCoreFailures, OfMemoryWhileATokenIsReadAreAnErrorOfTheDocument) {
  constexpr std::size_t kTokenBytes = 100000;
  const std::string document = "[" + std::string(kTokenBytes, 'A') + "]";
  const std::string extract = document.substr(0, 21);
  std::size_t index = 0;
  SwString error;
  ostrel_test::fail_heap_allocations_of(kTokenBytes + 1);
  const SwJsonValue value = SwJsonDocument().parseJson(document, index, kCipherKey, error);
  ostrel_test::fail_heap_allocations_of(0);
  EXPECT_EQ(error, "Unable to decrypt string value (index 1) near \"" + extract + "\"");
  EXPECT_EQ(index, 1U);
  EXPECT_EQ(value.kind, SwJsonValue::Kind::Null);
}

TEST_F(JsonCoreFailures, OfMemoryElsewherePass) {
  const SwString document("\"" + std::string(100000, 'a') + "\"");
  std::size_t index = 0;
  SwString error;
  ostrel_test::fail_heap_allocations_of(61441);  // as a growing string comes by
  EXPECT_THROW(SwJsonDocument().parseJson(document, index, "", error), std::bad_alloc);
}

}  // namespace
