#include "xplat/FormatString.h"

#include <gtest/gtest.h>

#include "xplat/ESDErrors.h"

namespace {

// A value whose conversion to text fails.
struct Unprintable {};
std::ostream& operator<<(std::ostream& stream, const Unprintable&) {
  stream.setstate(std::ios::failbit);
  return stream;
}

// Text converts only when the whole of it is one value of the type (blanks around are fine);
// booleans are "1" and "0" only.
TEST(ChangeType, TextToValuesConsumesTheWholeText) {
  int i = 0;
  EXPECT_TRUE(esd::ChangeType(std::string(" 12 "), i));
  EXPECT_EQ(12, i);
  for (const char* bad : {"12a", "1 2", "", "2147483648"})
    EXPECT_FALSE(esd::ChangeType(std::string(bad), i)) << bad;
  float f = 0;
  EXPECT_FALSE(esd::ChangeType(std::string("10.4.11"), f));
  unsigned long ul = 0;
  EXPECT_TRUE(esd::ChangeType(std::string("4294967296"), ul));
  EXPECT_EQ(4294967296UL, ul);
  bool b = false;
  EXPECT_TRUE(esd::ChangeType(std::string("1"), b));
  EXPECT_TRUE(b);
  EXPECT_FALSE(esd::ChangeType(std::string("true"), b));
  EXPECT_FALSE(esd::ChangeType(std::string("2"), b));
  std::string text;
  EXPECT_FALSE(esd::ChangeType(std::string("two words"), text));  // one word is read
}

// Enumerations print their value, not a name (other values are the format fuzzer's arguments).
TEST(ChangeType, EnumerationsPrintTheirValue) {
  std::string text;
  EXPECT_TRUE(esd::ChangeType(kESDGenericError, text));
  EXPECT_EQ("-1", text);
}

// An argument that does not convert stops the formatting only when it is used.
TEST(FormatString, UnconvertibleArgumentFailsOnlyWhenUsed) {
  std::string out;
  EXPECT_FALSE(esd::FormatString(out, "a%0b", Unprintable{}));
  out.clear();
  EXPECT_TRUE(esd::FormatString(out, "a%1b", Unprintable{}, 2));
  EXPECT_EQ("a2b", out);
}

TEST(FormatStringDeathTest, PlaceholderAboveNineEndsTheProcess) {
  std::string out;
  EXPECT_DEATH(esd::FormatString(out, "%10", 1),
               "FormatString.h:[0-9]+: failed assertion `NULL == \"Format values above %9 are "
               "not supported\"'");
}

}  // namespace
