// Another local user attacks the locks of root's and an administrator's hosts, as real distinct
// users on a private machine: files planted at the lock names, squatting, a holder that dies.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/LockFiles.h"
#include "support/MultiUser.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"

namespace {

using namespace testing_support;
using Clock = std::chrono::steady_clock;

const char kAppID[] = "com.example.Victim";
const char kPrefsLock[] = "VantuUpdater";

std::string Registry(const MultiUserMachine& machine) {
  return machine.AllUsersDataDir() + "/VantuESDGlobalApps.xml";
}

// Whether `who` can create, or open for writing, a file at `path`.
bool CanWrite(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666);
  if (fd >= 0) ::close(fd);
  return fd >= 0;
}

// The attacker plants a file at the old semaphore name of every lock a host takes and tries the
// lock files' names; then root's and an administrator's hosts register, read the preferences,
// take the workflow lock and unregister, each answering at once and correctly. The store's lock
// is shared by the update group alone: another administrator waits for it, an ordinary user and
// the attacker can neither take it nor plant anything where the locks live; per-user locks are
// never shared; the lock of a holder killed outright is free at once.
TEST(LockAttack, OnlyTheEntitledShareALockAndPlantedFilesOrADeadHolderBlockNoHost) {
  const int status = RunOnMachine([](const MultiUserMachine& machine) {
    std::string why;
    if (!machine.InstallAllUsersFolder(AdministratorsGroup(), why)) return 1;
    const std::string lockFile =
        machine.AllUsersDataDir() + "/" + esd::ResourceLocker::GetLockFileName(Registry(machine));
    const std::string names[] = {kPrefsLock, kAppID, Registry(machine)};
    const int planted = machine.RunHost(Attacker(), [&] {
      for (const std::string& name : names) {
        const std::string file = esd::ResourceLocker::GetLockFileName(name);
        WriteFile("/dev/shm/sem." + file, "");
        for (const UserIdentity* victim : {&RootUser(), &AdministratorA()})
          if (CanWrite(machine.RuntimeDirOf(*victim) + "/" + file)) return 1;
        if (CanWrite(machine.AllUsersDataDir() + "/" + file)) return 1;
      }
      return 0;
    });
    if (planted != 0) return 10 + planted;
    for (const UserIdentity* victim : {&RootUser(), &AdministratorA()}) {
      const int host = machine.RunHost(*victim, [&] {
        const auto start = Clock::now();
        const unsigned char name[] = "Victim", path[] = "/opt/Victim";
        if (ROZRegisterApplication(kAppID, name, path) != kROZResultOK) return 1;
        if (ROZIsUpdateCheckEnabled() != 1) return 2;
        esd::ResourceLocker workflow(kAppID, 1000);
        if (!workflow.Lock() || !workflow.Unlock(false)) return 3;
        if (ROZUnRegisterApplication(kAppID) != kROZResultOK) return 4;
        return Clock::now() - start < std::chrono::seconds(2) ? 0 : 5;
      });
      if (host != 0) return 20 + host;
    }
    Pipe held;
    const pid_t holder = machine.StartHost(AdministratorA(), [&] {
      // Ends with this machine's process, however the test leaves it.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      esd::ResourceLocker store(Registry(machine), 0), prefs(kPrefsLock, 0);
      if (!store.Lock() || !prefs.Lock()) return 1;
      held.Signal();
      ::pause();
      return 0;
    });
    if (!held.Wait()) return 30;
    struct stat info {};
    if (::stat(lockFile.c_str(), &info) != 0 || (info.st_mode & 07777) != 0660 ||
        info.st_gid != AdministratorsGroup())
      return 31;
    const int other = machine.RunHost(AdministratorB(), [&] {
      esd::ResourceLocker store(Registry(machine), 0), prefs(kPrefsLock, 0);
      return !store.Lock() && prefs.Lock() ? 0 : 1;
    });
    if (other != 0) return 40 + other;
    for (const UserIdentity* outsider : {&OrdinaryUser(), &Attacker()}) {
      const int refused = machine.RunHost(*outsider, [&] {
        const auto start = Clock::now();
        esd::ResourceLocker store(Registry(machine), 2000);
        if (store.Lock() || Clock::now() - start > std::chrono::milliseconds(500)) return 1;
        const int readable = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
        return readable < 0 && !CanWrite(lockFile + "x") &&
                       !CanWrite(machine.RuntimeDirOf(AdministratorA()) + "/x")
                   ? 0
                   : 2;
      });
      if (refused != 0) return 50 + refused;
    }
    ::kill(holder, SIGKILL);
    WaitChild(holder);
    return machine.RunHost(AdministratorB(), [&] {
      esd::ResourceLocker store(Registry(machine), 0);
      return store.Lock() ? 0 : 1;
    }) == 0 ? 0 : 60;
  });
  if (status == kMachineUnavailable) GTEST_SKIP() << "needs root and mount namespaces";
  EXPECT_EQ(0, status);
}

}  // namespace
