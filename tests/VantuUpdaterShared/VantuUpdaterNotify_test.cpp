// The notification-workflow marker and lock, and the administrator test with substituted groups
// and an applications folder.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/Unprivileged.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

namespace fs = std::filesystem;
using testing_support::TestEnv;
using Locker = VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker;
using VantuUpdaterUtils::DoesUserHaveAdminPrivileges;

class NotifyTest : public ::testing::Test {
 protected:
  std::string root() const { return mSandbox.root(); }
  std::string runtime() const { return mSandbox.runtimeDir(); }

  testing_support::UpdaterSandbox mSandbox;
  TestEnv& mEnv = mSandbox.env();
  const std::string mAppID = "NotifyTest" + std::to_string(getpid());
  testing_support::LockFileGuard mGuard{mAppID};
};

// The marker <temporary items>/Updater5/locked/lock.ID holds "lock" and makes the workflow
// active until deleted, even when stale; deleting a missing marker succeeds. Marker and folders
// are the user's alone whatever the umask. An identifier leading out of the lock folder, or no
// usable temporary folder, reads as active and creates nothing.
TEST_F(NotifyTest, MarkerFileMakesTheWorkflowActiveUntilDeleted) {
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
  struct stat marker {}, folder {};
  ASSERT_EQ(stat(path.c_str(), &marker) | stat((runtime() + "/Updater5").c_str(), &folder), 0);
  EXPECT_EQ(marker.st_mode & 07777, 0600u);
  EXPECT_EQ(folder.st_mode & 07777, 0700u);
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

// Without a marker the workflow is active exactly while another process holds the lock.
TEST_F(NotifyTest, LockHeldByAnotherProcessMakesTheWorkflowActive) {
  testing_support::Pipe locked, release;
  const pid_t holder = testing_support::StartChild([&] {
    esd::ResourceLocker locker(mAppID, 0);
    if (!locker.Lock()) return 1;
    locked.Signal();
    release.Wait();
    return 0;
  });
  ASSERT_TRUE(locked.Wait());
  EXPECT_TRUE(Locker::IsNotificationWorkflowActive(mAppID));
  EXPECT_TRUE(testing_support::LockIsHeld(mAppID)) << "the holder's lock was not broken";
  release.Signal();
  EXPECT_EQ(testing_support::WaitChild(holder), 0);
  EXPECT_FALSE(Locker::IsNotificationWorkflowActive(mAppID));
}

// A ROOT/Applications folder the user cannot write makes an administrator group count for
// nothing; without the folder the groups decide.
TEST_F(NotifyTest, UnwritableApplicationsFolderOverridesTheGroups) {
  mEnv.SetGroups({"admin"});
  EXPECT_TRUE(DoesUserHaveAdminPrivileges()) << "no applications folder";
  const std::string applications = root() + "/Applications";
  fs::create_directory(applications);
  for (const std::string& path : {fs::path(root()).parent_path().string(), root(), applications})
    chmod(path.c_str(), 0755);
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
}

}  // namespace
