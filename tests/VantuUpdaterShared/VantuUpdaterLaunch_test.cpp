// Starting the updater with its parameters and finding it among the running processes, with a
// real test bundle installed under a relocated root whose name holds a single quote.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
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

class UpdaterLaunchTest : public ::testing::Test {
 protected:
  UpdaterLaunchTest() { Install(mEnv); }
  ~UpdaterLaunchTest() override { unsetenv("VU_TEST_SET"); }
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

// Both ways of starting the updater hand it the parameters (a later pair wins) on top of the
// host's environment, and nothing else of the host: no descriptor beyond the standard three,
// even one without close-on-exec, and the host's own environment stays exactly as it was.
TEST_F(UpdaterLaunchTest, UpdaterGetsTheParametersAndNothingElseOfTheHost) {
  const std::function<bool(EnvironmentList&)> launches[] = {
      [](EnvironmentList& p) { return VantuUpdaterUtils::LaunchUpdater(p); },
      [](EnvironmentList& p) { return VantuUpdaterUtils::ForkUpdater(p, true); },
      [](EnvironmentList& p) { return CKVXVersion().LaunchUpdater(p); },
      [](EnvironmentList& p) { return CKVXVersion().ForkUpdater(p); }};
  setenv("VU_TEST_SET", "before", 1);
  const int held = open(mBase.path().c_str(), O_RDONLY | O_DIRECTORY);  // no close-on-exec
  ASSERT_GT(held, 2);
  for (const auto& launch : launches) {
    SCOPED_TRACE(&launch - launches);
    fs::remove_all(installed());
    EnvironmentList params = {{"VU_TEST_SET", "during"},
                              {VantuUpdaterUtils::kEnvStartMode, "1"},
                              {"VU_TEST_SET", "second"}};
    EXPECT_FALSE(launch(params)) << "not installed";
    FakeUpdaterBundle bundle(installed());
    ASSERT_TRUE(launch(params));
    const auto reports = bundle.WaitForReports(1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].environment.at("VU_TEST_SET"), "second");
    EXPECT_EQ(reports[0].environment.at("RZ_LAUNCH_MODE"), "1");
    EXPECT_EQ(reports[0].standardInput, "/dev/null");
    EXPECT_EQ(reports[0].descriptors, std::vector<int>{});
    EXPECT_STREQ(std::getenv("VU_TEST_SET"), "before");
    EXPECT_EQ(std::getenv("RZ_LAUNCH_MODE"), nullptr);
    EXPECT_TRUE(bundle.Stop());
  }
  close(held);
}

// In the foreground the updater's exit status decides; a missing program fails without a shell.
TEST_F(UpdaterLaunchTest, ForegroundForkWaitsForTheUpdater) {
  FakeUpdaterBundle bundle(installed());
  EnvironmentList succeed = {{"FAKE_UPDATER_EXIT", "0"}}, fail = {{"FAKE_UPDATER_EXIT", "3"}};
  EXPECT_TRUE(VantuUpdaterUtils::ForkUpdater(succeed, false));
  EXPECT_EQ(bundle.Reports().size(), 1u) << "the updater ran before ForkUpdater returned";
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(fail, false));
  EXPECT_EQ(bundle.Reports().size(), 2u);
  EXPECT_EQ(mEnv.ShellCommands().size(), 2u);
  fs::remove(bundle.programPath());
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(succeed, true));
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(succeed, false));
  EXPECT_EQ(mEnv.ShellCommands().size(), 2u) << "no shell for a missing program";
}

// Only the installed updater's own program counts, once installed: a copy of its bundle
// elsewhere, the genuine Info.plist included, is not the updater. Only a request brings the
// first one in the table to the front.
TEST_F(UpdaterLaunchTest, OnlyTheInstalledProgramIsTheUpdater) {
  FakeUpdaterBundle copy(mBase / "Copy.app");
  ASSERT_TRUE(esd::SystemUtils::LaunchPath(copy.path(), mNone));
  ASSERT_EQ(copy.WaitForReports(1).size(), 1u);
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "running, but not installed";
  FakeUpdaterBundle bundle(installed());
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(true)) << "a copy is not the updater";
  EXPECT_TRUE(mEnv.BroughtToFront().empty());

  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(mNone));
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(mNone));
  const auto reports = bundle.WaitForReports(2);
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(false));
  EXPECT_TRUE(mEnv.BroughtToFront().empty());
  EXPECT_TRUE(VantuUpdaterUtils::IsUpdaterRunning(true));
  EXPECT_EQ(mEnv.BroughtToFront(), std::vector<pid_t>{std::min(reports[0].pid, reports[1].pid)});
  ASSERT_TRUE(bundle.Stop() && copy.Stop());
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
