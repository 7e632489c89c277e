// Registering and unregistering host applications through the exports and the facade, against
// the real registered-applications store in a sandboxed machine.

#include <filesystem>
#include <string>
#include <vector>

#include "CEsdUpdate.h"
#include "VantuUpdaterLib/LibraryTestFixture.h"
#include "support/FileStamp.h"

namespace vantu_test {
namespace {

using testing_support::WriteFile;

using RegistrationTest = LibraryTest;

// The store's answers reach the host as result codes. An entry the store will not write (an
// encoded surrogate passes the UTF-8 check, XML cannot carry it) fails alone: the other entries
// stay.
TEST_F(RegistrationTest, StoreAnswersBecomeResultCodes) {
  ASSERT_EQ(kROZResultOK, Register(appID));
  ASSERT_EQ(kROZResultOK, ROZRegisterApplication(otherAppID.c_str(), U("Other"), U("/opt/O")));
  const std::string text = FileText(sandbox.RegistryFile());
  EXPECT_EQ(kROZResultRegistryNotUpdated, Register(appID));
  EXPECT_EQ(kROZResultRegistryUnusable,
            ROZRegisterApplication(appID.c_str(), U("Host \xED\xA0\x80"), U(installPath)));
  EXPECT_EQ(text, FileText(sandbox.RegistryFile()));
  EXPECT_EQ(kROZResultOK, ROZRegisterApplication(appID.c_str(), U(displayName), U("/opt/Moved")));
  EXPECT_FALSE(Has(FileText(sandbox.RegistryFile()), "/opt/Example Host"));
  EXPECT_TRUE(Has(FileText(sandbox.RegistryFile()), "<InstallPath>/opt/Moved</InstallPath>"));
}

// A store whose folder cannot be had (a machine folder the user may not create, no home) is an
// ordinary failure for a host: a result code, never an exception unwinding into C code.
TEST_F(RegistrationTest, StoreWithoutItsFolderIsAFailureNotAnException) {
  BecomeAdministrator();
  WriteFile(sandbox.root() + "/var", "a file where the machine folders should be");
  EXPECT_EQ(kROZResultRegistryUnusable, Register(appID));
  EXPECT_EQ(kROZResultRegistryUnusable, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_EQ(kROZResultNotRegistered,
            CEsdUpdate().AddOrUpdateRegistration(appID.c_str(), U(displayName), U(installPath)));
  sandbox.env().SetHome("");
  ROZMissingComptList empty = {0, nullptr};
  EXPECT_EQ(kROZResultMissingCompsStoreFailed,
            ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), nullptr,
                                         &empty, kROZDownloadMissingCompTypeDefault, false));
}

// Unregistering removes the entry and its cached result; an unknown application changes nothing.
// The last application to leave starts the updater in clean-up mode, unless it already runs.
TEST_F(RegistrationTest, UnregisteringAndTheLastApplicationLeaving) {
  BecomeAdministrator();
  sandbox.InstallUpdater();
  ASSERT_EQ(kROZResultOK, Register(appID));
  ASSERT_EQ(kROZResultOK, Register(otherAppID));
  const auto cached = [&](const std::string& id) {
    return sandbox.CacheDataDir() + "/" + id + ".rzp.xml";
  };
  std::filesystem::create_directories(sandbox.CacheDataDir());
  for (const std::string& id : {appID, otherAppID}) WriteFile(cached(id), "<UpdateInfo/>");

  const auto before = sandbox.Snapshot();
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication("org.example.Unknown"));
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication(appID.substr(1).c_str()));
  EXPECT_EQ(before, sandbox.Snapshot());

  EXPECT_EQ(kROZResultOK, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_FALSE(Has(FileText(sandbox.RegistryFile()), appID));
  EXPECT_FALSE(Exists(cached(appID)));
  EXPECT_TRUE(Exists(cached(otherAppID)));
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));

  ASSERT_EQ(kROZResultOK, ROZUnRegisterApplication(otherAppID.c_str()));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ("5", Launched(1, "RZ_LAUNCH_MODE"));
  // With no store left at all, unregistering is a store failure.
  EXPECT_EQ(kROZResultRegistryUnusable, ROZUnRegisterApplication(appID.c_str()));

  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  const size_t started = StartRunningUpdater();
  ASSERT_EQ(kROZResultOK, Register(appID));
  ASSERT_EQ(kROZResultOK, ROZUnRegisterApplication(appID.c_str()));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ(started, LaunchesAfterAWhile(started)) << "a second updater";
}

// The facade's registration step: without a display name the application is registered under
// its identifier; an entry that is up to date, also when a carriage return reads back as a line
// feed, is success without a write; its own checks are only for null; any failure is "not
// registered".
TEST_F(RegistrationTest, AddOrUpdateRegistration) {
  CEsdUpdate facade;
  const std::string moved = "/opt/Line\rBreak";
  const struct {
    const char* id;
    const char* name;
    const char* path;
    int32_t result;
    std::string stored;  // a part of the store afterwards
  } steps[] = {
      {appID.c_str(), nullptr, "/opt/a", kROZResultOK, "<DisplayName>" + appID + "</DisplayName>"},
      {appID.c_str(), "Example Host", "/opt/a", kROZResultOK, "<DisplayName>Example Host<"},
      {appID.c_str(), "Example Host", moved.c_str(), kROZResultOK, "/opt/Line"},
      {appID.c_str(), nullptr, moved.c_str(), kROZResultOK, "<DisplayName>Example Host<"},
      {appID.c_str(), "Example Host", moved.c_str(), kROZResultOK, "/opt/Line"},
      {nullptr, "Example Host", "/opt/a", kROZResultInvalidArgument, "/opt/Line"},
      {appID.c_str(), "Example Host", nullptr, kROZResultInvalidArgument, "/opt/Line"},
      {appID.c_str(), "Example Host", "", kROZResultNotRegistered, "/opt/Line"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(std::string(step.name ? step.name : "null") + ", " + (step.path ? step.path : ""));
    const testing_support::FileStamp stamp = testing_support::StampOf(sandbox.RegistryFile());
    EXPECT_EQ(step.result, facade.AddOrUpdateRegistration(
                               step.id, step.name ? U(step.name) : nullptr,
                               step.path ? U(step.path) : nullptr));
    EXPECT_TRUE(Has(FileText(sandbox.RegistryFile()), step.stored));
    EXPECT_TRUE(&step < &steps[3] || stamp == testing_support::StampOf(sandbox.RegistryFile()))
        << "an up-to-date entry was written";
  }
}

// The workflows reach one another through the object, so a facade that answers differently
// changes them all.
class RecordingFacade : public CEsdUpdate {
 public:
  int32_t ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                                 const unsigned char* installPath) override {
    registered.push_back(std::string(appID) + "|" + reinterpret_cast<const char*>(displayName) +
                         "|" + reinterpret_cast<const char*>(installPath));
    return kROZResultRegistryNotUpdated;
  }
  bool ROZIsUpdateCheckEnabled() override { return enabled; }

  std::vector<std::string> registered;
  bool enabled = true;
};

TEST_F(RegistrationTest, WorkflowsCallOneAnotherThroughTheObject) {
  sandbox.env().SetGroups({"users"});  // the real answer would be "disabled"
  RecordingFacade facade;
  EXPECT_EQ(kROZResultNotRegistered,
            facade.AddOrUpdateRegistration(appID.c_str(), nullptr, U(installPath)));
  EXPECT_EQ(std::vector<std::string>{appID + "|" + appID + "|" + installPath}, facade.registered);

  // The download asks the overridden question and registers through the override, whose
  // failure it reports before recording anything.
  ROZMissingComptList empty = {0, nullptr};
  EXPECT_EQ(kROZResultNotRegistered, facade.ROZDownloadMissingComponents(
                                         appID.c_str(), U(displayName), U(installPath), nullptr,
                                         &empty, kROZDownloadMissingCompTypeDefault, true));
  EXPECT_EQ(2u, facade.registered.size());
  EXPECT_FALSE(Exists(sandbox.MissingCompsFile()));

  facade.enabled = false;
  EXPECT_EQ(kROZResultUpdateCheckDisabled, facade.ROZDoPluginAction(appID.c_str()));
  EXPECT_EQ(kROZResultUpdateCheckDisabled,
            facade.ROZTriggerUpdateCheck(nullptr, U(displayName), U(installPath), nullptr,
                                         kROZTriggerManual, false));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
}

}  // namespace
}  // namespace vantu_test
