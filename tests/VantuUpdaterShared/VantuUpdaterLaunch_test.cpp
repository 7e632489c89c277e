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
using testing_support::TestEnv;
using VantuUpdaterUtils::EnvironmentList;

const char* const kTestVariables[] = {
    "VU_TEST_SET",        "VU_TEST_UNSET",          "RZ_LAUNCH_MODE",   "RZ_DISPLAY_LANG",
    "FAKE_UPDATER_CHILD", "FAKE_UPDATER_CHILD_ARG", "FAKE_UPDATER_EXIT"};

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "<unset>";
}

class UpdaterLaunchTest : public ::testing::Test {
 protected:
  UpdaterLaunchTest() { Install(mEnv); }
  ~UpdaterLaunchTest() override {
    for (const char* name : kTestVariables) unsetenv(name);
  }
  // Makes `env` see the relocated root and only this test's processes.
  void Install(TestEnv& env) {
    env.SetRoot(root());
    env.ShowOnlyOwnProcesses();
    fs::create_directories(root() + "/opt");
  }
  std::string root() const { return mBase / "it's the root"; }
  std::string installed() const { return FakeUpdaterBundle::InstalledPath(root()); }

  testing_support::TempDir mBase;
  TestEnv mEnv;
  esd::ScopedEnv mScope{&mEnv};
  EnvironmentList mNone;
};

// The updater starts detached with the parameters, which stay set in the caller, also when no
// updater is installed.
TEST_F(UpdaterLaunchTest, LaunchUpdaterHandsOverTheParameters) {
  EnvironmentList params = {{"VU_TEST_SET", "it's set"}};
  EXPECT_FALSE(VantuUpdaterUtils::LaunchUpdater(params));
  EXPECT_EQ(Variable("VU_TEST_SET"), "it's set");

  FakeUpdaterBundle bundle(installed());
  ASSERT_TRUE(CKVXVersion().LaunchUpdater(
      {{VantuUpdaterUtils::kEnvStartMode, "3"}, {VantuUpdaterUtils::kEnvDisplayLang, "de_DE"}}));
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].environment.at("RZ_LAUNCH_MODE"), "3");
  EXPECT_EQ(reports[0].environment.at("RZ_DISPLAY_LANG"), "de_DE");
  EXPECT_EQ(reports[0].standardInput, "/dev/null");
  EXPECT_EQ(Variable("RZ_LAUNCH_MODE"), "3");
}

// Forking runs the quoted program through the shell and then restores the caller's environment
// (old value, or unset); in the foreground the updater's exit status decides, and a missing
// program fails without a shell.
TEST_F(UpdaterLaunchTest, ForkUpdaterRestoresTheCallersEnvironment) {
  FakeUpdaterBundle bundle(installed());
  setenv("VU_TEST_SET", "before", 1);
  EnvironmentList params = {
      {"VU_TEST_SET", "during"}, {"VU_TEST_UNSET", "too"}, {"VU_TEST_SET", "second"}};
  ASSERT_TRUE(VantuUpdaterUtils::ForkUpdater(params, true));
  EXPECT_EQ(Variable("VU_TEST_SET") + Variable("VU_TEST_UNSET"), "before<unset>");
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].environment.at("VU_TEST_SET"), "second");
  EXPECT_EQ(reports[0].environment.at("VU_TEST_UNSET"), "too");
  const std::string program = installed() + "/Contents/MacOS/Vantu Updater";
  EXPECT_EQ(mEnv.ShellCommands(),
            std::vector<std::string>{"'" + mBase.path() + "/it'\\''s the root" +
                                     program.substr(root().size()) + "' &"});
  EXPECT_TRUE(CKVXVersion().ForkUpdater({{"VU_TEST_UNSET", "again"}}));
  EXPECT_EQ(bundle.WaitForReports(2).size(), 2u);
  EXPECT_EQ(Variable("VU_TEST_UNSET"), "<unset>");

  EnvironmentList succeed = {{"FAKE_UPDATER_EXIT", "0"}}, fail = {{"FAKE_UPDATER_EXIT", "3"}};
  EXPECT_TRUE(VantuUpdaterUtils::ForkUpdater(succeed, false));
  EXPECT_EQ(bundle.Reports().size(), 3u) << "the updater ran before ForkUpdater returned";
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(fail, false));
  EXPECT_EQ(bundle.Reports().size(), 4u);

  fs::remove(bundle.programPath());
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(params, true));
  EXPECT_EQ(Variable("VU_TEST_SET"), "before");
  EXPECT_EQ(mEnv.ShellCommands().size(), 4u) << "no shell for a missing program";
}

// An updater bundle runs when a process of type APPL and signature ROZ5 runs, wherever it lies,
// once the updater is installed; only a request brings the first one in the table to the front.
TEST_F(UpdaterLaunchTest, RunningUpdaterIsFoundWhileItRuns) {
  FakeUpdaterBundle::Options otherSignature, otherType;
  otherSignature.signature = "ROZ4";
  otherType.packageType = "FMWK";
  FakeUpdaterBundle other(mBase / "Other.app", otherSignature);
  FakeUpdaterBundle framework(mBase / "Framework.app", otherType);
  FakeUpdaterBundle elsewhere(mBase / "Elsewhere.app");
  for (FakeUpdaterBundle* started : {&other, &framework, &elsewhere}) {
    ASSERT_TRUE(esd::SystemUtils::LaunchPath(started->path(), mNone));
    ASSERT_EQ(started->WaitForReports(1).size(), 1u);
  }
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "running, but not installed";
  FakeUpdaterBundle bundle(installed());
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));
  EXPECT_TRUE(elsewhere.Stop());
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_TRUE(mEnv.BroughtToFront().empty());

  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(mNone));
  ASSERT_TRUE(esd::SystemUtils::LaunchPath(elsewhere.path(), mNone));
  const pid_t first = bundle.WaitForReports(1).at(0).pid;
  const pid_t second = elsewhere.WaitForReports(2).at(1).pid;
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));
  EXPECT_TRUE(mEnv.BroughtToFront().empty());
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_EQ(mEnv.BroughtToFront(), std::vector<pid_t>{std::min(first, second)});
  ASSERT_TRUE(bundle.Stop() && elsewhere.Stop());
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));
}

// A program started by the updater is told that the updater is not running; others see it.
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

// An updater whose program is a script is recognised by the script's path among the
// interpreter's arguments.
TEST_F(UpdaterLaunchTest, ScriptUpdaterIsFoundThroughItsArguments) {
  FakeUpdaterBundle bundle(installed());
  const std::string stopFile = mBase / "script.stop";
  testing_support::WriteFile(bundle.programPath(),
                             "#!/bin/sh\nwhile [ ! -e '" + stopFile + "' ]; do sleep 0.01; done\n");
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(mNone));
  bool seen = false;
  for (int i = 0; i < 2000 && !(seen = VantuUpdaterUtils::IsUpdaterRunning(true)); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_TRUE(seen);
  const pid_t script = mEnv.BroughtToFront().back();
  testing_support::WriteFile(stopFile, "");
  ASSERT_TRUE(testing_support::WaitForProcessEnd(script));
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));
}

// Odd process tables are passed over: a process that ended during the walk, a caller without a
// parent in sight (the first process of a container), and a running bundle whose Info.plist no
// longer parses or is a named pipe.
TEST_F(UpdaterLaunchTest, OddProcessTablesAndBrokenBundlesArePassedOver) {
  class OddTable : public TestEnv {
   public:
    bool ListProcessIds(std::vector<pid_t>& pids) override {
      if (!TestEnv::ListProcessIds(pids)) return false;
      pids.insert(pids.begin(), mGone);
      return true;
    }
    bool GetProcessInfo(pid_t pid, ProcessInfo& info) override {
      if (!TestEnv::GetProcessInfo(pid, info)) return false;
      if (pid == getpid()) info.parentPid = 0;
      return true;
    }
    pid_t mGone = testing_support::StartChild([] { return 0; });
  } env;
  testing_support::WaitChild(env.mGone);
  Install(env);
  esd::ScopedEnv scope(&env);
  FakeUpdaterBundle bundle(installed());
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(mNone));
  ASSERT_EQ(bundle.WaitForReports(1).size(), 1u);
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));

  const std::string infoPlist = installed() + "/Contents/Info.plist";
  testing_support::WriteFile(infoPlist, "<?xml version=\"1.0\"?><plist");
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));
  fs::remove(infoPlist);
  ASSERT_EQ(mkfifo(infoPlist.c_str(), 0600), 0);
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "a named pipe is not read";
}

}  // namespace
