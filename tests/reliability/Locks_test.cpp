// What a busy lock, a killed saver and a hostile local user leave must not cost hosts' changes
// nor block them. (That concurrent read-modify-writes and killed saves lose nothing is the
// torture's and the crash harness's to prove.)

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/MultiUser.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

namespace {

using namespace testing_support;
using Clock = std::chrono::steady_clock;

// A call that cannot have the store's lock tells the host so. It must not take a store it never
// managed to read for an unusable one (and rebuild it), nor for an empty one (and delete it once
// the lock frees): either would throw away every other host's entries.
TEST(LostUpdate, ACallThatTimesOutOnTheStoreLockKeepsEveryOtherEntry) {
  for (const bool download : {false, true}) {
    const auto call = [download](const char* appID) {
      const unsigned char name[] = "Name", path[] = "/opt/app";
      char category[] = "Dictionary", component[] = "Spelling", version[] = "1.0";
      ROZMissingComponent entry{category, component, version};
      ROZMissingComponent* entries[] = {&entry};
      ROZMissingComptList list{1, entries};
      return download ? ROZDownloadMissingComponents(appID, name, path, "de_DE", &list,
                                                     kROZDownloadMissingCompTypeDefault, false)
                      : ROZRegisterApplication(appID, name, path);
    };
    UpdaterSandbox sandbox;
    sandbox.env().SetGroups({"admin"});
    sandbox.InstallUpdater();
    sandbox.env().RecordLaunches(true, 0);
    const std::string store = download ? sandbox.MissingCompsFile() : sandbox.RegistryFile();
    LockFileGuard guard(store);
    for (const char* id : {"org.example.A", "org.example.B"}) ASSERT_EQ(kROZResultOK, call(id));
    const std::string before = ReadFile(store);

    // Another host holds the lock for 5 s: long enough for two of the store's two-second waits
    // to run out, and released while a third wait is under way.
    Pipe locked;
    const pid_t holder = StartChild([&] {
      esd::ResourceLocker lock(store, 0);
      if (!lock.Lock()) return 1;
      locked.Signal();
      ::usleep(5000000);
      return lock.Unlock(false) ? 0 : 2;
    });
    ASSERT_TRUE(locked.Wait());
    EXPECT_EQ(download ? kROZResultMissingCompsStoreFailed : kROZResultRegistryUnusable,
              call("org.example.C"))
        << store;
    EXPECT_EQ(0, WaitChild(holder));
    EXPECT_EQ(before, ReadFile(store)) << store;
  }
}

// A preference save killed between writing its temporary and renaming it leaves the temporary
// behind. Only a save under the lock may remove such files (the crash harness sees it do so):
// without the lock, one may be another host's save under way.
TEST(CrashSafety, APreferenceSaveWithoutTheLockRemovesNoTemporary) {
  TempDir temp;
  const std::string path = temp / "Prefs.dat";
  const std::string temporary = path + ".new1f2e3d4c5b6a7980";
  WriteFile(temporary, "<VantuUpdater><A>1</A>");
  ASSERT_TRUE(esd::PrefsWriter(path, "VantuUpdater").SetPref<std::string>("A", "1"));
  EXPECT_TRUE(std::filesystem::exists(temporary));
}

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

// Another local user, real and distinct, plants a file at the old semaphore name of every lock
// a host takes and tries the lock files' names; root's and an administrator's hosts still
// register, read the preferences, take the workflow lock and unregister at once. The store's lock
// is shared by the update group alone: another administrator waits for it, an ordinary user and
// the attacker can neither take it, read its file nor plant anything where the locks live;
// per-user locks are never shared.
TEST(LockAttack, OnlyTheEntitledShareALockAndPlantedFilesBlockNoHost) {
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
    if (holder < 0 || !held.Wait()) return 30;
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
    // The holder ends with this process (that a killed holder's lock is free is the crash
    // harness's to prove).
    return 0;
  });
  if (status == kMachineUnavailable) GTEST_SKIP() << "needs root and mount namespaces";
  EXPECT_EQ(0, status);
}

}  // namespace
