// Hosts killed while they save: nothing whose call returned may be lost, and what the killed
// saves leave behind is cleaned up.

#include <filesystem>
#include <iostream>
#include <string>

#include <gtest/gtest.h>

#include "support/LockFiles.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

namespace {

// The full count: under a minute on a disk with a few milliseconds per sync.
constexpr int kKills = 1000;

// SIGKILLs at random moments of registrations, missing-component requests and preference
// writes, each followed by a check that no lock outlived the host (nothing is repaired) and a
// load through the library that must find every returned call's change and at most the one in
// flight besides.
TEST(CrashSafety, KilledHostsLoseNoReturnedChange) {
  testing_support::RunOptions options;
  options.timeoutMs = 600000;
  const testing_support::ProgramResult run =
      testing_support::RunProgram({CRASH_HARNESS, "--kills", std::to_string(kKills)}, options);
  EXPECT_EQ(0, run.exitStatus) << run.out << run.err;
  std::cout << run.out;
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
