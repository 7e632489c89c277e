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

// UTF-8 to UTF-16 units, at each sequence length and the surrogate-pair bounds; malformed input
// is refused with an empty result.
TEST(CStringToVectorUniChar, ConvertsValidAndRejectsMalformedInput) {
  const std::pair<const char*, std::vector<uint16_t>> kValid[] = {
      {"", {}},
      {"Ab\xC3\xA9", {0x41, 0x62, 0xE9}},
      {"\xEF\xBF\xBF", {0xFFFF}},
      {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
      {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
  };
  for (const auto& [utf8, units] : kValid) {
    std::vector<uint16_t> out{0x1234};
    EXPECT_TRUE(esd::CStringToVectorUniChar(utf8, out)) << ::testing::PrintToString(utf8);
    EXPECT_EQ(units, out) << ::testing::PrintToString(utf8);
  }
  const char* kBad[] = {"\x80", "a\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF",
                        nullptr};
  for (const char* bad : kBad) {
    std::vector<uint16_t> out{0x41};
    EXPECT_FALSE(esd::CStringToVectorUniChar(bad, out)) << ::testing::PrintToString(bad);
    EXPECT_TRUE(out.empty());
  }
}

}  // namespace
