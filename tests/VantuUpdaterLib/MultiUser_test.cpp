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
#include "xplat/FileSystemUtils.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegistrationManager.h"

using namespace testing_support;

namespace {

const unsigned char kName[] = "Host";
const unsigned char kPath[] = "/opt/host";

// Starts `body` as `who` with the library looking at the machine: its root, and the user's own
// home and runtime folder.
pid_t StartAsUser(const MultiUserMachine& machine, const UserIdentity& who,
                  const std::function<int()>& body) {
  return StartAs(who, [&] {
    TestEnv env;
    env.SetRoot(machine.Root());
    env.SetHome(machine.HomeOf(who));
    env.SetVariable("XDG_RUNTIME_DIR", machine.RuntimeDirOf(who));
    esd::ScopedEnv scope(&env);
    return body();
  });
}

int AsUser(const MultiUserMachine& machine, const UserIdentity& who,
           const std::function<int()>& body) {
  return WaitChild(StartAsUser(machine, who, body));
}

int Register(const MultiUserMachine& machine, const UserIdentity& who, const char* appID) {
  return AsUser(machine, who, [appID] {
    return ROZRegisterApplication(appID, kName, kPath);
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

struct Status {
  uid_t uid = 0;
  gid_t gid = 0;
  unsigned mode = 0;
};

Status StatusOf(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return {static_cast<uid_t>(-1), 0, 0};
  return {info.st_uid, info.st_gid, static_cast<unsigned>(info.st_mode & 07777)};
}

size_t RegisteredCount() {
  VantuUpdaterRegistrationManager store;
  std::list<VantuUpdaterRegisteredApp> apps;
  return store.GetRegisteredApps(apps) ? apps.size() : 0;
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

// The snippet gives the folders their owner, group and mode, and a store written by one
// administrator belongs to the group, so the other administrator shares it.
TEST(MultiUserTest, AdministratorsShareTheStoreTheSnippetProvisioned) {
  OnMachine([](const MultiUserMachine& machine) {
    if (!Provision(machine)) return 10;
    const Status product = StatusOf(machine.Root() + "/var/lib/Vantu");
    const Status folder = StatusOf(machine.AllUsersDataDir());
    if (product.uid != 0 || product.gid != 0 || product.mode != 0755) return 11;
    if (folder.uid != 0 || folder.gid != AdministratorsGroup() || folder.mode != 02775) return 12;
    if (Register(machine, AdministratorA(), "com.example.A") != kROZResultOK) return 13;
    if (Register(machine, AdministratorB(), "com.example.B") != kROZResultOK) return 14;
    const Status store = StatusOf(machine.AllUsersDataDir() + "/VantuESDGlobalApps.xml");
    if (store.gid != AdministratorsGroup() || store.mode != 0664) return 15;
    return AsUser(machine, AdministratorB(), [] { return RegisteredCount() == 2 ? 0 : 16; });
  });
}

// Whoever may not change the store gets kROZResultRegistryUnusable and changes nothing; only
// root provisions a missing folder, and then exactly as the snippet would, whatever its umask.
TEST(MultiUserTest, WhoMayChangeTheMachineWideStore) {
  struct Case {
    const char* what;
    bool provision;
    unsigned folderMode;  // 0: as provisioned or missing
    const UserIdentity& who;
    int32_t expected;
  };
  const Case cases[] = {
      {"a user outside the group", true, 0, OrdinaryUser(), kROZResultRegistryUnusable},
      {"nobody", true, 0, Attacker(), kROZResultRegistryUnusable},
      {"an administrator, folder not group-writable", true, 0755, AdministratorA(),
       kROZResultRegistryUnusable},
      {"an administrator, folder missing", false, 0, AdministratorA(),
       kROZResultRegistryUnusable},
      {"root, folder missing", false, 0, RootUser(), kROZResultOK},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    OnMachine([&c](const MultiUserMachine& machine) {
      const std::string folder = machine.AllUsersDataDir();
      const std::string product = FileSystemUtils::GetParentPath(folder);
      if (c.provision ? !Provision(machine) ||
                            Register(machine, AdministratorB(), "com.example.B") != kROZResultOK
                      : rmdir(product.c_str()) != 0)
        return 10;
      if (c.folderMode != 0 && chmod(folder.c_str(), c.folderMode) != 0) return 11;
      const Status before = StatusOf(folder);
      umask(077);
      if (Register(machine, c.who, "com.example.C") != c.expected) return 12;
      const Status after = StatusOf(folder);
      if (c.expected != kROZResultOK) {
        if (after.uid != before.uid || after.mode != before.mode) return 13;
        if (!c.provision) return FileSystemUtils::DoesPathExist(product) ? 14 : 0;
        return AsUser(machine, RootUser(), [] { return RegisteredCount() == 1 ? 0 : 15; });
      }
      const Status parent = StatusOf(product);
      return parent.uid == 0 && parent.gid == 0 && parent.mode == 0755 && after.uid == 0 &&
                     after.gid == AdministratorsGroup() && after.mode == 02775
                 ? 0
                 : 16;
    });
  }
}

// A user outside the group can neither write, replace nor delete the store, nor break the lock
// an administrator holds on it.
TEST(MultiUserTest, AnOutsiderCannotTouchTheStoreOrItsLock) {
  OnMachine([](const MultiUserMachine& machine) {
    if (!Provision(machine)) return 10;
    if (Register(machine, AdministratorA(), "com.example.A") != kROZResultOK) return 11;
    const std::string folder = machine.AllUsersDataDir();
    const std::string store = folder + "/VantuESDGlobalApps.xml";
    const int attempts = AsUser(machine, OrdinaryUser(), [&] {
      const std::string planted = machine.HomeOf(OrdinaryUser()) + "/planted";
      std::ofstream(planted) << "<x/>";
      if (std::fopen(store.c_str(), "r+") != nullptr) return 1;
      if (std::rename(planted.c_str(), store.c_str()) == 0) return 2;
      if (unlink(store.c_str()) == 0) return 3;
      return 0;
    });
    if (attempts != 0) return 20 + attempts;

    Pipe held, release;
    const pid_t holder = StartAsUser(machine, AdministratorA(), [&] {
      esd::ResourceLocker lock(store, 0);
      if (!lock.Lock()) return 1;
      held.Signal();
      release.Wait();
      return lock.Unlock(false) ? 0 : 2;
    });
    if (!held.Wait()) return 30;
    const int broke = AsUser(machine, OrdinaryUser(), [&] {
      esd::ResourceLocker breaker(store, 0);
      return breaker.Unlock(true) ? 1 : 0;
    });
    const int stillHeld = AsUser(machine, AdministratorB(), [&] {
      esd::ResourceLocker other(store, 0);
      return other.Lock() ? 1 : 0;
    });
    release.Signal();
    const int holderStatus = WaitChild(holder);
    return broke != 0 ? 31 : stillHeld != 0 ? 32 : holderStatus != 0 ? 33 : 0;
  });
}

// An administrator holding the preferences lock and an application's workflow lock holds up no
// other user: those locks are per user, even for the same application.
TEST(MultiUserTest, OneUsersLocksDoNotDelayAnother) {
  OnMachine([](const MultiUserMachine& machine) {
    if (!Provision(machine)) return 10;
    Pipe held, release;
    const pid_t holder = StartAsUser(machine, AdministratorA(), [&] {
      // The workflow lock as the updater takes it while it works for the application.
      VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
      esd::ResourceLocker workflow("com.example.Same", 0);
      if (!prefs->LockPrefs() || !workflow.Lock()) return 1;
      held.Signal();
      release.Wait();
      return prefs->UnlockPrefs() && workflow.Unlock(false) ? 0 : 2;
    });
    if (!held.Wait()) return 20;
    const int other = AsUser(machine, AdministratorB(), [] {
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
