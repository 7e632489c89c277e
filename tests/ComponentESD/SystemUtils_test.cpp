// Starting programs by path (bundle, executable, shell fallbacks and their quoting) and the
// system's name and version.
#include "xplat/SystemUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
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

// Unsets the given variables when the test ends, since LaunchPath leaves them set.
class VariableCleanup {
 public:
  explicit VariableCleanup(std::vector<std::string> names) : mNames(std::move(names)) {
    for (const auto& name : mNames) unsetenv(name.c_str());
  }
  ~VariableCleanup() {
    for (const auto& name : mNames) unsetenv(name.c_str());
  }

 private:
  std::vector<std::string> mNames;
};

bool WaitForFile(const std::string& path, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!fs::exists(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// An executable shell fragment without an interpreter line: exec refuses it, only a shell runs
// it. Running it creates `marker`.
void WriteShellFragment(const std::string& path, const std::string& marker) {
  WriteFile(path, "touch \"" + marker + "\"\n");
  chmod(path.c_str(), 0755);
}

class LaunchPathTest : public ::testing::Test {
 protected:
  LaunchPathTest() : mScope(&mEnv) {}
  TempDir mTemp;
  VariableCleanup mCleanup{{"LAUNCH_TEST_A", "LAUNCH_TEST_B"}};
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// A bundle (XML or binary Info.plist) is started by its program, detached, with the variables
// in its environment; the variables stay set in the caller afterwards.
TEST_F(LaunchPathTest, BundleStartsItsProgramWithTheVariables) {
  for (bool binary : {false, true}) {
    SCOPED_TRACE(binary ? "binary Info.plist" : "XML Info.plist");
    FakeUpdaterBundle::Options options;
    options.programName = "Some Program";
    options.binaryInfoPlist = binary;
    FakeUpdaterBundle bundle(mTemp / (binary ? "Binary.app" : "Xml.app"), options);
    EnvList env = {{"LAUNCH_TEST_A", "first"}, {"LAUNCH_TEST_B", "it's \"quoted\""},
                   {"LAUNCH_TEST_A", "second"}};
    ASSERT_TRUE(LaunchPath(bundle.path(), env));
    const auto reports = bundle.WaitForReports(1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].environment.at("LAUNCH_TEST_A"), "second");
    EXPECT_EQ(reports[0].environment.at("LAUNCH_TEST_B"), "it's \"quoted\"");
    EXPECT_EQ(reports[0].standardInput, "/dev/null");
    EXPECT_STREQ(std::getenv("LAUNCH_TEST_A"), "second");
    EXPECT_TRUE(mEnv.ShellCommands().empty()) << "no shell was needed";
    EXPECT_TRUE(bundle.Stop());
  }
}

// An executable file that is no bundle is started as it is.
TEST_F(LaunchPathTest, ExecutableFileStartsItself) {
  FakeUpdaterBundle bundle(mTemp / "Plain.app");
  EnvList env = {{"LAUNCH_TEST_A", "direct"}};
  ASSERT_TRUE(LaunchPath(bundle.programPath(), env));
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].environment.at("LAUNCH_TEST_A"), "direct");
}

// A path that exists but cannot be executed directly goes to the shell, single-quoted and in
// the background, and a single quote in it is escaped so the shell runs exactly that file.
TEST_F(LaunchPathTest, ShellFallbackQuotesAPathHoldingASingleQuote) {
  const std::string folder = mTemp / "it's here";
  fs::create_directory(folder);
  const std::string script = folder + "/start me";
  const std::string marker = mTemp / "ran";
  WriteShellFragment(script, marker);
  EnvList env;
  ASSERT_TRUE(LaunchPath(script, env));
  EXPECT_TRUE(WaitForFile(marker));
  ASSERT_EQ(mEnv.ShellCommands().size(), 1u);
  EXPECT_EQ(mEnv.ShellCommands()[0], "'" + mTemp.path() + "/it'\\''s here/start me' &");
}

// The fallback scans only as many positions as the path has characters, so the last of several
// quotes near the end stays unescaped and the shell refuses the command.
TEST_F(LaunchPathTest, ShellFallbackLeavesALateQuoteUnescaped) {
  const std::string folder = mTemp / "a'b";
  fs::create_directory(folder);
  const std::string script = folder + "/x'";
  WriteShellFragment(script, mTemp / "ran");
  EnvList env;
  EXPECT_FALSE(LaunchPath(script, env));
  ASSERT_EQ(mEnv.ShellCommands().size(), 1u);
  EXPECT_EQ(mEnv.ShellCommands()[0], "'" + mTemp.path() + "/a'\\''b/x'' &");
  EXPECT_FALSE(fs::exists(mTemp / "ran"));
  EXPECT_EQ(esd::SystemUtils::QuoteShellArgument(script),
            "'" + mTemp.path() + "/a'\\''b/x'\\'''");
}

// A path that does not exist is run as a shell command, unquoted and in the foreground; its
// exit status decides. The variables are set all the same.
TEST_F(LaunchPathTest, MissingPathRunsAsForegroundCommand) {
  const std::string marker = mTemp / "foreground";
  EnvList env = {{"LAUNCH_TEST_A", "kept"}};
  EXPECT_TRUE(LaunchPath("touch '" + marker + "'", env));
  EXPECT_TRUE(fs::exists(marker)) << "the command finished before LaunchPath returned";
  EXPECT_FALSE(LaunchPath("exit 4", env));
  EXPECT_STREQ(std::getenv("LAUNCH_TEST_A"), "kept");
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
      {"abc", ""},                 {"", ""},             {"99999999999999999999.1", ""},
      {std::nullopt, ""},
  };
  for (const auto& [release, expected] : cases) {
    SCOPED_TRACE(release.value_or("<unreadable>"));
    env.SetKernelRelease(release);
    EXPECT_EQ(esd::SystemUtils::GetOSPlatformVersion(), expected);
  }
}

// Hexadecimal digits read as decimal ones, as a binary-coded decimal version needs; a digit
// above 9 spills over.
TEST(SystemUtilsTest, ConvertBaseReadsDigitsAsDecimal) {
  using esd::SystemUtils::ConvertBase;
  EXPECT_EQ(ConvertBase(0x1039, 16), 1039);
  EXPECT_EQ(ConvertBase(0x10, 16), 10);
  EXPECT_EQ(ConvertBase(0x9, 16), 9);
  EXPECT_EQ(ConvertBase(0xB, 16), 11);
  EXPECT_EQ(ConvertBase(0x1B, 16), 21);
  EXPECT_EQ(ConvertBase(5, 2), 101);
  EXPECT_EQ(ConvertBase(-7, 16), -7);
  EXPECT_EQ(ConvertBase(12, 1), 12);
  EXPECT_EQ(ConvertBase(12, 0), 12);
  EXPECT_EQ(ConvertBase(LONG_MAX, 2), LONG_MAX);
}

}  // namespace
