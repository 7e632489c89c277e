// Starting the updater with its parameters and finding it among the running processes, with a
// real test bundle installed under a relocated root whose name holds a single quote.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/FakeUpdaterBundle.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/CKVXVersion.h"
#include "xplat/ScopedEnv.h"
#include "xplat/SystemUtils.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

namespace fs = std::filesystem;
using testing_support::FakeUpdaterBundle;
using testing_support::FakeUpdaterReport;
using testing_support::TempDir;
using testing_support::TestEnv;
using VantuUpdaterUtils::EnvironmentList;

const char* const kTestVariables[] = {"VU_TEST_SET", "VU_TEST_UNSET", "FAKE_UPDATER_EXIT",
                                      "FAKE_UPDATER_CHILD", "FAKE_UPDATER_CHILD_ARG"};

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "<unset>";
}

class UpdaterLaunchTest : public ::testing::Test {
 protected:
  UpdaterLaunchTest() : mScope(&mEnv) {
    for (const char* name : kTestVariables) unsetenv(name);
    mEnv.SetRoot(root());
    mEnv.ShowOnlyOwnProcesses();
    fs::create_directories(root() + "/opt");
  }
  ~UpdaterLaunchTest() override {
    for (const char* name : kTestVariables) unsetenv(name);
  }

  std::string root() const { return mBase / "it's the root"; }
  std::string installed() const { return FakeUpdaterBundle::InstalledPath(root()); }

  TempDir mBase;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// The updater starts detached with the parameters in its environment, and they stay set in
// the caller; a missing updater is a failure that leaves them set all the same.
TEST_F(UpdaterLaunchTest, LaunchUpdaterHandsOverTheParameters) {
  EnvironmentList params = {{"VU_TEST_SET", "it's set"}};
  fs::remove(root() + "/opt");
  EXPECT_FALSE(VantuUpdaterUtils::LaunchUpdater(params)) << "no Utilities folder";
  EXPECT_EQ(Variable("VU_TEST_SET"), "<unset>") << "nothing is set without a location";

  fs::create_directory(root() + "/opt");
  EXPECT_FALSE(VantuUpdaterUtils::LaunchUpdater(params)) << "nothing installed";
  EXPECT_EQ(Variable("VU_TEST_SET"), "it's set");

  FakeUpdaterBundle bundle(installed());
  CKVXVersion launcher;
  ASSERT_TRUE(launcher.LaunchUpdater({{VantuUpdaterUtils::kEnvStartMode, "3"},
                                      {VantuUpdaterUtils::kEnvDisplayLang, "de_DE"}}));
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].environment.at("RZ_LAUNCH_MODE"), "3");
  EXPECT_EQ(reports[0].environment.at("RZ_DISPLAY_LANG"), "de_DE");
  EXPECT_EQ(reports[0].standardInput, "/dev/null");
  EXPECT_EQ(Variable("RZ_LAUNCH_MODE"), "3");
  unsetenv("RZ_LAUNCH_MODE");
  unsetenv("RZ_DISPLAY_LANG");
}

// Forking hands the parameters to the updater through the shell, quoting the path, and then
// restores the caller's environment: a set variable to its old value, an unset one unset.
TEST_F(UpdaterLaunchTest, ForkUpdaterRestoresTheCallersEnvironment) {
  FakeUpdaterBundle bundle(installed());
  setenv("VU_TEST_SET", "before", 1);
  EnvironmentList params = {{"VU_TEST_SET", "during"},
                            {"VU_TEST_UNSET", "during too"},
                            {"VU_TEST_SET", "during, second value"}};
  ASSERT_TRUE(VantuUpdaterUtils::ForkUpdater(params, true));
  EXPECT_EQ(Variable("VU_TEST_SET"), "before");
  EXPECT_EQ(Variable("VU_TEST_UNSET"), "<unset>");
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].environment.at("VU_TEST_SET"), "during, second value");
  EXPECT_EQ(reports[0].environment.at("VU_TEST_UNSET"), "during too");
  const std::string program = installed() + "/Contents/MacOS/Vantu Updater";
  EXPECT_EQ(mEnv.ShellCommands(),
            std::vector<std::string>{"'" + mBase.path() + "/it'\\''s the root" +
                                     program.substr(root().size()) + "' &"});

  CKVXVersion launcher;
  EXPECT_TRUE(launcher.ForkUpdater({{"VU_TEST_UNSET", "again"}}));
  EXPECT_EQ(bundle.WaitForReports(2).size(), 2u);
  EXPECT_EQ(Variable("VU_TEST_UNSET"), "<unset>");
}

// In the foreground the shell waits for the updater, whose exit status decides; the
// environment is restored either way, also when the updater's program is missing.
TEST_F(UpdaterLaunchTest, ForkUpdaterInTheForegroundWaitsForTheUpdater) {
  FakeUpdaterBundle bundle(installed());
  EnvironmentList succeed = {{"FAKE_UPDATER_EXIT", "0"}};
  EXPECT_TRUE(VantuUpdaterUtils::ForkUpdater(succeed, false));
  EXPECT_EQ(bundle.Reports().size(), 1u) << "the updater ran before ForkUpdater returned";
  EnvironmentList fail = {{"FAKE_UPDATER_EXIT", "3"}};
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(fail, false));
  EXPECT_EQ(bundle.Reports().size(), 2u);
  EXPECT_EQ(Variable("FAKE_UPDATER_EXIT"), "<unset>");

  fs::remove(bundle.programPath());
  setenv("VU_TEST_SET", "kept", 1);
  EnvironmentList params = {{"VU_TEST_SET", "changed"}};
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(params, true));
  EXPECT_EQ(Variable("VU_TEST_SET"), "kept");
  EXPECT_EQ(mEnv.ShellCommands().size(), 2u) << "no shell for a missing program";
}

// The updater is seen while it runs and not after it ended, and only when it is installed; a
// bundle of another type or signature is no updater.
TEST_F(UpdaterLaunchTest, RunningUpdaterIsFoundWhileItRuns) {
  FakeUpdaterBundle::Options otherSignature;
  otherSignature.signature = "ROZ4";
  FakeUpdaterBundle other(mBase / "Other.app", otherSignature);
  FakeUpdaterBundle::Options otherType;
  otherType.packageType = "FMWK";
  FakeUpdaterBundle framework(mBase / "Framework.app", otherType);
  FakeUpdaterBundle elsewhere(mBase / "Elsewhere.app");
  EnvironmentList none;
  ASSERT_TRUE(esd::SystemUtils::LaunchPath(other.path(), none));
  ASSERT_TRUE(esd::SystemUtils::LaunchPath(framework.path(), none));
  ASSERT_TRUE(esd::SystemUtils::LaunchPath(elsewhere.path(), none));
  ASSERT_EQ(elsewhere.WaitForReports(1).size(), 1u);
  ASSERT_EQ(other.WaitForReports(1).size(), 1u);
  ASSERT_EQ(framework.WaitForReports(1).size(), 1u);
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "running, but not installed";
  EXPECT_TRUE(elsewhere.Stop());

  FakeUpdaterBundle bundle(installed());
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_TRUE(mEnv.BroughtToFront().empty());

  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(none));
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));
  EXPECT_TRUE(mEnv.BroughtToFront().empty());
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_EQ(mEnv.BroughtToFront(), std::vector<pid_t>{reports[0].pid});

  ASSERT_TRUE(bundle.Stop());
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));
}

// With two updaters running, the first in the process table is the one brought to the front.
TEST_F(UpdaterLaunchTest, FirstOfTwoUpdatersIsBroughtToTheFront) {
  FakeUpdaterBundle bundle(installed());
  FakeUpdaterBundle second(mBase / "Second.app");
  EnvironmentList none;
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(none));
  ASSERT_TRUE(esd::SystemUtils::LaunchPath(second.path(), none));
  const pid_t first = bundle.WaitForReports(1).at(0).pid;
  const pid_t other = second.WaitForReports(1).at(0).pid;
  ASSERT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_EQ(mEnv.BroughtToFront(), std::vector<pid_t>{std::min(first, other)});
}

// A program started by the updater is told that the updater is not running, while anyone else
// sees it running.
TEST_F(UpdaterLaunchTest, UpdatersOwnChildSeesNoRunningUpdater) {
  FakeUpdaterBundle bundle(installed());
  EnvironmentList params = {{"FAKE_UPDATER_CHILD", testing_support::UpdaterProbeProgram()},
                            {"FAKE_UPDATER_CHILD_ARG", root()}};
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(params));
  const pid_t updater = bundle.WaitForReports(1).at(0).pid;
  EXPECT_EQ(bundle.WaitForChildStatus(updater), 0) << "the probe under the updater saw it";

  const pid_t probe = testing_support::StartChild([&] {
    execl(testing_support::UpdaterProbeProgram().c_str(), "UpdaterProbe", root().c_str(),
          static_cast<char*>(nullptr));
    return 127;
  });
  EXPECT_EQ(testing_support::WaitChild(probe), 1) << "a probe of the test's own missed it";
}

// An updater whose program is a script runs as its interpreter; it is recognised by the
// script's path among the interpreter's arguments.
TEST_F(UpdaterLaunchTest, ScriptUpdaterIsFoundThroughItsArguments) {
  FakeUpdaterBundle bundle(installed());
  const std::string pidFile = mBase / "script.pid";
  const std::string stopFile = mBase / "script.stop";
  testing_support::WriteFile(bundle.programPath(),
                             "#!/bin/sh\necho $$ > '" + pidFile + ".tmp'\nmv '" + pidFile +
                                 ".tmp' '" + pidFile + "'\nwhile [ ! -e '" + stopFile +
                                 "' ]; do sleep 0.01; done\n");
  EnvironmentList none;
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(none));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!fs::exists(pidFile) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_TRUE(fs::exists(pidFile));
  const pid_t script = std::stoi(testing_support::ReadFile(pidFile));
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_EQ(mEnv.BroughtToFront(), std::vector<pid_t>{script});
  testing_support::WriteFile(stopFile, "");
  ASSERT_TRUE(testing_support::WaitForProcessEnd(script));
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));
}

// Processes that end during the walk, and a running bundle whose Info.plist no longer parses,
// are passed over without harm.
TEST_F(UpdaterLaunchTest, VanishedProcessesAndBrokenBundlesArePassedOver) {
  class VanishingTable : public TestEnv {
   public:
    bool ListProcessIds(std::vector<pid_t>& pids) override {
      if (!TestEnv::ListProcessIds(pids)) return false;
      pids.insert(pids.begin(), mGone);
      return true;
    }
    pid_t mGone = 0;
  } env;
  env.SetRoot(root());
  env.ShowOnlyOwnProcesses();
  esd::ScopedEnv scope(&env);
  env.mGone = testing_support::StartChild([] { return 0; });
  testing_support::WaitChild(env.mGone);

  FakeUpdaterBundle bundle(installed());
  EnvironmentList none;
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(none));
  ASSERT_EQ(bundle.WaitForReports(1).size(), 1u);
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));

  testing_support::WriteFile(installed() + "/Contents/Info.plist", "<?xml version=\"1.0\"?><plist");
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));
  fs::remove(installed() + "/Contents/Info.plist");
  ASSERT_EQ(mkfifo((installed() + "/Contents/Info.plist").c_str(), 0600), 0);
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "a named pipe is not read";
}

// A caller without a parent in sight (the first process of a container) was not launched by
// the updater and still sees it running.
TEST_F(UpdaterLaunchTest, CallerWithoutParentStillSeesTheUpdater) {
  class Orphan : public TestEnv {
   public:
    bool GetProcessInfo(pid_t pid, ProcessInfo& info) override {
      if (!TestEnv::GetProcessInfo(pid, info)) return false;
      if (pid == getpid()) info.parentPid = 0;
      return true;
    }
  } env;
  env.SetRoot(root());
  env.ShowOnlyOwnProcesses();
  esd::ScopedEnv scope(&env);
  FakeUpdaterBundle bundle(installed());
  EnvironmentList none;
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(none));
  ASSERT_EQ(bundle.WaitForReports(1).size(), 1u);
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));
}

}  // namespace
