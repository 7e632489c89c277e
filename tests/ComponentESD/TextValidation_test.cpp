#include "xplat/TextValidation.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// One row per rule, with both sides of every bound.
TEST(ValidateUtf8, AcceptsAndRejectsByTheRules) {
  const std::pair<std::string, bool> kCases[] = {
      {"", true},
      {"\xc1\xbf", false},          {"\xc2\x80", true},  // overlong / smallest two-byte value
      {"\x80", false},              {"\xe2\x82" "A", false},  // stray / missing continuation
      {"\xf8\x88\x80\x80\x80", false},  // five-byte lead
      {"\xe0\x9f\xbf", false},      {"\xe0\xa0\x80", true},  // overlong / smallest three-byte
      {"\xf0\x8f\x80\x80", false},  {"\xf0\x90\x80\x80", true},  // overlong / smallest four-byte
      {"\xef\xbf\xbe", false},      {"\xf0\x9f\xbf\xbe", false},  // U+FFFE, U+1FFFE
      {"\xef\xb7\x8f", true},       {"\xef\xb7\x90", false},  // U+FDCF, U+FDD0
      {"\xef\xb7\xaf", false},      {"\xef\xb7\xb0", true},   // U+FDEF, U+FDF0
      {"\xed\xa0\x80", true},       {"\xf4\x90\x80\x80", true},  // surrogate, above U+10FFFF
      {"\xc3\xa9\xe2\x82\xac\x80", false},  // a bad sequence after good ones
  };
  for (const auto& [bytes, valid] : kCases)
    EXPECT_EQ(valid, validate_utf8(reinterpret_cast<const unsigned char*>(bytes.c_str())))
        << ::testing::PrintToString(bytes);
  EXPECT_TRUE(validate_utf8(nullptr));
}

// A NUL inside a sequence ends the text there: the sequence is invalid and nothing after the
// terminator is read (the bytes after it would complete a valid sequence).
TEST(ValidateUtf8, NulInsideASequenceIsInvalid) {
  const unsigned char kTwo[] = {0xC3, 0x00, 0xA9, 0x00};
  const unsigned char kThree[] = {0xE2, 0x82, 0x00, 0xAC, 0x00};
  const unsigned char kFour[] = {0xF0, 0x00, 0x98, 0x80, 0x00};
  const unsigned char kAfterEnd[] = {'o', 'k', 0x00, 0x80, 0x00};
  EXPECT_FALSE(validate_utf8(kTwo));
  EXPECT_FALSE(validate_utf8(kThree));
  EXPECT_FALSE(validate_utf8(kFour));
  EXPECT_TRUE(validate_utf8(kAfterEnd));
}

}  // namespace
