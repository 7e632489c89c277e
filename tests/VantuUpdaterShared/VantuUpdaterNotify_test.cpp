// The notification-workflow marker and lock, the express-download signal on a private session
// bus, and the administrator test with substituted groups and an applications folder.
#include <gtest/gtest.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivateSessionBus.h"
#include "support/SemaphoreGuard.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/Unprivileged.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

namespace fs = std::filesystem;
using testing_support::TempDir;
using testing_support::TestEnv;
using Locker = VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker;

std::string UniqueAppID() {
  static int counter = 0;
  return "NotifyTest" + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

class NotifyTest : public ::testing::Test {
 protected:
  NotifyTest() : mScope(&mEnv) {
    mEnv.SetRoot(root());
    mEnv.SetHome(mBase / "home");
    mEnv.SetVariable("XDG_RUNTIME_DIR", runtime());
    fs::create_directories(runtime());
    fs::create_directories(root());
  }
  std::string root() const { return mBase / "root"; }
  std::string runtime() const { return mBase / "run"; }
  std::string lockFolder() const { return runtime() + "/Updater5/locked"; }

  TempDir mBase;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// The marker lives in <temporary items>/Updater5/locked, holds "lock", and makes the workflow
// active until it is deleted, even when nobody holds the application's lock.
TEST_F(NotifyTest, MarkerFileMakesTheWorkflowActiveUntilDeleted) {
  const std::string appID = UniqueAppID();
  testing_support::SemaphoreGuard guard(appID);
  std::string path;
  ASSERT_TRUE(Locker::GetIPCLockFileParentFolder(path));
  EXPECT_EQ(path, runtime() + "/Updater5");
  EXPECT_FALSE(fs::exists(path)) << "asking for the parent creates nothing";
  ASSERT_TRUE(Locker::GetIPCLockFilePath(appID, path));
  EXPECT_EQ(path, lockFolder() + "/lock." + appID);
  EXPECT_TRUE(fs::is_directory(lockFolder()));

  EXPECT_FALSE(Locker::IsNotificationWorkflowActive(appID));
  EXPECT_FALSE(testing_support::SemaphoreExists(appID)) << "the test took the lock only briefly";
  ASSERT_TRUE(Locker::CreateIPCLockFile(appID));
  EXPECT_EQ(testing_support::ReadFile(path), "lock");
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(appID));
  ASSERT_TRUE(Locker::CreateIPCLockFile(appID)) << "an existing marker is rewritten";
  EXPECT_TRUE(Locker::DeleteIPCLockFile(appID));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_FALSE(Locker::IsNotificationWorkflowActive(appID));
  EXPECT_TRUE(Locker::DeleteIPCLockFile(appID)) << "deleting a missing marker succeeds";

  // A marker left by a process that died is still a marker.
  testing_support::WriteFile(path, "lock");
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(appID));
}

// Without a marker the workflow is active exactly while another process holds the
// application's lock.
TEST_F(NotifyTest, LockHeldByAnotherProcessMakesTheWorkflowActive) {
  const std::string appID = UniqueAppID();
  testing_support::SemaphoreGuard guard(appID);
  testing_support::Pipe locked;
  testing_support::Pipe release;
  const pid_t holder = testing_support::StartChild([&] {
    esd::ResourceLocker locker(appID, 0);
    if (!locker.Lock()) return 1;
    locked.Signal();
    release.Wait();
    return 0;
  });
  ASSERT_TRUE(locked.Wait());
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(appID));
  EXPECT_TRUE(testing_support::SemaphoreExists(appID)) << "the holder's lock was not broken";
  release.Signal();
  EXPECT_EQ(testing_support::WaitChild(holder), 0);
  EXPECT_FALSE(Locker::IsNotificationWorkflowActive(appID));
}

// An identifier that would lead out of the lock folder, or a temporary folder that cannot be
// had, reads as active and creates nothing.
TEST_F(NotifyTest, DoubtfulIdentifiersAndFoldersReadAsActive) {
  for (const std::string& appID : {std::string(), std::string("../escape"), std::string("a/b")}) {
    SCOPED_TRACE(appID);
    std::string path;
    EXPECT_FALSE(Locker::GetIPCLockFilePath(appID, path));
    EXPECT_TRUE(Locker::IsNotificationWorkflowActive(appID));
    EXPECT_FALSE(Locker::CreateIPCLockFile(appID));
    EXPECT_FALSE(Locker::DeleteIPCLockFile(appID));
  }
  EXPECT_FALSE(fs::exists(runtime() + "/Updater5/escape"));
  EXPECT_FALSE(fs::exists(runtime() + "/escape"));

  const std::string appID = UniqueAppID();
  testing_support::WriteFile(mBase / "not-a-folder", "");
  mEnv.SetVariable("XDG_RUNTIME_DIR", mBase / "not-a-folder");
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(appID));
  EXPECT_FALSE(Locker::CreateIPCLockFile(appID));
  EXPECT_FALSE(testing_support::SemaphoreExists(appID));
}

// The express-download request reaches a listener of the session bus as the agreed signal, and
// reports success also when there is no bus at all.
TEST(ExpressDownloadTest, SignalReachesAListenerAndNeverFails) {
  {
    testing_support::PrivateSessionBus bus;
    testing_support::BusSignalListener listener(bus.address(),
                                                "org.esd.DistributedNotificationCenter");
    EXPECT_TRUE(VantuUpdaterUtils::SignalExpressDownloadRequest());
    const auto signals = listener.WaitForSignals(1, 5000);
    ASSERT_EQ(signals.size(), 1u);
    EXPECT_EQ(signals[0].path, "/org/esd/DistributedNotificationCenter");
    EXPECT_EQ(signals[0].member, "Notification");
    EXPECT_EQ(signals[0].arguments,
              (std::vector<std::string>{"Do Express Download",
                                        "Vantu Updater Express Download Signal"}));
  }
  TempDir nowhere;
  const std::string address = "unix:path=" + (nowhere / "no-bus");
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(VantuUpdaterUtils::SignalExpressDownloadRequest());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

// Membership of an administrator group, compared by exact name, makes an administrator.
TEST_F(NotifyTest, AdministratorsAreMembersOfTheAdministratorGroups) {
  const std::vector<std::pair<std::vector<std::string>, bool>> cases = {
      {{"admin"}, true},          {{"sudo"}, true},      {{"wheel"}, true},
      {{"root"}, true},           {{"staff", "admin2", "sudo"}, true},
      {{"admin2"}, false},        {{"sudoers"}, false},  {{"Admin"}, false},
      {{"wheel "}, false},        {{"adm"}, false},      {{}, false},
  };
  for (const auto& [groups, expected] : cases) {
    SCOPED_TRACE(testing::PrintToString(groups));
    mEnv.SetGroups(groups);
    EXPECT_EQ(VantuUpdaterUtils::DoesUserHaveAdminPrivileges(), expected);
  }
}

// The real supplementary list alone counts: an empty one is no administrator, the group root
// makes one, whatever the user id.
TEST(AdministratorTest, RealSupplementaryGroupsDecide) {
  if (geteuid() != 0) GTEST_SKIP() << "changing the group list needs root";
  const int status = testing_support::WaitChild(testing_support::StartChild([] {
    if (setgroups(0, nullptr) != 0) return 100;
    if (VantuUpdaterUtils::DoesUserHaveAdminPrivileges()) return 1;
    const gid_t root = 0;
    if (setgroups(1, &root) != 0) return 101;
    return VantuUpdaterUtils::DoesUserHaveAdminPrivileges() ? 0 : 2;
  }));
  EXPECT_EQ(status, 0);
}

// An administrator who created ROOT/Applications limits administration to users who can
// search, read and write it; without the folder the groups decide alone.
TEST_F(NotifyTest, UnwritableApplicationsFolderOverridesTheGroups) {
  mEnv.SetGroups({"admin"});
  EXPECT_TRUE(VantuUpdaterUtils::DoesUserHaveAdminPrivileges()) << "no applications folder";

  const std::string applications = root() + "/Applications";
  fs::create_directory(applications);
  for (const std::string& path : {mBase.path(), root(), applications}) chmod(path.c_str(), 0755);
  EXPECT_TRUE(VantuUpdaterUtils::DoesUserHaveAdminPrivileges()) << "its owner can write it";
  mEnv.DenyAccess(applications);
  EXPECT_FALSE(VantuUpdaterUtils::DoesUserHaveAdminPrivileges());

  // A real user without write access, in an administrator group all the same (as root the
  // check runs as nobody, who cannot write a folder that is not world-writable).
  chmod(applications.c_str(), 0555);
  const int status = testing_support::RunUnprivileged([&] {
    TestEnv unprivileged;
    unprivileged.SetRoot(root());
    unprivileged.SetGroups({"admin"});
    esd::ScopedEnv scope(&unprivileged);
    if (access(applications.c_str(), W_OK) == 0) return 50;  // not a non-root view after all
    return VantuUpdaterUtils::DoesUserHaveAdminPrivileges() ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
  chmod(applications.c_str(), 0777);
  const int writable = testing_support::RunUnprivileged([&] {
    TestEnv unprivileged;
    unprivileged.SetRoot(root());
    unprivileged.SetGroups({"admin"});
    esd::ScopedEnv scope(&unprivileged);
    return VantuUpdaterUtils::DoesUserHaveAdminPrivileges() ? 0 : 1;
  });
  EXPECT_EQ(writable, 0) << "a writable folder leaves the decision to the groups";
}

}  // namespace
