// Real users on one machine (a private mount namespace, real distinct ids): who may change the
// machine-wide store, that one user's locks hold up no other, and what another local user can do
// against a host. The checks run in the machine's process; its exit status is the verdict.
#include "support/MultiUser.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <thread>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/TestEnv.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"

namespace vantu_test {
namespace {

namespace fs = std::filesystem;
using namespace testing_support;

const char kAppID[] = "com.example.Victim";

const unsigned char* U(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

// Runs `body` as root on a fresh machine; skips where none can be made.
void OnMachine(const std::function<int(const MultiUserMachine&)>& body) {
  if (!RunsAsRoot()) GTEST_SKIP() << "other users need a root test run";
  const int status = RunOnMachine(body);
  if (status == kMachineUnavailable) GTEST_SKIP() << "no private machine";
  EXPECT_EQ(0, status) << "-1: the machine's process died of a signal";
}

bool HasTmpfiles() { return access("/usr/bin/systemd-tmpfiles", X_OK) == 0; }

// A host of `who` on the machine: an administrator with its own home and runtime folder, the
// machine's shared temporary folder, and a process table of the test's own processes.
struct Host {
  Host(const MultiUserMachine& machine, const UserIdentity& who) : scope(&env) {
    env.SetRoot(machine.Root());
    env.SetHome(machine.HomeOf(who));
    env.SetVariable("XDG_RUNTIME_DIR", machine.RuntimeDirOf(who));
    env.SetVariable("TMPDIR", TemporaryFolder(machine));
    env.SetGroups({"admin"});
    env.ShowOnlyOwnProcesses();
  }
  static std::string TemporaryFolder(const MultiUserMachine& machine) {
    return machine.base() + "/tmp";
  }

  TestEnv env;
  esd::ScopedEnv scope;
};

// OnMachine with a shared sticky temporary folder, the all-users folder and the updater
// installed (its copies end right after reporting); the body checks with gtest assertions.
void AgainstAHost(const std::function<void(const MultiUserMachine&, FakeUpdaterBundle&)>& body) {
  OnMachine([&](const MultiUserMachine& machine) {
    std::string why;
    const std::string tmp = Host::TemporaryFolder(machine);
    if (!machine.InstallAllUsersFolder(AdministratorsGroup(), why) ||
        ::mkdir(tmp.c_str(), 0700) != 0 || ::chmod(tmp.c_str(), 01777) != 0) {
      ADD_FAILURE() << "machine: " << why;
      return 1;
    }
    ::setenv("FAKE_UPDATER_EXIT", "0", 1);
    FakeUpdaterBundle updater(FakeUpdaterBundle::InstalledPath(machine.Root()));
    body(machine, updater);
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
}

int32_t RequestComponent() {
  char category[] = "Spelling", name[] = "Dictionary", version[] = "1.0";
  ROZMissingComponent component = {category, name, version}, *components[] = {&component};
  const ROZMissingComptList request = {1, components};
  return ROZDownloadMissingComponents(kAppID, U("Victim"), U("/opt/Victim"), nullptr, &request,
                                      kROZDownloadMissingCompTypeDefault, false);
}

int Register(const MultiUserMachine& machine, const UserIdentity& who, const char* appID) {
  return machine.RunHost(who, [appID] {
    return ROZRegisterApplication(appID, U("Host"), U("/opt/host"));
  });
}

// The folders made as an installation makes them: the snippet applied to the machine's root,
// whose group database knows the update group.
bool Provision(const MultiUserMachine& machine) {
  std::ofstream(machine.Root() + "/etc/group")
      << "root:x:0:\n" UPDATE_GROUP_NAME ":x:" << AdministratorsGroup() << ":\n";
  std::ofstream(machine.Root() + "/etc/passwd") << "root:x:0:0:root:/root:/bin/sh\n";
  const std::string command = "systemd-tmpfiles --root='" + machine.Root() +
                              "' --create '" TMPFILES_SNIPPET "' >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

// "owner:group mode" in octal, or "missing".
std::string Described(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return "missing";
  char text[64];
  std::snprintf(text, sizeof text, "%u:%u %o", info.st_uid, info.st_gid, info.st_mode & 07777);
  return text;
}

// Owned by `owner` (empty: anybody) and the update group, with `mode`.
std::string Installed(const char* mode, const std::string& owner = "0") {
  return owner + ":" + std::to_string(AdministratorsGroup()) + " " + mode;
}

// A bundle of the attacker's making, with the genuine Info.plist, whose program runs as the
// attacker is not the updater: the plug-in action runs, a download starts the updater, the last
// unregistration starts the clean-up. A user's missing-components store and its folder are that
// user's alone, whatever the umask and the home's bits.
TEST(LocalUsersTest, BundlePosingAsTheUpdaterAndPerUserStore) {
  AgainstAHost([&](const MultiUserMachine& machine, FakeUpdaterBundle& updater) {
    Host host(machine, RootUser());
    const std::string bundle = machine.HomeOf(Attacker()) + "/Vantu Updater.app";
    const std::string program = bundle + "/Contents/MacOS/Vantu Updater";
    ASSERT_EQ(0, RunAs(Attacker(), [&] {
                fs::copy(updater.path(), bundle, fs::copy_options::recursive);
                fs::remove(program);
                return fs::copy_file("/bin/sleep", program) ? 0 : 1;
              }));
    const pid_t poser = StartAs(Attacker(), [&] {
      ::execl(program.c_str(), program.c_str(), "60", static_cast<char*>(nullptr));
      return 127;
    });
    esd::Env::ProcessInfo info;
    for (int i = 0; i < 2000 && !(host.env.GetProcessInfo(poser, info) &&
                                  info.executablePath == program); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(info.executablePath, program);

    // Each call must find the updater copy of the call before gone.
    auto launched = [&](size_t count) {
      const auto reports = updater.WaitForReports(count);
      EXPECT_EQ(count, reports.size());
      if (reports.size() != count) return std::map<std::string, std::string>();
      EXPECT_TRUE(WaitForProcessEnd(reports.back().pid));
      return reports.back().environment;
    };
    ASSERT_EQ(0, ROZRegisterApplication(kAppID, U("Victim"), U("/opt/Victim")));
    EXPECT_EQ(0, ROZDoPluginAction(kAppID));
    EXPECT_EQ(kAppID, launched(1)["doActionAppID"]);
    EXPECT_EQ(0, RequestComponent());
    EXPECT_EQ(1u, launched(2).count("RZ_LAUNCH_MODE"));
    EXPECT_EQ(0, ROZUnRegisterApplication(kAppID));
    EXPECT_EQ(1u, launched(3).count("RZ_LAUNCH_MODE"));
    ::kill(poser, SIGKILL);
    WaitChild(poser);

    const UserIdentity& user = AdministratorA();
    ::chmod(machine.HomeOf(user).c_str(), 0755);
    const std::string data = machine.HomeOf(user) + "/.local/share/Vantu/Updater5";
    EXPECT_EQ(0, RunAs(user, [&] {
                ::umask(0);
                Host host(machine, user);
                return RequestComponent();
              }));
    const std::string owner = std::to_string(user.uid) + ":" + std::to_string(user.gid);
    EXPECT_EQ(owner + " 600", Described(data + "/VantuMissingComps.xml"));
    EXPECT_EQ(owner + " 700", Described(data));
  });
}

// The workflow markers live only in folders of the host's own: a runtime folder of another user
// is refused, so a link planted there leads nowhere; when the private temporary folder is taken
// too, the request says it cannot be marked instead of reporting a pending answer for ever.
TEST(LocalUsersTest, MarkersStayOutOfFoldersAnotherUserControls) {
  const struct {
    const char* name;
    bool attackersRuntimeFolder;
    bool fallbackTaken;
    int32_t result;
  } cases[] = {
      {"runtime folder of another user", true, false, kROZResultAnswerPending},
      {"no runtime folder, temporary folder taken", false, true, kROZResultMissingCompsStoreFailed},
      {"both", true, true, kROZResultMissingCompsStoreFailed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AgainstAHost([&](const MultiUserMachine& machine, FakeUpdaterBundle&) {
      Host host(machine, RootUser());
      const std::string target = machine.Root() + "/etc/nologin";
      const std::string runtime = machine.RuntimeDirOf(Attacker());
      const std::string fallback = Host::TemporaryFolder(machine) + "/TemporaryItems-0";
      EXPECT_EQ(0, RunAs(Attacker(), [&] {
                  std::error_code error;
                  fs::create_directories(runtime + "/Updater5/locked", error);
                  fs::create_symlink(
                      target, runtime + "/Updater5/locked/lock." + std::string(kAppID), error);
                  if (c.fallbackTaken && ::mkdir(fallback.c_str(), 0700) != 0) return 1;
                  return error ? 2 : 0;
                }));
      host.env.SetVariable("XDG_RUNTIME_DIR", c.attackersRuntimeFolder ? runtime : "relative");

      bool available = false;
      EXPECT_EQ(c.result,
                ROZIsUpdateAvailable(kAppID, U("Victim"), U("/opt/V"), 1, &available, false));
      EXPECT_FALSE(fs::exists(fs::symlink_status(target))) << "written through the link";
      EXPECT_EQ(c.result == kROZResultAnswerPending,
                fs::exists(fallback + "/Updater5/locked/lock." + std::string(kAppID)));
    });
  }
}

// After administrator B registered in the provisioned folder, each caller gets its result:
// another administrator shares the store, whoever may not change it gets 4 and changes nothing,
// and only root makes a missing folder, exactly as the snippet would, whatever its umask.
TEST(MultiUserTest, WhoMayChangeTheMachineWideStore) {
  if (!HasTmpfiles()) GTEST_SKIP() << "no systemd-tmpfiles";
  struct Case {
    const char* what;
    bool provisioned;
    unsigned folderMode;  // set after B registered; 0: as provisioned
    const UserIdentity& who;
    int32_t result;
    std::string folderAfter;
  };
  const Case cases[] = {
      {"another administrator", true, 0, AdministratorA(), kROZResultOK, Installed("2775")},
      {"a user outside the group", true, 0, OrdinaryUser(), kROZResultRegistryUnusable,
       Installed("2775")},
      {"nobody", true, 0, Attacker(), kROZResultRegistryUnusable, Installed("2775")},
      {"an administrator, folder not group-writable", true, 0755, AdministratorA(),
       kROZResultRegistryUnusable, Installed("755")},
      {"an administrator, folder missing", false, 0, AdministratorA(), kROZResultRegistryUnusable,
       "missing"},
      {"root, folder missing", false, 0, RootUser(), kROZResultOK, Installed("2775")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    OnMachine([&c](const MultiUserMachine& machine) {
      const std::string folder = machine.AllUsersDataDir();
      const std::string product = machine.Root() + "/var/lib/Vantu";
      if (c.provisioned
              ? !Provision(machine) || Register(machine, AdministratorB(), "com.example.B") != 0
              : rmdir(product.c_str()) != 0)
        return 10;
      if (c.folderMode != 0 && chmod(folder.c_str(), c.folderMode) != 0) return 11;
      umask(077);
      if (Register(machine, c.who, "com.example.C") != c.result) return 12;
      if (Described(folder) != c.folderAfter) return 13;
      if (c.folderAfter != "missing" && Described(product) != "0:0 755") return 14;
      const std::string store = folder + "/VantuESDGlobalApps.xml";
      const std::string mode = Described(store);
      if (c.result == kROZResultOK && mode.substr(mode.find(':')) != Installed("664", ""))
        return 15;
      // B's entry stays; C's is there exactly when its registration succeeded.
      std::ifstream in(store);
      const std::string apps{std::istreambuf_iterator<char>(in), {}};
      const bool hasB = apps.find("com.example.B") != std::string::npos;
      const bool hasC = apps.find("com.example.C") != std::string::npos;
      return hasB == c.provisioned && hasC == (c.result == kROZResultOK) ? 0 : 16;
    });
  }
}

// While an administrator holds the store's lock and an application's workflow lock, a user
// outside the group cannot break the store's lock (writing the store is the modes' business),
// the holder's other processes see the workflow active without breaking the lock, and another
// administrator is not held up by the per-user lock, even for the same application.
TEST(MultiUserTest, LocksOfOneUserAgainstTheOthers) {
  if (!HasTmpfiles()) GTEST_SKIP() << "no systemd-tmpfiles";
  OnMachine([](const MultiUserMachine& machine) {
    if (!Provision(machine) || Register(machine, AdministratorA(), "com.example.A") != 0) return 10;
    const std::string store = machine.AllUsersDataDir() + "/VantuESDGlobalApps.xml";
    Pipe held, release;
    const pid_t holder = machine.StartHost(AdministratorA(), [&] {
      // The workflow lock as the updater takes it while it works for the application.
      esd::ResourceLocker lock(store, 0);
      esd::ResourceLocker workflow("com.example.Same", 0);
      if (!lock.Lock() || !workflow.Lock()) return 1;
      held.Signal();
      release.Wait();
      return lock.Unlock(false) && workflow.Unlock(false) ? 0 : 2;
    });
    if (!held.Wait()) return 11;
    const int outsider = machine.RunHost(OrdinaryUser(), [&] {
      return esd::ResourceLocker(store, 0).Unlock(true) ? 4 : 0;
    });
    auto active = [&](const UserIdentity& who) {
      return machine.RunHost(who, [] {
        using VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker;
        return VantuUpdaterNotifyWorkflowLocker::IsNotificationWorkflowActive("com.example.Same");
      });
    };
    const bool holders = active(AdministratorA()) && active(AdministratorA());
    const bool other = active(AdministratorB());
    release.Signal();
    const int holderStatus = WaitChild(holder);
    return outsider != 0 ? 20 + outsider : other || !holders ? 30 : holderStatus != 0 ? 40 : 0;
  });
}

}  // namespace
}  // namespace vantu_test
