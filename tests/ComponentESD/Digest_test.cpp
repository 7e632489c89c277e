#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "xplat/Base64.h"
#include "xplat/NameHash.h"

namespace {

template <typename Bytes>
std::string Base64(const Bytes& bytes) {
  std::string text;
  esd::Base64Encode(bytes.begin(), bytes.end(), std::back_inserter(text));
  return text;
}

// The vectors of the Base64 definition cover every padding case; a ramp puts all 64 characters of
// the alphabet in place; high bytes in a signed-char string encode like the same unsigned bytes.
TEST(Base64Encode, MatchesTheStandardVectorsAndAlphabet) {
  const std::pair<std::string, std::string> kVectors[] = {
      {"", ""},         {"f", "Zg=="},        {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"\xff\xef", "/+8="},
  };
  for (const auto& [bytes, text] : kVectors) EXPECT_EQ(text, Base64(bytes)) << bytes;

  std::vector<unsigned char> ramp;
  for (unsigned v = 0; v < 64; ++v) {  // three bytes per group carrying 6-bit values v, v, v, v
    ramp.push_back(static_cast<unsigned char>((v << 2) | (v >> 4)));
    ramp.push_back(static_cast<unsigned char>(((v & 0xF) << 4) | (v >> 2)));
    ramp.push_back(static_cast<unsigned char>(((v & 0x3) << 6) | v));
  }
  std::string expected;
  for (char c : std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"))
    expected += std::string(4, c);
  EXPECT_EQ(expected, Base64(ramp));
}

// Lock names come from this token: Base64 of the digest of every byte of the name, NULs included;
// the digests are those of the digest definition's test suite, messages over one block included.
TEST(GetNameHashValue, IsTheBase64OfTheDigest) {
  const std::pair<std::string, std::string> kSuite[] = {
      {"a", "DMF1ucDxtqgxw5niaXcmYQ=="},
      {"abc", "kAFQmDzST7DWlj99KOF/cg=="},
      {"message digest", "+WtpfXy3k41SWi8xqvFh0A=="},
      {"abcdefghijklmnopqrstuvwxyz", "w/zT12GS5AB9+0lsymfhOw=="},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "0XSrmNJ32fWlYRwsn0Gdnw=="},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "V+30oivjyVWsSdouIQe2eg=="},
  };
  for (const auto& [name, token] : kSuite) EXPECT_EQ(token, esd::GetNameHashValue(name)) << name;
  EXPECT_NE(esd::GetNameHashValue("nul"), esd::GetNameHashValue(std::string("nul\0", 4)));
}

TEST(GetNameHashValueDeathTest, EmptyNameIsAProgrammingError) {
  EXPECT_DEATH(esd::GetNameHashValue(""),
               "NameHash\\.cpp:[0-9]+: failed assertion `!inString\\.empty\\(\\)'\n");
}

}  // namespace
