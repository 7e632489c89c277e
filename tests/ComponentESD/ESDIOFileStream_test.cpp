#include "xplat/ESDIOFileStream.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "support/TempDir.h"

namespace {

using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

TEST(ESDIOFileStream, WritesAndReadsBinaryBytes) {
  TempDir dir;
  const std::string path = dir / "data";
  const std::string bytes("line\r\n\0\xff end", 12);
  WriteFile(path, "an older and longer text that must not survive");
  {
    ESDofstream out(path, "wb", std::ios::out | std::ios::trunc | std::ios::binary);
    ASSERT_TRUE(out.GetStream().is_open());
    out.GetStream().write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }  // the destructor flushes and closes
  EXPECT_EQ(bytes, ReadFile(path));

  ESDifstream in(path, "rb", std::ios::in | std::ios::binary);
  ASSERT_TRUE(in.GetStream().is_open());
  const std::string read((std::istreambuf_iterator<char>(in.GetStream())),
                         std::istreambuf_iterator<char>());
  EXPECT_EQ(bytes, read);
}

TEST(ESDIOFileStream, FailedOpenLeavesAClosedStream) {
  TempDir dir;
  ESDifstream missing(dir / "missing");
  EXPECT_FALSE(missing.GetStream().is_open());

  ESDofstream nowhere(dir / "no/folder/file");
  EXPECT_FALSE(nowhere.GetStream().is_open());
  nowhere.GetStream() << "lost";
  EXPECT_TRUE(nowhere.GetStream().fail());
}

}  // namespace
