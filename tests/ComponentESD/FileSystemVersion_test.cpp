#include "xplat/FileSystemVersion.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "xplat/ChangeDiffType.h"

namespace {

FileSystemVersion V(const std::string& text) { return FileSystemVersion(text); }

struct ParseCase {
  std::string text;
  std::string result;  // ToString() after parsing, partial result when the parse fails
};

// Any of ". , - space" delimits, numbers are decimal, missing parts are 0, and a last piece that
// is empty or does not convert is ignored.
TEST(FileSystemVersion, AcceptsLooseForms) {
  const ParseCase kAccepted[] = {
      {"1,2 3-4", "1.2.3.4"},          {"7", "7.0.0.0"},
      {"", "0.0.0.0"},                 {"1.10", "1.10.0.0"},
      {"007.08", "7.8.0.0"},           {"2147483647.0.0.1", "2147483647.0.0.1"},
      {"1.2.", "1.2.0.0"},             {"1.2.beta", "1.2.0.0"},
      {"1.2.3.4.beta", "1.2.3.4"},     {"1.2.2147483648", "1.2.0.0"},
  };
  for (const ParseCase& c : kAccepted) {
    FileSystemVersion parsed(FileSystemVersion::kInvalidVersion);
    EXPECT_TRUE(FileSystemVersion::ParseVersionString(c.text, parsed)) << '"' << c.text << '"';
    EXPECT_EQ(c.result, parsed.ToString()) << '"' << c.text << '"';
    EXPECT_NO_THROW(EXPECT_EQ(c.result, V(c.text).ToString())) << '"' << c.text << '"';
  }
}

// A failed parse keeps what it read before the bad piece, zeroes the rest and never grows past
// four components; the constructor throws the fixed message.
TEST(FileSystemVersion, RejectsMalformedTextKeepingThePartialResult) {
  const ParseCase kRejected[] = {
      {"1..2", "1.0.0.0"},     {"-1", "0.0.0.0"},  // a minus is a delimiter: no negatives
      {" 1", "0.0.0.0"},       {"1.2a.3", "1.0.0.0"},
      {"2147483648.1", "0.0.0.0"},  // overflows 32 bits
      {"1.2.3.4.5", "1.2.3.4"},     // a fifth number has no place: fail rather than drop it
  };
  for (const ParseCase& c : kRejected) {
    FileSystemVersion parsed("5.5.5.5");
    EXPECT_FALSE(FileSystemVersion::ParseVersionString(c.text, parsed)) << '"' << c.text << '"';
    EXPECT_EQ(4u, parsed.versionComps.size()) << '"' << c.text << '"';
    EXPECT_EQ(c.result, parsed.ToString()) << '"' << c.text << '"';
    try {
      V(c.text);
      ADD_FAILURE() << "no exception for \"" << c.text << '"';
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ("Unable to parse version", e.what());
    }
  }
}

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
