#include "xplat/PathConversions.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace {

using testing_support::TempDir;
using testing_support::WriteFile;

TEST(PathConversions, ReferenceIsTheResolvedPathOfAnExistingObject) {
  TempDir dir;
  WriteFile(dir / "file", "x");
  ASSERT_EQ(0, ::symlink((dir / "file").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::symlink((dir / "gone").c_str(), (dir / "dangling").c_str()));

  ASSERT_EQ(0, ::mkdir((dir / "sub").c_str(), 0755));

  esd::FSRef ref;
  ASSERT_TRUE(esd::StdioPathToFSRef(dir.path() + "/./sub/../link", ref));
  esd::FSRef direct;
  ASSERT_TRUE(esd::StdioPathToFSRef(dir / "file", direct));
  EXPECT_EQ(direct.path, ref.path);
  EXPECT_EQ('/', ref.path.front());

  std::vector<char> bytes;
  ASSERT_TRUE(esd::FSRefMakeVectorPath(ref, bytes));
  ASSERT_EQ(ref.path.size() + 1, bytes.size());
  EXPECT_EQ('\0', bytes.back());
  EXPECT_EQ(ref.path, std::string(bytes.data()));

  EXPECT_FALSE(esd::StdioPathToFSRef(dir / "dangling", ref));
  EXPECT_TRUE(ref.path.empty());
  EXPECT_FALSE(esd::StdioPathToFSRef(dir / "missing", ref));
  EXPECT_FALSE(esd::StdioPathToFSRef("", ref));
  EXPECT_FALSE(esd::FSRefMakeVectorPath(ref, bytes));
  EXPECT_TRUE(bytes.empty());
}

struct Utf16Case {
  const char* utf8;
  std::vector<uint16_t> units;
};

class CStringToVectorUniCharTest : public ::testing::TestWithParam<Utf16Case> {};

TEST_P(CStringToVectorUniCharTest, Converts) {
  std::vector<uint16_t> out{0x1234};
  EXPECT_TRUE(esd::CStringToVectorUniChar(GetParam().utf8, out));
  EXPECT_EQ(GetParam().units, out);
}

INSTANTIATE_TEST_SUITE_P(
    Valid, CStringToVectorUniCharTest,
    ::testing::Values(Utf16Case{"", {}}, Utf16Case{"Ab/", {0x41, 0x62, 0x2F}},
                      Utf16Case{"\xC3\xA9", {0xE9}},                   // two bytes
                      Utf16Case{"\xE2\x82\xAC", {0x20AC}},             // three bytes
                      Utf16Case{"\xEF\xBF\xBF", {0xFFFF}},             // last of the basic plane
                      Utf16Case{"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}}, // surrogate pair
                      Utf16Case{"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}}));

TEST(CStringToVectorUniChar, RejectsMalformedInput) {
  for (const char* bad : {"\x80", "a\xC3", "\xC3(", "\xE2\x82", "\xC0\x80", "\xE0\x80\xAF",
                          "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"}) {
    std::vector<uint16_t> out{0x41};
    EXPECT_FALSE(esd::CStringToVectorUniChar(bad, out)) << ::testing::PrintToString(bad);
    EXPECT_TRUE(out.empty());
  }
  std::vector<uint16_t> out;
  EXPECT_FALSE(esd::CStringToVectorUniChar(nullptr, out));
}

}  // namespace
