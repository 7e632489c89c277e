// Conversions: values to and from text, format strings, the lock-name token (digest and Base64)
// and paths to references.
#include <unistd.h>

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "xplat/Base64.h"
#include "xplat/ChangeDiffType.h"
#include "xplat/ESDErrors.h"
#include "xplat/FileSystemVersion.h"
#include "xplat/FormatString.h"
#include "xplat/NameHash.h"
#include "xplat/PathConversions.h"

namespace {

using namespace testing_support;

// `text` converted to a T (starting from `value`) and back to text, or "<refused>".
template <typename T>
std::string Through(const std::string& text, T value = T()) {
  if (!esd::ChangeType(text, value)) return "<refused>";
  std::string out;
  EXPECT_TRUE(esd::ChangeType(value, out));
  return out;
}

// Text converts only when the whole of it is one value of the type (blanks around are fine);
// booleans are "1" and "0" only; a version needs exactly one word (how leniently it is read is
// the version fuzzer's); enumerations print their value, not a name.
TEST(ChangeType, TextToValuesConsumesTheWholeText) {
  const FileSystemVersion invalid(FileSystemVersion::kInvalidVersion);
  const std::pair<std::string, std::string> kCases[] = {
      {Through<int>(" 12 "), "12"},           {Through<int>("12a"), "<refused>"},
      {Through<int>("1 2"), "<refused>"},     {Through<int>(""), "<refused>"},
      {Through<int>("2147483648"), "<refused>"}, {Through<float>("10.4.11"), "<refused>"},
      {Through<unsigned long>("4294967296"), "4294967296"},
      {Through<bool>("1"), "1"},              {Through<bool>("true"), "<refused>"},
      {Through<bool>("2"), "<refused>"},      {Through<std::string>("two words"), "<refused>"},
      {Through(" 10,4 ", invalid), "10.4.0.0"}, {Through("", invalid), "<refused>"},
      {Through("1.2 3.4", invalid), "<refused>"},
  };
  for (const auto& [got, expected] : kCases) EXPECT_EQ(expected, got);
  std::string text;
  EXPECT_TRUE(esd::ChangeType(kESDGenericError, text));
  EXPECT_EQ("-1", text);
}

template <typename Bytes>
std::string Base64(const Bytes& bytes) {
  std::string text;
  esd::Base64Encode(bytes.begin(), bytes.end(), std::back_inserter(text));
  return text;
}

// Lock names come from this token: Base64 of the digest of every byte of the name, NULs included.
// The Base64 vectors cover every padding case; a ramp puts all 64 characters of the alphabet in
// place; high bytes in a signed-char string encode like the same unsigned bytes. The digests are
// those of the digest definition's test suite, messages over one block included.
TEST(GetNameHashValue, IsTheBase64OfTheDigest) {
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

// A placeholder above %9 and an empty lock name are programming errors: the process ends, naming
// the place and the condition.
TEST(ConversionsDeathTest, ProgrammingErrorsNameTheCondition) {
  std::string out;
  EXPECT_DEATH(esd::FormatString(out, "%10", 1),
               "FormatString.h:[0-9]+: failed assertion `NULL == \"Format values above %9 are "
               "not supported\"'");
  EXPECT_DEATH(esd::GetNameHashValue(""),
               "NameHash\\.cpp:[0-9]+: failed assertion `!inString\\.empty\\(\\)'\n");
}

TEST(PathConversions, ReferenceIsTheResolvedPathOfAnExistingObject) {
  TempDir dir;
  WriteFile(dir / "file", "x");
  ASSERT_EQ(0, ::symlink((dir / "file").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::symlink((dir / "gone").c_str(), (dir / "dangling").c_str()));

  esd::FSRef ref;
  ASSERT_TRUE(esd::StdioPathToFSRef(dir.path() + "/./link", ref));
  esd::FSRef direct;
  ASSERT_TRUE(esd::StdioPathToFSRef(dir / "file", direct));
  EXPECT_EQ(direct.path, ref.path);
  EXPECT_EQ('/', ref.path.front());

  std::vector<char> bytes;
  ASSERT_TRUE(esd::FSRefMakeVectorPath(ref, bytes));
  EXPECT_EQ(ref.path + '\0', std::string(bytes.begin(), bytes.end()));

  EXPECT_FALSE(esd::StdioPathToFSRef(dir / "dangling", ref));
  EXPECT_TRUE(ref.path.empty());
  EXPECT_FALSE(esd::StdioPathToFSRef(dir / "missing", ref));
  EXPECT_FALSE(esd::StdioPathToFSRef("", ref));
  EXPECT_FALSE(esd::FSRefMakeVectorPath(ref, bytes));
  EXPECT_TRUE(bytes.empty());
  std::vector<uint16_t> units{0x41};  // the UTF-16 conversion is the UTF-8 fuzzer's
  EXPECT_FALSE(esd::CStringToVectorUniChar(nullptr, units) || !units.empty());
}

}  // namespace
