#include "json_core/sw_crypto.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "json_core/aes_ecb_cipher.h"
#include "json_core/encipher.h"
#include "json_core/sw_string.h"

namespace {

using Bytes = std::vector<unsigned char>;

const std::string kShortKey = "0123456789abcdefghijklmnopqrstu";  // 31 bytes

Bytes bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

template <typename Exception, typename Call>
std::string message_of(Call call) {
  try {
    call();
  } catch (const Exception& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

// Example vectors of FIPS 197, appendix C.
TEST(SwCryptoEcb, MatchesThePublishedVectors) {
  const std::string plain = from_hex("00112233445566778899aabbccddeeff");
  const std::string key = from_hex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
  const std::pair<std::size_t, std::string> cases[] = {{16, "69c4e0d86a7b0430d8cdb78070b4c55a"},
                                                       {24, "dda97ca4864cdfe06eaf70a0ec0d7191"},
                                                       {32, "8ea2b7ca516745bfeafc49904b496089"}};
  for (const auto& [key_bytes, cipher] : cases) {
    const Bytes sized_key = bytes_of(key.substr(0, key_bytes));
    Bytes enciphered = SwCrypto::cryptAES_ECB(bytes_of(plain), sized_key, true);
    ASSERT_EQ(enciphered.size(), 32U) << "a whole block of padding follows a whole block of data";
    EXPECT_EQ(SwCrypto::cryptAES_ECB(enciphered, sized_key, false),
              bytes_of(plain + std::string(16, '\x10')));
    enciphered.resize(16);
    EXPECT_EQ(enciphered, bytes_of(from_hex(cipher))) << key_bytes;
    EXPECT_EQ(SwCrypto::cryptAES_ECB(enciphered, sized_key, false), bytes_of(plain)) << key_bytes;
  }
}

TEST(SwCryptoEcb, PadsToWholeBlocksAndLeavesThePaddingWhenDeciphering) {
  for (std::size_t length = 0; length <= 48; ++length) {
    const Bytes data(length, 'x');
    const Bytes enciphered = SwCrypto::cryptAES_ECB(data, bytes_of(kCipherKey), true);
    ASSERT_EQ(enciphered.size(), length / 16 * 16 + 16) << length;
    Bytes padded = data;
    padded.insert(padded.end(), 16 - length % 16, static_cast<unsigned char>(16 - length % 16));
    EXPECT_EQ(SwCrypto::cryptAES_ECB(enciphered, bytes_of(kCipherKey), false), padded) << length;
  }
}

TEST(SwCryptoEcb, RefusesOtherKeySizes) {
  for (const std::size_t size : {0U, 15U, 17U, 20U, 31U, 33U, 64U}) {
    for (const bool encrypt : {false, true}) {
      EXPECT_EQ(
          message_of<std::invalid_argument>([&] { SwCrypto::cryptAES_ECB(Bytes(16), Bytes(size), encrypt); }),
          "Invalid AES key size. Key must be 16, 24, or 32 bytes.")
          << size;
    }
  }
}

TEST(SwCryptoEcb, RefusesToDecipherBrokenBlocks) {
  for (const std::size_t size : {1U, 15U, 17U}) {
    EXPECT_EQ(
        message_of<std::invalid_argument>([&] { SwCrypto::cryptAES_ECB(Bytes(size), Bytes(32), false); }),
        "Invalid data size for AES-ECB (must be multiple of 16).");
  }
  EXPECT_EQ(message_of<std::invalid_argument>([] { SwCrypto::cryptAES_ECB(Bytes(15), Bytes(20), false); }),
            "Invalid AES key size. Key must be 16, 24, or 32 bytes.")
      << "the key is looked at first";
}

TEST(SwCryptoEcb, DeciphersNothingToNothing) {
  EXPECT_EQ(SwCrypto::cryptAES_ECB({}, Bytes(32), false), Bytes());
}

TEST(AesEcbCipher, HasNoCipherForOtherKeySizes) {
  EXPECT_EQ(message_of<std::invalid_argument>([] { aes_ecb_cipher(20); }), "Invalid AES key size.");
  EXPECT_EQ(aes_ecb_cipher(16), EVP_aes_128_ecb());
  EXPECT_EQ(aes_ecb_cipher(24), EVP_aes_192_ecb());
  EXPECT_EQ(aes_ecb_cipher(32), EVP_aes_256_ecb());
}

TEST(SwCryptoDecrypt, GivesTheTextBack) {
  for (const std::string& text :
       {std::string("a"), std::string("fifteen bytes.."), std::string("sixteen bytes...."),
        std::string("NUL \0 inside", 12), std::string(1000, '\xFF')}) {
    EXPECT_EQ(SwCrypto::decryptAES(encipher(text, kCipherKey), kCipherKey), text);
  }
}

TEST(SwCryptoDecrypt, UsesAKeyOf32BytesAsItIs) {
  EXPECT_EQ(SwCrypto::decryptAES(encipher("text", kCipherKey), kCipherKey), "text");
}

// Digests of FIPS 180-4's SHA-256 over the keys, computed with coreutils' sha256sum.
TEST(SwCryptoDecrypt, HashesEveryOtherKey) {
  const std::pair<std::string, std::string> cases[] = {
      {kShortKey, "9f719d64979a7fea54826a94064abb69e6e60ffc0a30f5d3582b68120d898499"},
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {kCipherKey + "w", "6e24e14e80422420eae76be6bfa40b217f3204f7a9595218a24b4ce618f051d8"},
      {std::string("0123456789abcdef"), "9f9f5111f7b27a781f1f1ddde5ebc2dd2b796bfc7365c9c28b548e564176929f"},
  };
  for (const auto& [key, digest] : cases) {
    EXPECT_EQ(SwCrypto::decryptAES(encipher("hashed", from_hex(digest)), key), "hashed") << key;
  }
}

TEST(SwCryptoDecrypt, NeedsNoBase64Padding) {
  const std::string text = encipher("text", kCipherKey);
  ASSERT_EQ(text.substr(text.size() - 2), "==");
  EXPECT_EQ(SwCrypto::decryptAES(text.substr(0, text.size() - 2), kCipherKey), "text");
}

TEST(SwCryptoDecrypt, EndsBase64AtTheFirstStrangeCharacter) {
  const std::string text = encipher("text", kCipherKey);
  for (const std::string& tail : {std::string("=AAAA"), std::string("-AAAA"), std::string("\nAAAA"),
                                  std::string("\xFF"
                                              "AAAA"),
                                  std::string("\0AAAA", 5)}) {
    EXPECT_EQ(SwCrypto::decryptAES(text.substr(0, text.size() - 2) + tail, kCipherKey), "text") << tail;
  }
  EXPECT_EQ(message_of<std::invalid_argument>(
                [&] { SwCrypto::decryptAES(text.substr(0, 8) + "*" + text.substr(8), kCipherKey); }),
            "Invalid data size for AES-ECB (must be multiple of 16).")
      << "cut in the middle";
}

TEST(SwCryptoDecrypt, ReadsTheWholeBase64Alphabet) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const Bytes plain = SwCrypto::cryptAES_ECB(
      bytes_of(
          from_hex("00108310518720928b30d38f41149351559761969b71d79f8218a39259a7a29aabb2dbafc31cb3d35db7e39e"
                   "bbf3dfbf")),
      bytes_of(kCipherKey), false);
  EXPECT_EQ(SwCrypto::decryptAES(alphabet, kCipherKey), std::string(plain.begin(), plain.end()));
}

TEST(SwCryptoDecrypt, RefusesEmptyData) {
  for (const std::string& text : {std::string(), std::string("="), std::string("*AAAA"), std::string("A")}) {
    EXPECT_EQ(message_of<std::invalid_argument>([&] { SwCrypto::decryptAES(text, kCipherKey); }),
              "Invalid data: empty.");
  }
}

std::string decipher_block(const std::string& block) {
  // Padding of its own follows the block; deciphering sees the first block alone.
  const std::string enciphered = encipher(block, kCipherKey);
  return SwCrypto::decryptAES(enciphered.substr(0, 22), kCipherKey);
}

TEST(SwCryptoDecrypt, RemovesValidPaddingAlone) {
  const std::string body = "0123456789abcde";
  EXPECT_EQ(decipher_block(body + '\x01'), body);
  EXPECT_EQ(decipher_block(std::string(16, '\x10')), "") << "a whole block of padding";
  EXPECT_EQ(decipher_block(body.substr(0, 13) + "\x03\x03\x03"), body.substr(0, 13));
  for (const std::string& whole :
       {body + std::string(1, '\0'), body + '\x11', body + '\xFF', body.substr(0, 13) + "\x02\x03\x03",
        body + '\x10', std::string(16, 'a')}) {
    EXPECT_EQ(decipher_block(whole), whole);
  }
}

TEST(SwCryptoDecrypt, TakesNothingLongerThanABlockForPadding) {
  for (const std::size_t padding : {17U, 32U}) {
    const std::string whole =
        std::string(32 - padding, 'a') + std::string(padding, static_cast<char>(padding));
    const std::string two_blocks = encipher(whole, kCipherKey).substr(0, 43);
    EXPECT_EQ(SwCrypto::decryptAES(two_blocks, kCipherKey), whole) << padding;
  }
}

TEST(SwCryptoDecrypt, MakesGarbageOfAWrongKey) {
  const std::string text = encipher("text", kCipherKey);
  const std::string garbage = SwCrypto::decryptAES(text, "another key");
  EXPECT_NE(garbage, "text");
  EXPECT_EQ(garbage.size(), 16U);
}

TEST(SwStringDecryptAes, GivesTheTextBack) {
  EXPECT_EQ(SwString(encipher("text", kCipherKey)).decryptAES(kCipherKey), "text");
}

TEST(SwStringDecryptAes, PrintsAFailureAndIsEmpty) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(SwString("true").decryptAES(kCipherKey), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Decryption error: Invalid data size for AES-ECB (must be multiple of 16).\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(SwString("").decryptAES(kCipherKey), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Decryption error: Invalid data: empty.\n");
}

}  // namespace
