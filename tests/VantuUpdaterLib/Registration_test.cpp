// Registering and unregistering host applications through the exports and the facade, against
// the real registered-applications store in a sandboxed machine.

#include <filesystem>
#include <string>
#include <vector>

#include "CEsdUpdate.h"
#include "VantuUpdaterLib/LibraryTestFixture.h"
#include "support/FileStamp.h"
#include "support/TempDir.h"

namespace vantu_test {
namespace {

using testing_support::WriteFile;

class RegistrationTest : public LibraryTest {
 protected:
  std::string CachedResult(const std::string& id) {
    return sandbox.CacheDataDir() + "/" + id + ".rzp.xml";
  }
};

// The store's answers reach the host as result codes: a new entry 0, the same one again "nothing
// new" (5, the file untouched), a changed one 0. Entry text and order are the store's own tests.
TEST_F(RegistrationTest, RegisteringStoresTheEntryAndAChangeReplacesIt) {
  ASSERT_EQ(0, Register(appID));
  ASSERT_EQ(0, ROZRegisterApplication(otherAppID.c_str(), U("Other"), U("/opt/Other")));
  std::string text = FileText(sandbox.RegistryFile());
  EXPECT_NE(std::string::npos, text.find("<InstallPath>/opt/Example Host</InstallPath>")) << text;
  EXPECT_EQ(5, Register(appID));
  EXPECT_EQ(text, FileText(sandbox.RegistryFile()));

  EXPECT_EQ(0, ROZRegisterApplication(appID.c_str(), U(displayName), U("/opt/Moved Host")));
  text = FileText(sandbox.RegistryFile());
  EXPECT_EQ(std::string::npos, text.find("/opt/Example Host"));
  EXPECT_NE(std::string::npos, text.find("<InstallPath>/opt/Moved Host</InstallPath>"));
}

// A store that cannot be read is rebuilt from the new entry alone rather than refusing every
// host from now on.
TEST_F(RegistrationTest, DamagedStoreIsRebuiltFromTheNewEntry) {
  std::filesystem::create_directories(sandbox.AllUsersDataDir());
  WriteFile(sandbox.RegistryFile(),
            "<?xml version=\"1.0\"?><VantuUpdaterRegistrationManager><Application appID=\"lost\">");
  EXPECT_EQ(0, Register(appID));
  const std::string text = FileText(sandbox.RegistryFile());
  EXPECT_NE(std::string::npos, text.find("appID=\"" + appID + "\""));
  EXPECT_EQ(std::string::npos, text.find("lost"));
}

// An entry the store will not write (an encoded surrogate passes the UTF-8 check, but XML cannot
// carry it) fails alone: the readable store is not rebuilt, so nobody else loses a registration.
TEST_F(RegistrationTest, EntryTheStoreCannotWriteCostsNoOtherRegistration) {
  ASSERT_EQ(0, Register(otherAppID));
  const std::string before = FileText(sandbox.RegistryFile());
  const std::string surrogateName = "Host \xED\xA0\x80";
  EXPECT_EQ(4, ROZRegisterApplication(appID.c_str(), U(surrogateName), U(installPath)));
  EXPECT_EQ(before, FileText(sandbox.RegistryFile()));
}

// A store whose folder cannot be had (a machine folder the user may not create, no home) is an
// ordinary failure for a host: a result code, never an exception unwinding into C code.
TEST_F(RegistrationTest, StoreWithoutItsFolderIsAFailureNotAnException) {
  BecomeAdministrator();
  WriteFile(sandbox.root() + "/var", "a file where the machine folders should be");
  EXPECT_EQ(4, Register(appID));
  EXPECT_EQ(4, ROZUnRegisterApplication(appID.c_str()));
  CEsdUpdate facade;
  EXPECT_EQ(6, facade.AddOrUpdateRegistration(appID.c_str(), U(displayName), U(installPath)));

  sandbox.env().SetHome("");
  ROZMissingComptList empty = {0, nullptr};
  EXPECT_EQ(1, ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), nullptr,
                                            &empty, kROZDownloadMissingCompTypeDefault, false));
}

TEST_F(RegistrationTest, UnregisteringRemovesTheEntryAndItsCachedResult) {
  BecomeAdministrator();
  InstallUpdater();
  ASSERT_EQ(0, Register(appID));
  ASSERT_EQ(0, Register(otherAppID));
  std::filesystem::create_directories(sandbox.CacheDataDir());
  WriteFile(CachedResult(appID), "<UpdateInfo></UpdateInfo>");
  WriteFile(CachedResult(otherAppID), "<UpdateInfo></UpdateInfo>");

  // Unknown applications are not an error of the store, and change nothing.
  const auto before = sandbox.Snapshot();
  const std::string registry = FileText(sandbox.RegistryFile());
  EXPECT_EQ(6, ROZUnRegisterApplication("org.example.Unknown"));
  EXPECT_EQ(6, ROZUnRegisterApplication(appID.substr(0, appID.size() - 1).c_str()));
  EXPECT_EQ(before, sandbox.Snapshot());
  EXPECT_EQ(registry, FileText(sandbox.RegistryFile()));

  EXPECT_EQ(0, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_EQ(std::string::npos, FileText(sandbox.RegistryFile()).find(appID));
  EXPECT_FALSE(Exists(CachedResult(appID)));
  EXPECT_TRUE(Exists(CachedResult(otherAppID)));
  // Others are still registered: the updater is not started.
  EXPECT_EQ(6, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_TRUE(sandbox.Launches().empty());
}

// The last application to leave starts the updater in clean-up mode, unless it already runs.
TEST_F(RegistrationTest, LastApplicationLeavingStartsTheUpdaterToCleanUp) {
  InstallUpdater();
  ASSERT_EQ(0, Register(appID));
  ASSERT_EQ(0, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  const auto launches = sandbox.WaitForLaunches(1);
  ASSERT_EQ(1u, launches.size());
  EXPECT_EQ("5", launches[0].environment.at("RZ_LAUNCH_MODE"));

  // With no store left at all, unregistering is a store failure.
  EXPECT_EQ(4, ROZUnRegisterApplication(appID.c_str()));

  const size_t started = StartRunningUpdater();
  ASSERT_EQ(0, Register(otherAppID));
  ASSERT_EQ(0, ROZUnRegisterApplication(otherAppID.c_str()));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ(started, sandbox.Launches().size());
}

TEST_F(RegistrationTest, AddOrUpdateRegistrationWritesOnlyWhatChanged) {
  CEsdUpdate facade;
  // Without a display name the application is registered under its identifier.
  ASSERT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), nullptr, U(installPath)));
  EXPECT_NE(std::string::npos,
            FileText(sandbox.RegistryFile()).find("<DisplayName>" + appID + "</DisplayName>"));

  // Same path and no name, or same path and same name: nothing is written.
  const testing_support::FileStamp written = testing_support::StampOf(sandbox.RegistryFile());
  const std::string text = FileText(sandbox.RegistryFile());
  EXPECT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), nullptr, U(installPath)));
  EXPECT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), U(appID), U(installPath)));
  EXPECT_EQ(text, FileText(sandbox.RegistryFile()));
  EXPECT_TRUE(written == testing_support::StampOf(sandbox.RegistryFile()));

  // A carriage return reads back from the file as a line feed; the value is still the same, and
  // neither the facade nor the store rewrites the file for it.
  const std::string crPath = "/opt/Line\rBreak\r\nHost";
  ASSERT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), U(appID), U(crPath)));
  const testing_support::FileStamp withReturns = testing_support::StampOf(sandbox.RegistryFile());
  EXPECT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), U(appID), U(crPath)));
  EXPECT_EQ(5, ROZRegisterApplication(appID.c_str(), U(appID), U(crPath)));  // as any repeat
  EXPECT_TRUE(withReturns == testing_support::StampOf(sandbox.RegistryFile()));

  // A different name or path is registered.
  EXPECT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), U(displayName), U(installPath)));
  EXPECT_NE(std::string::npos,
            FileText(sandbox.RegistryFile()).find("<DisplayName>Example Host</DisplayName>"));
  EXPECT_EQ(0, facade.AddOrUpdateRegistration(appID.c_str(), nullptr, U("/opt/Moved")));
  EXPECT_NE(std::string::npos,
            FileText(sandbox.RegistryFile()).find("<InstallPath>/opt/Moved</InstallPath>"));

  // Its own checks are only for null; the registration's checks follow, and any failure of the
  // registration is reported as "not registered".
  EXPECT_EQ(3, facade.AddOrUpdateRegistration(nullptr, U(displayName), U(installPath)));
  EXPECT_EQ(3, facade.AddOrUpdateRegistration(appID.c_str(), U(displayName), nullptr));
  EXPECT_EQ(6, facade.AddOrUpdateRegistration(otherAppID.c_str(), U(displayName), U("")));
}

// The workflows reach one another through the object, so a facade that answers differently
// changes them all.
class RecordingFacade : public CEsdUpdate {
 public:
  int32_t ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                                 const unsigned char* installPath) override {
    registered.push_back(std::string(appID) + "|" + reinterpret_cast<const char*>(displayName) +
                         "|" + reinterpret_cast<const char*>(installPath));
    return registerResult;
  }
  bool ROZIsUpdateCheckEnabled() override { return enabled; }

  std::vector<std::string> registered;
  int32_t registerResult = 0;
  bool enabled = true;
};

TEST_F(RegistrationTest, WorkflowsCallOneAnotherThroughTheObject) {
  BecomeOrdinaryUser();  // the real answer would be "disabled"
  RecordingFacade facade;
  facade.registerResult = 5;
  EXPECT_EQ(6, facade.AddOrUpdateRegistration(appID.c_str(), nullptr, U(installPath)));
  ASSERT_EQ(1u, facade.registered.size());
  EXPECT_EQ(appID + "|" + appID + "|" + installPath, facade.registered[0]);

  // The download asks the overridden question (enabled) and registers through the override,
  // whose failure it reports as "not registered" before recording anything.
  ROZMissingComptList empty = {0, nullptr};
  EXPECT_EQ(
      6, facade.ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), nullptr,
                                             &empty, kROZDownloadMissingCompTypeDefault, true));
  EXPECT_EQ(2u, facade.registered.size());
  EXPECT_FALSE(Exists(sandbox.MissingCompsFile()));

  facade.enabled = false;
  EXPECT_EQ(7, facade.ROZDoPluginAction(appID.c_str()));
  EXPECT_EQ(7, facade.ROZTriggerUpdateCheck(nullptr, U(displayName), U(installPath), nullptr,
                                            kROZTriggerManual, false));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
}

}  // namespace
}  // namespace vantu_test
