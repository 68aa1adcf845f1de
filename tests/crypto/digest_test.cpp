#include "crypto/digest.h"

#include "support/token.h"

#include <openssl/evp.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using mfatest::hex;

struct DigestVector {
  uint32_t algorithm;
  const char *abc; // digest of "abc"
};

const DigestVector kAbcVectors[] = {
    {QN_HASH_MD5, "900150983cd24fb0d6963f7d28e17f72"},
    {QN_HASH_SHA1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {QN_HASH_SHA256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {QN_HASH_SHA384, "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
                     "8086072ba1e7cc2358baeca134c825a7"},
    {QN_HASH_SHA512, "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
};

TEST(Digest, OneShotAndStreamedAgreeWithKnownVectors) {
  for (const auto &vector : kAbcVectors) {
    SCOPED_TRACE(vector.algorithm);
    unsigned char buffer[64];
    unsigned char *out = buffer;
    uint32_t length = sizeof(buffer);
    ASSERT_EQ(qn_hash_oneshot(vector.algorithm, "abc", 3, &out, &length), 0);
    EXPECT_EQ(out, buffer);
    EXPECT_EQ(hex(buffer, length), vector.abc);

    qn_hash_context *context = nullptr;
    ASSERT_EQ(qn_hash_start(vector.algorithm, &context), 0);
    ASSERT_EQ(qn_hash_more(context, "a", 1), 0);
    ASSERT_EQ(qn_hash_more(context, "", 0), 0);
    ASSERT_EQ(qn_hash_more(context, "bc", 2), 0);
    length = sizeof(buffer);
    ASSERT_EQ(qn_hash_finish(context, buffer, &length), 0);
    EXPECT_EQ(hex(buffer, length), vector.abc);
    free_hash_context(&context);
    EXPECT_EQ(context, nullptr);
  }
}

TEST(Digest, CapacityAndArgumentChecks) {
  unsigned char buffer[64];
  unsigned char *out = buffer;
  uint32_t length = 20;
  EXPECT_EQ(qn_hash_oneshot(QN_HASH_SHA256, "abc", 3, &out, &length), QN_RC_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 32u);

  length = sizeof(buffer);
  EXPECT_EQ(qn_hash_oneshot(QN_HASH_SHA256, "abc", 0, &out, &length), QN_RC_MISSING_ARGUMENT);
  EXPECT_EQ(qn_hash_oneshot(12, "abc", 3, &out, &length), QN_RC_UNSUPPORTED_DIGEST);
  EXPECT_EQ(length, sizeof(buffer));

  // The streamed form hashes empty input.
  qn_hash_context *context = nullptr;
  ASSERT_EQ(qn_hash_start(QN_HASH_SHA256, &context), 0);
  length = sizeof(buffer);
  ASSERT_EQ(qn_hash_finish(context, buffer, &length), 0);
  EXPECT_EQ(hex(buffer, length),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  free_hash_context(&context);
}

TEST(Digest, OlderContextMatchesVectorsAcrossUpdates) {
  for (auto [type, abc] : {std::pair{QN_DIGEST_MD5, kAbcVectors[0].abc},
                           std::pair{QN_DIGEST_SHA1, kAbcVectors[1].abc}}) {
    digestContext context;
    memset(&context, 0xA5, sizeof(context));
    ASSERT_EQ(digestContextInit(&context, type), 0);
    ASSERT_EQ(digestContextUpdate(&context, "ab", 2), 0);
    ASSERT_EQ(digestContextUpdate(&context, "c", 1), 0);
    unsigned char digest[20];
    ASSERT_EQ(digestContextFinish(&context, digest), 0);
    EXPECT_EQ(hex(digest, context.digestLength), abc);
  }
  digestContext context;
  EXPECT_EQ(digestContextInit(&context, 3), QN_DIGEST_CONTEXT_FAILED);
  EXPECT_EQ(digestContextUpdate(&context, "a", 1), QN_DIGEST_CONTEXT_FAILED);
}

// Every remainder of a three-byte group, and a longer input, against
// OpenSSL's encoder, then back.
TEST(Base64, RoundTripMatchesOpenSsl) {
  unsigned char input[70], expected[100];
  for (size_t i = 0; i < sizeof input; ++i)
    input[i] = static_cast<unsigned char>(i * 37 + 11);
  for (uint64_t n : {1, 2, 3, 4, 5, 6, 70}) {
    SCOPED_TRACE(n);
    char *text = nullptr;
    unsigned char *decoded = nullptr;
    uint64_t textLength = 0, decodedLength = 0;
    ASSERT_EQ(qn_base64_encode(input, n, &text, &textLength), 0);
    int expectedLength = EVP_EncodeBlock(expected, input, static_cast<int>(n));
    EXPECT_EQ(textLength, static_cast<uint64_t>(expectedLength));
    EXPECT_STREQ(text, reinterpret_cast<char *>(expected));
    ASSERT_EQ(qn_base64_decode(text, textLength, &decoded, &decodedLength), 0);
    EXPECT_EQ(hex(decoded, decodedLength), hex(input, n));
    qncFree(decoded, static_cast<int>(qn_base64_declen(textLength)));
    qncFree(text, static_cast<int>(qn_base64_enclen(n)));
  }
}

TEST(Base64, EncodeIntoCallerBuffer) {
  char buffer[8] = "xxxxxxx";
  char *out = buffer;
  uint64_t length = 4; // one short of "YQ==" and its NUL
  EXPECT_EQ(qn_base64_encode("a", 1, &out, &length), QN_RC_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 5u);
  ASSERT_EQ(qn_base64_encode("a", 1, &out, &length), 0);
  EXPECT_EQ(out, buffer);
  EXPECT_EQ(length, 4u);
  EXPECT_STREQ(buffer, "YQ==");

  strcpy(buffer, "keep");
  length = sizeof(buffer);
  EXPECT_EQ(qn_base64_encode("a", 0, &out, &length), 0);
  EXPECT_EQ(length, 0u);
  EXPECT_STREQ(buffer, "keep");
}

TEST(Base64, DecodeQuirks) {
  unsigned char buffer[16];
  unsigned char *out = buffer;
  uint64_t length = sizeof(buffer);
  // A short text clears even the caller's pointer.
  EXPECT_EQ(qn_base64_decode("YQ", 2, &out, &length), 0);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(length, 0u);

  out = buffer;
  length = sizeof(buffer);
  memset(buffer, 0xEE, sizeof(buffer));
  ASSERT_EQ(qn_base64_decode("YQ==", 4, &out, &length), 0);
  EXPECT_EQ(length, 1u);
  // The partial bits land past the counted byte.
  EXPECT_EQ(std::vector(buffer, buffer + 3), (std::vector<unsigned char>{0x61, 0x00, 0xEE}));

  const struct {
    const char *text;
    uint64_t textLength, capacity;
    int rc;
    std::string_view result; // the decoded text, or the length reported on failure
  } cases[] = {
      {"QU!D", 4, 16, QN_RC_BAD_BASE64, "16"},
      {"", 4, 16, QN_RC_BAD_BASE64, "16"},
      // Separators, stray padding and bytes with the high bit set are skipped
      // between quartets.
      {"QUJD\nREVG", 9, 16, 0, "ABCDEF"},
      {" =QUJD\r\n=REVG=", 14, 16, 0, "ABCDEF"},
      {"\xc3QUJD", 5, 16, 0, "ABC"},
      // A fourth character outside the alphabet ends the text quietly.
      {"QUJ!REVG", 8, 16, 0, "AB"},
      // textLength only sizes the output: the text is read to its NUL but the
      // output stops when full.
      {"QUJDREVG", 4, 16, 0, "ABC"},
      {"QUJDREVG", 8, 5, QN_RC_BUFFER_TOO_SMALL, "6"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    length = c.capacity;
    ASSERT_EQ(qn_base64_decode(c.text, c.textLength, &out, &length), c.rc);
    EXPECT_EQ(c.rc == 0 ? std::string(reinterpret_cast<char *>(buffer), length)
                        : std::to_string(length),
              c.result);
  }
}

TEST(Base64, PemBody) {
  const char *pem = "-----BEGIN CERTIFICATE-----\r\n"
                    "QUJD\tREVG\n"
                    " R0hJ\n"
                    "-----END CERTIFICATE-----\n";
  unsigned char *out = nullptr;
  uint64_t length = 0;
  ASSERT_EQ(qn_base64_pemdecode(pem, 1, &out, &length), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out), length), "ABCDEFGHI");
  qncFree(out, static_cast<int>(qn_base64_declen(12)));

  out = nullptr;
  EXPECT_EQ(qn_base64_pemdecode("-----BEGIN X-----\nQUJD\n", 1, &out, &length), QN_RC_PEM_MARKERS);
  EXPECT_EQ(qn_base64_pemdecode("QUJD", 1, &out, &length), QN_RC_PEM_MARKERS);
  EXPECT_EQ(qn_base64_pemdecode("QUJD", 0, &out, &length), 0);
  EXPECT_EQ(out, nullptr);
}

} // namespace
