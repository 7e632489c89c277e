// A store whose lock stays busy must not be taken for an empty or unusable one: the caller
// fails, and every other host's entries stay. (Concurrent read-modify-writes losing nothing is
// the torture's to prove.)

#include <string>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/LockFiles.h"
#include "support/LockHolder.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"

namespace {

const unsigned char* U(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

int32_t Register(const char* appID) {
  return ROZRegisterApplication(appID, U("Name"), U("/opt/app"));
}

int32_t Request(const char* appID) {
  std::string category = "Dictionary", name = "Spelling", version = "1.0";
  ROZMissingComponent component{&category[0], &name[0], &version[0]};
  ROZMissingComponent* components[] = {&component};
  ROZMissingComptList list{1, components};
  return ROZDownloadMissingComponents(appID, U("Name"), U("/opt/app"), "en_US", &list,
                                      kROZDownloadMissingCompTypeDefault, false);
}

// A call that cannot have the store's lock tells the host so. It must not take a store it never
// managed to read for an unusable one (and rebuild it), nor for an empty one (and delete it once
// the lock frees): either would throw away every other host's entries.
TEST(LostUpdate, ACallThatTimesOutOnTheStoreLockKeepsEveryOtherEntry) {
  const struct {
    bool registry;
    int32_t (*call)(const char*);
    int32_t refused;
  } cases[] = {{true, Register, kROZResultRegistryUnusable},
               {false, Request, kROZResultMissingCompsStoreFailed}};
  for (const auto& c : cases) {
    testing_support::UpdaterSandbox sandbox;
    sandbox.env().SetGroups({"admin"});
    sandbox.env().RecordLaunches(true, 0);
    sandbox.InstallUpdater();
    const std::string store = c.registry ? sandbox.RegistryFile() : sandbox.MissingCompsFile();
    testing_support::LockFileGuard guard(store);
    for (const char* id : {"org.example.A", "org.example.B"}) ASSERT_EQ(kROZResultOK, c.call(id));
    const std::string before = testing_support::ReadFile(store);

    // Held for 5 s: long enough for two of the store's two-second waits to run out, and
    // released while a third wait is under way.
    testing_support::LockHolder holder(store, 5000);
    ASSERT_TRUE(holder.Locked());
    EXPECT_EQ(c.refused, c.call("org.example.C")) << store;
    EXPECT_EQ(0, holder.Wait());
    EXPECT_EQ(before, testing_support::ReadFile(store)) << store;
  }
}

}  // namespace
