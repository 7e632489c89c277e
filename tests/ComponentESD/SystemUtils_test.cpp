// Starting programs by path (bundle, executable, shell fallbacks and their quoting) and the
// system's name and version.
#include "xplat/SystemUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/FakeUpdaterBundle.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"

namespace {

namespace fs = std::filesystem;
using esd::SystemUtils::LaunchPath;
using testing_support::FakeUpdaterBundle;
using testing_support::TempDir;
using testing_support::TestEnv;
using testing_support::WriteFile;
using EnvList = std::vector<std::pair<std::string, std::string>>;

bool WaitForFile(const std::string& path, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!fs::exists(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// An executable without an interpreter line, which only a shell runs; it creates `marker`.
void WriteShellFragment(const std::string& path, const std::string& marker) {
  WriteFile(path, "touch \"" + marker + "\"\n");
  chmod(path.c_str(), 0755);
}

class LaunchPathTest : public ::testing::Test {
 protected:
  LaunchPathTest() : mScope(&mEnv) {}
  TempDir mTemp;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// A bundle (XML or binary Info.plist) is started by its program, and an executable that is no
// bundle as it is, with no shell. (What the program is handed is the updater launch tests'.)
TEST_F(LaunchPathTest, BundleOrExecutableStartsWithoutAShell) {
  for (int kind = 0; kind < 3; ++kind) {  // XML bundle, binary bundle, the program itself
    SCOPED_TRACE(kind);
    FakeUpdaterBundle::Options options;
    options.programName = "Some Program";
    options.binaryInfoPlist = kind == 1;
    FakeUpdaterBundle bundle(mTemp / ("B" + std::to_string(kind) + ".app"), options);
    EnvList env = {{"LAUNCH_TEST", "it's \"quoted\""}};
    ASSERT_TRUE(LaunchPath(kind == 2 ? bundle.programPath() : bundle.path(), env));
    const auto reports = bundle.WaitForReports(1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].environment.at("LAUNCH_TEST"), "it's \"quoted\"");
    EXPECT_TRUE(mEnv.ShellCommands().empty());
    EXPECT_TRUE(bundle.Stop());
  }
}

// The shell gets the path single-quoted, every single quote escaped: a path that exists but
// cannot be executed directly runs in the background; a path that does not exist runs in the
// foreground and its status decides, so "/x/Missing Dir/prog" never runs an executable
// "/x/Missing" with an argument.
TEST_F(LaunchPathTest, ShellFallbackQuotesThePath) {
  fs::create_directory(mTemp / "it's here");
  fs::create_directory(mTemp / "a'b");
  WriteShellFragment(mTemp / "it's here/start me", mTemp / "ran");
  WriteShellFragment(mTemp / "a'b/x'", mTemp / "late");
  WriteShellFragment(mTemp / "Missing", mTemp / "split");
  const std::string base = "'" + mTemp.path();
  const struct {
    std::string path;
    bool started;
    std::string command;
    std::string marker;
  } cases[] = {
      {mTemp / "it's here/start me", true, base + "/it'\\''s here/start me' &", mTemp / "ran"},
      {mTemp / "a'b/x'", true, base + "/a'\\''b/x'\\''' &", mTemp / "late"},
      {mTemp / "Missing Dir/prog", false, base + "/Missing Dir/prog'", mTemp / "split"},
  };
  EnvList env;
  for (const auto& c : cases) {
    EXPECT_EQ(LaunchPath(c.path, env), c.started) << c.path;
    EXPECT_EQ(mEnv.ShellCommands().back(), c.command);
    EXPECT_EQ(WaitForFile(c.marker, c.started ? 10000 : 100), c.started) << c.marker;
  }
}

// A bundle that cannot be started (the start fails, or its Info.plist does not parse) is handed
// to the shell as a quoted path in the background.
TEST_F(LaunchPathTest, BundleThatCannotBeStartedGoesToTheShell) {
  mEnv.RecordLaunches(false, 0);
  FakeUpdaterBundle bundle(mTemp / "Recorded.app");
  EnvList env;
  EXPECT_TRUE(LaunchPath(bundle.path(), env));
  ASSERT_EQ(mEnv.Launches().size(), 1u);
  EXPECT_EQ(mEnv.Launches()[0].program, bundle.path() + "/Contents/MacOS/Vantu Updater");
  EXPECT_EQ(mEnv.ShellCommands(), std::vector<std::string>{"'" + bundle.path() + "' &"});

  // A bundle whose Info.plist does not parse cannot be opened; the shell gets the path.
  WriteFile(bundle.path() + "/Contents/Info.plist", "<plist><dict><key>");
  EXPECT_TRUE(LaunchPath(bundle.path(), env));
  EXPECT_EQ(mEnv.Launches().size(), 1u);
  EXPECT_EQ(mEnv.ShellCommands().size(), 2u);
}

TEST(SystemUtilsTest, PlatformNameAndVersion) {
  EXPECT_EQ(esd::SystemUtils::GetOSPlatform(), "Linux");
  TestEnv env;
  esd::ScopedEnv scope(&env);
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {"6.1.0-18-amd64", "6.1.0"}, {"5.15", "5.15.0"},   {"4", "4.0.0"},
      {"5.15-rc2", "5.15.0"},      {"6.1.0.7", "6.1.0"}, {"10.04.09", "10.4.9"},
      {"abc", ""},                 {"99999999999999999999.1", ""},
      {std::nullopt, ""},
  };
  for (const auto& [release, expected] : cases) {
    SCOPED_TRACE(release.value_or("<unreadable>"));
    env.SetKernelRelease(release);
    EXPECT_EQ(esd::SystemUtils::GetOSPlatformVersion(), expected);
  }
}

// The digits of a number in a base are read as a decimal number (0x1039 → 1039); a digit above 9
// carries, and what cannot be converted comes back as it was.
TEST(SystemUtilsTest, ConvertBaseReadsDigitsAsDecimal) {
  using esd::SystemUtils::ConvertBase;
  EXPECT_EQ(ConvertBase(0x1039, 16), 1039);
  EXPECT_EQ(ConvertBase(0x1B, 16), 21);
  EXPECT_EQ(ConvertBase(5, 2), 101);
  EXPECT_EQ(ConvertBase(-7, 16), -7);
  EXPECT_EQ(ConvertBase(12, 1), 12);
  EXPECT_EQ(ConvertBase(LONG_MAX, 2), LONG_MAX);
}

}  // namespace
