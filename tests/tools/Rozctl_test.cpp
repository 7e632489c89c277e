// rozctl against a sandboxed machine (--root): what it prints, its exit statuses, and that it
// works only inside the sandbox.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/LockFiles.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"

using ::testing::HasSubstr;
using testing_support::ProgramResult;
using testing_support::RunOptions;
using testing_support::RunProgram;
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

}  // namespace

// Each lock shows its lock file, free or with the process that holds it, and a semaphore an
// older version left; a killed holder's lock is free at once. break-lock removes what is there
// (semaphore and lock file) and says when there was nothing.
TEST_F(RozctlTest, LocksShowTheHolderAndBreakLockRemovesLeftovers) {
  testing_support::TestEnv env;  // the paths rozctl --root uses, for the lock files here
  env.SetRoot(mRoot.path());
  env.SetHome(mRoot / "home");
  env.SetVariable("XDG_RUNTIME_DIR", mRoot / "run");
  esd::ScopedEnv scope(&env);
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(mRoot / "var/lib/Vantu/Updater5"));
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(mRoot / "run"));
  const std::string lockFile = testing_support::LockFilePath(RegistryPath());
  ASSERT_EQ(mRoot / "var/lib/Vantu/Updater5/", lockFile.substr(0, lockFile.rfind('/') + 1));
  const std::string semaphore =
      "/dev/shm/sem." + esd::ResourceLocker::GetSemaphoreName(RegistryPath()).substr(1);
  const std::string header = "registered-apps\n  resource:  " + RegistryPath() +
                             "\n  lock file: " + lockFile + " ";

  testing_support::Pipe held;
  const pid_t holder = testing_support::StartChild([&] {
    esd::ResourceLocker locker(RegistryPath(), 0);
    if (!locker.Lock()) return 1;
    held.Signal();
    ::pause();
    return 0;
  });
  ASSERT_TRUE(held.Wait());
  ProgramResult listed = Rozctl({"locks"});
  EXPECT_THAT(listed.out, HasSubstr(header + "(held by process " + std::to_string(holder) + " "));
  ::kill(holder, SIGKILL);
  testing_support::WaitChild(holder);
  testing_support::WriteFile(semaphore, "");  // as an older version's crashed holder left it
  listed = Rozctl({"locks"});
  ASSERT_EQ(0, listed.exitStatus) << listed.err;
  EXPECT_THAT(listed.out, HasSubstr(header + "(free)\n  semaphore: " + semaphore +
                                    " (left by an older version)\n"));
  EXPECT_THAT(listed.out, HasSubstr("prefs\n  resource:  VantuUpdater\n  lock file: " +
                                    mRoot.path() + "/run/"));

  ProgramResult broken = Rozctl({"break-lock", "registered-apps"});
  EXPECT_EQ(0, broken.exitStatus) << broken.err;
  EXPECT_EQ("broke registered-apps: removed " + semaphore + "\nbroke registered-apps: removed " +
                lockFile + "\n",
            broken.out);
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(semaphore) ||
               FileSystemUtils::DoesPathExist(lockFile));
  broken = Rozctl({"locks", "--break", "registered-apps"});
  EXPECT_EQ(1, broken.exitStatus);
  EXPECT_EQ("registered-apps: nothing to remove\n", broken.out);
  ::unlink(semaphore.c_str());
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
      {{"register", "com.example.A", "A"}, "rozctl register: expected 3 arguments, got 2\n"},
      {{"version", "extra"}, "rozctl version: expected 0 arguments, got 1\n"},
      {{"available", "com.example.A", "A", "/opt/a", "first"},
       "rozctl available: REQUEST must be a whole number, not 'first'\n"},
      {{"download-missing", "com.example.A", "A", "/opt/a", "fonts-Serif-1.0"},
       "rozctl download-missing: component 'fonts-Serif-1.0' is not CATEGORY:NAME:VERSION\n"},
      {{"download-missing", "--type", "-1", "com.example.A", "A", "/opt/a"},
       "rozctl download-missing: --type must be a whole number, not '-1'\n"},
      {{"trigger", "--now", "A", "/opt/a"}, "rozctl trigger: unknown option --now\n"},
  };
  for (const Case& bad : cases) {
    const ProgramResult result = Rozctl(bad.args);
    EXPECT_EQ(2, result.exitStatus) << bad.args[0];
    EXPECT_EQ(0u, result.err.find(bad.error)) << result.err;
    EXPECT_THAT(result.err, HasSubstr("\nusage: rozctl [--root DIR] ")) << result.err;
    EXPECT_EQ(2, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    EXPECT_EQ("", result.out);
  }

  for (const std::vector<std::string>& args : {std::vector<std::string>{ROZCTL_PROGRAM},
                                               {ROZCTL_PROGRAM, "--root"},
                                               {ROZCTL_PROGRAM, "--root", "/", "apps"},
                                               {ROZCTL_PROGRAM, "--verbose", "apps"}}) {
    const ProgramResult result = RunProgram(args);
    EXPECT_EQ(2, result.exitStatus) << args.back();
    EXPECT_EQ(2, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
  }
  const ProgramResult overview = RunProgram({ROZCTL_PROGRAM, "--help"});
  EXPECT_EQ(0, overview.exitStatus);
  for (const char* command : {"version", "enabled", "register", "unregister", "available",
                              "trigger", "plugin-action", "download-missing", "folders", "apps",
                              "missing", "prefs", "policy", "locks", "break-lock"}) {
    EXPECT_THAT(overview.out, HasSubstr(std::string("\n  ") + command + " ")) << command;
    const ProgramResult help = Rozctl({command, "--help"});
    EXPECT_EQ(0, help.exitStatus) << command;
    EXPECT_EQ(0u, help.out.find(std::string("usage: rozctl [--root DIR] ") + command)) << help.out;
  }
}

// The inspection commands show the sandbox's files, and nothing outside DIR is created even when
// the caller's own folder variables point elsewhere.
TEST_F(RozctlTest, InspectionShowsTheSandboxAndTouchesNothingOutsideIt) {
  TempDir outside;
  RunOptions options;
  options.setVariables = {{"HOME", outside / "home"},
                          {"XDG_DATA_HOME", outside / "data"},
                          {"XDG_CONFIG_HOME", outside / "config"},
                          {"XDG_CACHE_HOME", outside / "cache"},
                          {"XDG_RUNTIME_DIR", outside / "run"},
                          {"TMPDIR", outside / "tmp"}};
  const std::string root = mRoot.path();

  const ProgramResult folders = Rozctl({"folders"}, options);
  ASSERT_EQ(0, folders.exitStatus) << folders.err;
  EXPECT_THAT(folders.out, HasSubstr("machine root:           " + root + "\n"));
  EXPECT_THAT(folders.out, HasSubstr("registered apps:        " + root +
                                     "/var/lib/Vantu/Updater5/VantuESDGlobalApps.xml"));
  EXPECT_THAT(folders.out, HasSubstr("missing components:     " + root +
                                     "/home/.local/share/Vantu/Updater5/VantuMissingComps.xml"));
  EXPECT_THAT(folders.out, HasSubstr("workflow markers:       " + root + "/run/Updater5/locked"));
  EXPECT_THAT(folders.out, HasSubstr("administrator policy:   " + root +
                                     "/etc/com.vantu.VantuUpdater.Admin.plist (does not exist)"));
  EXPECT_THAT(folders.out,
              HasSubstr("updater:                " + root +
                        "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app"));

  struct Case {
    const char* command;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"apps", "no registered applications\n"},
      {"missing", "no missing-component requests\n"},
      {"prefs", "DownloadDir = " + root + "/home/Documents/Updater5\n"},
      {"prefs", "AutoCheck = 1\n"},
      {"policy", "Disable.Update:         not set (checks stay enabled)\n"},
      {"version", "ROZGetVersion: 1358954502 (0x51000006, version 5.1.0.6)\n"},
  };
  for (const Case& inspection : cases) {
    const ProgramResult result = Rozctl({inspection.command}, options);
    EXPECT_EQ(0, result.exitStatus) << inspection.command << ": " << result.err;
    EXPECT_THAT(result.out, HasSubstr(inspection.expected)) << inspection.command;
  }
  for (const char* name : {"home", "data", "config", "cache", "run", "tmp"})
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(outside / name)) << name;
}

// Each export's command prints the function's result code and name and exits 0 only for
// kROZResultOK; the calls really change the sandbox's stores.
TEST_F(RozctlTest, ExportCommandsReportTheLibrarysResults) {
  if (!testing_support::CanChooseGroups()) GTEST_SKIP() << "choosing groups needs root";
  RunOptions admin;
  admin.groups = RunOptions::Groups::kAdministrator;
  RunOptions user;
  user.groups = RunOptions::Groups::kNone;
  struct Case {
    std::vector<std::string> args;
    const RunOptions* options;
    int exitStatus;
    std::string out;
  };
  // The updater is not installed: whatever needs it is recorded, then reported unavailable.
  const std::vector<Case> cases = {
      {{"enabled"}, &admin, 0, "ROZIsUpdateCheckEnabled: 1 (update checks are enabled)\n"},
      {{"enabled"}, &user, 1, "ROZIsUpdateCheckEnabled: 0 (update checks are disabled)\n"},
      {{"register", "com.example.A", "App A", "/opt/a"},
       &user,
       0,
       "ROZRegisterApplication: 0 kROZResultOK\n"},
      {{"apps"}, &user, 0, "com.example.A\n  display name: App A\n  install path: /opt/a\n"},
      {{"register", "", "App A", "/opt/a"},
       &admin,
       1,
       "ROZRegisterApplication: 3 kROZResultInvalidArgument\n"},
      {{"unregister", "com.example.Unknown"},
       &admin,
       1,
       "ROZUnRegisterApplication: 6 kROZResultNotRegistered\n"},
      {{"available", "com.example.A", "App A", "/opt/a", "1"},
       &user,
       1,
       "ROZIsUpdateAvailable: 7 kROZResultUpdateCheckDisabled\n"},
      {{"download-missing", "--lang", "en_US", "com.example.A", "App A", "/opt/a",
        "fonts:Serif:1.0", "dictionaries:en:GB:2.1"},
       &admin,
       1,
       "ROZDownloadMissingComponents: 2 kROZResultUpdaterUnavailable\n"},
      {{"missing"},
       &admin,
       0,
       "com.example.A\n  display name: App A\n  install path: /opt/a\n  request type: 0\n"
       "  component:    fonts:Serif:1.0.0.0\n  component:    dictionaries:en:GB:2.1.0.0\n"},
      {{"trigger", "--app", "com.example.A", "App A", "/opt/a"},
       &admin,
       1,
       "ROZTriggerUpdateCheck: 2 kROZResultUpdaterUnavailable\n"},
      {{"plugin-action", "com.example.Unknown"},
       &admin,
       1,
       "ROZDoPluginAction: 6 kROZResultNotRegistered\n"},
      {{"unregister", "com.example.A"}, &admin, 0, "ROZUnRegisterApplication: 0 kROZResultOK\n"},
      {{"apps"}, &admin, 0, "no registered applications\n"},
  };
  for (const Case& call : cases) {
    const ProgramResult result = Rozctl(call.args, *call.options);
    EXPECT_EQ(call.exitStatus, result.exitStatus) << call.args[0] << ": " << result.err;
    EXPECT_EQ(call.out, result.out) << call.args[0];
  }

  // An administrator's policy switches checks off for everybody.
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(mRoot / "etc"));
  testing_support::WriteFile(mRoot / "etc/com.vantu.VantuUpdater.Admin.plist",
                             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                             "<dict><key>Disable.Update</key><true/></dict></plist>\n");
  EXPECT_EQ(1, Rozctl({"enabled"}, admin).exitStatus);
  const ProgramResult policy = Rozctl({"policy"}, admin);
  EXPECT_THAT(policy.out, HasSubstr("Disable.Update:         true\n"));
  EXPECT_THAT(policy.out, HasSubstr("administrator:          yes\n"));
  EXPECT_THAT(policy.out, HasSubstr("update checks:          disabled by the policy\n"));
}
