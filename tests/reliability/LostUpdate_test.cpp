// A store whose lock stays busy must not be taken for an empty or unusable one: the caller
// fails, and every other process's entries stay. (Concurrent read-modify-writes losing nothing
// is the torture run's to prove.)

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/LockHolder.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"

namespace {

unsigned Request(const std::string& appID, const std::string& component) {
  std::string name = component, category = "Dictionary", version = "1.0";
  return VantuUpdaterMissingCompsManager().UpdateWithAppAndCompData(
      appID.c_str(), reinterpret_cast<const unsigned char*>("Name"),
      reinterpret_cast<const unsigned char*>("/opt/app"), 0, &name[0], &category[0], &version[0]);
}

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

// A registration that cannot have the store's lock tells the host so (4). It must not take a
// store it never managed to read for an unusable one: deleting and rebuilding it once the lock
// frees would throw away every other host's registration.
TEST(LostUpdate, RegistrationThatTimesOutOnTheLockKeepsEveryOtherRegistration) {
  testing_support::UpdaterSandbox sandbox;
  testing_support::LockFileGuard guard(sandbox.RegistryFile());
  for (const char* id : {"org.example.A", "org.example.B"})
    ASSERT_EQ(kROZResultOK, ROZRegisterApplication(id, U("Name"), U("/opt/app")));
  const std::string before = testing_support::ReadFile(sandbox.RegistryFile());

  // Held for 5 s: long enough for two of the store's two-second waits to run out, and released
  // while a third wait is under way.
  testing_support::LockHolder holder(sandbox.RegistryFile(), 5000);
  ASSERT_TRUE(holder.Locked());
  EXPECT_EQ(kROZResultRegistryUnusable,
            ROZRegisterApplication("org.example.C", U("Name"), U("/opt/app")));
  EXPECT_EQ(0, holder.Wait());
  EXPECT_EQ(before, testing_support::ReadFile(sandbox.RegistryFile()));
}

// A missing-components store that its manager could not read because the lock stayed busy is
// not empty: the manager's end must not delete it once the lock frees.
TEST(LostUpdate, MissingComponentsSurviveAManagerThatTimedOutOnTheLock) {
  testing_support::UpdaterSandbox sandbox;
  sandbox.env().SetGroups({"admin"});
  sandbox.env().RecordLaunches(true, 0);
  sandbox.InstallUpdater();
  testing_support::LockFileGuard guard(sandbox.MissingCompsFile());
  ASSERT_EQ(0u, Request("org.example.A", "Spelling"));
  const std::string before = testing_support::ReadFile(sandbox.MissingCompsFile());

  testing_support::LockHolder holder(sandbox.MissingCompsFile(), 5000);
  ASSERT_TRUE(holder.Locked());
  std::string category = "Dictionary", name = "Grammar", version = "1.0";
  ROZMissingComponent component{&category[0], &name[0], &version[0]};
  ROZMissingComponent* components[] = {&component};
  ROZMissingComptList list{1, components};
  EXPECT_EQ(kROZResultMissingCompsStoreFailed,
            ROZDownloadMissingComponents("org.example.B", U("Name"), U("/opt/app"), "en_US", &list,
                                         kROZDownloadMissingCompTypeDefault, false));
  EXPECT_EQ(0, holder.Wait());
  ASSERT_TRUE(std::filesystem::exists(sandbox.MissingCompsFile()));
  EXPECT_EQ(before, testing_support::ReadFile(sandbox.MissingCompsFile()));
}

}  // namespace
