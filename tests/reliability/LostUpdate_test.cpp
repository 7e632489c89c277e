// What a busy lock and a killed saver leave must not cost other hosts' changes: a store whose
// lock stays busy is not taken for an empty or unusable one, and a killed preference save's
// temporary is removed by the right save only. (That concurrent read-modify-writes and killed
// saves lose nothing is the torture's and the crash harness's to prove.)

#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

namespace {

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
    testing_support::UpdaterSandbox sandbox;
    sandbox.env().SetGroups({"admin"});
    sandbox.InstallUpdater();
    sandbox.env().RecordLaunches(true, 0);
    const std::string store = download ? sandbox.MissingCompsFile() : sandbox.RegistryFile();
    testing_support::LockFileGuard guard(store);
    for (const char* id : {"org.example.A", "org.example.B"}) ASSERT_EQ(kROZResultOK, call(id));
    const std::string before = testing_support::ReadFile(store);

    // Another host holds the lock for 5 s: long enough for two of the store's two-second waits
    // to run out, and released while a third wait is under way.
    testing_support::Pipe locked;
    const pid_t holder = testing_support::StartChild([&] {
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
    EXPECT_EQ(0, testing_support::WaitChild(holder));
    EXPECT_EQ(before, testing_support::ReadFile(store)) << store;
  }
}

// A preference save killed between writing its temporary and renaming it leaves the temporary
// behind. Only a save made under the lock may remove such files (without it, one may be another
// host's save under way), and only files of that pattern.
TEST(CrashSafety, LockedPreferenceSaveRemovesTemporariesOfKilledSaves) {
  testing_support::TempDir temp;
  const std::string path = temp / "Prefs.dat";
  const std::string stale = path + ".new1f2e3d4c5b6a7980", unrelated = path + ".newer";
  testing_support::WriteFile(stale, "<VantuUpdater><A>1</A>");
  testing_support::WriteFile(unrelated, "not ours");
  ASSERT_TRUE(esd::PrefsWriter(path, "VantuUpdater").SetPref<std::string>("A", "1"));
  EXPECT_TRUE(std::filesystem::exists(stale)) << "a save without the lock removed a temporary";

  const std::string resource = testing_support::UniqueResourceName("prefs");
  testing_support::LockFileGuard guard(resource);
  esd::ResourceLocker lock(resource, 1000);
  esd::PrefsWriter writer("", "VantuUpdater");
  writer.SetLockPolicy(&lock);
  writer.SetPrefsPath(path);
  ASSERT_TRUE(writer.SetPref<std::string>("A", "2"));
  EXPECT_FALSE(std::filesystem::exists(stale));
  EXPECT_TRUE(std::filesystem::exists(unrelated));
}

}  // namespace
