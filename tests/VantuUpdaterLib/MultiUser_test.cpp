// Several real users on one machine whose folders the installed tmpfiles snippet made: who may
// change the machine-wide store, what the others get, and that one user's locks do not hold up
// another.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <list>
#include <string>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/MultiUser.h"
#include "support/TestEnv.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegistrationManager.h"

using namespace testing_support;

namespace {

int Register(const MultiUserMachine& machine, const UserIdentity& who, const char* appID) {
  return machine.RunHost(who, [appID] {
    return ROZRegisterApplication(appID, reinterpret_cast<const unsigned char*>("Host"),
                                  reinterpret_cast<const unsigned char*>("/opt/host"));
  });
}

int RegisteredCount(const MultiUserMachine& machine) {
  return machine.RunHost(RootUser(), [] {
    VantuUpdaterRegistrationManager store;
    std::list<VantuUpdaterRegisteredApp> apps;
    return store.GetRegisteredApps(apps) ? static_cast<int>(apps.size()) : -1;
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

// Runs a body on a fresh machine, skipping where no machine can be made.
void OnMachine(const std::function<int(const MultiUserMachine&)>& body) {
  if (!CanRunAsOtherUsers()) GTEST_SKIP() << "other users need a root test run";
  if (access("/usr/bin/systemd-tmpfiles", X_OK) != 0) GTEST_SKIP() << "no systemd-tmpfiles";
  const int status = RunOnMachine(body);
  if (status == kMachineUnavailable) GTEST_SKIP() << "no private machine";
  EXPECT_EQ(0, status);
}

}  // namespace

// After administrator B registered in the provisioned folder, each caller gets its result:
// another administrator shares the store, whoever may not change it gets 4 and changes nothing,
// and only root makes a missing folder, exactly as the snippet would, whatever its umask.
TEST(MultiUserTest, WhoMayChangeTheMachineWideStore) {
  struct Case {
    const char* what;
    bool provisioned;
    unsigned folderMode;  // set after B registered; 0: as provisioned
    const UserIdentity& who;
    int32_t result;
    std::string folderAfter;
    int appsAfter;  // -1: not looked at
  };
  const Case cases[] = {
      {"another administrator", true, 0, AdministratorA(), kROZResultOK, Installed("2775"), 2},
      {"a user outside the group", true, 0, OrdinaryUser(), kROZResultRegistryUnusable,
       Installed("2775"), 1},
      {"nobody", true, 0, Attacker(), kROZResultRegistryUnusable, Installed("2775"), 1},
      {"an administrator, folder not group-writable", true, 0755, AdministratorA(),
       kROZResultRegistryUnusable, Installed("755"), 1},
      {"an administrator, folder missing", false, 0, AdministratorA(),
       kROZResultRegistryUnusable, "missing", -1},
      {"root, folder missing", false, 0, RootUser(), kROZResultOK, Installed("2775"), 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    OnMachine([&c](const MultiUserMachine& machine) {
      const std::string folder = machine.AllUsersDataDir();
      const std::string product = machine.Root() + "/var/lib/Vantu";
      if (c.provisioned ? !Provision(machine) ||
                              Register(machine, AdministratorB(), "com.example.B") != 0
                        : rmdir(product.c_str()) != 0)
        return 10;
      if (c.folderMode != 0 && chmod(folder.c_str(), c.folderMode) != 0) return 11;
      umask(077);
      if (Register(machine, c.who, "com.example.C") != c.result) return 12;
      if (Described(folder) != c.folderAfter) return 13;
      if (c.folderAfter != "missing" && Described(product) != "0:0 755") return 14;
      const std::string store = Described(folder + "/VantuESDGlobalApps.xml");
      if (c.result == kROZResultOK && store.substr(store.find(':')) != Installed("664", ""))
        return 15;
      return c.appsAfter < 0 || RegisteredCount(machine) == c.appsAfter ? 0 : 16;
    });
  }
}

// A user outside the group can neither write, replace nor delete the store, nor break the lock
// an administrator holds on it.
TEST(MultiUserTest, AnOutsiderCannotTouchTheStoreOrItsLock) {
  OnMachine([](const MultiUserMachine& machine) {
    if (!Provision(machine) || Register(machine, AdministratorA(), "com.example.A") != 0)
      return 10;
    const std::string store = machine.AllUsersDataDir() + "/VantuESDGlobalApps.xml";
    Pipe held, release;
    const pid_t holder = machine.StartHost(AdministratorA(), [&] {
      esd::ResourceLocker lock(store, 0);
      if (!lock.Lock()) return 1;
      held.Signal();
      release.Wait();
      return lock.Unlock(false) ? 0 : 2;
    });
    if (!held.Wait()) return 11;
    const int outsider = machine.RunHost(OrdinaryUser(), [&] {
      const std::string planted = machine.HomeOf(OrdinaryUser()) + "/planted";
      std::ofstream(planted) << "<x/>";
      if (std::fopen(store.c_str(), "r+") != nullptr) return 1;
      if (std::rename(planted.c_str(), store.c_str()) == 0) return 2;
      if (unlink(store.c_str()) == 0) return 3;
      return esd::ResourceLocker(store, 0).Unlock(true) ? 4 : 0;
    });
    const int stillHeld = machine.RunHost(AdministratorB(), [&] {
      return esd::ResourceLocker(store, 0).Lock() ? 1 : 0;
    });
    release.Signal();
    const int holderStatus = WaitChild(holder);
    return outsider != 0 ? 20 + outsider : stillHeld != 0 ? 30 : holderStatus != 0 ? 40 : 0;
  });
}

// An administrator holding the preferences lock and an application's workflow lock holds up no
// other user: those locks are per user, even for the same application.
TEST(MultiUserTest, OneUsersLocksDoNotDelayAnother) {
  OnMachine([](const MultiUserMachine& machine) {
    if (!Provision(machine)) return 10;
    Pipe held, release;
    const pid_t holder = machine.StartHost(AdministratorA(), [&] {
      // The workflow lock as the updater takes it while it works for the application.
      VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
      esd::ResourceLocker workflow("com.example.Same", 0);
      if (!prefs->LockPrefs() || !workflow.Lock()) return 1;
      held.Signal();
      release.Wait();
      return prefs->UnlockPrefs() && workflow.Unlock(false) ? 0 : 2;
    });
    if (!held.Wait()) return 11;
    const int other = machine.RunHost(AdministratorB(), [] {
      using VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker;
      if (VantuUpdaterNotifyWorkflowLocker::IsNotificationWorkflowActive("com.example.Same"))
        return 1;
      VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
      const auto start = std::chrono::steady_clock::now();
      if (!prefs->LockPrefs()) return 2;
      if (std::chrono::steady_clock::now() - start > std::chrono::seconds(1)) return 3;
      return prefs->UnlockPrefs() ? 0 : 4;
    });
    release.Signal();
    const int holderStatus = WaitChild(holder);
    return other != 0 ? 20 + other : holderStatus != 0 ? 30 : 0;
  });
}
