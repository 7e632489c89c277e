// Several processes changing the same store at once, each through its own read-modify-write:
// none may lose another's change. Every save writes the whole tree its load produced, so any
// path that loads, lets the lock go, and saves later overwrites what others wrote meanwhile.

#include <list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/SemaphoreGuard.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"

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
  testing_support::SemaphoreGuard guard(temp /
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

}  // namespace
