// The requests that drive the updater: the availability exchange's odd cases (the exchange
// itself is the reference updater's end-to-end test), the update-check trigger with the user's
// automatic-check settings, the plug-in action and missing-component requests.

#include <boost/date_time/gregorian/gregorian.hpp>
#include <filesystem>
#include <string>
#include <vector>

#include "VantuUpdaterLib/LibraryTestFixture.h"
#include "xplat/VantuUpdaterPrefs.h"

namespace vantu_test {
namespace {

using testing_support::WriteFile;

class UpdateRequestsTest : public LibraryTest {
 protected:
  void SetUp() override {
    BecomeAdministrator();
    sandbox.InstallUpdater();
    sandbox.env().SetToday(boost::gregorian::date(2026, 3, 10));
  }

  std::string RequestFolder() const { return sandbox.CacheDataDir() + "/UpdateAvailable/" + appID; }

  int32_t AskAvailable(unsigned long request, bool& available) {
    return ROZIsUpdateAvailable(appID.c_str(), U(displayName), U(installPath), request, &available,
                                false);
  }

  int32_t Trigger(ROZTriggerType type, const char* language = "en_US") {
    return ROZTriggerUpdateCheck(appID.c_str(), U(displayName), U(installPath), language, type,
                                 false);
  }

  int32_t Download(const Components& request, const char* language = "fr_FR") {
    return ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), language,
                                        &request.list, static_cast<ROZDownloadMissingCompType>(2),
                                        false);
  }

  static VantuUpdaterPrefs* Prefs() { return VantuUpdaterPrefs::GetVantuUpdaterPrefs(); }

  static std::string Launch() {
    std::string launch;
    Prefs()->Launch.Get(launch);
    return launch;
  }

  static bool Flag(esd::BasicPref<bool>& preference) {
    bool flag = false;
    EXPECT_TRUE(preference.Get(flag));
    return flag;
  }
};

// A result file that says nothing usable is consumed as "no update". An active workflow answers
// "pending" and starts nothing; without an installed updater the marker is taken back, so the
// next request may try again.
TEST_F(UpdateRequestsTest, AvailabilityOddCases) {
  bool available = true;
  for (const char* content :
       {"<UpdateInfo><Result>1</Result>", "<UpdateInfo><Result>yes</Result></UpdateInfo>",
        "<UpdateInfo><Result>1</Result><Result>1</Result></UpdateInfo>", "<Other/>", ""}) {
    std::filesystem::create_directories(RequestFolder());
    WriteFile(RequestFolder() + "/7.xml", content);
    EXPECT_EQ(kROZResultOK, AskAvailable(7, available)) << content;
    EXPECT_FALSE(available) << content;
    EXPECT_FALSE(Exists(RequestFolder())) << content;
  }
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));

  std::filesystem::create_directories(sandbox.runtimeDir() + "/Updater5/locked");
  WriteFile(sandbox.MarkerFile(appID), "lock");
  EXPECT_EQ(kROZResultAnswerPending, AskAvailable(1, available));
  EXPECT_FALSE(Exists(RequestFolder()));
  std::filesystem::remove(sandbox.MarkerFile(appID));
  sandbox.RemoveUpdater();
  EXPECT_EQ(kROZResultUpdaterUnavailable, AskAvailable(1, available));
  EXPECT_FALSE(Exists(sandbox.MarkerFile(appID)));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));
}

// A manual check always starts the updater, automatic checks off or not, and marks the launch as
// the user's; with registerFirst it registers the application. Without an application the
// updater checks everything: nothing is registered even when asked to, and the launch counts as
// the user's whatever its type.
TEST_F(UpdateRequestsTest, ManualAndGeneralChecksAlwaysStartTheUpdater) {
  ASSERT_TRUE(Prefs()->AutoCheck.Set(false));
  EXPECT_EQ(kROZResultOK, Trigger(kROZTriggerManual, "EN-us"));
  EXPECT_EQ("0", Launched(1, "RZ_LAUNCH_MODE"));
  EXPECT_EQ(appID, Launched(1, "RZ_LAUNCH_APPID"));
  EXPECT_EQ("en-US", Launched(1, "RZ_DISPLAY_LANG"));
  EXPECT_EQ("Manual", Launch());
  ASSERT_TRUE(Prefs()->Launch.Set(std::string()));
  EXPECT_EQ(kROZResultOK, ROZTriggerUpdateCheck(nullptr, U(displayName), U(installPath), nullptr,
                                                kROZTriggerScheduled, true));
  EXPECT_EQ("1", Launched(2, "RZ_LAUNCH_MODE"));
  EXPECT_EQ("<unset>", Launched(2, "RZ_LAUNCH_APPID"));
  EXPECT_EQ("Manual", Launch());
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ(kROZResultOK, ROZTriggerUpdateCheck(appID.c_str(), U(displayName), U(installPath),
                                                nullptr, kROZTriggerManual, true));
  EXPECT_TRUE(Has(FileText(sandbox.RegistryFile()), appID));
  sandbox.RemoveUpdater();
  EXPECT_EQ(kROZResultUpdaterUnavailable,
            ROZTriggerUpdateCheck(nullptr, U(displayName), U(installPath), nullptr,
                                  kROZTriggerManual, false));
}

// A scheduled check starts nothing (and still succeeds) when automatic checks are off or the
// last check is recent. On the first run it is shown to the user; afterwards it runs in the
// background, in the tray only for the default check type. A manual launch still pending is
// never turned into a scheduled one.
TEST_F(UpdateRequestsTest, ScheduledTriggerHonoursTheUsersSettings) {
  ASSERT_TRUE(Prefs()->AutoCheck.Set(false));
  EXPECT_EQ(kROZResultOK, Trigger(kROZTriggerScheduled));
  ASSERT_TRUE(Prefs()->AutoCheck.Set(true));
  ASSERT_TRUE(Prefs()->AutoCheckFreq.Set(1));
  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-04")));  // six days ago
  EXPECT_EQ(kROZResultOK, Trigger(kROZTriggerScheduled));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));
  EXPECT_EQ("", Launch());

  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-03")));  // a week ago
  EXPECT_EQ(kROZResultOK, Trigger(kROZTriggerScheduled, "de"));
  EXPECT_EQ("1", Launched(1, "RZ_LAUNCH_MODE"));
  EXPECT_EQ("<unset>", Launched(1, "RZ_DISPLAY_LANG"));
  EXPECT_EQ("Scheduled", Launch());
  EXPECT_FALSE(Flag(Prefs()->InBackground));

  ASSERT_TRUE(Prefs()->IsFirstRun.Set(false));
  ASSERT_TRUE(Prefs()->Launch.Set(std::string("Manual")));
  EXPECT_EQ(kROZResultOK, Trigger(kROZTriggerScheduled));
  EXPECT_TRUE(Flag(Prefs()->InBackground));
  EXPECT_TRUE(Flag(Prefs()->InTrayIcon));
  EXPECT_EQ("Manual", Launch());
  ASSERT_TRUE(Prefs()->AutoCheckType.Set(2));
  EXPECT_EQ(kROZResultOK, Trigger(kROZTriggerScheduled));
  EXPECT_FALSE(Flag(Prefs()->InTrayIcon));
  EXPECT_EQ(3u, sandbox.WaitForLaunches(3).size());
}

// The action runs only when a check is due, and a running updater refuses it before the
// identifier is even looked at. (That it runs for a registered application is the reference
// updater's end-to-end test.)
TEST_F(UpdateRequestsTest, PluginActionWaitsForItsPeriodAndAnIdleUpdater) {
  ASSERT_EQ(kROZResultOK, Register(appID));
  ASSERT_TRUE(Prefs()->AutoCheckFreq.Set(1));
  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-09")));
  EXPECT_EQ(kROZResultOK, ROZDoPluginAction(appID.c_str()));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));

  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-02-01")));
  const size_t started = StartRunningUpdater();
  EXPECT_EQ(kROZResultUpdaterRunning, ROZDoPluginAction(appID.c_str()));
  EXPECT_EQ(kROZResultUpdaterRunning, ROZDoPluginAction(""));
  EXPECT_EQ(started, LaunchesAfterAWhile(started)) << "a second updater";
}

// A missing-components request is recorded, versions in four parts, and starts the updater in
// download mode with the host's language; an empty list records nothing but still wakes it. The
// first failing entry ends a request: entries before it stay recorded, those after it are not,
// and nothing starts. Without an installed updater the request is still recorded. (A running
// updater is signalled instead: the reference updater's end-to-end test sees that.)
TEST_F(UpdateRequestsTest, MissingComponentRequests) {
  EXPECT_EQ(kROZResultOK, Download({{"fonts", "Serif", "1.0"}, {"fonts", "Mono", "2.1"}}, "fr_fr"));
  const std::string store = FileText(sandbox.MissingCompsFile());
  for (const std::string& part :
       {"AppID=\"" + appID + "\"", std::string("OperationType=\"2\""),
        std::string("<AMissingComponent category=\"fonts\" name=\"Serif\" version=\"1.0.0.0\">"),
        std::string("<AMissingComponent category=\"fonts\" name=\"Mono\" version=\"2.1.0.0\">")})
    EXPECT_NE(std::string::npos, store.find(part)) << part;
  EXPECT_EQ("3", Launched(1, "RZ_LAUNCH_MODE"));
  EXPECT_EQ("fr_FR", Launched(1, "RZ_DISPLAY_LANG"));

  // Each request below must find the updater gone, or it would signal instead of starting it.
  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  EXPECT_EQ(kROZResultOK, Download({}, "en"));
  EXPECT_EQ(store, FileText(sandbox.MissingCompsFile()));
  EXPECT_EQ("<unset>", Launched(2, "RZ_DISPLAY_LANG")) << "a short code is no language";

  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  EXPECT_EQ(kROZResultMissingCompsStoreFailed,
            Download({{"fonts", "Sans", "1.0"}, {nullptr, "Bold", "1.0"}, {"fonts", "Thin", "1"}}));
  ROZMissingComponent* holes[] = {nullptr};
  const ROZMissingComptList withHole = {1, holes};
  EXPECT_EQ(kROZResultMissingCompsStoreFailed,
            ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), nullptr,
                                         &withHole, kROZDownloadMissingCompTypeDefault, false));
  for (const auto& [name, recorded] : {std::pair<std::string, bool>{"Sans", true}, {"Bold", false},
                                       {"Thin", false}})
    EXPECT_EQ(recorded, Has(FileText(sandbox.MissingCompsFile()), "name=\"" + name + "\""));
  EXPECT_EQ(2u, LaunchesAfterAWhile(2));

  sandbox.RemoveUpdater();
  EXPECT_EQ(kROZResultUpdaterUnavailable, Download({{"fonts", "Thin", "1.0"}}));
  EXPECT_TRUE(Has(FileText(sandbox.MissingCompsFile()), "name=\"Thin\""));
}

}  // namespace
}  // namespace vantu_test
