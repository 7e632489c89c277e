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

TEST(ChangeType, TextToNumbersConsumesTheWholeText) {
  int i = 0;
  EXPECT_TRUE(esd::ChangeType(std::string(" 12 "), i));
  EXPECT_EQ(12, i);
  EXPECT_FALSE(esd::ChangeType(std::string("12a"), i));
  EXPECT_FALSE(esd::ChangeType(std::string("1 2"), i));
  EXPECT_FALSE(esd::ChangeType(std::string(""), i));
  EXPECT_FALSE(esd::ChangeType(std::string("2147483648"), i));  // overflows int

  float f = 0;
  EXPECT_TRUE(esd::ChangeType(std::string("6.0"), f));
  EXPECT_FLOAT_EQ(6.0f, f);
  EXPECT_FALSE(esd::ChangeType(std::string("10.4.11"), f));

  unsigned long ul = 0;
  EXPECT_TRUE(esd::ChangeType(std::string("4294967296"), ul));
  EXPECT_EQ(4294967296UL, ul);
}

TEST(ChangeType, BooleansAreOneAndZeroOnly) {
  bool b = false;
  EXPECT_TRUE(esd::ChangeType(std::string("1"), b));
  EXPECT_TRUE(b);
  EXPECT_TRUE(esd::ChangeType(std::string("0"), b));
  EXPECT_FALSE(b);
  EXPECT_FALSE(esd::ChangeType(std::string("true"), b));
  EXPECT_FALSE(esd::ChangeType(std::string("2"), b));

  std::string text;
  EXPECT_TRUE(esd::ChangeType(true, text));
  EXPECT_EQ("1", text);
}

TEST(ChangeType, ValuesToTextAndTextToText) {
  std::string text;
  EXPECT_TRUE(esd::ChangeType(-42, text));
  EXPECT_EQ("-42", text);
  EXPECT_TRUE(esd::ChangeType(static_cast<short>(7), text));
  EXPECT_EQ("7", text);
  EXPECT_TRUE(esd::ChangeType(kESDGenericError, text));
  EXPECT_EQ("-1", text);  // enumerations print their value, not a name

  EXPECT_TRUE(esd::ChangeType(std::string("word"), text));
  EXPECT_EQ("word", text);
  // Only one word is read, so text with a blank never converts whole.
  EXPECT_FALSE(esd::ChangeType(std::string("two words"), text));
}

TEST(FormatString, FillsPlaceholdersInAnyOrderAndRepeats) {
  std::string out;
  EXPECT_TRUE(esd::FormatString(out, "%0.%1.%2", short{10}, short{4}, short{11}));
  EXPECT_EQ("10.4.11", out);

  out = "prefix:";
  EXPECT_TRUE(esd::FormatString(out, "%1-%0-%1", std::string("a b"), 3));
  EXPECT_EQ("prefix:3-a b-3", out);  // appends; text arguments are kept whole

  out.clear();
  EXPECT_TRUE(esd::FormatString(out, "[%2][%9]", 1, 2));  // missing arguments are empty text
  EXPECT_EQ("[][]", out);

  out.clear();
  EXPECT_TRUE(esd::FormatString(out, "%05", 0, 1, 2, 3, 4, "five"));  // digits are read as a run
  EXPECT_EQ("five", out);
}

TEST(FormatString, PercentSignsThatAreNotPlaceholders) {
  std::string out;
  EXPECT_TRUE(esd::FormatString(out, "100%", 1));
  EXPECT_EQ("100%", out);
  out.clear();
  EXPECT_TRUE(esd::FormatString(out, "%%0 %x %", 1));
  EXPECT_EQ("%0 %x %", out);
}

TEST(FormatString, StopsWhenAnArgumentDoesNotConvertButOnlyIfItIsUsed) {
  std::string out;
  EXPECT_FALSE(esd::FormatString(out, "a%0b", Unprintable{}));
  out.clear();
  EXPECT_TRUE(esd::FormatString(out, "a%1b", Unprintable{}, 2));  // never named, never converted
  EXPECT_EQ("a2b", out);
}

using FormatStringDeathTest = ::testing::Test;
TEST_F(FormatStringDeathTest, PlaceholderAboveNineEndsTheProcess) {
  std::string out;
  EXPECT_DEATH(esd::FormatString(out, "%10", 1),
               "FormatString.h:[0-9]+: failed assertion `NULL == \"Format values above %9 are "
               "not supported\"'");
}

}  // namespace
