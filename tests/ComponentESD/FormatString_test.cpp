#include "xplat/FormatString.h"

#include <gtest/gtest.h>

#include <string>

#include "xplat/ChangeDiffType.h"
#include "xplat/ESDErrors.h"
#include "xplat/FileSystemVersion.h"

namespace {

// A value whose conversion to text fails.
struct Unprintable {};
std::ostream& operator<<(std::ostream& stream, const Unprintable&) {
  stream.setstate(std::ios::failbit);
  return stream;
}

// `text` converted to a T (starting from `value`) and back to text, or "<refused>".
template <typename T>
std::string Through(const std::string& text, T value = T()) {
  if (!esd::ChangeType(text, value)) return "<refused>";
  std::string out;
  EXPECT_TRUE(esd::ChangeType(value, out));
  return out;
}

// Text converts only when the whole of it is one value of the type (blanks around are fine);
// booleans are "1" and "0" only; a version is lenient on content (the stored attributes are read
// so) but still needs exactly one word; enumerations print their value, not a name.
TEST(ChangeType, TextToValuesConsumesTheWholeText) {
  const FileSystemVersion invalid(FileSystemVersion::kInvalidVersion);
  const std::pair<std::string, std::string> kCases[] = {
      {Through<int>(" 12 "), "12"},           {Through<int>("12a"), "<refused>"},
      {Through<int>("1 2"), "<refused>"},     {Through<int>(""), "<refused>"},
      {Through<int>("2147483648"), "<refused>"}, {Through<float>("10.4.11"), "<refused>"},
      {Through<unsigned long>("4294967296"), "4294967296"},
      {Through<bool>("1"), "1"},              {Through<bool>("true"), "<refused>"},
      {Through<bool>("2"), "<refused>"},      {Through<std::string>("two words"), "<refused>"},
      {Through(" 10,4 ", invalid), "10.4.0.0"}, {Through("1.x.3", invalid), "1.0.0.0"},
      {Through("5-6", invalid), "5.6.0.0"},   {Through("", invalid), "<refused>"},
      {Through("1.2 3.4", invalid), "<refused>"},
  };
  for (const auto& [got, expected] : kCases) EXPECT_EQ(expected, got);
  std::string text;
  EXPECT_TRUE(esd::ChangeType(kESDGenericError, text));
  EXPECT_EQ("-1", text);
}

// An argument that does not convert stops the formatting only when it is used. (Every other
// pattern is the format fuzzer's.)
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
