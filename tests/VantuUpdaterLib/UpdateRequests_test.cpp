// The requests that drive the updater: the availability exchange's odd cases (the exchange
// itself is the reference updater's end-to-end test), the update-check trigger with the user's
// automatic-check settings, and the plug-in action.

#include <boost/date_time/gregorian/gregorian.hpp>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "VantuUpdaterLib/LibraryTestFixture.h"
#include "support/TempDir.h"
#include "xplat/VantuUpdaterPrefs.h"

namespace vantu_test {
namespace {

using boost::gregorian::date;
using testing_support::WriteFile;

class UpdateRequestsTest : public LibraryTest {
 protected:
  void SetUp() override {
    BecomeAdministrator();
    InstallUpdater();
    sandbox.env().SetToday(date(2026, 3, 10));
  }

  std::string RequestFolder() const { return sandbox.CacheDataDir() + "/UpdateAvailable/" + appID; }

  int32_t AskAvailable(unsigned long request, bool& available, bool registerFirst = true) {
    return ROZIsUpdateAvailable(appID.c_str(), U(displayName), U(installPath), request, &available,
                                registerFirst);
  }

  int32_t Trigger(ROZTriggerType type, const char* language = "en_US") {
    return ROZTriggerUpdateCheck(appID.c_str(), U(displayName), U(installPath), language, type,
                                 false);
  }

  static VantuUpdaterPrefs* Prefs() { return VantuUpdaterPrefs::GetVantuUpdaterPrefs(); }

  static std::string Launch() {
    std::string launch;
    Prefs()->Launch.Get(launch);
    return launch;
  }
};

// A result file that says nothing usable is consumed as "no update".
TEST_F(UpdateRequestsTest, UnreadableAnswerCountsAsNoUpdate) {
  for (const std::string content :
       {"<UpdateInfo><Result>1</Result>", "<UpdateInfo><Result>yes</Result></UpdateInfo>",
        "<UpdateInfo><Result>1</Result><Result>1</Result></UpdateInfo>", "<Other/>", ""}) {
    std::filesystem::create_directories(RequestFolder());
    WriteFile(RequestFolder() + "/7.xml", content);
    bool available = true;
    EXPECT_EQ(0, AskAvailable(7, available, false)) << content;
    EXPECT_FALSE(available) << content;
    EXPECT_FALSE(Exists(RequestFolder())) << content;
  }
  EXPECT_TRUE(sandbox.Launches().empty());
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
}

TEST_F(UpdateRequestsTest, ActiveWorkflowOrMissingUpdaterStartsNothing) {
  std::filesystem::create_directories(sandbox.runtimeDir() + "/Updater5/locked");
  WriteFile(sandbox.MarkerFile(appID), "lock");
  bool available = false;
  EXPECT_EQ(8, AskAvailable(1, available, false));
  EXPECT_FALSE(Exists(RequestFolder()));

  // Without an installed updater the marker is taken back, so the next request may try again.
  std::filesystem::remove(sandbox.MarkerFile(appID));
  sandbox.RemoveUpdater();
  EXPECT_EQ(2, AskAvailable(1, available, false));
  EXPECT_FALSE(Exists(sandbox.MarkerFile(appID)));
  EXPECT_TRUE(sandbox.Launches().empty());
}

// A manual check always starts the updater and marks the launch as the user's.
TEST_F(UpdateRequestsTest, ManualTriggerAlwaysStartsTheUpdater) {
  ASSERT_TRUE(Prefs()->AutoCheck.Set(false));
  EXPECT_EQ(0, Trigger(kROZTriggerManual, "EN-us"));
  const auto launches = sandbox.WaitForLaunches(1);
  ASSERT_EQ(1u, launches.size());
  EXPECT_EQ("0", launches[0].environment.at("RZ_LAUNCH_MODE"));
  EXPECT_EQ(appID, launches[0].environment.at("RZ_LAUNCH_APPID"));
  EXPECT_EQ("en-US", launches[0].environment.at("RZ_DISPLAY_LANG"));
  EXPECT_EQ("Manual", Launch());
  // Without registerFirst the store is not touched; with it, the application is registered.
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ(0, ROZTriggerUpdateCheck(appID.c_str(), U(displayName), U(installPath), nullptr,
                                     kROZTriggerManual, true));
  EXPECT_NE(std::string::npos, FileText(sandbox.RegistryFile()).find(appID));
}

// A scheduled check honours the user's settings: nothing starts when automatic checks are off
// or the last check is recent, and then the answer is still success.
TEST_F(UpdateRequestsTest, ScheduledTriggerHonoursTheAutomaticCheckSettings) {
  ASSERT_TRUE(Prefs()->AutoCheck.Set(false));
  EXPECT_EQ(0, Trigger(kROZTriggerScheduled));

  ASSERT_TRUE(Prefs()->AutoCheck.Set(true));
  ASSERT_TRUE(Prefs()->AutoCheckFreq.Set(1));
  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-04")));  // six days ago
  EXPECT_EQ(0, Trigger(kROZTriggerScheduled));
  EXPECT_TRUE(sandbox.Launches().empty());
  EXPECT_EQ("", Launch());

  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-03")));  // a week ago
  EXPECT_EQ(0, Trigger(kROZTriggerScheduled, "de"));
  const auto launches = sandbox.WaitForLaunches(1);
  ASSERT_EQ(1u, launches.size());
  EXPECT_EQ("1", launches[0].environment.at("RZ_LAUNCH_MODE"));
  EXPECT_EQ(0u, launches[0].environment.count("RZ_DISPLAY_LANG"));
  EXPECT_EQ("Scheduled", Launch());
}

// On the first run a scheduled check is shown to the user; afterwards it runs in the
// background, in the tray only for the default check type. A manual launch still pending is
// never turned into a scheduled one.
TEST_F(UpdateRequestsTest, ScheduledTriggerAfterTheFirstRunRunsInTheBackground) {
  EXPECT_EQ(0, Trigger(kROZTriggerScheduled));
  bool flag = true;
  ASSERT_TRUE(Prefs()->InBackground.Get(flag));
  EXPECT_FALSE(flag);
  EXPECT_EQ("Scheduled", Launch());

  ASSERT_TRUE(Prefs()->IsFirstRun.Set(false));
  ASSERT_TRUE(Prefs()->Launch.Set(std::string("Manual")));
  EXPECT_EQ(0, Trigger(kROZTriggerScheduled));
  ASSERT_TRUE(Prefs()->InBackground.Get(flag));
  EXPECT_TRUE(flag);
  ASSERT_TRUE(Prefs()->InTrayIcon.Get(flag));
  EXPECT_TRUE(flag);
  EXPECT_EQ("Manual", Launch());

  ASSERT_TRUE(Prefs()->AutoCheckType.Set(2));
  EXPECT_EQ(0, Trigger(kROZTriggerScheduled));
  ASSERT_TRUE(Prefs()->InTrayIcon.Get(flag));
  EXPECT_FALSE(flag);
  EXPECT_EQ(3u, sandbox.WaitForLaunches(3).size());
}

// Without an application the updater checks everything: no checks beyond name and path, nothing
// registered even when asked to, and the launch counts as the user's.
TEST_F(UpdateRequestsTest, TriggerWithoutApplicationStartsAGeneralCheck) {
  const std::string notUTF8Path = "/opt/\xC0\x80";
  EXPECT_EQ(0, ROZTriggerUpdateCheck(nullptr, U(displayName), U(notUTF8Path), nullptr,
                                     kROZTriggerScheduled, true));
  const auto launches = sandbox.WaitForLaunches(1);
  ASSERT_EQ(1u, launches.size());
  EXPECT_EQ("1", launches[0].environment.at("RZ_LAUNCH_MODE"));
  EXPECT_EQ(0u, launches[0].environment.count("RZ_LAUNCH_APPID"));
  EXPECT_EQ("Manual", Launch());
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));

  sandbox.RemoveUpdater();
  EXPECT_EQ(2, ROZTriggerUpdateCheck(nullptr, U(displayName), U(installPath), nullptr,
                                     kROZTriggerManual, false));
}

TEST_F(UpdateRequestsTest, PluginActionRunsOnlyForRegisteredApplicationsWhenDue) {
  EXPECT_EQ(6, ROZDoPluginAction(appID.c_str()));
  ASSERT_EQ(0, Register(appID));

  // Checked recently: nothing to do yet.
  ASSERT_TRUE(Prefs()->AutoCheckFreq.Set(1));
  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-09")));
  EXPECT_EQ(0, ROZDoPluginAction(appID.c_str()));
  EXPECT_TRUE(sandbox.Launches().empty());

  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-02-01")));
  EXPECT_EQ(0, ROZDoPluginAction(appID.c_str()));
  const auto launches = sandbox.WaitForLaunches(1);
  ASSERT_EQ(1u, launches.size());
  EXPECT_EQ(appID, launches[0].environment.at("doActionAppID"));
  EXPECT_EQ(nullptr, std::getenv("doActionAppID"));
}

// A running updater is busy: the action is refused before the identifier is even looked at.
TEST_F(UpdateRequestsTest, PluginActionWhileTheUpdaterRunsAnswersTwelve) {
  ASSERT_EQ(0, Register(appID));
  const size_t started = StartRunningUpdater();
  EXPECT_EQ(12, ROZDoPluginAction(appID.c_str()));
  EXPECT_EQ(12, ROZDoPluginAction(""));
  EXPECT_EQ(started, sandbox.Launches().size());
}

}  // namespace
}  // namespace vantu_test
