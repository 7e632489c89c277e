// rozctl against a sandboxed machine (--root): what it prints, its exit statuses, and that it
// works only inside the sandbox; and, through it, the reference updater at the other end of the
// library's exchanges, end to end: the built updater bundle is installed in the sandbox, and the
// library starts or signals the real updater, which answers through the shared files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/date_time/gregorian/gregorian.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
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
using Groups = RunOptions::Groups;

namespace {

class RozctlTest : public ::testing::Test {
 protected:
  ProgramResult Rozctl(std::vector<std::string> args, RunOptions options = {}) {
    args.insert(args.begin(), {ROZCTL_PROGRAM, "--root", mRoot.path()});
    return RunProgram(args, options);
  }

  TempDir mRoot;
};

}  // namespace

// Each lock shows its lock file, free or with the process that holds it, a semaphore an older
// version left, and an application's workflow marker left by a crashed updater; a killed holder's
// lock is free at once. break-lock removes what is there and says when there was nothing.
TEST_F(RozctlTest, LocksShowTheHolderAndBreakLockRemovesLeftovers) {
  testing_support::TestEnv env;  // the paths rozctl --root uses, for the lock files here
  env.SetRoot(mRoot.path());
  env.SetHome(mRoot / "home");
  env.SetVariable("XDG_RUNTIME_DIR", mRoot / "run");
  esd::ScopedEnv scope(&env);
  const std::string registry = mRoot / "var/lib/Vantu/Updater5/VantuESDGlobalApps.xml";
  const std::string markers = mRoot / "run/Updater5/locked";
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(mRoot / "var/lib/Vantu/Updater5"));
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(markers));
  chmod((mRoot / "run").c_str(), 0700);
  testing_support::WriteFile(markers + "/lock.com.example.Crashed", "lock");
  const std::string lockFile = testing_support::LockFilePath(registry);
  const std::string semaphore =
      "/dev/shm/sem." + esd::ResourceLocker::GetSemaphoreName(registry).substr(1);
  const std::string header =
      "registered-apps\n  resource:  " + registry + "\n  lock file: " + lockFile + " ";

  testing_support::Pipe held;
  const pid_t holder = testing_support::StartChild([&] {
    esd::ResourceLocker locker(registry, 0);
    if (!locker.Lock()) return 1;
    held.Signal();
    ::pause();
    return 0;
  });
  ASSERT_TRUE(held.Wait());
  EXPECT_THAT(Rozctl({"locks"}).out,
              HasSubstr(header + "(held by process " + std::to_string(holder) + " "));
  ::kill(holder, SIGKILL);
  testing_support::WaitChild(holder);
  testing_support::WriteFile(semaphore, "");  // as an older version's crashed holder left it
  const ProgramResult listed = Rozctl({"locks"});
  ASSERT_EQ(0, listed.exitStatus) << listed.err;
  for (const std::string& shown :
       {header + "(free)\n  semaphore: " + semaphore + " (left by an older version)\n",
        "prefs\n  resource:  VantuUpdater\n  lock file: " + mRoot.path() + "/run/",
        std::string("app:com.example.Crashed\n  resource:  com.example.Crashed\n"),
        "  marker:    " + markers + "/lock.com.example.Crashed (present)\n"})
    EXPECT_THAT(listed.out, HasSubstr(shown));

  ProgramResult broken = Rozctl({"break-lock", "registered-apps", "app:com.example.Crashed"});
  EXPECT_EQ(0, broken.exitStatus) << broken.err;
  EXPECT_EQ("broke registered-apps: removed " + semaphore + "\nbroke registered-apps: removed " +
                lockFile + "\nbroke app:com.example.Crashed: removed " + markers +
                "/lock.com.example.Crashed\n",
            broken.out);
  broken = Rozctl({"locks", "--break", "registered-apps"});
  EXPECT_EQ(1, broken.exitStatus);
  EXPECT_EQ("registered-apps: nothing to remove\n", broken.out);
  for (const std::string& gone : {semaphore, lockFile, markers + "/lock.com.example.Crashed"})
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(gone)) << gone;
  ::unlink(semaphore.c_str());
}

// Every command in order against one sandbox, with the caller's own folder variables pointing
// elsewhere: what it prints and its exit status. Bad usage is one line of error, the usage and
// status 2; an export's command prints the function's result code and name and exits 0 only for
// kROZResultOK, and really changes the sandbox's stores (the updater is not installed: whatever
// needs it is recorded, then reported unavailable). Looking changes nothing: up to "apps" (which
// as root makes the folder it reads) the sandbox stays as the first command left it, and nothing
// outside it is ever created.
TEST_F(RozctlTest, CommandsPrintTheirAnswersAndExitStatuses) {
  const bool groups = testing_support::RunsAsRoot();
  TempDir outside;
  RunOptions options;
  for (const auto& [variable, name] : {std::pair<const char*, const char*>{"HOME", "home"},
                                       {"XDG_DATA_HOME", "data"}, {"XDG_CONFIG_HOME", "config"},
                                       {"XDG_CACHE_HOME", "cache"}, {"XDG_RUNTIME_DIR", "run"},
                                       {"TMPDIR", "tmp"}})
    options.setVariables[variable] = outside / name;
  const std::string root = mRoot.path();
  const auto tree = [&root] {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
      paths.push_back(entry.path());
    return paths;
  };
  ASSERT_EQ(0, Rozctl({"version"}, options).exitStatus);
  const std::vector<std::string> bare = tree();

  enum Match { kContains, kEquals, kUsageError };
  const Groups admin = Groups::kAdministrator, user = Groups::kNone, any = Groups::kInherited;
  const struct {
    std::vector<std::string> args;
    Groups groups;
    int exitStatus;
    Match match;
    std::string expected;
  } rows[] = {
      {{}, any, 2, kUsageError, "rozctl: no command given\n"},
      {{"--root"}, any, 2, kUsageError, "rozctl: --root needs a folder other than /\n"},
      {{"--root", "/", "apps"}, any, 2, kUsageError,
       "rozctl: --root needs a folder other than /\n"},
      {{"--verbose", "apps"}, any, 2, kUsageError, "rozctl: unknown option --verbose\n"},
      {{"frobnicate"}, any, 2, kUsageError, "rozctl: unknown command 'frobnicate'\n"},
      {{"locks", "--bogus"}, any, 2, kUsageError, "rozctl locks: unknown option --bogus\n"},
      {{"locks", "--break"}, any, 2, kUsageError, "rozctl locks: option --break needs a value\n"},
      {{"break-lock"}, any, 2, kUsageError,
       "rozctl break-lock: expected 1 or more arguments, got 0\n"},
      {{"break-lock", "everything"}, any, 2, kUsageError,
       "rozctl break-lock: unknown lock 'everything'"},
      {{"register", "com.example.A", "A"}, any, 2, kUsageError,
       "rozctl register: expected 3 arguments, got 2\n"},
      {{"available", "com.example.A", "A", "/opt/a", "first"}, any, 2, kUsageError,
       "rozctl available: REQUEST must be a whole number, not 'first'\n"},
      {{"download-missing", "com.example.A", "A", "/opt/a", "fonts-Serif-1.0"}, any, 2,
       kUsageError,
       "rozctl download-missing: component 'fonts-Serif-1.0' is not CATEGORY:NAME:VERSION\n"},
      {{"locks", "--help"}, any, 0, kContains, "usage: rozctl [--root DIR] locks"},
      {{"folders"}, any, 0, kContains, "machine root:           " + root + "\n"},
      {{"folders"}, any, 0, kContains,
       "missing components:     " + root +
           "/home/.local/share/Vantu/Updater5/VantuMissingComps.xml (does not exist)\n"},
      {{"folders"}, any, 0, kContains,
       "updater:                " + root +
           "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app"},
      {{"policy"}, any, 0, kContains, "Disable.Update:         not set (checks stay enabled)\n"},
      {{"locks"}, any, 0, kContains, "registered-apps\n"},
      {{"doctor"}, any, 1, kContains, "FIX   " + root + "/var/lib/Vantu is missing"},
      {{"version"}, any, 0, kEquals, "ROZGetVersion: 1358954502 (0x51000006, version 5.1.0.6)\n"},
      {{"apps"}, any, 0, kEquals, "no registered applications\n"},
      {{"missing"}, any, 0, kEquals, "no missing-component requests\n"},
      {{"prefs"}, any, 0, kEquals,
       "file: " + root + "/home/.local/share/Vantu/Updater5/VantuUpdaterPrefs.dat (not written "
       "yet)\nAutoCheck = 1\nAutoCheckType = 0\nAutoCheckFreq = 1\nLastDateCheck = \nLaunch = \n"
       "IsFirstRun = 1\nInBackground = 0\nInTrayIcon = 0\nDownloadDir = " + root +
           "/home/Documents/Updater5\nDisplayLang = \nShowNewProducts = 0\nSilentCheck = 0\n"
           "ProxyServer = \nProxyPort = \nConnectionType = 0\nlogFile = " + root +
           "/home/.local/share/Vantu/Updater5/roz.log\nlogLevel = 2\n"
           "ApplicationsEnabled = (empty)\nNotificationMessage = (empty)\n"},
      {{"enabled"}, admin, 0, kEquals,
       "ROZIsUpdateCheckEnabled: 1 (update checks are enabled)\n"},
      {{"enabled"}, user, 1, kEquals, "ROZIsUpdateCheckEnabled: 0 (update checks are disabled)\n"},
      {{"register", "com.example.A", "App A", "/opt/a"}, user, 0, kEquals,
       "ROZRegisterApplication: 0 kROZResultOK\n"},
      {{"apps"}, user, 0, kEquals,
       "com.example.A\n  display name: App A\n  install path: /opt/a\n"},
      {{"register", "", "App A", "/opt/a"}, admin, 1, kEquals,
       "ROZRegisterApplication: 3 kROZResultInvalidArgument\n"},
      {{"unregister", "com.example.Unknown"}, admin, 1, kEquals,
       "ROZUnRegisterApplication: 6 kROZResultNotRegistered\n"},
      {{"available", "com.example.A", "App A", "/opt/a", "1"}, user, 1, kEquals,
       "ROZIsUpdateAvailable: 7 kROZResultUpdateCheckDisabled\n"},
      {{"download-missing", "--lang", "en_US", "com.example.A", "App A", "/opt/a",
        "fonts:Serif:1.0", "dictionaries:en:GB:2.1"}, admin, 1, kEquals,
       "ROZDownloadMissingComponents: 2 kROZResultUpdaterUnavailable\n"},
      {{"missing"}, admin, 0, kEquals,
       "com.example.A\n  display name: App A\n  install path: /opt/a\n  request type: 0\n"
       "  component:    fonts:Serif:1.0.0.0\n  component:    dictionaries:en:GB:2.1.0.0\n"},
      {{"unregister", "com.example.A"}, admin, 0, kEquals,
       "ROZUnRegisterApplication: 0 kROZResultOK\n"},
      {{"apps"}, admin, 0, kEquals, "no registered applications\n"},
  };
  bool onlyLooking = true;
  for (const auto& row : rows) {
    if (row.groups != any && !groups) continue;  // choosing groups needs root
    options.groups = row.groups;
    const ProgramResult result = Rozctl(row.args, options);
    const std::string command = row.args.empty() ? "" : row.args[0];
    EXPECT_EQ(row.exitStatus, result.exitStatus) << command << ": " << result.err;
    if (row.match == kUsageError) {
      EXPECT_EQ(0u, result.err.find(row.expected)) << result.err;
      EXPECT_THAT(result.err, HasSubstr("\nusage: rozctl [--root DIR] ")) << result.err;
      EXPECT_EQ(2, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
      EXPECT_EQ("", result.out);
    } else if (row.match == kEquals) {
      EXPECT_EQ(row.expected, result.out) << command;
    } else {
      EXPECT_THAT(result.out, HasSubstr(row.expected)) << command;
    }
    onlyLooking = onlyLooking && command != "apps";
    EXPECT_TRUE(!onlyLooking || bare == tree()) << command << " changed the sandbox";
  }
  for (const char* name : {"home", "data", "config", "cache", "run", "tmp"})
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(outside / name)) << name;

  // Help: the overview names every command.
  const ProgramResult overview = RunProgram({ROZCTL_PROGRAM, "--help"});
  EXPECT_EQ(0, overview.exitStatus);
  for (const char* command : {"version", "enabled", "register", "unregister", "available",
                              "trigger", "plugin-action", "download-missing", "folders", "apps",
                              "missing", "prefs", "policy", "locks", "break-lock"})
    EXPECT_THAT(overview.out, HasSubstr(std::string("\n  ") + command + " ")) << command;

  // An administrator's policy switches checks off for everybody.
  if (!groups) return;
  std::filesystem::create_directories(mRoot / "etc");
  testing_support::WriteFile(mRoot / "etc/com.vantu.VantuUpdater.Admin.plist",
                             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                             "<dict><key>Disable.Update</key><true/></dict></plist>\n");
  options.groups = admin;
  EXPECT_EQ("policy file:            " + root + "/etc/com.vantu.VantuUpdater.Admin.plist\n"
            "Disable.Update:         true\nsupplementary groups:   root\n"
            "administrator:          yes\nupdate checks:          disabled by the policy\n",
            Rozctl({"policy"}, options).out);
}

// The doctor finds a machine installed as it should be healthy, and names each fault with what
// to do about it.
TEST_F(RozctlTest, DoctorNamesWhatToFix) {
  if (!testing_support::RunsAsRoot()) GTEST_SKIP() << "making root's folders needs root";
  const std::string store = "$R/var/lib/Vantu/Updater5/VantuESDGlobalApps.xml";
  const struct {
    std::string fault;  // a command run with the sandbox's root as $R; empty: healthy
    std::string named;
  } cases[] = {
      {"", ""},
      {"chmod g-s $R/var/lib/Vantu/Updater5", "Updater5 is 0:"},
      {"chmod 0777 $R/var/lib/Vantu", "expected root:root 0755"},
      {"rm -r \"$R/opt\"", "the updater is not installed"},
      {"echo nonsense >$R/etc/com.vantu.VantuUpdater.Admin.plist",
       "is not a property list dictionary"},
      {"echo '<a' >" + store, "registered applications does not parse"},
      {"echo '<a/>' >" + store + " && chmod 0664 " + store + " && chgrp root " + store,
       "expected group " UPDATE_GROUP_NAME " 0664"},
      {"echo '<a/>' >" + store + "_", "leftover journal"},
      {"unset", "no session bus"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fault);
    const std::string install =
        "R='" + mRoot.path() + "'; U=\"$R/opt/Vantu Utilities.localized/Vantu Updater5\"; "
        "rm -rf $R/var $R/opt $R/etc && install -d -m 0755 $R/var/lib/Vantu $R/etc && "
        "install -d -g " UPDATE_GROUP_NAME " -m 2775 $R/var/lib/Vantu/Updater5 && "
        "mkdir -p \"$U\" && cp -a '" VANTU_UPDATER_BUNDLE "' \"$U\"";
    const bool unset = c.fault == "unset";
    const std::string fault = c.fault.empty() || unset ? "" : " && " + c.fault;
    ASSERT_EQ(0, std::system((install + fault).c_str()));
    RunOptions options;
    testing_support::PrivateSessionBus bus;
    if (unset) options.unsetVariables = {"DBUS_SESSION_BUS_ADDRESS"};
    const ProgramResult result = Rozctl({"doctor"}, options);
    EXPECT_EQ(c.named.empty() ? 0 : 1, result.exitStatus) << result.out;
    EXPECT_THAT(result.out, HasSubstr(c.named.empty() ? "ok    " : "FIX   "));
    EXPECT_THAT(result.out, HasSubstr(c.named));
  }
}

// The reference updater installed in the sandbox, which the library starts or signals and which
// answers through the shared files. Each call in turn, waiting for the updater each starts to
// finish: the first availability question starts it and it answers from its catalogue, the second
// question reads the answer; a plug-in action is logged for the registered application; a check
// records today's date and consumes the launch request; download mode takes every pending request
// out of the store; the last unregistration starts a clean-up.
TEST_F(RozctlTest, ReferenceUpdaterAnswersActsChecksAndCleansUp) {
  if (!testing_support::RunsAsRoot())
    GTEST_SKIP() << "the library starts the updater for administrators only; needs root";
  const std::string bundle =
      mRoot.path() + "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app";
  std::filesystem::create_directories(bundle);
  std::filesystem::copy(VANTU_UPDATER_BUNDLE, bundle, std::filesystem::copy_options::recursive);
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(mRoot / "var/lib/Vantu/Updater5"));
  testing_support::WriteFile(
      mRoot / "var/lib/Vantu/Updater5/VantuUpdateCatalog.xml",
      "<UpdateCatalog>\n  <Update appID=\"com.example.A\" version=\"2.0\"/>\n</UpdateCatalog>\n");
  RunOptions admin;
  admin.groups = Groups::kAdministrator;
  const std::string logFile = mRoot.path() + "/home/.local/share/Vantu/Updater5/roz.log";
  const auto log = [&logFile] { return testing_support::ReadFile(logFile); };
  // Waits until the updater has finished `runs` times; false after ten seconds.
  const auto waitForRuns = [&log](size_t runs) {
    for (int wait = 0; wait < 500; ++wait) {
      const std::string text = log();
      size_t found = 0;
      for (size_t at = 0; (at = text.find("]: done\n", at)) != std::string::npos; ++at) ++found;
      if (found >= runs) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  };
  const std::string today =
      boost::gregorian::to_iso_extended_string(boost::gregorian::day_clock::local_day());
  const std::string answered = "ROZIsUpdateAvailable: 0 kROZResultOK\nupdate available: ";
  const struct {
    std::vector<std::string> args;
    std::string out;
    std::vector<std::string> logged;  // empty: the call starts no updater
  } steps[] = {
      {{"available", "--register", "com.example.A", "App A", "/opt/a", "7"},
       "ROZIsUpdateAvailable: 8 kROZResultAnswerPending\n",
       {"availability for com.example.A: update 2.0 available"}},
      {{"available", "com.example.A", "App A", "/opt/a", "7"}, answered + "yes\n", {}},
      {{"available", "--register", "com.example.B", "App B", "/opt/b", "7"},
       "ROZIsUpdateAvailable: 8 kROZResultAnswerPending\n",
       {"availability for com.example.B: no update"}},
      {{"available", "com.example.B", "App B", "/opt/b", "7"}, answered + "no\n", {}},
      {{"unregister", "com.example.B"}, "ROZUnRegisterApplication: 0 kROZResultOK\n", {}},
      {{"plugin-action", "com.example.A"},
       "ROZDoPluginAction: 0 kROZResultOK\n",
       {"plug-in action for com.example.A: would run the action prepared for App A in /opt/a\n"}},
      {{"trigger", "--app", "com.example.A", "App A", "/opt/a"},
       "ROZTriggerUpdateCheck: 0 kROZResultOK\n",
       {"manual check started by com.example.A, Launch preference \"Manual\"\n",
        "manual check: com.example.A: update 2.0 available\n",
        "manual check: recorded LastDateCheck " + today + "\n"}},
      {{"download-missing", "com.example.A", "App A", "/opt/a", "fonts:Serif:1.0",
        "dictionaries:en_GB:2.1"},
       "ROZDownloadMissingComponents: 0 kROZResultOK\n",
       {"download: would fetch for com.example.A (App A): fonts:Serif:1.0.0.0, "
        "dictionaries:en_GB:2.1.0.0\n"}},
      {{"missing"}, "no missing-component requests\n", {}},
      {{"unregister", "com.example.A"},
       "ROZUnRegisterApplication: 0 kROZResultOK\n",
       {"clean-up: 0 application(s) registered\n"}},
  };
  size_t runs = 0;
  for (const auto& step : steps) {
    const ProgramResult result = Rozctl(step.args, admin);
    EXPECT_THAT(result.out, HasSubstr(step.out)) << step.args[0] << ": " << result.err;
    if (step.logged.empty()) continue;
    ASSERT_TRUE(waitForRuns(++runs)) << log();
    for (const std::string& line : step.logged) EXPECT_THAT(log(), HasSubstr(line));
  }
  EXPECT_THAT(Rozctl({"prefs"}, admin).out,
              HasSubstr("LastDateCheck = " + today + "\nLaunch = \nIsFirstRun = 0\n"));
}
