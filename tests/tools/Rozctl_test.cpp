// rozctl against a sandboxed machine (--root): what it prints, its exit statuses, and that it
// works only inside the sandbox.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/RunProgram.h"
#include "support/SemaphoreGuard.h"
#include "support/TempDir.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/ResourceLocker.h"

using ::testing::HasSubstr;
using ::testing::Not;
using testing_support::ProgramResult;
using testing_support::RunOptions;
using testing_support::RunProgram;
using testing_support::SemaphoreExists;
using testing_support::SemaphoreGuard;
using testing_support::TempDir;

namespace {

class RozctlTest : public ::testing::Test {
 protected:
  ProgramResult Rozctl(std::vector<std::string> args, RunOptions options = {}) {
    args.insert(args.begin(), {ROZCTL_PROGRAM, "--root", mRoot.path()});
    return RunProgram(args, options);
  }

  std::string RegistryPath() const {
    return mRoot.path() + "/var/lib/Vantu/Updater5/VantuESDGlobalApps.xml";
  }

  TempDir mRoot;
};

// Leaves the resource's lock behind the way a crashed holder does: a child takes it and ends
// without releasing it.
void LeaveStaleLock(const std::string& resource) {
  const pid_t child = testing_support::StartChild([&resource] {
    esd::ResourceLocker* leaked = new esd::ResourceLocker(resource, 0);
    return leaked->Lock() ? 0 : 1;
  });
  ASSERT_EQ(0, testing_support::WaitChild(child));
  ASSERT_TRUE(SemaphoreExists(resource));
}

}  // namespace

// A lock left by a crashed process shows as held and can be broken once; afterwards it is free.
TEST_F(RozctlTest, LocksShowsAndBreaksAStaleStoreLock) {
  SemaphoreGuard guard(RegistryPath());
  ProgramResult listed = Rozctl({"locks"});
  ASSERT_EQ(0, listed.exitStatus) << listed.err;
  EXPECT_THAT(listed.out, HasSubstr("registered-apps\n  resource:  " + RegistryPath() + "\n"));
  EXPECT_THAT(listed.out, HasSubstr("prefs\n  resource:  VantuUpdater\n"));
  EXPECT_THAT(listed.out, Not(HasSubstr("(held)")));

  LeaveStaleLock(RegistryPath());
  const std::string semaphore =
      "/dev/shm/sem." + esd::ResourceLocker::GetSemaphoreName(RegistryPath()).substr(1);
  listed = Rozctl({"locks"});
  EXPECT_THAT(listed.out, HasSubstr("semaphore: " + semaphore + " (held)"));

  ProgramResult broken = Rozctl({"break-lock", "registered-apps"});
  EXPECT_EQ(0, broken.exitStatus) << broken.err;
  EXPECT_EQ("broke registered-apps: removed " + semaphore + "\n", broken.out);
  EXPECT_FALSE(SemaphoreExists(RegistryPath()));

  broken = Rozctl({"locks", "--break", "registered-apps"});
  EXPECT_EQ(1, broken.exitStatus);
  EXPECT_EQ("registered-apps is not held\n", broken.out);
}

// An application's workflow marker left by a crashed updater is a lock too: it is listed for the
// application and removed with it.
TEST_F(RozctlTest, BreakLockRemovesAStaleWorkflowMarker) {
  const std::string markers = mRoot.path() + "/run/Updater5/locked";
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(markers));
  chmod((mRoot.path() + "/run").c_str(), 0700);
  testing_support::WriteFile(markers + "/lock.com.example.Crashed", "lock");

  ProgramResult listed = Rozctl({"locks"});
  ASSERT_EQ(0, listed.exitStatus) << listed.err;
  EXPECT_THAT(listed.out, HasSubstr("app:com.example.Crashed\n  resource:  com.example.Crashed\n"));
  EXPECT_THAT(listed.out,
              HasSubstr("  marker:    " + markers + "/lock.com.example.Crashed (present)\n"));

  ProgramResult broken = Rozctl({"break-lock", "app:com.example.Crashed"});
  EXPECT_EQ(0, broken.exitStatus) << broken.err;
  EXPECT_EQ("broke app:com.example.Crashed: removed " + markers + "/lock.com.example.Crashed\n",
            broken.out);
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(markers + "/lock.com.example.Crashed"));
}

// Unknown commands, options and lock names, and wrong argument counts, give one line of error,
// the usage, and status 2; help is status 0.
TEST_F(RozctlTest, BadUsageExitsWithTwoAndHelpWithZero) {
  struct Case {
    std::vector<std::string> args;
    std::string error;
  };
  const std::vector<Case> cases = {
      {{"frobnicate"}, "rozctl: unknown command 'frobnicate'\n"},
      {{"locks", "--bogus"}, "rozctl locks: unknown option --bogus\n"},
      {{"locks", "--break"}, "rozctl locks: option --break needs a value\n"},
      {{"break-lock"}, "rozctl break-lock: expected 1 or more arguments, got 0\n"},
      {{"break-lock", "everything"}, "rozctl break-lock: unknown lock 'everything'"},
  };
  for (const Case& bad : cases) {
    const ProgramResult result = Rozctl(bad.args);
    EXPECT_EQ(2, result.exitStatus) << bad.args[0];
    EXPECT_EQ(0u, result.err.find(bad.error)) << result.err;
    EXPECT_THAT(result.err, HasSubstr("\nusage: rozctl [--root DIR] ")) << result.err;
    EXPECT_EQ(2, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    EXPECT_EQ("", result.out);
  }

  const ProgramResult none = RunProgram({ROZCTL_PROGRAM});
  EXPECT_EQ(2, none.exitStatus);
  const ProgramResult overview = RunProgram({ROZCTL_PROGRAM, "--help"});
  EXPECT_EQ(0, overview.exitStatus);
  for (const char* command : {"locks", "break-lock"}) {
    EXPECT_THAT(overview.out, HasSubstr(std::string("\n  ") + command + " ")) << command;
    const ProgramResult help = Rozctl({command, "--help"});
    EXPECT_EQ(0, help.exitStatus) << command;
    EXPECT_EQ(0u, help.out.find(std::string("usage: rozctl [--root DIR] ") + command)) << help.out;
  }
}
