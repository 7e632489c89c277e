#include "xplat/FileSystemVersion.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "xplat/ChangeDiffType.h"

namespace {

FileSystemVersion V(const std::string& text) { return FileSystemVersion(text); }

// Stored "version" attributes are read through the stream operators: a word that does not parse
// still yields its partial version and the stream stays good; so does the text conversion, which
// needs exactly one word.
TEST(FileSystemVersion, StreamOperatorsAndTextConversionAreLenientOnContent) {
  std::ostringstream out;
  out << V("1,2");
  EXPECT_EQ("1.2.0.0", out.str());
  std::istringstream in("  1.x.3 4-5\t1.2.3.4.5");
  FileSystemVersion version(FileSystemVersion::kInvalidVersion);
  for (const char* expected : {"1.0.0.0", "4.5.0.0", "1.2.3.4"}) {
    EXPECT_TRUE(static_cast<bool>(in >> version));
    EXPECT_EQ(expected, version.ToString());
  }
  EXPECT_FALSE(static_cast<bool>(in >> version));  // no word left: only now does the stream fail
  EXPECT_EQ("1.2.3.4", version.ToString());

  EXPECT_TRUE(esd::ChangeType(std::string(" 10,4 "), version));
  EXPECT_EQ("10.4.0.0", version.ToString());
  EXPECT_TRUE(esd::ChangeType(std::string("1.x.3"), version));  // partial, reported as success
  EXPECT_EQ("1.0.0.0", version.ToString());
  EXPECT_FALSE(esd::ChangeType(std::string(""), version));
  EXPECT_FALSE(esd::ChangeType(std::string("1.2 3.4"), version));
  std::string text;
  EXPECT_TRUE(esd::ChangeType(V("5-6"), text));
  EXPECT_EQ("5.6.0.0", text);
}

}  // namespace
