#include "xplat/TextValidation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

bool Valid(const std::string& bytes) {
  return validate_utf8(reinterpret_cast<const unsigned char*>(bytes.c_str()));
}

struct Utf8Case {
  const char* what;
  std::string bytes;
  bool valid;
};

// One table for the whole rule set, with both sides of every bound.
TEST(ValidateUtf8, AcceptsAndRejectsByTheRules) {
  const Utf8Case kCases[] = {
      {"empty", "", true},
      {"ASCII", "Vantu Updater 5", true},
      {"two bytes", "caf\xc3\xa9", true},
      {"smallest two-byte value", "\xc2\x80", true},
      {"three bytes", "\xe2\x82\xac", true},
      {"four bytes", "\xf0\x9f\x98\x80", true},
      {"C0 80 (overlong NUL)", "\xc0\x80", false},
      {"C1 BF (overlong)", "\xc1\xbf", false},
      {"lone continuation", "\x80", false},
      {"continuation after ASCII", "abc\xbf", false},
      {"two-byte lead without continuation", "\xc3" "A", false},
      {"truncated three bytes at the end", "ok\xe2\x82", false},
      {"three-byte lead followed by ASCII", "\xe2\x82" "A", false},
      {"F8 lead", "\xf8\x88\x80\x80\x80", false},
      {"FF byte", "\xff", false},
      {"overlong three bytes (U+07FF)", "\xe0\x9f\xbf", false},
      {"smallest three-byte value", "\xe0\xa0\x80", true},
      {"overlong four bytes (U+F000)", "\xf0\x8f\x80\x80", false},
      {"smallest four-byte value", "\xf0\x90\x80\x80", true},
      {"U+FFFD", "\xef\xbf\xbd", true},
      {"U+FFFE", "\xef\xbf\xbe", false},
      {"U+FFFF", "\xef\xbf\xbf", false},
      {"U+1FFFE", "\xf0\x9f\xbf\xbe", false},
      {"U+10FFFF", "\xf4\x8f\xbf\xbf", false},
      {"U+FDCF", "\xef\xb7\x8f", true},
      {"U+FDD0", "\xef\xb7\x90", false},
      {"U+FDEF", "\xef\xb7\xaf", false},
      {"U+FDF0", "\xef\xb7\xb0", true},
      {"surrogate U+D800", "\xed\xa0\x80", true},
      {"surrogate U+DFFF", "\xed\xbf\xbf", true},
      {"above U+10FFFF", "\xf4\x90\x80\x80", true},
      {"bad sequence after good ones", "\xc3\xa9\xe2\x82\xac\x80", false},
  };
  for (const Utf8Case& c : kCases) EXPECT_EQ(c.valid, Valid(c.bytes)) << c.what;
  EXPECT_TRUE(validate_utf8(nullptr));
}

// A NUL inside a sequence ends the text there: the sequence is invalid and nothing after the
// terminator is read (the bytes after it would complete a valid sequence).
TEST(ValidateUtf8, NulInsideASequenceIsInvalid) {
  const unsigned char kTwo[] = {0xC3, 0x00, 0xA9, 0x00};
  const unsigned char kThree[] = {0xE2, 0x82, 0x00, 0xAC, 0x00};
  const unsigned char kFour[] = {0xF0, 0x00, 0x98, 0x80, 0x00};
  EXPECT_FALSE(validate_utf8(kTwo));
  EXPECT_FALSE(validate_utf8(kThree));
  EXPECT_FALSE(validate_utf8(kFour));
  const unsigned char kAfterEnd[] = {'o', 'k', 0x00, 0x80, 0x00};
  EXPECT_TRUE(validate_utf8(kAfterEnd));
}

struct IsoCase {
  const char* in;
  const char* out;
};

// Every one of the 11 output bytes is written, whatever the buffer held before.
TEST(ValidateIsoCode, NormalisesTheFirstFiveCharacters) {
  const IsoCase kCases[] = {
      {"", ""},
      {"en", ""},
      {"en_U", ""},             // four characters: too short
      {"EN_us", "en_US"},
      {"zH-Tw", "zh-TW"},
      {"fr.ca", "fr.CA"},       // the separator is kept as it is
      {"de_DE.UTF-8", "de_DE"},  // everything after the fifth is dropped
      {"pt_BRxx", "pt_BR"},
      {"12_34", "12_34"},
  };
  for (const IsoCase& c : kCases) {
    char out[11];
    std::memset(out, 'X', sizeof out);
    ValidateIsoCode(c.in, out);
    EXPECT_STREQ(c.out, out) << '"' << c.in << '"';
    for (std::size_t i = std::strlen(c.out); i < sizeof out; ++i)
      EXPECT_EQ('\0', out[i]) << '"' << c.in << "\" byte " << i;
  }

  char out[11];
  std::memset(out, 'X', sizeof out);
  ValidateIsoCode(nullptr, out);
  EXPECT_EQ(std::string(11, '\0'), std::string(out, sizeof out));
}

}  // namespace
