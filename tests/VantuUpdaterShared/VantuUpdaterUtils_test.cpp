// The updater's folders, starting and finding the updater, the notification-workflow marker and
// lock, and the administrator test, against a relocated root whose name holds a single quote, a
// temporary home and runtime folder, and substituted groups.
#include <fcntl.h>
#include <gtest/gtest.h>
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
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/UpdaterSandbox.h"
#include "xplat/CKVXVersion.h"
#include "xplat/ScopedEnv.h"
#include "xplat/SystemUtils.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

namespace fs = std::filesystem;
using testing_support::FakeUpdaterBundle;
using testing_support::TestEnv;
using Locker = VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker;
using VantuUpdaterUtils::DoesUserHaveAdminPrivileges;
using VantuUpdaterUtils::EnvironmentList;

mode_t ModeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// The test's own processes through an odd table, which the search for the updater passes over: a
// process that ended during the walk, and a caller without a parent in sight (the first process
// of a container).
class OddTableEnv : public TestEnv {
 public:
  OddTableEnv() { testing_support::WaitChild(mGone); }
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

 private:
  const pid_t mGone = testing_support::StartChild([] { return 0; });
};

class UpdaterUtilsTest : public ::testing::Test {
 protected:
  UpdaterUtilsTest() {
    mEnv.SetRoot(root());
    mEnv.ShowOnlyOwnProcesses();
    fs::create_directories(root() + "/opt");
    mEnv.SetHome(home());
    mEnv.SetVariable("XDG_RUNTIME_DIR", runtime());
    mEnv.SetVariable("TMPDIR", mBase / "tmp");
    fs::create_directories(home());
    fs::create_directories(runtime());
    fs::permissions(runtime(), fs::perms::owner_all);
  }
  std::string root() const { return mBase / "it's the root"; }
  std::string home() const { return mBase / "home"; }
  std::string runtime() const { return mBase / "run"; }
  std::string installed() const { return FakeUpdaterBundle::InstalledPath(root()); }

  testing_support::TempDir mBase;
  OddTableEnv mEnv;
  esd::ScopedEnv mScope{&mEnv};
  EnvironmentList mNone;
  const std::string mAppID = "NotifyTest" + std::to_string(getpid());
  testing_support::LockFileGuard mGuard{mAppID};
};

// New per-user product folders, down to the cache folder, are the user's alone (0700) whatever
// the umask or the parent's bits; the standard folders above them take their parent's bits, and
// existing folders keep theirs. A file where a folder belongs stays, and gives no folder. Only
// root makes the missing all-users folders (how: the multi-user tests). The reference form of
// the updater's location needs the installed bundle.
TEST_F(UpdaterUtilsTest, FoldersTheUpdatersLocationAndAdministrators) {
  chmod(home().c_str(), 0755);
  const mode_t oldMask = umask(0);
  std::string path;
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(path));
  umask(oldMask);
  EXPECT_EQ(path, home() + "/.local/share/Vantu/Updater5/Data");
  for (const auto& [level, mode] : {std::pair<const char*, mode_t>{"/.local/share", 0755},
                                    {"/.local/share/Vantu", 0700},
                                    {"/.local/share/Vantu/Updater5", 0700},
                                    {"/.local/share/Vantu/Updater5/Data", 0700}})
    EXPECT_EQ(ModeOf(home() + level), mode) << level;

  const std::string vantu = home() + "/.local/share/Vantu";
  fs::remove_all(vantu + "/Updater5");
  chmod(vantu.c_str(), 0751);
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_EQ(ModeOf(vantu), 0751u);
  EXPECT_EQ(ModeOf(path), 0700u);

  fs::remove_all(vantu);
  testing_support::WriteFile(vantu, "not a folder");
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_EQ(testing_support::ReadFile(vantu), "not a folder");

  esd::FSRef ref;
  ASSERT_TRUE(VantuUpdaterUtils::GetUpdaterLocation(path));
  EXPECT_FALSE(VantuUpdaterUtils::GetUpdaterLocation(ref));
  testing_support::FakeUpdaterBundle bundle(path);
  ASSERT_TRUE(VantuUpdaterUtils::GetUpdaterLocation(ref));
  EXPECT_EQ(ref.path, fs::canonical(path).string());

  // A ROOT/Applications folder the user cannot write makes an administrator group count for
  // nothing; without the folder the groups decide.
  mEnv.SetGroups({"admin"});
  EXPECT_TRUE(DoesUserHaveAdminPrivileges()) << "no applications folder";
  const std::string applications = root() + "/Applications";
  fs::create_directory(applications);
  for (const std::string& folder : {fs::path(root()).parent_path().string(), root(), applications})
    chmod(folder.c_str(), 0755);
  EXPECT_TRUE(DoesUserHaveAdminPrivileges()) << "its owner can write it";
  mEnv.DenyAccess(applications);
  EXPECT_FALSE(DoesUserHaveAdminPrivileges());

  // A real user without write access, in an administrator group all the same (as root the check
  // runs as nobody).
  chmod(applications.c_str(), 0555);
  EXPECT_EQ(0, testing_support::RunUnprivileged([&] {
              TestEnv unprivileged;
              unprivileged.SetRoot(root());
              unprivileged.SetGroups({"admin"});
              esd::ScopedEnv scope(&unprivileged);
              return DoesUserHaveAdminPrivileges() ? 1 : 0;
            }));

  if (geteuid() != 0) return;  // giving folders away needs root
  mEnv.SetEffectiveUserId(1000);
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterAllUserDataDir(path));
  EXPECT_FALSE(fs::exists(root() + "/var/lib/Vantu"));
}

// Both ways of starting the updater hand it the parameters (a later pair wins) on top of the
// host's environment, and nothing else of the host: no descriptor beyond the standard three,
// even one without close-on-exec, and the host's own environment stays exactly as it was.
// Only the installed updater's own program counts, once installed: a copy of its bundle
// elsewhere, the genuine Info.plist included, is not the updater, nor is a running bundle whose
// Info.plist no longer parses or is a named pipe. Only a request brings the first one in the
// table to the front. In the foreground the updater's exit status decides. A program started by
// the updater is told that the updater is not running; others see it. A script updater is
// recognised by the script's path among the interpreter's arguments. A missing program fails
// without a shell.
TEST_F(UpdaterUtilsTest, StartingAndFindingTheUpdater) {
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
  unsetenv("VU_TEST_SET");
  fs::remove_all(installed());

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
  const std::string infoPlist = installed() + "/Contents/Info.plist";
  const std::string info = testing_support::ReadFile(infoPlist);
  testing_support::WriteFile(infoPlist, "<?xml version=\"1.0\"?><plist");
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "a broken Info.plist";
  fs::remove(infoPlist);
  ASSERT_EQ(mkfifo(infoPlist.c_str(), 0600), 0);
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false)) << "a named pipe is not read";
  fs::remove(infoPlist);
  testing_support::WriteFile(infoPlist, info);
  ASSERT_TRUE(bundle.Stop() && copy.Stop());
  EXPECT_FALSE(VantuUpdaterUtils::IsUpdaterRunning(false));

  EnvironmentList succeed = {{"FAKE_UPDATER_EXIT", "0"}}, fail = {{"FAKE_UPDATER_EXIT", "3"}};
  EXPECT_TRUE(VantuUpdaterUtils::ForkUpdater(succeed, false));
  EXPECT_EQ(bundle.Reports().size(), 3u) << "the updater ran before ForkUpdater returned";
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(fail, false));
  EXPECT_EQ(bundle.Reports().size(), 4u);

  EnvironmentList params = {{"FAKE_UPDATER_CHILD", testing_support::UpdaterProbeProgram()},
                            {"FAKE_UPDATER_CHILD_ARG", root()}};
  ASSERT_TRUE(VantuUpdaterUtils::LaunchUpdater(params));
  const pid_t updater = bundle.WaitForReports(5).at(4).pid;
  EXPECT_EQ(bundle.WaitForChildStatus(updater), 0) << "the probe under the updater saw it";
  const pid_t probe = testing_support::StartChild([&] {
    execl(testing_support::UpdaterProbeProgram().c_str(), "UpdaterProbe", root().c_str(),
          static_cast<char*>(nullptr));
    return 127;
  });
  EXPECT_EQ(testing_support::WaitChild(probe), 1) << "a probe of the test's own missed it";
  ASSERT_TRUE(bundle.Stop());

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

  const size_t shells = mEnv.ShellCommands().size();
  fs::remove(bundle.programPath());
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(succeed, true));
  EXPECT_FALSE(VantuUpdaterUtils::ForkUpdater(succeed, false));
  EXPECT_EQ(mEnv.ShellCommands().size(), shells) << "no shell for a missing program";
}

// The marker <temporary items>/Updater5/locked/lock.ID holds "lock" and makes the workflow
// active until deleted, even when stale; deleting a missing marker succeeds. Marker and folders
// are the user's alone whatever the umask. An identifier leading out of the lock folder, or no
// usable temporary folder, reads as active and creates nothing. (A held lock: the multi-user
// tests.)
TEST_F(UpdaterUtilsTest, MarkerMakesTheWorkflowActive) {
  std::string path;
  ASSERT_TRUE(Locker::GetIPCLockFileParentFolder(path));
  EXPECT_EQ(path, runtime() + "/Updater5");
  EXPECT_FALSE(fs::exists(path)) << "asking for the parent creates nothing";
  ASSERT_TRUE(Locker::GetIPCLockFilePath(mAppID, path));
  EXPECT_EQ(path, runtime() + "/Updater5/locked/lock." + mAppID);

  EXPECT_FALSE(Locker::IsNotificationWorkflowActive(mAppID));
  EXPECT_FALSE(testing_support::LockIsHeld(mAppID)) << "the test took the lock only briefly";

  const mode_t oldMask = umask(0);
  ASSERT_TRUE(Locker::CreateIPCLockFile(mAppID));
  ASSERT_TRUE(Locker::CreateIPCLockFile(mAppID)) << "an existing marker is rewritten";
  umask(oldMask);
  EXPECT_EQ(testing_support::ReadFile(path), "lock");
  EXPECT_EQ(ModeOf(path), 0600u);
  EXPECT_EQ(ModeOf(runtime() + "/Updater5"), 0700u);
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(mAppID));
  EXPECT_TRUE(Locker::DeleteIPCLockFile(mAppID));
  EXPECT_FALSE(Locker::IsNotificationWorkflowActive(mAppID));
  EXPECT_TRUE(Locker::DeleteIPCLockFile(mAppID));
  testing_support::WriteFile(path, "lock");
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(mAppID));

  for (const char* appID : {"", "../escape", "a/b"}) {
    EXPECT_FALSE(Locker::GetIPCLockFilePath(appID, path)) << appID;
    EXPECT_TRUE(Locker::IsNotificationWorkflowActive(appID)) << appID;
    EXPECT_FALSE(Locker::CreateIPCLockFile(appID) || Locker::DeleteIPCLockFile(appID)) << appID;
  }
  EXPECT_FALSE(fs::exists(runtime() + "/Updater5/escape") || fs::exists(runtime() + "/escape"));
  testing_support::WriteFile(root() + "/not-a-folder", "");
  mEnv.SetVariable("XDG_RUNTIME_DIR", root() + "/not-a-folder");
  mEnv.SetVariable("TMPDIR", root() + "/not-a-folder");
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(mAppID));
  EXPECT_FALSE(Locker::CreateIPCLockFile(mAppID));
  EXPECT_FALSE(testing_support::LockIsHeld(mAppID));
}

}  // namespace
