// Several processes changing the same store at once, each through its own read-modify-write:
// none may lose another's change. Every save writes the whole tree its load produced, so any
// path that loads, lets the lock go, and saves later overwrites what others wrote meanwhile.

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/LockHolder.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"

namespace {

unsigned Request(const std::string& appID, const std::string& component) {
  std::string name = component, category = "Dictionary", version = "1.0";
  return VantuUpdaterMissingCompsManager().UpdateWithAppAndCompData(
      appID.c_str(), reinterpret_cast<const unsigned char*>("Name"),
      reinterpret_cast<const unsigned char*>("/opt/app"), 0, &name[0], &category[0], &version[0]);
}

// Components added to entries that exist already: the lookup binds to a loaded tree and the save
// writes that tree, so the two must be one locked step.
TEST(LostUpdate, ProcessesAddingToExistingMissingComponentEntriesLoseNothing) {
  constexpr int kProcesses = 6;
  constexpr int kComponents = 12;
  testing_support::TempDir temp;
  testing_support::TestEnv env;
  env.SetRoot(temp / "root");
  env.SetHome(temp / "home");
  esd::ScopedEnv scope(&env);
  testing_support::LockFileGuard guard(temp /
                                        "home/.local/share/Vantu/Updater5/VantuMissingComps.xml");
  for (int i = 0; i < kProcesses; ++i) ASSERT_EQ(0u, Request("App" + std::to_string(i), "C0"));

  testing_support::Pipe go;
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(testing_support::StartChild([&go, i]() {
      if (!go.Wait()) return 90;
      for (int c = 1; c < kComponents; ++c) {
        if (Request("App" + std::to_string(i), "C" + std::to_string(c)) != 0) return 10 + c;
      }
      return 0;
    }));
  }
  for (size_t i = 0; i < children.size(); ++i) go.Signal();
  for (pid_t child : children) EXPECT_EQ(0, testing_support::WaitChild(child));

  VantuUpdaterMissingCompsManager store;
  for (int i = 0; i < kProcesses; ++i) {
    std::unique_ptr<VantuUpdaterMissingCompsApp> entry;
    ASSERT_TRUE(store.GetMissingCompsAppByAppID("App" + std::to_string(i), entry));
    std::list<VantuUpdaterAMissingComponent> components;
    ASSERT_TRUE(entry->GetMissingComponents(components));
    EXPECT_EQ(static_cast<size_t>(kComponents), components.size()) << "App" << i;
  }
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
