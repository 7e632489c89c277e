#include "xplat/ProcessUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ProcessUtils, LocatesTheRunningExecutable) {
  std::string path;
  ASSERT_TRUE(esd::ProcessUtils::GetCurProcessPath(path));
  ASSERT_FALSE(path.empty());
  EXPECT_EQ('/', path.front());
  EXPECT_EQ("ProcessUtils_test", path.substr(path.rfind('/') + 1));

  struct stat named;
  struct stat running;
  ASSERT_EQ(0, ::stat(path.c_str(), &named));
  ASSERT_EQ(0, ::stat("/proc/self/exe", &running));
  EXPECT_EQ(running.st_ino, named.st_ino);
  EXPECT_EQ(running.st_dev, named.st_dev);

  std::string dir;
  ASSERT_TRUE(esd::ProcessUtils::GetCurProcessDir(dir));
  EXPECT_EQ(path.substr(0, path.rfind('/')), dir);
}

}  // namespace
