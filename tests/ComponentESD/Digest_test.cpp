#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "xplat/Base64.h"
#include "xplat/MD5Hash.h"
#include "xplat/NameHash.h"

namespace {

std::string Hex(const std::vector<unsigned char>& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char b : bytes) {
    text += kDigits[b >> 4];
    text += kDigits[b & 0xF];
  }
  return text;
}

std::string MD5Hex(const std::string& message) {
  esd::MD5Hash hash;
  hash.Update(message.begin(), message.end());
  std::vector<unsigned char> digest;
  hash.Finalize(std::back_inserter(digest));
  return Hex(digest);
}

std::string Base64(const std::string& bytes) {
  std::string text;
  esd::Base64Encode(bytes.begin(), bytes.end(), std::back_inserter(text));
  return text;
}

struct Vector {
  const char* input;
  const char* expected;
};

// The test suite of the MD5 definition: every message, including those longer than one block.
TEST(MD5Hash, MatchesTheReferenceTestSuite) {
  const Vector kSuite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const Vector& v : kSuite) EXPECT_EQ(v.expected, MD5Hex(v.input)) << '"' << v.input << '"';
}

// The vectors of the Base64 definition cover every padding case.
TEST(Base64Encode, MatchesTheStandardVectors) {
  const Vector kVectors[] = {
      {"", ""},         {"f", "Zg=="},        {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const Vector& v : kVectors) EXPECT_EQ(v.expected, Base64(v.input)) << '"' << v.input << '"';
}

// All 64 characters of the alphabet appear where expected, and high bytes in a signed-char
// string encode like the same unsigned bytes.
TEST(Base64Encode, AlphabetAndHighBytes) {
  std::vector<unsigned char> ramp;
  for (unsigned v = 0; v < 64; ++v) {  // three bytes per group carrying 6-bit values v, v, v, v
    ramp.push_back(static_cast<unsigned char>((v << 2) | (v >> 4)));
    ramp.push_back(static_cast<unsigned char>(((v & 0xF) << 4) | (v >> 2)));
    ramp.push_back(static_cast<unsigned char>(((v & 0x3) << 6) | v));
  }
  std::string text;
  esd::Base64Encode(ramp.begin(), ramp.end(), std::back_inserter(text));
  std::string expected;
  for (char c : std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"))
    expected += std::string(4, c);
  EXPECT_EQ(expected, text);

  EXPECT_EQ("/+8=", Base64("\xff\xef"));  // signed chars
}

// Lock names come from this token: Base64 of the digest of every byte of the name, NULs included.
TEST(GetNameHashValue, IsTheBase64OfTheDigest) {
  EXPECT_EQ("kAFQmDzST7DWlj99KOF/cg==", esd::GetNameHashValue("abc"));  // 900150983cd2...
  EXPECT_NE(esd::GetNameHashValue("nul"), esd::GetNameHashValue(std::string("nul\0", 4)));
  EXPECT_NE(esd::GetNameHashValue("App"), esd::GetNameHashValue("app"));
}

TEST(GetNameHashValueDeathTest, EmptyNameIsAProgrammingError) {
  EXPECT_DEATH(esd::GetNameHashValue(""),
               "NameHash\\.cpp:[0-9]+: failed assertion `!inString\\.empty\\(\\)'\n");
}

}  // namespace
