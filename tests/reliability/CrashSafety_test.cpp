// What hosts killed while they save leave behind is cleaned up, by the right save only. (That
// nothing whose call returned is lost is the crash harness's to prove.)

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

namespace {

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
